#include "tests/e2e/serverModel.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <sstream>
#include <string_view>
#include <tuple>
#include <utility>

namespace tq::test {

namespace {

constexpr std::size_t kMaxKey = 128;
constexpr std::size_t kMaxMark = 128;
constexpr std::size_t kMaxCollectionName = 240;

constexpr const char* kHit = "ZVK0104I";
constexpr const char* kValue = "ZVK0105I";
constexpr const char* kPlace = "ZVK0108I";
constexpr const char* kApplied = "ZVK0110I";

constexpr const char* kAnyRefusal = "a refusal";

using Texts = std::vector<std::string>;

bool isOneOf(const std::string& text, const Texts& texts) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string expectSuccess(bool expected, const Answer& answer) {
  if (answer.success == expected) return {};
  return expected ? "success" : kAnyRefusal;
}

bool isRefusedWith(const Answer& answer, const std::string& id) {
  return !answer.failure.empty() && answer.failure.front().id == id;
}

std::string fieldOf(const std::string& facts, const std::string& name) {
  const std::string begin = name + "=";
  const std::size_t at = facts.find(begin);
  if (at == std::string::npos) return {};
  const std::size_t from = at + begin.size();
  // These may have blanks, and stand last.
  const bool isLast = name == "mark" || name == "collection";
  const std::size_t end = isLast ? std::string::npos : facts.find(' ', from);
  return facts.substr(from, end == std::string::npos ? end : end - from);
}

std::string collectionOf(const Operation& operation, const Parsed& hit) {
  const std::string named = fieldOf(hit.messageText, "collection");
  if (named.empty()) return operation.collection;
  return named.substr(std::string_view(kNeutralPrefix).size());
}

// Nothing if the server cannot read it either.
std::optional<std::uint64_t> numberIn(const Operation& operation, const char* name,
                                      std::uint64_t otherwise) {
  const std::string text = operation.given(name);
  if (text.empty()) return otherwise;
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return number;
}

bool canBeTaken(const std::string& key, const Parameters& metadata) {
  return !key.empty() && key.size() <= kMaxKey && !metadata.empty();
}

bool canBeTaken(const Operation& operation) {
  return canBeTaken(operation.key, operation.metadata) && operation.metadataAttribute == 0;
}

Written documentIn(const Operation& operation) {
  return {operation.key, operation.metadata, operation.text};
}

// Words of which it is certain what finds them, whatever the collection's language. Of stems, only
// those of English are.
std::optional<std::string> plainWord(const std::string& word, bool isEnglish) {
  static const Texts everywhere{"red", "hen", "größe", "straße", "nothing"};
  if (isOneOf(word, everywhere)) return word;
  if (!isEnglish) return std::nullopt;
  if (word == "fox" || word == "foxes") return "fox";
  if (word == "run" || word == "running") return "run";
  return std::nullopt;
}

Texts wordsIn(const std::string& text) {
  Texts words{""};
  for (const char c : text) {
    if (c != ' ' && c != '.' && c != '\n') {
      words.back() += c;
    } else if (!words.back().empty()) {
      words.emplace_back();
    }
  }
  if (words.back().empty()) words.pop_back();
  return words;
}

/// A query of one or two plain words.
class PlainQuery {
 public:
  static std::optional<PlainQuery> from(const std::string& text, bool isEnglish) {
    PlainQuery query(isEnglish);
    if (text.find_first_of(".\n\"():*?!/") != std::string::npos) return std::nullopt;
    Texts words = wordsIn(text);
    if (words.size() == 2 && words[0] == "NOT") words.insert(words.begin(), "");
    if (words.size() == 3 && (words[1] == "NOT" || words[1] == "OR")) {
      query.joint_ = words[1];
      words.erase(words.begin() + 1);
    }
    if (words.empty() || words.size() > 2) return std::nullopt;
    for (const std::string& word : words) {
      const auto plain = word.empty() ? std::optional(word) : plainWord(word, isEnglish);
      if (!plain) return std::nullopt;
      query.words_.push_back(*plain);
    }
    if (query.joint_ != "NOT" && query.words_.front().empty()) return std::nullopt;
    return query;
  }

  bool finds(const Written& document) const {
    std::set<std::string> there;
    for (const std::string& word : wordsIn(document.text)) {
      there.insert(plainWord(word, isEnglish_).value_or("(" + word + ")"));
    }
    const auto has = [&](const std::string& word) { return word.empty() || there.contains(word); };
    if (words_.size() == 1) return has(words_[0]);
    if (joint_ == "NOT") return has(words_[0]) && !has(words_[1]);
    return joint_ == "OR" ? has(words_[0]) || has(words_[1]) : has(words_[0]) && has(words_[1]);
  }

 private:
  explicit PlainQuery(bool isEnglish) : isEnglish_(isEnglish) {}

  bool isEnglish_;
  Texts words_;
  std::string joint_;
};

/// Which keys a result is limited to.
class KeyRange {
 public:
  /// Nothing if the server refuses it.
  static std::optional<KeyRange> of(const Operation& operation) {
    KeyRange range;
    for (const char* name : {"after", "upTo"}) {
      const std::string id = operation.given(name);
      if (id.empty()) continue;
      if (!id.starts_with("base64:") || keyOf(id).empty()) return std::nullopt;
      (name == std::string_view("after") ? range.after_ : range.upTo_) = keyOf(id);
    }
    std::istringstream list(operation.given("keys"));
    for (std::string key; std::getline(list, key, ',');) {
      // What the generator draws for a text that is none.
      if (key == "k1") return std::nullopt;
      range.keys_.insert(keyOf("base64:" + key));
    }
    return range;
  }

  bool has(const std::string& key) const {
    return (after_.empty() || key > after_) && (upTo_.empty() || key <= upTo_) &&
           (keys_.empty() || keys_.contains(key));
  }

 private:
  std::string after_, upTo_;
  std::set<std::string> keys_;
};

std::optional<std::uint64_t> sortValueOf(const Written& document) {
  for (const auto& [name, value] : document.metadata) {
    if (name == "[sortable]n") return std::stoull(value);
  }
  return std::nullopt;
}

std::string unmarked(const std::string& name) {
  for (const std::string_view mark : {"Indexable:", "[sortable]"}) {
    if (name.starts_with(mark)) return name.substr(mark.size());
  }
  return name;
}

Parameters queryOf(const Operation& operation) {
  Parameters query;
  for (const char* name : {"query", "sortField", "after", "upTo", "keys", "resultLimit"}) {
    query.emplace_back(name, operation.given(name));
  }
  return query;
}

std::string sha256Of(const std::string& bytes) {
  std::array<unsigned char, crypto_hash_sha256_BYTES> hash{};
  crypto_hash_sha256(hash.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                     bytes.size());
  std::string hex(2 * hash.size() + 1, '\0');
  sodium_bin2hex(hex.data(), hex.size(), hash.data(), hash.size());
  hex.pop_back();
  return hex;
}

bool isCertain(const Operation& operation) {
  const auto has = [&](const char* name) { return !operation.given(name).empty(); };
  if (has("scoreWanted") || has("scoreType") || has("pageNumber") || has("snippet")) return false;
  if (!isOneOf(operation.given("sortField"), {"", "SCORE", "KEY", "UNSORTED"})) return false;
  const auto size = numberIn(operation, "size", 0);
  if (!size || !numberIn(operation, "start", 0) || !numberIn(operation, "resultLimit", 0)) {
    return false;
  }
  constexpr std::uint64_t kMaxOfReport = 100;
  return operation.others.empty() && (operation.verb != Verb::Hits || *size <= kMaxOfReport);
}

}  // namespace

ServerModel::Collection* ServerModel::find(const std::string& name) {
  const auto found = collections_.find(name);
  return found == collections_.end() ? nullptr : &found->second;
}

const ServerModel::Collection* ServerModel::find(const std::string& name) const {
  const auto found = collections_.find(name);
  return found == collections_.end() ? nullptr : &found->second;
}

bool ServerModel::isImmediate(const std::string& collection) const {
  const Collection* found = find(collection);
  return found != nullptr && found->isImmediate;
}

std::string ServerModel::follow(const Operation& operation, const Answer& answer) {
  switch (operation.verb) {
    case Verb::CreateCollection:
    case Verb::DropCollection:
    case Verb::OpenCollection:
    case Verb::OpenCollectionAlt:
    case Verb::CloseCollection:
      return followCollection(operation, answer);
    case Verb::AddDocument:
    case Verb::QueueDocument:
    case Verb::DeleteDocument:
    case Verb::UpdateIndex:
      return followChange(operation, answer);
    case Verb::Batch:
      return followBatch(operation, answer);
    case Verb::Backup:
    case Verb::Restore:
      return followBackup(operation, answer);
    case Verb::Page:
    case Verb::Place:
      return followPage(operation, answer);
    default:
      return checkResults(operation, answer);
  }
}

std::string ServerModel::checkResults(const Operation& operation, const Answer& answer) {
  Collection* collection = find(operation.collection);
  switch (operation.verb) {
    case Verb::ParseResults:
      if (collection == nullptr) return expectSuccess(false, answer);
      return checkOutcomes(answer, *collection);
    case Verb::Status:
      if (collection == nullptr || answer.statusCode == (collection->changes > 0 ? 1U : 0U)) {
        return {};
      }
      return "status " + std::to_string(collection->changes > 0 ? 1 : 0);
    case Verb::StreamSearch:
    case Verb::ScalarSearch:
    case Verb::Match:
    case Verb::Hits:
    case Verb::Count:
      return checkHits(operation, answer);
    case Verb::Digest:
      return checkDigest(operation, answer);
    case Verb::BatchOutcome:
      return checkBatchOutcome(operation, answer);
    case Verb::CollectionFacts:
      return checkFacts(operation, answer);
    case Verb::CollectionList:
    case Verb::BackupList:
      return checkNames(operation, answer);
    default:
      return {};
  }
}

// Collections.

std::string ServerModel::followCollection(const Operation& operation, const Answer& answer) {
  const std::string& name = operation.collection;
  Collection* collection = find(name);
  if (operation.verb == Verb::CreateCollection) {
    const std::string language = operation.given("docLang");
    const std::string refresh = operation.given("refresh");
    const bool possible = collection == nullptr && !name.empty() &&
                          name.size() <= kMaxCollectionName &&
                          isOneOf(language, {"", "de", "en_US", "pl", "ja"}) &&
                          isOneOf(refresh, {"", "manual", "immediate"});
    if (!possible) return expectSuccess(false, answer);
    Collection& created = collections_[name];
    created.isEnglish = isOneOf(language, {"", "en_US"});
    created.isImmediate = refresh == "immediate";
    created.state = ++states_;
    return expectSuccess(true, answer);
  }
  if (name == kSharedCollection) return {};
  if (collection == nullptr) return expectSuccess(false, answer);
  if (operation.verb == Verb::DropCollection) collections_.erase(name);
  if (operation.verb == Verb::CloseCollection) {
    collection->state = ++states_;
    collection->mayHaveChanged = false;
  }
  return expectSuccess(true, answer);
}

std::string ServerModel::followBackup(const Operation& operation, const Answer& answer) {
  const Collection* collection = find(operation.collection);
  const auto backup = backups_.find(operation.backup);
  if (operation.verb == Verb::Backup) {
    const bool possible =
        collection != nullptr && !operation.backup.empty() && backup == backups_.end();
    if (possible) backups_[operation.backup] = {operation.collection, *collection};
    return expectSuccess(possible, answer);
  }
  const std::string from = operation.from.empty() ? operation.collection : operation.from;
  const bool mayReplace = collection == nullptr || operation.given("replace") == "true";
  const bool possible = backup != backups_.end() && backup->second.name == from && mayReplace &&
                        operation.collection.size() <= kMaxCollectionName;
  if (!possible) return expectSuccess(false, answer);
  Collection& restored = collections_[operation.collection];
  restored = backup->second.collection;
  restored.queued.reset();
  restored.state = ++states_;
  restored.mayHaveChanged = false;
  return expectSuccess(true, answer);
}

// Changes.

void ServerModel::accept(Collection& collection, const Written& document) {
  collection.accepted[document.key] = document;
  collection.waiting[document.key] = true;
  ++collection.changes;
}

void ServerModel::remove(Collection& collection, const std::string& key) {
  collection.accepted.erase(key);
  collection.searchable.erase(key);
  collection.waiting[key] = false;
  ++collection.changes;
}

// The index stays as it is if no document comes or goes. Whether it is then still the same state
// is the server's affair.
void ServerModel::update(Collection& collection) {
  const bool changes = std::any_of(
      collection.waiting.begin(), collection.waiting.end(),
      [&](const auto& one) { return one.second || collection.indexed.contains(one.first); });
  if (changes) {
    collection.state = ++states_;
    collection.mayHaveChanged = false;
  } else if (collection.changes > 0) {
    collection.mayHaveChanged = true;
  }
  collection.searchable = collection.accepted;
  collection.indexed.clear();
  for (const auto& [key, document] : collection.accepted) collection.indexed.insert(key);
  collection.waiting.clear();
  collection.changes = 0;
}

std::string ServerModel::followChange(const Operation& operation, const Answer& answer) {
  Collection* collection = find(operation.collection);
  if (operation.verb == Verb::QueueDocument) {
    // The client refuses what it could not send.
    if (collection == nullptr || !answer.failure.empty()) return {};
    const bool isTaken = canBeTaken(operation);
    if (collection->queued) collection->queued->push_back({operation.key, isTaken});
    if (isTaken) accept(*collection, documentIn(operation));
    return {};
  }
  if (operation.collection == kSharedCollection) return {};
  if (collection == nullptr) return expectSuccess(false, answer);
  if (operation.verb == Verb::UpdateIndex) {
    update(*collection);
    return expectSuccess(true, answer);
  }
  if (!canBeTaken(operation)) return expectSuccess(false, answer);
  if (operation.verb == Verb::AddDocument) {
    accept(*collection, documentIn(operation));
  } else {
    const bool mustExist = operation.given("mustExist") == "true";
    if (mustExist && !collection->accepted.contains(operation.key)) {
      return isRefusedWith(answer, "ZVK0034E") ? "" : "ZVK0034E";
    }
    remove(*collection, operation.key);
  }
  if (collection->isImmediate) update(*collection);
  return expectSuccess(true, answer);
}

std::string ServerModel::checkOutcomes(const Answer& answer, Collection& collection) {
  const auto queued = std::exchange(collection.queued, std::vector<QueuedDocument>{});
  if (!queued) return {};
  std::ostringstream expected;
  bool isAsExpected = answer.success && answer.parsed.size() == queued->size();
  for (std::size_t i = 0; i < queued->size(); ++i) {
    const auto& [key, isTaken] = (*queued)[i];
    expected << ' ' << docIdOf(key) << (isTaken ? " stored" : " refused");
    if (i >= answer.parsed.size()) continue;
    const Parsed& parsed = answer.parsed[i];
    isAsExpected = isAsExpected && parsed.messageId.empty() == isTaken &&
                   (!isTaken || parsed.document == docIdOf(key));
  }
  return isAsExpected ? "" : "the outcomes" + expected.str();
}

// Batches.

// Why the batch must be refused; empty if it must be applied.
std::string ServerModel::refusalOf(const Operation& batch, const Collection& collection) const {
  const std::string newMark = batch.given("newMark");
  const std::string expectedMark = batch.given("expectedMark");
  if (newMark == "none" || newMark.size() > kMaxMark || expectedMark.size() > kMaxMark) {
    return "ZVK0006E";
  }
  std::set<std::string> keys;
  bool isPossible = true;
  bool allExist = true;
  for (const Written& document : batch.documents) {
    isPossible = isPossible && canBeTaken(document.key, document.metadata) &&
                 keys.insert(document.key).second;
  }
  for (const std::string& key : batch.removed) {
    isPossible = isPossible && keys.insert(key).second;
    allExist = allExist && collection.accepted.contains(key);
  }
  const auto applied = collection.batches.find(batch.given("batch"));
  if (applied != collection.batches.end()) {
    const bool isTheSame = applied->second.content == contentOf(batch.documents, batch.removed) &&
                           applied->second.newMark == newMark;
    return isTheSame && isPossible ? "" : "ZVK0031E";
  }
  const std::string mark = collection.mark.empty() ? "none" : collection.mark;
  if (!expectedMark.empty() && expectedMark != mark) return "ZVK0032E";
  const bool mustExist = batch.given("mustExist") == "true";
  return isPossible && (allExist || !mustExist) ? "" : "ZVK0030E";
}

void ServerModel::apply(const Operation& batch, Collection& collection) {
  const std::string name = batch.given("batch");
  if (collection.batches.contains(name)) return;
  const auto unknown =
      std::count_if(batch.removed.begin(), batch.removed.end(),
                    [&](const std::string& key) { return !collection.accepted.contains(key); });
  std::ostringstream facts;
  facts << "documents=" << batch.documents.size() << " deletions=" << batch.removed.size()
        << " unknown=" << unknown;
  const std::string newMark = batch.given("newMark");
  collection.batches[name] = {contentOf(batch.documents, batch.removed), newMark, facts.str()};
  if (!newMark.empty()) collection.mark = newMark;
  for (const Written& document : batch.documents) accept(collection, document);
  for (const std::string& key : batch.removed) remove(collection, key);
  if (batch.documents.empty() && batch.removed.empty()) ++collection.changes;
  if (collection.isImmediate) update(collection);
}

std::string ServerModel::followBatch(const Operation& operation, const Answer& answer) {
  Collection* collection = find(operation.collection);
  if (operation.collection == kSharedCollection) return {};
  if (collection == nullptr) return expectSuccess(false, answer);
  const std::string refusal = refusalOf(operation, *collection);
  if (!refusal.empty()) return isRefusedWith(answer, refusal) ? "" : refusal;
  apply(operation, *collection);
  return expectSuccess(true, answer);
}

std::string ServerModel::checkBatchOutcome(const Operation& operation, const Answer& answer) const {
  const Collection* collection = find(operation.collection);
  if (collection == nullptr) return {};
  const std::string name = operation.given("batch");
  const auto applied = collection->batches.find(name);
  const bool saysApplied = answer.parsed.size() == 1 && answer.parsed[0].messageId == kApplied;
  if (applied == collection->batches.end()) return saysApplied ? "no such batch" : "";
  if (saysApplied && answer.parsed[0].document == name &&
      answer.parsed[0].messageText == applied->second.facts) {
    return {};
  }
  return name + ": " + applied->second.facts;
}

// Reports.

std::string ServerModel::checkDigest(const Operation& operation, const Answer& answer) const {
  const Collection* collection = find(operation.collection);
  const auto range = KeyRange::of(operation);
  const auto every = numberIn(operation, "every", 0);
  const auto size = numberIn(operation, "size", 1000);
  constexpr std::uint64_t kMaxSize = 1000;
  const bool possible = collection != nullptr && range && every && size && *size <= kMaxSize &&
                        operation.given("report") == "digest";
  if (operation.collection == kSharedCollection) return {};
  if (!possible) return expectSuccess(false, answer);
  std::vector<HitLine> expected;
  std::string bytes;
  std::uint64_t documents = 0;
  std::string last;
  const auto end = [&] {
    if (documents == 0 || expected.size() >= *size) return;
    expected.push_back(
        {docIdOf(last), "documents=" + std::to_string(documents) + " sha256=" + sha256Of(bytes)});
    documents = 0;
    bytes.clear();
  };
  for (const auto& [key, document] : collection->searchable) {
    if (!range->has(key)) continue;
    bytes += blockOf(document);
    last = key;
    if (++documents == *every) end();
  }
  end();
  std::vector<HitLine> found;
  for (const Parsed& line : answer.parsed) found.push_back({line.document, line.messageText});
  if (found == expected) return {};
  std::ostringstream out;
  out << "the digests";
  for (const auto& [document, text] : expected) out << ' ' << document << " [" << text << ']';
  return out.str();
}

std::string ServerModel::checkFacts(const Operation& operation, const Answer& answer) const {
  const Collection* collection = find(operation.collection);
  if (operation.collection == kSharedCollection) return {};
  if (collection == nullptr) return expectSuccess(false, answer);
  std::ostringstream expected;
  expected << "documents=" << collection->indexed.size() << " pending"
           << (collection->changes > 0 ? ">0" : "=0")
           << " refresh=" << (collection->isImmediate ? "immediate" : "manual")
           << " mark=" << (collection->mark.empty() ? "none" : collection->mark);
  if (answer.parsed.size() != 1) return expected.str();
  const std::string& text = answer.parsed[0].messageText;
  std::ostringstream found;
  found << "documents=" << fieldOf(text, "documents") << " pending"
        << (fieldOf(text, "pending") == "0" ? "=0" : ">0")
        << " refresh=" << fieldOf(text, "refresh") << " mark=" << fieldOf(text, "mark");
  return found.str() == expected.str() ? "" : expected.str();
}

std::string ServerModel::checkNames(const Operation& operation, const Answer& answer) const {
  Texts expected;
  if (operation.verb == Verb::CollectionList) {
    for (const auto& [name, collection] : collections_) expected.push_back(kNeutralPrefix + name);
  } else {
    for (const auto& [name, saved] : backups_) expected.push_back(kNeutralPrefix + name);
  }
  const auto size = numberIn(operation, "size", 100);
  if (size && *size < expected.size()) expected.resize(*size);
  Texts found;
  for (const Parsed& line : answer.parsed) found.push_back(line.document);
  if (found == expected) return {};
  std::string names = "the names";
  for (const std::string& name : expected) names += " " + name;
  return names;
}

// Hits.

// In their order, if it is that of keys or values; else in no particular one.
std::optional<std::vector<ServerModel::Match>> ServerModel::matches(
    const Operation& operation) const {
  Texts names{operation.collection};
  names.insert(names.end(), operation.others.begin(), operation.others.end());
  const std::string text = operation.given("query");
  const std::string field = operation.given("sortField");
  const bool isUnscored = operation.verb == Verb::Count || !isOneOf(field, {"", "SCORE"});
  const auto range = KeyRange::of(operation);
  if (!range || (text.empty() && !isUnscored)) return std::nullopt;
  using Place = std::tuple<std::uint64_t, std::string, std::string>;
  std::vector<std::pair<Place, Match>> found;
  const bool byValue = field == "n" || field == "-n";
  const auto placeOf = [&](const Written& document, const std::string& collection) -> Place {
    constexpr auto kLast = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t value = 0;
    if (byValue) {
      value = sortValueOf(document).value_or(kLast);
      if (field == "-n" && value != kLast) value = kLast - 1 - value;
    }
    return {value, document.key, collection};
  };
  const auto take = [&](const Written& document, const std::string& name,
                        const std::optional<PlainQuery>& query) {
    if (!range->has(document.key) || (query && !query->finds(document))) return;
    found.push_back({placeOf(document, name), {document.key, name}});
  };
  for (const std::string& name : names) {
    const Collection* collection = find(name);
    if (collection == nullptr) return std::nullopt;
    const auto query = PlainQuery::from(text, collection->isEnglish);
    if (!query && !text.empty()) return std::nullopt;
    if (operation.verb == Verb::Match) {
      if (operation.given("match") == "document") take(documentIn(operation), name, query);
      for (const Written& document : operation.documents) take(document, name, query);
      continue;
    }
    for (const auto& [key, document] : collection->searchable) take(document, name, query);
  }
  std::sort(found.begin(), found.end());
  std::vector<Match> sorted;
  for (auto& [place, match] : found) sorted.push_back(std::move(match));
  return sorted;
}

std::string ServerModel::checkHits(const Operation& operation, const Answer& answer) const {
  auto expected = matches(operation);
  if (operation.verb == Verb::Match) {
    // The others say nothing of what the query finds.
    const bool isReadable = operation.given("match") == "document" || !operation.documents.empty();
    if (!answer.success || !isReadable) return {};
  }
  if (!expected) return {};
  if (!answer.success) return isCertain(operation) ? "a result" : "";
  if (operation.verb == Verb::Count) {
    const std::string hits = "hits=" + std::to_string(expected->size());
    return answer.parsed.size() == 1 && answer.parsed[0].messageText == hits ? "" : hits;
  }
  constexpr auto kAll = std::numeric_limits<std::uint64_t>::max();
  const std::uint64_t usually = operation.verb == Verb::Hits ? 10 : kAll;
  const std::uint64_t limit = numberIn(operation, "resultLimit", kAll).value_or(kAll);
  const std::uint64_t start = numberIn(operation, "start", 0).value_or(0);
  const std::uint64_t size = numberIn(operation, "size", usually).value_or(kAll);
  const std::uint64_t all = std::min<std::uint64_t>(expected->size(), limit);
  const auto first = static_cast<std::ptrdiff_t>(std::min(start, all));
  const auto count = static_cast<std::ptrdiff_t>(std::min(all - std::min(start, all), size));

  std::vector<Match> found;
  for (const Hit& hit : answer.hits) found.push_back({keyOf(hit.id), operation.collection});
  for (const Parsed& line : answer.parsed) {
    if (line.messageId != kHit) continue;
    found.push_back({keyOf(line.document), collectionOf(operation, line)});
  }
  const bool isOrdered = !isOneOf(operation.given("sortField"), {"", "SCORE", "UNSORTED"});
  bool isAsExpected = found.size() == static_cast<std::size_t>(count);
  if (isOrdered) {
    isAsExpected =
        isAsExpected && std::equal(found.begin(), found.end(), expected->begin() + first);
  } else {
    const std::set<Match> may(expected->begin(), expected->end());
    const std::set<Match> there(found.begin(), found.end());
    isAsExpected = isAsExpected && there.size() == found.size() &&
                   std::includes(may.begin(), may.end(), there.begin(), there.end());
  }
  if (isAsExpected) return checkValues(operation, answer);
  std::ostringstream out;
  out << count << " hits" << (isOrdered ? " in this order from the " : ", from the ") << first
      << "th, of";
  for (const auto& [key, name] : *expected) out << ' ' << docIdOf(key) << " in " << name;
  return out.str();
}

const Written* ServerModel::documentOf(const Operation& operation, const Parsed& hit) const {
  const Collection* collection = find(collectionOf(operation, hit));
  if (collection == nullptr) return nullptr;
  const auto found = collection->searchable.find(keyOf(hit.document));
  return found == collection->searchable.end() ? nullptr : &found->second;
}

// What is told of each hit is what its document was sent with.
std::string ServerModel::checkValues(const Operation& operation, const Answer& answer) const {
  if (operation.verb != Verb::Hits) return {};
  std::string wanted = operation.given("values");
  std::replace(wanted.begin(), wanted.end(), ',', ' ');
  const Texts names = wordsIn(wanted);
  std::vector<HitLine> expected;
  std::vector<HitLine> found;
  for (const Parsed& line : answer.parsed) {
    if (line.messageId == kValue) found.push_back({line.document, line.messageText});
    if (line.messageId != kHit) continue;
    const Written* document = documentOf(operation, line);
    if (document == nullptr) return "hits that are there";
    for (const auto& [marked, value] : document->metadata) {
      const std::string name = unmarked(marked);
      if (isOneOf(name, names)) expected.push_back({line.document, name + "=" + value});
    }
  }
  if (found == expected) return {};
  std::ostringstream out;
  out << "the values";
  for (const auto& [document, text] : expected) out << ' ' << document << " [" << text << ']';
  return out.str();
}

// Pages.

bool ServerModel::beginsResult(const Operation& operation) const {
  if (operation.verb != Verb::Page && operation.verb != Verb::Place) return false;
  return operation.pageFrom == PageFrom::Begin || !result_;
}

void ServerModel::showResult(const Operation& begin, const Answer& whole) {
  Result result{begin.collection, queryOf(begin), ++states_, std::nullopt, 0};
  if (Collection* collection = find(begin.collection)) {
    collection->state = result.state;
    collection->mayHaveChanged = false;
  }
  if (whole.success) {
    result.hits.emplace();
    for (const Parsed& line : whole.parsed) {
      if (line.messageId == kHit) result.hits->push_back({line.document, line.messageText});
    }
  }
  result_ = std::move(result);
  hasBegun_ = true;
}

std::string ServerModel::followPage(const Operation& operation, const Answer& answer) {
  const Collection* collection = find(operation.collection);
  const bool begins = std::exchange(hasBegun_, false);
  Result result = *result_;
  // For the place behind no hits nobody looks at any, so that the order may be impossible.
  const bool isBehindNone =
      operation.verb == Verb::Place && numberIn(operation, "start", 0) == std::uint64_t{0};
  std::string complaint;
  if (collection != nullptr && isBehindNone && !result.hits && answer.success) {
    complaint.clear();
  } else if (collection == nullptr || result.collection != operation.collection ||
             result.query != queryOf(operation) || !result.hits) {
    complaint = expectSuccess(false, answer);
  } else if (result.state != collection->state) {
    complaint = isRefusedWith(answer, "ZVK0035E") ? "" : "ZVK0035E";
  } else if (answer.success || !collection->mayHaveChanged) {
    complaint = checkPage(operation, answer, result);
  }
  // The sides go on with the latest place that they were told.
  const bool tellsPlaces = operation.verb == Verb::Place || !operation.given("report").empty();
  if (tellsPlaces && answer.success) {
    const bool told = !answer.parsed.empty() && answer.parsed.back().messageId == kPlace;
    if (told) {
      result_ = std::move(result);
    } else {
      result_.reset();
    }
  } else if (begins) {
    result_.reset();
  }
  return complaint;
}

std::string ServerModel::checkPage(const Operation& operation, const Answer& answer,
                                   Result& result) {
  const std::vector<HitLine>& all = *result.hits;
  const std::uint64_t start = numberIn(operation, "start", 0).value_or(0);
  const bool isPlace = operation.verb == Verb::Place;
  const std::uint64_t size = isPlace ? 0 : numberIn(operation, "size", 0).value_or(0);
  const bool isReport = !operation.given("report").empty();
  const std::uint64_t first = result.rank + start;

  std::vector<HitLine> expected;
  for (std::uint64_t i = first; i < all.size() && i < first + size; ++i) {
    expected.push_back(all[i]);
    if (!isReport) expected.back().text.clear();
  }
  const bool isFull = isPlace ? first <= all.size() : expected.size() == size;
  if (isFull) result.rank = first + size;
  std::vector<HitLine> wanted = expected;
  if (isReport && isFull) {
    wanted.push_back({kNeutralPrefix + operation.collection,
                      "rank=" + std::to_string(result.rank) + " place=*"});
  }
  std::vector<HitLine> found;
  for (const Hit& hit : answer.hits) found.push_back({hit.id, ""});
  for (const Parsed& line : answer.parsed) found.push_back({line.document, line.messageText});
  if (answer.success && found == wanted) return {};
  std::ostringstream out;
  out << "the page";
  for (const auto& [document, text] : wanted) out << ' ' << document << " [" << text << ']';
  return out.str();
}

}  // namespace tq::test
