#pragma once

#include <xapian.h>

#include <string>
#include <string_view>

namespace corvaned {

/// Refuses to sort documents by metadata that none of them has.
[[noreturn]] void throwUnsortable(const std::string& name);

/// Puts documents in the order of a value slot, ascending or descending. Documents without a value
/// come last in both, and those of equal value are in the order of their keys.
class ValueOrder : public Xapian::KeyMaker {
 public:
  ValueOrder(Xapian::valueno slot, bool descending) : slot_(slot), descending_(descending) {}

  std::string operator()(const Xapian::Document& document) const override;

  /// The key of the document that was sorted by this.
  static std::string_view keyIn(std::string_view sortedBy);

 private:
  const Xapian::valueno slot_;
  const bool descending_;
};

/// Tells the documents that come after a place in such an order.
class OrderedBehind : public Xapian::MatchDecider {
 public:
  /// Both must outlive it.
  OrderedBehind(const ValueOrder& order, const std::string& place) : order_(order), place_(place) {}

  bool operator()(const Xapian::Document& document) const override {
    return order_(document) > place_;
  }

 private:
  const ValueOrder& order_;
  const std::string& place_;
};

}  // namespace corvaned
