#include "comm/kruSelectivityInfo.h"

#include "comm/kruBytes.h"
#include "comm/kruFunctionIds.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

SelectivityInfo::SelectivityInfo(bool withProperties) : GenRespRecord(withProperties) {}
SelectivityInfo::SelectivityInfo(const SelectivityInfo& other) = default;
SelectivityInfo& SelectivityInfo::operator=(const SelectivityInfo& other) = default;
SelectivityInfo::~SelectivityInfo() = default;

int SelectivityInfo::parseRecordNew(const char* buf, unsigned short, unsigned short) {
  const tq::oss::TraceScope scope(trace::SelectivityInfoParseRecordNew);
  first_ = bytes::loadInt(buf);
  // The third value comes before the second on the wire.
  third_ = bytes::loadInt(buf + 4);
  second_ = bytes::loadInt(buf + 8);
  return 0;
}

// The estimate comes in compact records only; a record of properties leaves the values alone.
void SelectivityInfo::reset() {}

}  // namespace tq::comm
