#pragma once

#include <set>
#include <vector>

#include "infra/oss/kruTrace.h"

namespace tq::test {

/// The host's trace facility while it lives; it wants all records, and keeps their numbers.
class RecordingFacility : public tq::oss::TraceFacility {
 public:
  RecordingFacility() { tq::oss::setTraceFacility(this); }
  ~RecordingFacility() override { tq::oss::setTraceFacility(nullptr); }
  RecordingFacility(const RecordingFacility&) = delete;
  RecordingFacility& operator=(const RecordingFacility&) = delete;

  unsigned long getComponentTraceFlags(unsigned int component) override {
    components.insert(component);
    return 0x20083;
  }
  void traceEntry(unsigned int functionId) override {
    entries.insert(functionId);
    sequence.push_back(functionId);
  }
  void traceExit(unsigned int functionId, long) override { exits.insert(functionId); }

  std::set<unsigned int> components;
  std::multiset<unsigned int> entries;
  std::multiset<unsigned int> exits;
  // The entries as they came.
  std::vector<unsigned int> sequence;
};

}  // namespace tq::test
