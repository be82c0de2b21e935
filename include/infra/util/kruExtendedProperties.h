#pragma once

#include <unicode/unistr.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "infra/oss/kruExport.h"

namespace tq::util {

/// Named texts, in the code-unit order of their names (capitals before lower case). Names are
/// compared exactly. Calls on one object must not overlap.
///
/// A copy is a set of its own that takes no memory for the texts: it shares each property with the
/// original until either puts another value there. Copies may be used on different threads.
///
/// Where memory runs out, std::bad_alloc is thrown, or `tq::oss::NLSException` with the id
/// "TQ_ERR_OUT_OF_MEMORY" for the memory of a text: a set holds no bogus text, which would read as
/// an empty one. After an assignment that throws, the set is empty or a part of the other.
class KRU_EXPORT ExtendedProperties {
 public:
  using Map = std::map<icu::UnicodeString, icu::UnicodeString>;
  using value_type = Map::value_type;
  class const_iterator;

  ExtendedProperties() noexcept;
  ExtendedProperties(const ExtendedProperties& other);
  ExtendedProperties(ExtendedProperties&& other) noexcept;
  ExtendedProperties& operator=(const ExtendedProperties& other);
  ExtendedProperties& operator=(ExtendedProperties&& other) noexcept;
  virtual ~ExtendedProperties();

  /// Adds the property; replaces the value of a name that is there already. Changes nothing when it
  /// throws. Both texts are copied, also those that only refer to units of the caller's.
  void putProperty(const icu::UnicodeString& name, const icu::UnicodeString& value);
  void putProperty(icu::UnicodeString&& name, icu::UnicodeString&& value);
  /// The same for literals, whose units are copied once. They end with a zero; null reads as an
  /// empty text.
  void putProperty(const char16_t* name, const char16_t* value);

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

  std::size_t size() const noexcept { return many_ == nullptr ? count_ : many_->size(); }
  void clear() noexcept;

  /// Elements have the name as `first` and the value as `second`. An iterator is valid until the
  /// set is changed; what it refers to, as long as the result of `findProperty`.
  const_iterator begin() const noexcept;
  const_iterator end() const noexcept;

  /// True when both hold the very same properties, as a set and its unchanged copy do. False says
  /// nothing of what they hold.
  bool sharesAllWith(const ExtendedProperties& other) const noexcept;

 private:
  /// A property and the number of the sets that hold it. It changes only while one set holds it.
  struct Property {
    template <typename Name, typename Value>
    Property(Name&& name, Value&& value)
        : texts(std::forward<Name>(name), std::forward<Value>(value)) {}
    Property(std::u16string_view name, std::u16string_view value);

    std::atomic<std::uint32_t> holders{1};
    value_type texts;
  };
  struct Releasing {
    void operator()(Property* property) const noexcept { release(property); }
  };
  using Held = std::unique_ptr<Property, Releasing>;

  /// A place in the form for many, whose order does not depend on the value.
  struct Place {
    mutable Property* property;
  };
  struct ByName {
    using is_transparent = void;
    bool operator()(const Place& a, const Place& b) const noexcept;
    bool operator()(const Place& a, std::u16string_view b) const noexcept;
    bool operator()(std::u16string_view a, const Place& b) const noexcept;
  };
  using Many = std::set<Place, ByName>;

  static constexpr std::uint32_t kFew = 16;

  static Property* hold(Property* property) noexcept;
  static void release(Property* property) noexcept;
  template <typename Name, typename Value>
  static Held make(Name&& name, Value&& value);

  Property** find(std::u16string_view name, std::uint32_t& at) const noexcept;
  static void replace(Property*& present, icu::UnicodeString&& value);
  void add(Held&& property, std::uint32_t at);
  void takeMany();
  void copyFrom(const ExtendedProperties& other);
  void moveFrom(ExtendedProperties& other) noexcept;

  // Few properties stand in their order in the array; more than fit there in the other form, in
  // which adding one costs no moving of all the others.
  std::uint32_t count_ = 0;
  Property* few_[kFew];
  std::unique_ptr<Many> many_;
};

class ExtendedProperties::const_iterator {
 public:
  using iterator_category = std::bidirectional_iterator_tag;
  using value_type = ExtendedProperties::value_type;
  using difference_type = std::ptrdiff_t;
  using pointer = const value_type*;
  using reference = const value_type&;

  const_iterator() noexcept = default;

  reference operator*() const noexcept { return property().texts; }
  pointer operator->() const noexcept { return &property().texts; }

  const_iterator& operator++() noexcept {
    if (few_ != nullptr) {
      ++few_;
    } else {
      ++many_;
    }
    return *this;
  }
  const_iterator& operator--() noexcept {
    if (few_ != nullptr) {
      --few_;
    } else {
      --many_;
    }
    return *this;
  }
  const_iterator operator++(int) noexcept {
    const const_iterator before = *this;
    ++*this;
    return before;
  }
  const_iterator operator--(int) noexcept {
    const const_iterator before = *this;
    --*this;
    return before;
  }

  friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept {
    return a.few_ == b.few_ && (a.few_ != nullptr || a.many_ == b.many_);
  }

 private:
  friend class ExtendedProperties;

  explicit const_iterator(Property* const* few) noexcept : few_(few) {}
  explicit const_iterator(Many::const_iterator many) noexcept : many_(many) {}

  const Property& property() const noexcept { return few_ != nullptr ? **few_ : *many_->property; }

  Property* const* few_ = nullptr;
  Many::const_iterator many_{};
};

inline ExtendedProperties::const_iterator ExtendedProperties::begin() const noexcept {
  return many_ == nullptr ? const_iterator(few_) : const_iterator(many_->begin());
}

inline ExtendedProperties::const_iterator ExtendedProperties::end() const noexcept {
  return many_ == nullptr ? const_iterator(few_ + count_) : const_iterator(many_->end());
}

}  // namespace tq::util
