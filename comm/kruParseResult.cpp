#include "comm/kruParseResult.h"

#include "comm/kruFunctionIds.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

ParseResult::ParseResult(bool withProperties) : GenRespRecord(withProperties) {
  // One object serves a whole reply, in which a record without a message may follow one with.
  forgetsPreviousRecord_ = true;
}

ParseResult::ParseResult(const ParseResult& other) = default;
ParseResult& ParseResult::operator=(const ParseResult& other) = default;
ParseResult::~ParseResult() = default;

void ParseResult::reset() {
  const tq::oss::TraceScope scope(trace::ParseResultReset);
  document_.remove();
  hasMessage_ = false;
  message_ = tq::oss::Message();
  if (getProperties() == nullptr) init(true);
  document_ = getProperties()->requireProperty(StaticDefs::DOC);
  hasMessage_ = parseMessage(message_, false);
}

}  // namespace tq::comm
