#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/base/requestContext.h"
#include "server/store/localStore.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;

class HitDetailsTest : public ::testing::Test {
 protected:
  void create(const TextOptions& options = {}) { store_.createCollection("c", "en", {}, options); }

  void add(const std::string& key, const std::string& text, Metadata metadata = {},
           const DocumentForm& form = {}) {
    noteForm(metadata, form);
    store_.addDocument("c", {key, std::move(metadata), text});
  }

  std::vector<HitDetails> details(const std::string& text, const DetailsWanted& wanted) {
    SearchQuery query;
    query.text = text;
    query.size = 10;
    return store_.details("c", query, wanted);
  }

  std::string snippet(const std::string& query, std::size_t bytes) {
    const auto found = details(query, {{}, bytes});
    return found.size() == 1 ? found.front().snippet : std::to_string(found.size()) + " hits";
  }

  tq::test::TemporaryDirectory directory_;
  std::shared_ptr<MemoryBudget> memory_ = std::make_shared<MemoryBudget>(std::size_t{64} << 20U);
  LocalStore store_{directory_.path() / "data", [&] {
                      StoreLimits limits;
                      limits.index.memory = memory_;
                      return limits;
                    }()};
};

TEST_F(HitDetailsTest, AreOfTheHitsInTheirOrder) {
  create();
  add("a", "fox and much else besides");
  add("b", "fox");
  add("c", "hen");
  store_.updateIndex("c");
  SearchQuery query;
  query.text = "fox";
  const auto hits = store_.search("c", query);
  const auto found = details("fox", {});
  ASSERT_THAT(found, SizeIs(2));
  for (const HitDetails& each : found) {
    Hit hit;
    ASSERT_TRUE(hits->next(hit));
    EXPECT_EQ(each.hit.key, hit.key);
    EXPECT_EQ(each.hit.milliScore, hit.milliScore);
    EXPECT_THAT(each.values, IsEmpty());
    EXPECT_EQ(each.snippet, "");
  }
}

TEST_F(HitDetailsTest, HaveTheValuesOfTheNamesThatAreWanted) {
  create();
  add("a", "fox",
      {{"[sortable]year", "1851"}, {"title", "A"}, {"Indexable:title", "B"}, {"a b", "c"}},
      {TextType::Html, "de"});
  store_.updateIndex("c");
  const auto values = [&](const std::set<std::string>& names) {
    return details("fox", {names, 0}).front().values;
  };
  EXPECT_THAT(values({"title", "year", "nothing"}),
              ElementsAre(Pair("year", "1851"), Pair("title", "A"), Pair("title", "B")));
  EXPECT_THAT(values({"a b"}), ElementsAre(Pair("a b", "c")));
  EXPECT_THAT(values({std::string("\0docType", 8), "Title", ""}), IsEmpty());
}

TEST_F(HitDetailsTest, LongAndManyValuesAreCut) {
  create();
  Metadata metadata{{"long", std::string(1, 'x')}};
  for (int i = 0; i < 2000; ++i) metadata.front().second += "\u00e9";
  for (int i = 0; i < 100; ++i) metadata.emplace_back("many", std::to_string(i));
  add("a", "fox", metadata);
  store_.updateIndex("c");
  const auto found = details("fox", {{"long", "many"}, 0});
  ASSERT_THAT(found.front().values, SizeIs(16));
  EXPECT_EQ(found.front().values[0].second, metadata.front().second.substr(0, 2047));
}

TEST_F(HitDetailsTest, SnippetsShowTheWordsOfTheQuery) {
  create();
  std::string text;
  for (int i = 0; i < 500; ++i) text += "filler" + std::to_string(i) + " ";
  add("a", text + "where the quick <foxes> & hens run about. " + text);
  store_.updateIndex("c");
  const std::string shown = snippet("fox", 100);
  EXPECT_THAT(shown, AllOf(HasSubstr("&lt;<b>foxes</b>&gt; &amp; hens"), HasSubstr("...")));
  EXPECT_LT(shown.size(), 300U);
  EXPECT_THAT(snippet("\"quick foxes\"", 100), HasSubstr("<b>quick &lt;foxes</b>"));
}

TEST_F(HitDetailsTest, SnippetsAreOfWhatAReaderSees) {
  create();
  add("a", "<p class=fox>H\u00e4user", {}, {TextType::Html, "de"});
  store_.updateIndex("c");
  EXPECT_THAT(snippet("Haus", 100), AllOf(HasSubstr("<b>H\u00e4user</b>"), Not(HasSubstr("fox"))));
}

TEST_F(HitDetailsTest, OnlySnippetsNeedMemoryThatIsFree) {
  create();
  std::string text;
  while (text.size() < 2U << 20U) text += "fox ";
  add("a", text);
  store_.updateIndex("c");
  ASSERT_NE(snippet("fox", 100), "");
  MemoryBudget::Share others(*memory_);
  const auto leave = [&](std::size_t bytes) {
    others.force(0);
    others.force(memory_->limit() - memory_->used() - bytes);
  };
  const auto expectOnlySnippetsRefused = [&](const char* why) {
    try {
      snippet("fox", 100);
      ADD_FAILURE() << why;
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::TryAgain) << why;
    }
    EXPECT_THAT(details("fox", {}), SizeIs(1)) << why;
    SearchQuery all;
    all.everything = true;
    all.order = HitOrder::Key;
    std::size_t visited = 0;
    store_.visit("c", all, [&](const Document&) { ++visited; });
    EXPECT_EQ(visited, 1U) << why;
    EXPECT_LE(memory_->used(), memory_->limit()) << why;
  };
  // The last eighth is not for large texts.
  leave(20U << 20U);
  expectOnlySnippetsRefused("there is no room for twelve forms of the text");
  leave(10U << 20U);
  expectOnlySnippetsRefused("there is only what is kept for small uses");
  leave(40U << 20U);
  bool granted = false;
  const auto ticket =
      memory_->await(50U << 20U, [&](const MemoryBudget::Share&) { granted = true; });
  expectOnlySnippetsRefused("another request waits for more than there is");
  memory_->withdraw(ticket);
  EXPECT_FALSE(granted);
}

TEST_F(HitDetailsTest, WaitForNobodyWhereTheyTakeLittleOfTheBudget) {
  create();
  std::string text;
  while (text.size() < 40U << 10U) text += "fox ";
  add("a", text);
  store_.updateIndex("c");
  MemoryBudget::Share others(*memory_);
  others.force(memory_->limit() - memory_->used() - (20U << 20U));
  const auto ticket = memory_->await(50U << 20U, [](const MemoryBudget::Share&) {});
  EXPECT_NE(snippet("fox", 100), "");
  memory_->withdraw(ticket);
}

TEST_F(HitDetailsTest, HaveNoSnippetOfATextThatIsTooLongForTheBudget) {
  create();
  // Its forms would fit into the budget if nobody else had any of it.
  std::string text;
  while (text.size() < 3U << 20U) text += "fox ";
  add("a", text);
  add("b", "fox");
  store_.updateIndex("c");
  const auto expectOne = [&] {
    const auto found = details("fox", {{}, 100});
    ASSERT_THAT(found, SizeIs(2));
    for (const HitDetails& each : found) {
      EXPECT_EQ(each.snippet, each.hit.key == "a" ? "" : "<b>fox</b>");
    }
  };
  expectOne();
  MemoryBudget::Share others(*memory_);
  others.force(30U << 20U);
  expectOne();
}

TEST_F(HitDetailsTest, AreRefusedWhereTheReplyHasNoMemory) {
  create();
  Metadata metadata;
  for (int i = 0; i < 16; ++i) metadata.emplace_back("long", std::string(2000, 'x'));
  for (const char* key : {"a", "b", "c", "d", "e", "f", "g", "h"}) add(key, "fox", metadata);
  store_.updateIndex("c");
  const DetailsWanted wanted{{"long"}, 0};
  ASSERT_THAT(details("fox", wanted), SizeIs(8));
  MemoryBudget::Share others(*memory_);
  others.force(memory_->limit() - memory_->used() - 200000);
  try {
    details("fox", wanted);
    FAIL() << "there was no room";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::TryAgain) << error.what();
  }
}

TEST_F(HitDetailsTest, NeedTextsOnlyForSnippets) {
  TextOptions options;
  options.keepsText = false;
  create(options);
  add("a", "fox", {{"title", "A"}});
  store_.updateIndex("c");
  EXPECT_THAT(details("fox", {{"title"}, 0}).front().values, ElementsAre(Pair("title", "A")));
  try {
    snippet("fox", 10);
    ADD_FAILURE() << "not refused";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::UnsupportedAction);
  }
}

TEST_F(HitDetailsTest, TakeMemoryUntilTheyAreTold) {
  create();
  add("a", "fox", {{"title", std::string(5000, 'x')}});
  add("b", "fox", {{"title", "B"}});
  store_.updateIndex("c");
  details("fox", {{"title"}, 100});
  const std::size_t idle = memory_->used();
  std::vector<HitDetails> found = details("fox", {{"title"}, 100});
  EXPECT_GT(memory_->used(), idle + 2048);
  found.erase(found.begin());
  EXPECT_GT(memory_->used(), idle + 2048) << "it is set aside for all of them together";
  found.clear();
  EXPECT_EQ(memory_->used(), idle);
}

/// Two documents, each of which takes so much while a part of it is chosen that another thread sees
/// it.
class DetailsOfLongTextsTest : public HitDetailsTest {
 protected:
  static constexpr std::size_t kText = std::size_t{1} << 20U;

  DetailsOfLongTextsTest() {
    create();
    std::string text = "fox";
    for (int i = 0; text.size() < kText; ++i) text += " filler" + std::to_string(i % 1000);
    add("a", text);
    add("b", text);
    store_.updateIndex("c");
    snippets();
    idle_ = memory_->used();
  }

  std::vector<HitDetails> snippets() { return details("fox", {{}, 100}); }

  void awaitMuchMemory() const {
    while (memory_->used() < idle_ + 12 * kText) std::this_thread::yield();
  }

  std::size_t idle_ = 0;
};

TEST_F(DetailsOfLongTextsTest, TakeTwelveTimesATextAndGiveItBack) {
  std::atomic<bool> seen = false;
  std::jthread watch([&] {
    awaitMuchMemory();
    seen = true;
  });
  while (!seen) snippets();
  EXPECT_EQ(memory_->used(), idle_);
}

TEST_F(DetailsOfLongTextsTest, TakeNothingAnyMoreWhenTheClientHasGone) {
  const auto request = std::make_shared<RequestContext>(RequestContext::Limits{});
  const RequestContext::Scope scope(*request);
  std::jthread client([&] {
    awaitMuchMemory();
    request->cancelAt(RequestContext::Clock::now());
  });
  std::optional<ErrorKind> end;
  while (!end) {
    try {
      snippets();
    } catch (const ServerError& error) {
      end = error.kind();
    }
  }
  EXPECT_EQ(end, ErrorKind::Cancelled);
  store_.closeCollection("c");
  // Whoever has updated it may still be about to leave it.
  while (store_.isOpen("c") || !store_.isSettled("c")) std::this_thread::yield();
  EXPECT_EQ(memory_->used(), 0U);
}

}  // namespace
}  // namespace corvaned
