#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "comm/kruKinds.h"
#include "comm/kruStaticDefs.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using Numbers = std::vector<int>;

ClientRequest::REQUEST kindNumber(int number) {
  return static_cast<ClientRequest::REQUEST>(number);
}

Numbers kindsWith(KindProperty property) {
  Numbers numbers;
  for (int number = 0; number < 64; ++number) {
    if (kindOf(kindNumber(number)).has(property)) numbers.push_back(number);
  }
  return numbers;
}

TEST(Kinds, EachPropertyBelongsToTheseKindsAndNoOthers) {
  EXPECT_EQ(kindsWith(kStreams), (Numbers{8, 11, 14, 20}));
  EXPECT_EQ(kindsWith(kBringsResults), (Numbers{8, 11, 14, 20, 22}));
  EXPECT_EQ(kindsWith(kMultipleReplies), (Numbers{11}));
  EXPECT_EQ(kindsWith(kNoReply), (Numbers{9, 10}));
  EXPECT_EQ(kindsWith(kHits), (Numbers{6, 8, 20}));
  EXPECT_EQ(kindsWith(kReplacesPortion), (Numbers{6, 8}));
  EXPECT_EQ(kindsWith(kOneRecord), (Numbers{14, 15}));
  EXPECT_EQ(kindsWith(kRepeatable), (Numbers{3, 4, 5, 8, 9, 10, 12, 13, 14, 15, 20, 21, 22, 24}));
  EXPECT_EQ(kindsWith(kUsesQueue), (Numbers{4, 9, 10, 11}));
}

TEST(Kinds, ARowStandsAtItsNumber) {
  for (int number = 0; number <= ClientRequest::VERSIONS_VALIDATION; ++number) {
    EXPECT_EQ(kindOf(kindNumber(number)).number, number);
  }
}

TEST(Kinds, ANumberOutsideTheTableIsAnUnassignedKind) {
  for (const int number :
       {-1, 25, 63, 64, 255, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    const Kind& kind = kindOf(kindNumber(number));
    EXPECT_EQ(kind.displayName, nullptr) << number;
    EXPECT_EQ(std::u16string(kind.action), u"") << number;
    EXPECT_EQ(*kind.actionType, StaticDefs::ACT_UNKNOWN) << number;
    EXPECT_EQ(kind.mode, nullptr) << number;
    EXPECT_EQ(kind.properties, 0U) << number;
  }
}

}  // namespace
}  // namespace tq::comm
