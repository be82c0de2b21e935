#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/localStore.h"
#include "tests/support/temporaryDirectory.h"

// A result that is taken in pages, all of them from one state of the collection.
namespace corvaned {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

using Hits = std::vector<std::pair<std::string, std::uint16_t>>;

struct Wanted {
  std::string text;
  HitOrder order = HitOrder::Score;
  std::string sortBy{};
  bool descending = false;
};

SearchQuery queryOf(const Wanted& wanted) {
  SearchQuery query;
  query.text = wanted.text;
  query.everything = wanted.text.empty();
  query.order = wanted.order;
  query.sortBy = wanted.sortBy;
  query.descending = wanted.descending;
  return query;
}

struct Page {
  Hits hits;
  std::optional<ResultPlace> next;
};

Page pageOf(LocalStore& store, const SearchQuery& query) {
  const auto source = store.search("c", query);
  Page page{{}, source->nextPage()};
  for (Hit hit; source->next(hit);) page.hits.emplace_back(hit.key, hit.milliScore);
  return page;
}

Hits whole(LocalStore& store, SearchQuery query) {
  query.inPages = false;
  query.from.reset();
  return pageOf(store, query).hits;
}

// Pages of this size from the beginning to the end; `between` is called between two of them.
template <typename Between>
Hits inPages(LocalStore& store, SearchQuery query, std::uint64_t size, const Between& between) {
  query.inPages = true;
  query.size = size;
  Hits all;
  for (;;) {
    const Page page = pageOf(store, query);
    EXPECT_LE(page.hits.size(), size);
    all.insert(all.end(), page.hits.begin(), page.hits.end());
    if (!page.next) return all;
    EXPECT_EQ(page.next->rank, all.size());
    query.from = page.next;
    between();
  }
}

Hits inPages(LocalStore& store, const SearchQuery& query, std::uint64_t size) {
  return inPages(store, query, size, [] {});
}

class PagesTest : public ::testing::Test {
 protected:
  static constexpr std::size_t kMostHidden = 20;

  PagesTest() { open(); }

  void open() {
    store_.reset();
    StoreLimits limits;
    limits.index.memory = memory_;
    limits.hiddenKeys = kMostHidden;
    store_ = std::make_unique<LocalStore>(directory_.path() / "data", limits,
                                          directory_.path() / "backups");
  }

  // Many have the same score, and many the same value.
  void fill(int documents) {
    store_->createCollection("c", "en");
    for (int i = 0; i < documents; ++i) put(i);
    store_->updateIndex("c");
  }

  void put(int i) {
    std::string text = "common";
    for (const int word : {3, 5, 7, 11}) {
      if (i % word == 0) text += " by" + std::to_string(word);
    }
    if (i % 4 == 0) text += " common and longer";
    Metadata metadata{{"title", "t" + std::to_string(i)}};
    if (i % 10 != 0) metadata.emplace_back("[sortable]year", std::to_string(i % 17));
    store_->queueDocument("c", {keyOf(i), metadata, text});
  }

  // In no order, and with any bytes.
  static std::string keyOf(int i) {
    std::string key = std::to_string(i * 7919 % 10007);
    key += static_cast<char>(i % 3 == 0 ? 0 : i);
    return key;
  }

  std::string refusal(const SearchQuery& query) {
    try {
      pageOf(*store_, query);
      return "none";
    } catch (const ServerError& error) {
      return std::string(messageId(error.kind())) + " " + error.what();
    }
  }

  // The second page of a search, and so something that needs the state of the first.
  SearchQuery secondPage(const Wanted& wanted = {"common"}) {
    SearchQuery query = queryOf(wanted);
    query.inPages = true;
    query.size = 3;
    query.from = pageOf(*store_, query).next;
    EXPECT_TRUE(query.from);
    return query;
  }

  void expectGone(const SearchQuery& query) {
    EXPECT_THAT(refusal(query), HasSubstr("ZVK0035E"));
    SearchQuery again = query;
    again.from.reset();
    EXPECT_EQ(refusal(again), "none");
  }

  tq::test::TemporaryDirectory directory_;
  std::shared_ptr<MemoryBudget> memory_ = std::make_shared<MemoryBudget>(std::size_t{64} << 20U);
  std::unique_ptr<LocalStore> store_;
};

const std::vector<Wanted> kWanted{
    {"common"},
    {"common OR by3 OR by5 OR by7 OR by11"},
    {"by3 OR (by5 by7) OR by11 OR longer"},
    {"by3 by5"},
    {"NOT by3"},
    {"by*"},
    {"nothing"},
    {"common", HitOrder::Key},
    {"", HitOrder::Key},
    {"by3", HitOrder::Any},
    {"common", HitOrder::Value, "year"},
    {"by3 OR by5", HitOrder::Value, "year", true},
    {"", HitOrder::Value, "year"},
};

// Among them pages so far on that the hits before them are not kept in memory.
TEST_F(PagesTest, TogetherAreTheWholeResult) {
  fill(2500);
  for (int i = 0; i < 15; ++i) store_->deleteDocument("c", keyOf(100 * i));
  for (const Wanted& wanted : kWanted) {
    const SearchQuery query = queryOf(wanted);
    const Hits all = whole(*store_, query);
    for (const std::uint64_t size : {90U, 333U, 1200U, 5000U}) {
      EXPECT_EQ(inPages(*store_, query, size), all) << wanted.text << " by " << size;
    }
  }
}

TEST_F(PagesTest, OfOneHitFollowEachOther) {
  fill(40);
  for (const Wanted& wanted : kWanted) {
    const SearchQuery query = queryOf(wanted);
    EXPECT_EQ(inPages(*store_, query, 1), whole(*store_, query)) << wanted.text;
  }
}

TEST_F(PagesTest, StartCountsFromThePlaceAndTheLimitFromTheBeginning) {
  fill(2500);
  for (const Wanted& wanted : {kWanted[0], kWanted[7], kWanted[9], kWanted[10]}) {
    SearchQuery query = queryOf(wanted);
    query.limit = 2100;
    const Hits all = whole(*store_, query);
    query.inPages = true;
    query.size = all.size() / 2;
    const Page first = pageOf(*store_, query);
    ASSERT_TRUE(first.next);
    query.from = first.next;
    for (const std::uint64_t start : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{80}}) {
      query.start = start;
      query.size = 7;
      const auto begin = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2 + start);
      EXPECT_EQ(pageOf(*store_, query).hits, Hits(begin, begin + 7)) << wanted.text;
      query.size = 5000;
      const Page rest = pageOf(*store_, query);
      EXPECT_EQ(rest.hits, Hits(begin, all.end())) << wanted.text;
      EXPECT_FALSE(rest.next);
    }
  }
}

TEST_F(PagesTest, WithoutHitsTellWhereTheyAre) {
  fill(30);
  SearchQuery query = secondPage();
  const ResultPlace place = *query.from;
  query.size = 0;
  const Page none = pageOf(*store_, query);
  EXPECT_THAT(none.hits, IsEmpty());
  ASSERT_TRUE(none.next);
  EXPECT_EQ(textOf(*none.next), textOf(place));
  query.from.reset();
  query.from = pageOf(*store_, query).next;
  ASSERT_TRUE(query.from);
  EXPECT_EQ(query.from->rank, 0U);
  query.size = 100;
  EXPECT_EQ(pageOf(*store_, query).hits, whole(*store_, queryOf({"common"})));
}

TEST_F(PagesTest, BeginOnlyWhereTheyAreAskedFor) {
  fill(30);
  SearchQuery query = queryOf({"common"});
  query.size = 3;
  EXPECT_FALSE(pageOf(*store_, query).next);
}

// What changes while the pages are taken is not seen, and deletions are no exception.
TEST_F(PagesTest, ShowTheStateOfTheFirstOne) {
  for (const Wanted& wanted : kWanted) {
    fill(300);
    const SearchQuery query = queryOf(wanted);
    const Hits all = whole(*store_, query);
    int changed = 0;
    const Hits taken = inPages(*store_, query, 40, [&] {
      store_->deleteDocument("c", keyOf(295 - changed));
      put(10 * changed);
      put(1000 + changed);
      ++changed;
    });
    EXPECT_EQ(taken, all) << wanted.text;
    EXPECT_NE(all.size() > 40, changed == 0);
    if (changed > 0) {
      EXPECT_THAT(whole(*store_, queryOf({"", HitOrder::Key})),
                  Not(Contains(std::pair<std::string, std::uint16_t>(keyOf(295), 0))));
    }
    store_->deleteCollection("c");
  }
}

// The model: what a whole search of the state found in which the pages began. They must be it, or
// be refused; and they are refused no sooner than the index changes.
TEST_F(PagesTest, AreOfOneStateOrRefusedWhateverHappens) {
  fill(400);
  std::mt19937 random(1);
  const auto draw = [&](int below) {
    return static_cast<int>(random() % static_cast<unsigned>(below));
  };
  std::uint64_t documents = store_->summary("c").documents;
  int finished = 0;
  int refused = 0;
  for (int round = 0; round < 120; ++round) {
    SearchQuery query = queryOf(kWanted[static_cast<std::size_t>(draw(13))]);
    const Hits all = whole(*store_, query);
    bool updated = false;
    const std::uint64_t size = 1U + static_cast<unsigned>(draw(200));
    try {
      EXPECT_EQ(inPages(*store_, query, size,
                        [&] {
                          EXPECT_FALSE(updated) << "not refused";
                          switch (draw(8)) {
                            case 0:
                              put(draw(500));
                              store_->updateIndex("c");
                              updated = true;
                              break;
                            case 1:
                            case 2:
                              store_->deleteDocument("c", keyOf(draw(500)));
                              // So many have been taken out of the index.
                              updated = store_->summary("c").documents != documents;
                              break;
                            default:
                              put(draw(500));
                          }
                        }),
                all);
      ++finished;
    } catch (const ServerError& error) {
      EXPECT_EQ(error.kind(), ErrorKind::SnapshotGone) << error.what();
      EXPECT_TRUE(updated);
      ++refused;
    }
    if (round % 10 == 0) store_->updateIndex("c");
    documents = store_->summary("c").documents;
  }
  EXPECT_GT(finished, 20);
  EXPECT_GT(refused, 20);
}

TEST_F(PagesTest, AreRefusedAfterAnUpdate) {
  fill(30);
  for (const Wanted& wanted : kWanted) {
    if (whole(*store_, queryOf(wanted)).size() < 4) continue;
    const SearchQuery query = secondPage(wanted);
    put(31);
    EXPECT_EQ(refusal(query), "none") << "it is not in the index yet";
    store_->updateIndex("c");
    expectGone(query);
  }
}

// An update that changes nothing but what is hidden: the key is back with another document.
TEST_F(PagesTest, AreRefusedAfterADeletedKeyIsBack) {
  fill(30);
  store_->deleteDocument("c", keyOf(0));
  const SearchQuery query = secondPage();
  put(0);
  store_->updateIndex("c");
  expectGone(query);
}

TEST_F(PagesTest, AreRefusedAfterDeletionsHaveReachedTheIndex) {
  fill(60);
  const SearchQuery query = secondPage();
  for (std::size_t i = 0; i < kMostHidden; ++i)
    store_->deleteDocument("c", keyOf(static_cast<int>(i)));
  EXPECT_EQ(refusal(query), "none");
  store_->deleteDocument("c", keyOf(50));
  expectGone(query);
}

TEST_F(PagesTest, AreRefusedWhereOtherFilesAreTheIndex) {
  fill(30);
  store_->backup("b", "c");
  const SearchQuery beforeRestart = secondPage();
  open();
  expectGone(beforeRestart);
  const SearchQuery beforeClosing = secondPage();
  store_->closeCollection("c");
  expectGone(beforeClosing);
  const SearchQuery beforeRestoration = secondPage();
  store_->restore({"b", "c", "c", true});
  expectGone(beforeRestoration);
  const SearchQuery beforeDeletion = secondPage();
  store_->deleteCollection("c");
  fill(30);
  expectGone(beforeDeletion);
}

TEST_F(PagesTest, AreOfOneQuery) {
  fill(30);
  const SearchQuery query = secondPage();
  SearchQuery other = query;
  other.text = "by3";
  EXPECT_THAT(refusal(other), HasSubstr("ZVK0006E the place to go on from belongs to another"));
  other = query;
  other.order = HitOrder::Key;
  EXPECT_THAT(refusal(other), HasSubstr("ZVK0006E"));
}

TEST_F(PagesTest, FindNothingWhereThePlaceIsMadeUp) {
  fill(1500);
  SearchQuery query = queryOf({"common"});
  query.inPages = true;
  query.size = 1100;
  query.from = pageOf(*store_, query).next;
  ASSERT_TRUE(query.from);
  const ResultPlace told = *query.from;
  EXPECT_EQ(refusal(query), "none");
  query.from->weight = 1e9;
  EXPECT_THAT(refusal(query), HasSubstr("ZVK0035E"));
  query.from->weight = std::numeric_limits<double>::quiet_NaN();
  EXPECT_THAT(refusal(query), HasSubstr("ZVK0035E"));
  query.from = told;
  query.from->rank = ~std::uint64_t{0};
  EXPECT_THAT(refusal(query), HasSubstr("ZVK0035E"));
  query.from = told;
  query.from->sortedBy = "";
  EXPECT_THAT(refusal(query), HasSubstr("ZVK0035E"));
  for (const HitOrder order : {HitOrder::Key, HitOrder::Any, HitOrder::Value}) {
    SearchQuery unranked = secondPage({"common", order, "year"});
    unranked.from->rank = ~std::uint64_t{0};
    unranked.from->sortedBy = std::string(300, '\xFF');
    EXPECT_THAT(pageOf(*store_, unranked).hits, IsEmpty());
  }
}

TEST_F(PagesTest, TakeNoMemoryForTheHitsBefore) {
  fill(2500);
  SearchQuery query = queryOf({"common"});
  query.inPages = true;
  query.size = 2400;
  query.from = pageOf(*store_, query).next;
  query.size = 10;
  MemoryBudget::Share rest(*memory_);
  rest.force(memory_->limit() - memory_->used() - (std::size_t{64} << 10U));
  EXPECT_EQ(refusal(query), "none");
  query.from.reset();
  query.start = 2400;
  EXPECT_THAT(refusal(query), HasSubstr("ZVK0016E"));
}

// Each update gives all documents another year, so two years in one result are two states.
TEST_F(PagesTest, AreOfOneStateWhileOthersUpdateAndDelete) {
  constexpr int kDocuments = 60;
  constexpr int kYears = 25;
  store_->createCollection("c", "en");
  const auto write = [&](int year) {
    for (int i = 0; i < kDocuments; ++i) {
      store_->queueDocument("c", {std::to_string(i), {{"year", std::to_string(year)}}, "common"});
    }
    store_->queueDocument("c", {"x" + std::to_string(year), {}, "other"});
    store_->updateIndex("c");
    store_->deleteDocument("c", "x" + std::to_string(year));
  };
  write(0);
  std::atomic<bool> written = false;
  const auto read = [&] {
    int finished = 0;
    while (finished == 0 || !written) {
      SearchQuery query = queryOf({"common"});
      query.inPages = true;
      query.size = 7;
      std::set<std::string> keys;
      std::set<std::string> years;
      try {
        do {
          const auto details = store_->details("c", query, {{"year"}, 0});
          for (const HitDetails& each : details) {
            EXPECT_TRUE(keys.insert(each.hit.key).second);
            years.insert(each.values.at(0).second);
          }
          query.from = details.empty() ? std::nullopt : details.back().nextPage;
        } while (query.from);
        EXPECT_EQ(keys.size(), kDocuments);
        ++finished;
      } catch (const ServerError& error) {
        EXPECT_EQ(error.kind(), ErrorKind::SnapshotGone) << error.what();
      }
      EXPECT_LE(years.size(), 1U);
    }
  };
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) readers.emplace_back(read);
  for (int year = 1; year < kYears; ++year) write(year);
  written = true;
  for (std::thread& reader : readers) reader.join();
}

// Of the orders that look at the index in different ways.
TEST_F(PagesTest, FirstOneIsAnsweredHoweverOftenTheIndexChanges) {
  fill(200);
  std::atomic<bool> asked = false;
  std::jthread writer([&] {
    for (int i = 0; !asked; i = (i + 1) % 200) {
      put(i);
      store_->deleteDocument("c", keyOf((i + 100) % 200));
      store_->updateIndex("c");
    }
  });
  const std::uint64_t before = store_->summary("c").documents;
  bool changed = false;
  for (int round = 0; round < 100 || !changed; ++round) {
    for (const Wanted& wanted : {kWanted[0], kWanted[7], kWanted[9], kWanted[10]}) {
      SearchQuery query = queryOf(wanted);
      query.inPages = true;
      query.size = 7;
      EXPECT_EQ(refusal(query), "none") << wanted.text;
      EXPECT_NO_THROW(store_->details("c", query, {{"title"}, 50})) << wanted.text;
      query.size = 0;
      EXPECT_EQ(refusal(query), "none") << wanted.text;
    }
    changed = changed || store_->summary("c").documents != before;
  }
  asked = true;
}

TEST_F(PagesTest, OfDetailsGoOnLikeThoseOfHits) {
  fill(30);
  SearchQuery query = queryOf({"common"});
  const Hits all = whole(*store_, query);
  query.inPages = true;
  query.size = 8;
  Hits taken;
  for (;;) {
    const auto details = store_->details("c", query, {{"title"}, 0});
    for (const HitDetails& each : details) {
      taken.emplace_back(each.hit.key, each.hit.milliScore);
      EXPECT_THAT(each.values, SizeIs(1));
      EXPECT_EQ(each.nextPage.has_value(), &each == &details.back() && details.size() == 8);
    }
    if (details.empty() || !details.back().nextPage) break;
    query.from = details.back().nextPage;
  }
  EXPECT_EQ(taken, all);
}

}  // namespace
}  // namespace corvaned
