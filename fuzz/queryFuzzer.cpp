// A query to corvaned, and every way in which it can be asked.
//
// Input: whether the rest is text or the numbers of words and signs, which collection is asked,
// then the query.

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/localStore.h"
#include "server/store/textNormalizer.h"
#include "tests/support/temporaryDirectory.h"

namespace tq::fuzz {

namespace {

using corvaned::Document;
using corvaned::SearchQuery;
using Keys = std::vector<std::string>;

constexpr std::array<std::string_view, 64> kPieces{" ",
                                                   "fox",
                                                   "foxes",
                                                   "Fox",
                                                   "hen",
                                                   "hens",
                                                   "run",
                                                   "running",
                                                   "the",
                                                   "a",
                                                   "größe",
                                                   "GRÖSSE",
                                                   "Haus",
                                                   "Häuser",
                                                   "café",
                                                   "全文検索",
                                                   "検索",
                                                   "ﬁsh",
                                                   "C++",
                                                   "U.S.A.",
                                                   "x86-64",
                                                   "it's",
                                                   "wi-fi",
                                                   "2024",
                                                   "\U0001F98A",
                                                   "nosuch",
                                                   "fo*",
                                                   "h*",
                                                   "*",
                                                   "全*",
                                                   "title:",
                                                   "colour:",
                                                   "nowhere:",
                                                   "\"",
                                                   "(",
                                                   ")",
                                                   " AND ",
                                                   " OR ",
                                                   " NOT ",
                                                   " XOR ",
                                                   " NEAR ",
                                                   " ADJ ",
                                                   " NEAR/2 ",
                                                   " ADJ/3 ",
                                                   " +",
                                                   " -",
                                                   "-",
                                                   "/",
                                                   ":",
                                                   ".",
                                                   "..",
                                                   ",",
                                                   "'",
                                                   "&",
                                                   "~",
                                                   "\n",
                                                   "\xC3",
                                                   "\xFF",
                                                   "\xE2\x80\x8B",
                                                   "\xCC\x81",
                                                   "and",
                                                   "NEAR/0",
                                                   " ADJ/x ",
                                                   "red"};

std::string queryOf(std::string_view numbers) {
  std::string query;
  for (const char number : numbers) {
    query += kPieces[static_cast<unsigned char>(number) % kPieces.size()];
  }
  return query;
}

Document document(const std::string& key, const std::string& text, corvaned::Metadata metadata = {},
                  const corvaned::DocumentForm& form = {}) {
  corvaned::noteForm(metadata, form);
  return {key, std::move(metadata), text};
}

// Common words, words of several languages and writings, and fields; some have nothing.
std::vector<Document> documents() {
  using corvaned::TextType;
  return {
      document("a", "the fox and the hens"),
      document("b", "foxes run; a hen runs"),
      document("c", "Fox hen fox hen fox", {{"title", "the red fox"}}),
      document("d", "größe café ﬁsh C++ U.S.A. x86-64 it's wi-fi 2024"),
      document("e", "<p>Häuser <b>am</b> Fluss", {{"title", "Haus"}}, {TextType::Html, "de"}),
      document("f", "全文検索エンジン \U0001F98A"),
      document("g", "", {{"colour", "red"}, {"Indexable:colour", "green fox"}}),
      document("h", "検索 fox", {{"[sortable]rank", "2"}}),
      document("i", std::string("hen\0fox", 7)),
      document("j", "running in the house of the running fox", {}, {TextType::Plain, "en"}),
  };
}

/// The same documents in one database and in several, read in two ways.
class Collections {
 public:
  Collections() {
    for (const std::size_t parts : {std::size_t{1}, std::size_t{3}}) {
      corvaned::StoreLimits limits;
      limits.parts = parts;
      stores_.push_back(std::make_unique<corvaned::LocalStore>(
          directory_.path() / std::to_string(parts), limits));
      fill(*stores_.back());
    }
  }

  const std::vector<std::unique_ptr<corvaned::LocalStore>>& stores() const { return stores_; }
  const std::vector<Document>& documents() const { return documents_; }

 private:
  void fill(corvaned::LocalStore& store) const {
    corvaned::TextOptions bare;
    bare.keepsPositions = false;
    bare.stems = false;
    bare.onlyMarkedMetadata = true;
    bare.stopWords = {"the", "a", "fox"};
    store.createCollection("whole", "en");
    store.createCollection("bare", "en", {}, bare);
    for (const char* name : {"whole", "bare"}) {
      for (const Document& each : documents_) store.queueDocument(name, each);
      store.updateIndex(name);
    }
  }

  tq::test::TemporaryDirectory directory_;
  std::vector<Document> documents_ = tq::fuzz::documents();
  std::vector<std::unique_ptr<corvaned::LocalStore>> stores_;
};

/// Nothing if the query is refused. One that has been understood in another way may be too broad.
template <typename Answer>
std::optional<Answer> unlessRefused(bool understood, const std::function<Answer()>& ask) {
  try {
    return ask();
  } catch (const corvaned::ServerError& error) {
    require(error.kind() == corvaned::ErrorKind::QueryTooBroad ||
                (!understood && error.kind() == corvaned::ErrorKind::BadQuery),
            "a query is refused as one, and in all ways");
    return std::nullopt;
  }
}

Keys keysOf(corvaned::HitSource& hits) {
  Keys keys;
  for (corvaned::Hit hit; hits.next(hit);) keys.push_back(hit.key);
  std::sort(keys.begin(), keys.end());
  require(std::adjacent_find(keys.begin(), keys.end()) == keys.end(), "no hit comes twice");
  return keys;
}

void checkDetails(corvaned::LocalStore& store, const std::string& name, const SearchQuery& query,
                  const Keys& keys) {
  const auto details = store.details(name, query, {{"title"}, 60});
  require(details.size() == keys.size(), "each hit is told of");
  for (const corvaned::HitDetails& each : details) {
    require(std::binary_search(keys.begin(), keys.end(), each.hit.key), "only hits are told of");
    require(corvaned::isUtf8(each.snippet), "what is shown of a text is UTF-8");
  }
}

// One of all ways may be refused where another is not: several databases cannot be asked for many
// words with XOR.
std::optional<Keys> keysIn(corvaned::LocalStore& store, const std::string& name,
                           const std::vector<Document>& documents, const std::string& text,
                           bool understood) {
  SearchQuery query;
  query.text = text;
  auto found = unlessRefused<Keys>(understood, [&] { return keysOf(*store.search(name, query)); });
  const auto count =
      unlessRefused<std::uint64_t>(understood, [&] { return store.count(name, query); });
  const auto estimate =
      unlessRefused<std::uint64_t>(understood, [&] { return store.estimate(name, text).hits; });
  require(found.has_value() == count.has_value() && found.has_value() == estimate.has_value(),
          "what can be searched for can be counted");
  if (!found) return found;
  require(*count == found->size(), "as many are counted as are found");
  require(*estimate == found->size(), "of few hits an estimate is exact");
  for (const auto order : {corvaned::HitOrder::Key, corvaned::HitOrder::Any}) {
    SearchQuery other = query;
    other.order = order;
    require(keysOf(*store.search(name, other)) == *found, "the order changes no hits");
  }
  checkDetails(store, name, query, *found);
  const auto matched =
      unlessRefused<Keys>(true, [&] { return keysOf(*store.match(name, query, documents)); });
  require(!matched || *matched == *found, "a document matches wherever it is");
  return found;
}

// What stands before a colon may be a name of metadata.
bool hasWord(const std::string& text) {
  return text.find(':') == std::string::npos && std::any_of(text.begin(), text.end(), [](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) != 0;
         });
}

// A sign or an operator that is taken for a word would leave documents out of both, or in both. A
// query without a word finds nothing, and so does its opposite.
void checkOpposite(corvaned::LocalStore& store, const std::vector<Document>& documents,
                   const std::string& text, const Keys& found) {
  SearchQuery opposite;
  opposite.text = "NOT (" + text + ")";
  const auto others =
      unlessRefused<Keys>(false, [&] { return keysOf(*store.search("whole", opposite)); });
  if (!others) return;
  if (found.empty() && others->empty()) {
    require(!hasWord(text), "a query with a word finds something, or its opposite does");
    return;
  }
  Keys all;
  std::set_union(found.begin(), found.end(), others->begin(), others->end(),
                 std::back_inserter(all));
  require(all.size() == documents.size() && found.size() + others->size() == all.size(),
          "a document is found by a query or by its opposite");
}

void check(const std::string& name, const std::string& text) {
  static const Collections collections;
  const auto& stores = collections.stores();
  const std::vector<Document>& documents = collections.documents();
  const auto found = keysIn(*stores.front(), name, documents, text, false);
  const auto inSeveral = keysIn(*stores.back(), name, documents, text, found.has_value());
  require(found || !inSeveral, "one database understands what several do");
  require(!inSeveral || *inSeveral == *found, "several databases have the same hits as one");
  // Stop words alone are searched for, which are nothing beside other words.
  if (found && name == "whole") checkOpposite(*stores.front(), documents, text, *found);
}

}  // namespace

}  // namespace tq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tq::fuzz;
  Input input(data, size);
  const unsigned int choice = input.byte();
  const char* const collection = choice / 2 % 2 == 0 ? "whole" : "bare";
  check(collection, choice % 2 == 0 ? std::string(input.rest()) : queryOf(input.rest()));
  return 0;
}
