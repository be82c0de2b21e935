#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "infra/util/kruBase64.h"
#include "server/base/base64.h"
#include "server/base/bytes.h"
#include "server/store/checksum.h"
#include "server/store/queryDigest.h"
#include "server/store/resultPlace.h"
#include "server/store/store.h"

namespace corvaned {
namespace {

ResultPlace somewhere() {
  return {
      {0xFFFFFFFFFFFFFFFF, 2, 3}, std::string("\0query", 6), 41, 1.0 / 3, std::string("k\0", 2)};
}

TEST(ResultPlace, IsTheSameAfterItsWayThroughAText) {
  for (const double weight : {0.0, 1.0 / 3, std::numeric_limits<double>::denorm_min()}) {
    ResultPlace place = somewhere();
    place.weight = weight;
    const auto read = placeFrom(textOf(place));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->snapshot, place.snapshot);
    EXPECT_EQ(read->query, place.query);
    EXPECT_EQ(read->rank, place.rank);
    EXPECT_EQ(read->weight, place.weight);
    EXPECT_EQ(read->sortedBy, place.sortedBy);
  }
}

TEST(ResultPlace, IsNotReadFromAnythingElse) {
  const std::string text = textOf(somewhere());
  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_FALSE(placeFrom(text.substr(0, length))) << length;
  }
  std::string bytes;
  ASSERT_TRUE(tq::util::Base64::decode(text.data(), text.size(), bytes));
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    EXPECT_FALSE(placeFrom(base64(bytes.substr(0, length)))) << length;
  }
  for (std::size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
    std::string other = bytes;
    other[bit / 8] = static_cast<char>(other[bit / 8] ^ 1 << bit % 8);
    EXPECT_FALSE(placeFrom(base64(other))) << bit;
  }
  EXPECT_FALSE(placeFrom(base64(bytes + bytes)));
  EXPECT_FALSE(placeFrom("begin again"));
}

TEST(ResultPlace, OfAnotherMakerIsInNoState) {
  const std::string text = textOf(somewhere());
  std::string bytes;
  ASSERT_TRUE(tq::util::Base64::decode(text.data(), text.size(), bytes));
  constexpr std::size_t kHidden = 4 + 2 * 8 + 7;
  bytes.resize(bytes.size() - 4);
  bytes[kHidden] = 1;
  appendU32(bytes, checksumOf(bytes));
  const auto place = placeFrom(base64(bytes));
  ASSERT_TRUE(place);
  EXPECT_EQ(place->snapshot, Snapshot{});
}

TEST(ResultPlace, BelongsToOneQuery) {
  const std::vector<std::function<void(SearchQuery&)>> others{
      [](SearchQuery&) {},
      [](SearchQuery& query) { query.text = "hen"; },
      [](SearchQuery& query) { query.everything = true; },
      [](SearchQuery& query) { query.order = HitOrder::Key; },
      [](SearchQuery& query) { query.order = HitOrder::Value; },
      [](SearchQuery& query) { query.sortBy = "year"; },
      [](SearchQuery& query) { query.descending = true; },
      [](SearchQuery& query) { query.after = "k"; },
      [](SearchQuery& query) { query.upTo = "k"; },
      [](SearchQuery& query) { query.keys = {"k"}; },
      [](SearchQuery& query) {
        query.keys = {"k", ""};
      },
      [](SearchQuery& query) { query.limit = 7; }};
  std::set<std::string> digests;
  for (const auto& change : others) {
    SearchQuery query;
    query.text = "fox";
    change(query);
    EXPECT_TRUE(digests.insert(queryDigest(query)).second) << digests.size();
  }
}

TEST(ResultPlace, FitsPagesOfAnySize) {
  SearchQuery query;
  query.text = "fox";
  SearchQuery other = query;
  other.start = 3;
  other.size = 4;
  other.scale = ScoreScale::Raw;
  other.inPages = true;
  other.from = somewhere();
  EXPECT_EQ(queryDigest(other), queryDigest(query));
}

}  // namespace
}  // namespace corvaned
