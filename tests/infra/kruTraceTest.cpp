#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "infra/oss/kruTrace.h"

namespace {

using tq::oss::TraceScope;

constexpr unsigned int kFunction = 0x1CD804A0;

class Recorder : public tq::oss::TraceFacility {
 public:
  Recorder() { tq::oss::setTraceFacility(this); }
  ~Recorder() override { tq::oss::setTraceFacility(nullptr); }

  unsigned long getComponentTraceFlags(unsigned int component) override {
    components.push_back(component);
    return flags;
  }
  void traceEntry(unsigned int functionId) override { entries.push_back(functionId); }
  void traceExit(unsigned int functionId, long returnCode) override {
    exits.emplace_back(functionId, returnCode);
  }

  unsigned long flags = 0;
  std::vector<unsigned int> components;
  std::vector<unsigned int> entries;
  std::vector<std::pair<unsigned int, long>> exits;
};

TEST(Trace, ThereIsNoFacilityAtFirst) {
  EXPECT_EQ(tq::oss::getTraceFacility(), nullptr);
  const TraceScope scope(kFunction);
}

TEST(Trace, AsksForTheFlagsOfItsComponentAtEntryAlone) {
  Recorder recorder;
  { const TraceScope scope(kFunction); }
  EXPECT_EQ(recorder.components, std::vector<unsigned int>{155});
  EXPECT_TRUE(recorder.entries.empty());
  EXPECT_TRUE(recorder.exits.empty());
}

TEST(Trace, FlagsThatChangeDuringAnOperationHoldFromTheNextOneOn) {
  for (const unsigned long before : {0x0UL, 0x20000UL}) {
    Recorder recorder;
    recorder.flags = before;
    {
      const TraceScope scope(kFunction);
      recorder.flags ^= 0x20000;
    }
    EXPECT_EQ(recorder.entries.size(), before != 0 ? 1U : 0U);
    EXPECT_EQ(recorder.exits.size(), recorder.entries.size());
  }
}

TEST(Trace, EachMaskDecidesByItself) {
  const struct {
    unsigned long flags;
    bool entry, exit;
  } cases[] = {{0, false, false},       {0x1, true, false},         {0x20000, true, true},
               {0x2, false, true},      {0x80, false, false},       {0x82, false, true},
               {0x3, true, true},       {0x81, true, false},        {0x4, false, false},
               {0x10000, false, false}, {0xFFFDFF7C, false, false}, {0x20083, true, true}};
  for (const auto& c : cases) {
    Recorder recorder;
    recorder.flags = c.flags;
    { const TraceScope scope(kFunction); }
    EXPECT_EQ(recorder.entries.size(), c.entry ? 1U : 0U) << c.flags;
    EXPECT_EQ(recorder.exits.size(), c.exit ? 1U : 0U) << c.flags;
  }
}

TEST(Trace, RecordsTheFunctionAndItsReturnCode) {
  Recorder recorder;
  recorder.flags = 0x20000;
  { const TraceScope scope(kFunction); }
  {
    TraceScope scope(kFunction + 1);
    scope.setReturnCode(42);
  }
  EXPECT_EQ(recorder.entries, (std::vector<unsigned int>{kFunction, kFunction + 1}));
  ASSERT_EQ(recorder.exits.size(), 2U);
  EXPECT_EQ(recorder.exits[0], std::make_pair(kFunction, 0L));
  EXPECT_EQ(recorder.exits[1], std::make_pair(kFunction + 1, 42L));
}

TEST(Trace, AnExceptionLeavesWithMinusOne) {
  Recorder recorder;
  recorder.flags = 0x20000;
  try {
    TraceScope scope(kFunction);
    scope.setReturnCode(42);
    throw std::runtime_error("out of here");
  } catch (const std::runtime_error&) {
  }
  ASSERT_EQ(recorder.exits.size(), 1U);
  EXPECT_EQ(recorder.exits[0].second, -1);
}

TEST(Trace, AnOperationDuringUnwindingReturnsNormally) {
  struct Cleaner {
    ~Cleaner() { const TraceScope scope(kFunction); }
  };
  Recorder recorder;
  recorder.flags = 0x20000;
  try {
    const Cleaner cleaner;
    throw std::runtime_error("out of here");
  } catch (const std::runtime_error&) {
  }
  ASSERT_EQ(recorder.exits.size(), 1U);
  EXPECT_EQ(recorder.exits[0].second, 0);
}

TEST(Trace, AScopeKeepsTheFacilityItBeganWith) {
  Recorder recorder;
  recorder.flags = 0x20000;
  {
    const TraceScope scope(kFunction);
    tq::oss::setTraceFacility(nullptr);
  }
  EXPECT_EQ(recorder.exits.size(), 1U);
}

}  // namespace
