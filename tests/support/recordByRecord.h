#pragma once

#include "infra/oss/kruTrace.h"

namespace tq::test {

/// While one lives, the reply parsers take no short cut: a host that traces sees every record
/// decoded by itself, in the general way. This host asks for no records of the trace.
class RecordByRecord : public oss::TraceFacility {
 public:
  RecordByRecord() { oss::setTraceFacility(this); }
  ~RecordByRecord() override { oss::setTraceFacility(nullptr); }
  RecordByRecord(const RecordByRecord&) = delete;
  RecordByRecord& operator=(const RecordByRecord&) = delete;

  unsigned long getComponentTraceFlags(unsigned int) override { return 0; }
  void traceEntry(unsigned int) override {}
  void traceExit(unsigned int, long) override {}
};

}  // namespace tq::test
