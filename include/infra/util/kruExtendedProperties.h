#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <cstdint>
#include <map>

#include "infra/oss/kruExport.h"

namespace tq::util {

/// Named texts, in the code-unit order of their names (capitals before lower case). Names are
/// compared exactly. One object serves one thread at a time.
///
/// Where memory runs out, std::bad_alloc is thrown, or `tq::oss::NLSException` with the id
/// "TQ_ERR_OUT_OF_MEMORY" for the memory of a text: a set holds no bogus text, which would read as
/// an empty one. After an assignment that throws, the set is empty or a part of the other.
class KRU_EXPORT ExtendedProperties {
 public:
  using Map = std::map<icu::UnicodeString, icu::UnicodeString>;
  using const_iterator = Map::const_iterator;

  ExtendedProperties();
  ExtendedProperties(const ExtendedProperties& other);
  ExtendedProperties(ExtendedProperties&& other) noexcept;
  ExtendedProperties& operator=(const ExtendedProperties& other);
  ExtendedProperties& operator=(ExtendedProperties&& other) noexcept;
  virtual ~ExtendedProperties();

  /// Adds the property; replaces the value of a name that is there already. Changes nothing when it
  /// throws.
  void putProperty(const icu::UnicodeString& name, const icu::UnicodeString& value);
  void putProperty(icu::UnicodeString&& name, icu::UnicodeString&& value);

  /// The value, or null when there is none. Valid until the property is put again or the set is
  /// cleared or destroyed.
  const icu::UnicodeString* findProperty(const icu::UnicodeString& name) const;
  bool contains(const icu::UnicodeString& name) const { return findProperty(name) != nullptr; }

  icu::UnicodeString getProperty(const icu::UnicodeString& name,
                                 const icu::UnicodeString& defaultValue) const;

  /// The value of a property that must be there; valid as long as that of `findProperty`. Throws
  /// `tq::oss::NLSException`, id "TQ_ERR_PROPERTY_MISSING", whose argument is the name.
  const icu::UnicodeString& requireProperty(const icu::UnicodeString& name) const;

  /// The same, read as a decimal number: digits only, at most 4294967295. Anything else throws
  /// `tq::oss::NLSException`, id "TQ_ERR_PROPERTY_NUMBER", with the name and the value as
  /// arguments.
  std::uint32_t requirePropertyAsUInt32(const icu::UnicodeString& name) const;

  std::size_t size() const noexcept { return properties_.size(); }
  void clear() noexcept { properties_.clear(); }

  /// Elements have the name as `first` and the value as `second`.
  const_iterator begin() const noexcept { return properties_.begin(); }
  const_iterator end() const noexcept { return properties_.end(); }

 private:
  Map properties_;
};

}  // namespace tq::util
