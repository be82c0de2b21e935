#pragma once

#include <cstdint>

#include "comm/kruGenRespRecord.h"

namespace tq::comm {

/// A selectivity estimate: three numbers whose meaning server and caller agree on. 1, 1 and 100
/// until a compact record sets them; over the HTTP protocol they always stay so. Calls on one
/// object must not overlap; different objects are independent.
class KRU_EXPORT SelectivityInfo : public GenRespRecord {
 public:
  explicit SelectivityInfo(bool withProperties);
  /// Both copy the three values only; each object keeps its own property set.
  SelectivityInfo(const SelectivityInfo& other);
  SelectivityInfo& operator=(const SelectivityInfo& other);
  ~SelectivityInfo() override;

  /// Reads 12 bytes, whatever `len` and `recordType` say: three unsigned 32-bit big-endian
  /// integers, the first value, then the third, then the second. Returns 0.
  int parseRecordNew(const char* buf, unsigned short len, unsigned short recordType) override;
  /// Does nothing.
  void reset() override;

  std::int64_t getFirst() const { return first_; }
  std::int64_t getSecond() const { return second_; }
  std::int64_t getThird() const { return third_; }

 private:
  std::int64_t first_ = 1;
  std::int64_t second_ = 1;
  std::int64_t third_ = 100;
};

}  // namespace tq::comm
