#include "comm/kruOpenResult.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

#include "comm/kruBuiltFirst.h"
#include "comm/kruFunctionIds.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

namespace {

KRU_BUILT_FIRST const icu::UnicodeString kPort(u"port");

// As atoi, but with a result for a number that no int holds.
int leadingNumber(const icu::UnicodeString& text) {
  const std::string digits = tq::oss::Converter::toUTF8(text);
  const long number = std::strtol(digits.c_str(), nullptr, 10);
  constexpr long kLowest = std::numeric_limits<int>::min();
  constexpr long kHighest = std::numeric_limits<int>::max();
  return static_cast<int>(std::clamp(number, kLowest, kHighest));
}

}  // namespace

OpenResult::OpenResult(bool withProperties) : GenRespRecord(withProperties) {}
OpenResult::OpenResult(const OpenResult& other) = default;
OpenResult& OpenResult::operator=(const OpenResult& other) = default;
OpenResult::~OpenResult() = default;

void OpenResult::reset() {
  const tq::oss::TraceScope scope(trace::OpenResultReset);
  if (getProperties() == nullptr) init(true);
  port_ = leadingNumber(getProperties()->requireProperty(kPort));
}

}  // namespace tq::comm
