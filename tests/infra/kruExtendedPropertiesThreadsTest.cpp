// Copies share their properties and nothing that a thread could notice.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "infra/util/kruExtendedProperties.h"

namespace {

using tq::util::ExtendedProperties;

constexpr int kThreads = 4;
constexpr int kRounds = 400;

icu::UnicodeString numbered(int number) {
  return icu::UnicodeString::fromUTF8(std::to_string(number));
}

/// Changes its copy, and a copy of that, and lets both go.
void work(std::unique_ptr<ExtendedProperties> own, int thread) {
  const icu::UnicodeString mine = numbered(thread);
  for (int round = 0; round < kRounds; ++round) {
    ExtendedProperties copy = *own;
    copy.putProperty(u"5", mine);
    if (round % 3 == 0) *own = copy;
    EXPECT_EQ(copy.requireProperty(u"5"), mine);
    EXPECT_EQ(own->requireProperty(u"7"), u"common");
    own->putProperty(numbered(round % 20), u"common");
  }
}

TEST(ExtendedPropertiesThreads, CopiesAreChangedOnDifferentThreads) {
  for (const int count : {10, 30}) {
    ExtendedProperties common;
    for (int i = 0; i < count; ++i) common.putProperty(numbered(i), u"common");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back(work, std::make_unique<ExtendedProperties>(common), thread);
    }
    for (int i = 0; i < count; ++i) common.putProperty(numbered(i), u"changed since");
    common.clear();
    for (std::thread& thread : threads) thread.join();
  }
}

}  // namespace
