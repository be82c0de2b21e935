#pragma once

#include <xapian.h>

namespace corvaned {

/// Gives every document the weight 0, like the engine's own scheme for that.
///
/// With its own scheme the engine reads the list of all documents in place of that of a word which
/// each of them has. It still looks for the word's name there, and so takes the list for damaged
/// where it consists of several parts, which it does once there are gaps in the numbers of many
/// documents. This scheme has it read the list of the word.
class Unranked : public Xapian::Weight {
 public:
  Unranked() { need_stat(WDF); }

  Unranked* clone() const override { return new Unranked; }
  double get_sumpart(Xapian::termcount, Xapian::termcount, Xapian::termcount) const override {
    return 0;
  }
  double get_maxpart() const override { return 0; }
  double get_sumextra(Xapian::termcount, Xapian::termcount) const override { return 0; }
  double get_maxextra() const override { return 0; }

 private:
  void init(double) override {}
};

}  // namespace corvaned
