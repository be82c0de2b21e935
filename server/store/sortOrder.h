#pragma once

#include <xapian.h>

#include <string>
#include <string_view>

namespace corvaned {

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

}  // namespace corvaned
