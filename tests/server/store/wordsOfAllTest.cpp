#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "server/base/documentForm.h"
#include "server/store/localStore.h"
#include "tests/support/temporaryDirectory.h"

// Words that every document has, in an index with gaps: the engine is easily led astray by them.
namespace corvaned {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

class WordsOfAllTest : public ::testing::Test {
 protected:
  static constexpr int kDocuments = 3000;
  static constexpr int kGone = 100;

  WordsOfAllTest() {
    store_.createCollection("c", "en");
    for (int i = 0; i < kDocuments; ++i) {
      Metadata metadata{{"[sortable]number", std::to_string(i)}};
      noteForm(metadata, {TextType::Plain, "de"});
      store_.queueDocument("c", {std::to_string(i), metadata, i % 2 == 0 ? "alle tor" : "alle"});
    }
    store_.updateIndex("c");
    for (int i = 0; i < kGone; ++i) store_.deleteDocument("c", std::to_string(20 * i));
    store_.updateIndex("c");
  }

  std::vector<std::string> found(const std::string& text, HitOrder order) {
    SearchQuery query;
    query.text = text;
    query.order = order;
    query.sortBy = order == HitOrder::Value ? "number" : "";
    const auto hits = store_.search("c", query);
    std::vector<std::string> keys;
    for (Hit hit; hits->next(hit);) keys.push_back(hit.key);
    return keys;
  }

  tq::test::TemporaryDirectory directory_;
  LocalStore store_{directory_.path() / "data", {}};
};

TEST_F(WordsOfAllTest, AreFoundInEveryOrder) {
  for (const HitOrder order : {HitOrder::Score, HitOrder::Key, HitOrder::Any, HitOrder::Value}) {
    const int order_ = static_cast<int>(order);
    EXPECT_THAT(found("alle", order), SizeIs(kDocuments - kGone)) << order_;
    EXPECT_THAT(found("tor alle", order), SizeIs(kDocuments / 2 - kGone)) << order_;
    EXPECT_THAT(found("tor OR alle", order), SizeIs(kDocuments - kGone)) << order_;
    EXPECT_THAT(found("alle NOT tor", order), SizeIs(kDocuments / 2)) << order_;
    EXPECT_THAT(found("tor NOT alle", order), IsEmpty()) << order_;
    EXPECT_THAT(found("tor NOT (alle OR nichts)", order), IsEmpty()) << order_;
    EXPECT_THAT(found("NOT (nichts NOT alle)", order), SizeIs(kDocuments - kGone)) << order_;
    EXPECT_THAT(found("alle XOR tor", order), SizeIs(kDocuments / 2)) << order_;
    EXPECT_THAT(found("alle*", order), SizeIs(kDocuments - kGone)) << order_;
    EXPECT_THAT(found("\"alle tor\"", order), SizeIs(kDocuments / 2 - kGone)) << order_;
  }
}

TEST_F(WordsOfAllTest, AreCountedAndEstimated) {
  SearchQuery query;
  query.order = HitOrder::Key;
  query.text = "alle";
  EXPECT_EQ(store_.count("c", query), kDocuments - kGone);
  query.text = "tor NOT alle";
  EXPECT_EQ(store_.count("c", query), 0U);
  EXPECT_EQ(store_.estimate("c", "alle").hits, kDocuments - kGone);
  EXPECT_EQ(store_.estimate("c", "tor NOT alle").hits, 0U);
}

}  // namespace
}  // namespace corvaned
