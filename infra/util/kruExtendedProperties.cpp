#include "infra/util/kruExtendedProperties.h"

#include <limits>
#include <utility>

#include "infra/oss/kruConverter.h"
#include "infra/oss/kruNLSException.h"

namespace tq::util {

namespace {

[[noreturn]] void throwMissing(const icu::UnicodeString& name) {
  icu::UnicodeString text(u"The property \"");
  text.append(name).append(u"\" is missing.");
  oss::Message message(u"TQ_ERR_PROPERTY_MISSING", text);
  message.setFileName("kruExtendedProperties");
  message.addArgument(name);
  throw oss::NLSException(message);
}

[[noreturn]] void throwNoNumber(const icu::UnicodeString& name, const icu::UnicodeString& value) {
  icu::UnicodeString text(u"The value of the property \"");
  text.append(name).append(u"\" is not a number from 0 to 4294967295.");
  oss::Message message(u"TQ_ERR_PROPERTY_NUMBER", text);
  message.setFileName("kruExtendedProperties");
  message.addArgument(name);
  message.addArgument(value);
  throw oss::NLSException(message);
}

void requireWhole(const ExtendedProperties::Map& properties) {
  for (const auto& [name, value] : properties) {
    oss::Converter::checked(name);
    oss::Converter::checked(value);
  }
}

}  // namespace

ExtendedProperties::ExtendedProperties() = default;

ExtendedProperties::ExtendedProperties(const ExtendedProperties& other)
    : properties_(other.properties_) {
  requireWhole(properties_);
}

ExtendedProperties::ExtendedProperties(ExtendedProperties&& other) noexcept = default;

ExtendedProperties& ExtendedProperties::operator=(const ExtendedProperties& other) {
  properties_ = other.properties_;
  try {
    requireWhole(properties_);
  } catch (...) {
    properties_.clear();
    throw;
  }
  return *this;
}

ExtendedProperties& ExtendedProperties::operator=(ExtendedProperties&& other) noexcept = default;
ExtendedProperties::~ExtendedProperties() = default;

void ExtendedProperties::putProperty(const icu::UnicodeString& name,
                                     const icu::UnicodeString& value) {
  // Before it is compared: a bogus name has no place in the order.
  oss::Converter::checked(name);
  icu::UnicodeString copy(value);
  oss::Converter::checked(copy);
  const auto [put, added] = properties_.insert_or_assign(name, std::move(copy));
  if (!added || !put->first.isBogus()) return;
  properties_.erase(put);
  oss::Converter::throwOutOfMemory();
}

void ExtendedProperties::putProperty(icu::UnicodeString&& name, icu::UnicodeString&& value) {
  oss::Converter::checked(name);
  oss::Converter::checked(value);
  properties_.insert_or_assign(std::move(name), std::move(value));
}

const icu::UnicodeString* ExtendedProperties::findProperty(const icu::UnicodeString& name) const {
  const auto found = properties_.find(name);
  return found == properties_.end() ? nullptr : &found->second;
}

icu::UnicodeString ExtendedProperties::getProperty(const icu::UnicodeString& name,
                                                   const icu::UnicodeString& defaultValue) const {
  const icu::UnicodeString* value = findProperty(name);
  return value != nullptr ? *value : defaultValue;
}

const icu::UnicodeString& ExtendedProperties::requireProperty(
    const icu::UnicodeString& name) const {
  const icu::UnicodeString* value = findProperty(name);
  if (value == nullptr) throwMissing(name);
  return *value;
}

std::uint32_t ExtendedProperties::requirePropertyAsUInt32(const icu::UnicodeString& name) const {
  const icu::UnicodeString& value = requireProperty(name);
  if (value.isEmpty()) throwNoNumber(name, value);
  std::uint64_t number = 0;
  for (std::int32_t i = 0; i < value.length(); ++i) {
    const char16_t digit = value.charAt(i);
    if (digit < u'0' || digit > u'9') throwNoNumber(name, value);
    number = number * 10 + static_cast<std::uint64_t>(digit - u'0');
    if (number > std::numeric_limits<std::uint32_t>::max()) throwNoNumber(name, value);
  }
  return static_cast<std::uint32_t>(number);
}

}  // namespace tq::util
