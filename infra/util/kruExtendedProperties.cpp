#include "infra/util/kruExtendedProperties.h"

#include <algorithm>
#include <limits>
#include <tuple>
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
  message.setLineNumber(__LINE__);
  message.addArgument(name);
  throw oss::NLSException(message);
}

[[noreturn]] void throwNoNumber(const icu::UnicodeString& name, const icu::UnicodeString& value) {
  icu::UnicodeString text(u"The value of the property \"");
  text.append(name).append(u"\" is not a number from 0 to 4294967295.");
  oss::Message message(u"TQ_ERR_PROPERTY_NUMBER", text);
  message.setFileName("kruExtendedProperties");
  message.setLineNumber(__LINE__);
  message.addArgument(name);
  message.addArgument(value);
  throw oss::NLSException(message);
}

std::u16string_view viewOf(const icu::UnicodeString& text) noexcept {
  return {text.getBuffer(), static_cast<std::size_t>(text.length())};
}

// Null reads as an empty text, as in a text of ICU's that is made from it.
std::u16string_view viewOf(const char16_t* text) noexcept {
  return text == nullptr ? std::u16string_view() : std::u16string_view(text);
}

std::int32_t lengthOf(std::u16string_view text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
    oss::Converter::throwOutOfMemory();
  }
  return static_cast<std::int32_t>(text.size());
}

// Below 0, 0 or above. The names are ordered by their code units; of two that begin alike the
// shorter comes first. Names are short and differ early, so that a loop costs less than a call of
// the library's comparison.
inline int compare(std::u16string_view a, std::u16string_view b) noexcept {
  const std::size_t shorter = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < shorter; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

}  // namespace

bool ExtendedProperties::ByName::operator()(const Place& a, const Place& b) const noexcept {
  return compare(viewOf(a.property->texts.first), viewOf(b.property->texts.first)) < 0;
}

bool ExtendedProperties::ByName::operator()(const Place& a, std::u16string_view b) const noexcept {
  return compare(viewOf(a.property->texts.first), b) < 0;
}

bool ExtendedProperties::ByName::operator()(std::u16string_view a, const Place& b) const noexcept {
  return compare(a, viewOf(b.property->texts.first)) < 0;
}

// A property.

ExtendedProperties::Property::Property(std::u16string_view name, std::u16string_view value)
    : texts(std::piecewise_construct, std::forward_as_tuple(name.data(), lengthOf(name)),
            std::forward_as_tuple(value.data(), lengthOf(value))) {}

ExtendedProperties::Property* ExtendedProperties::hold(Property* property) noexcept {
  property->holders.fetch_add(1, std::memory_order_relaxed);
  return property;
}

void ExtendedProperties::release(Property* property) noexcept {
  // The last holder needs no counting: nobody else can take hold of the property any more.
  if (property->holders.load(std::memory_order_acquire) == 1 ||
      property->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete property;
  }
}

template <typename Name, typename Value>
ExtendedProperties::Held ExtendedProperties::make(Name&& name, Value&& value) {
  Held made(new Property(std::forward<Name>(name), std::forward<Value>(value)));
  oss::Converter::checked(made->texts.first);
  oss::Converter::checked(made->texts.second);
  return made;
}

// The set.

ExtendedProperties::ExtendedProperties() noexcept = default;
ExtendedProperties::ExtendedProperties(const ExtendedProperties& other) { copyFrom(other); }
ExtendedProperties::ExtendedProperties(ExtendedProperties&& other) noexcept { moveFrom(other); }

ExtendedProperties& ExtendedProperties::operator=(const ExtendedProperties& other) {
  if (this == &other) return *this;
  clear();
  copyFrom(other);
  return *this;
}

ExtendedProperties& ExtendedProperties::operator=(ExtendedProperties&& other) noexcept {
  if (this == &other) return *this;
  clear();
  moveFrom(other);
  return *this;
}

ExtendedProperties::~ExtendedProperties() { clear(); }

void ExtendedProperties::copyFrom(const ExtendedProperties& other) {
  if (other.many_ != nullptr) {
    many_ = std::make_unique<Many>(*other.many_);
    for (const Place& place : *many_) hold(place.property);
    return;
  }
  for (std::uint32_t i = 0; i < other.count_; ++i) few_[i] = hold(other.few_[i]);
  count_ = other.count_;
}

void ExtendedProperties::moveFrom(ExtendedProperties& other) noexcept {
  many_ = std::move(other.many_);
  std::copy_n(other.few_, other.count_, few_);
  count_ = std::exchange(other.count_, 0);
}

void ExtendedProperties::clear() noexcept {
  for (std::uint32_t i = 0; i < count_; ++i) release(few_[i]);
  count_ = 0;
  if (many_ == nullptr) return;
  for (const Place& place : *many_) release(place.property);
  many_.reset();
}

// In the form for few `at` becomes where the name is or would have to be.
ExtendedProperties::Property** ExtendedProperties::find(std::u16string_view name,
                                                        std::uint32_t& at) const noexcept {
  if (many_ != nullptr) {
    const auto found = many_->find(name);
    return found == many_->end() ? nullptr : &found->property;
  }
  at = 0;
  for (std::uint32_t last = count_; at < last;) {
    const std::uint32_t middle = (at + last) / 2;
    const int order = compare(name, viewOf(few_[middle]->texts.first));
    if (order == 0) return const_cast<Property**>(few_ + middle);
    if (order < 0) {
      last = middle;
    } else {
      at = middle + 1;
    }
  }
  return nullptr;
}

void ExtendedProperties::replace(Property*& present, icu::UnicodeString&& value) {
  if (present->holders.load(std::memory_order_acquire) == 1) {
    present->texts.second = std::move(value);
    return;
  }
  Held changed = make(present->texts.first, std::move(value));
  release(present);
  present = changed.release();
}

/// `at` is where `find` has looked for the name in vain.
void ExtendedProperties::add(Held&& property, std::uint32_t at) {
  if (many_ == nullptr && count_ == kFew) takeMany();
  if (many_ != nullptr) {
    many_->insert(Place{property.get()});
    static_cast<void>(property.release());
    return;
  }
  std::copy_backward(few_ + at, few_ + count_, few_ + count_ + 1);
  few_[at] = property.release();
  ++count_;
}

void ExtendedProperties::takeMany() {
  auto many = std::make_unique<Many>();
  for (std::uint32_t i = 0; i < count_; ++i) many->insert(many->end(), Place{few_[i]});
  many_ = std::move(many);
  count_ = 0;
}

void ExtendedProperties::putProperty(const icu::UnicodeString& name,
                                     const icu::UnicodeString& value) {
  // Before it is compared: a bogus name has no place in the order.
  oss::Converter::checked(name);
  std::uint32_t at = 0;
  Property** const present = find(viewOf(name), at);
  if (present == nullptr) return add(make(name, value), at);
  icu::UnicodeString copy(value);
  oss::Converter::checked(copy);
  replace(*present, std::move(copy));
}

void ExtendedProperties::putProperty(icu::UnicodeString&& name, icu::UnicodeString&& value) {
  // A text may only refer to units of its caller's, and would do so still when it has been moved.
  putProperty(std::as_const(name), std::as_const(value));
}

void ExtendedProperties::putProperty(const char16_t* name, const char16_t* value) {
  const std::u16string_view nameUnits = viewOf(name);
  const std::u16string_view valueUnits = viewOf(value);
  std::uint32_t at = 0;
  Property** const present = find(nameUnits, at);
  if (present == nullptr) return add(make(nameUnits, valueUnits), at);
  icu::UnicodeString text(valueUnits.data(), lengthOf(valueUnits));
  oss::Converter::checked(text);
  replace(*present, std::move(text));
}

const icu::UnicodeString* ExtendedProperties::findProperty(const icu::UnicodeString& name) const {
  // A bogus name reads as an empty one, which may well be there.
  if (name.isBogus()) return nullptr;
  std::uint32_t at = 0;
  Property* const* found = find(viewOf(name), at);
  return found == nullptr ? nullptr : &(*found)->texts.second;
}

bool ExtendedProperties::sharesAllWith(const ExtendedProperties& other) const noexcept {
  if (many_ == nullptr && other.many_ == nullptr) {
    return count_ == other.count_ && std::equal(few_, few_ + count_, other.few_);
  }
  return size() == other.size() &&
         std::equal(begin(), end(), other.begin(),
                    [](const value_type& a, const value_type& b) { return &a == &b; });
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
