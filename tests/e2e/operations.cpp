#include "tests/e2e/operations.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <random>
#include <string_view>

#include "comm/kruRESTMessage.h"

namespace tq::test {

namespace {

using tq::comm::ClientRequest;

struct VerbTraits {
  Verb verb;
  const char* name;
  int kind;
  unsigned weight;  // how often, against the others
};

constexpr std::array<VerbTraits, kVerbs> kTraits{{
    {Verb::CreateCollection, "create", ClientRequest::CREATE_COLLECTION, 3},
    {Verb::OpenCollection, "open", ClientRequest::OPEN_COLLECTION, 2},
    {Verb::OpenCollectionAlt, "open (alternative)", ClientRequest::OPEN_COLLECTION_ALT, 1},
    {Verb::CloseCollection, "close", ClientRequest::CLOSE_COLLECTION, 2},
    {Verb::DropCollection, "drop", ClientRequest::DROP_COLLECTION, 2},
    {Verb::AddDocument, "add", ClientRequest::ADD_DOCUMENT, 20},
    {Verb::QueueDocument, "queue", ClientRequest::ASYNCH_ADD_DOCUMENT, 16},
    {Verb::LastDocument, "last document", ClientRequest::LAST_DOC_SENT, 3},
    {Verb::ParseResults, "parse results", ClientRequest::PARSE_RESULT, 10},
    {Verb::DeleteDocument, "delete", ClientRequest::DELETE_DOCUMENT, 8},
    {Verb::UpdateIndex, "update index", ClientRequest::UPDATE_INDEX, 14},
    {Verb::StreamSearch, "streaming search", ClientRequest::STREAM_SEARCH, 20},
    {Verb::ScalarSearch, "scalar search", ClientRequest::SCALAR_SEARCH, 14},
    {Verb::AbandonedSearch, "abandoned search", ClientRequest::STREAM_SEARCH, 4},
    {Verb::Match, "match", ClientRequest::STREAM_SEARCH, 6},
    {Verb::Digest, "digest", ClientRequest::PARSE_RESULT, 4},
    {Verb::Batch, "batch", ClientRequest::ADD_DOCUMENT, 14},
    {Verb::BatchOutcome, "batch outcome", ClientRequest::PARSE_RESULT, 4},
    {Verb::Page, "page", ClientRequest::PARSE_RESULT, 16},
    {Verb::Place, "place", ClientRequest::PARSE_RESULT, 4},
    {Verb::Hits, "hits", ClientRequest::PARSE_RESULT, 12},
    {Verb::Count, "count", ClientRequest::PARSE_RESULT, 5},
    {Verb::CollectionFacts, "collection facts", ClientRequest::PARSE_RESULT, 2},
    {Verb::CollectionList, "collection list", ClientRequest::PARSE_RESULT, 2},
    {Verb::Backup, "backup", ClientRequest::BACKUP, 2},
    {Verb::Restore, "restore", ClientRequest::RESTORE, 5},
    {Verb::BackupList, "backup list", ClientRequest::PARSE_RESULT, 1},
    {Verb::Selectivity, "selectivity", ClientRequest::SELECTIVITY, 3},
    {Verb::Status, "status", ClientRequest::GET_STATUS, 4},
    {Verb::ServerStatus, "server status", ClientRequest::GET_STATUS, 1},
    {Verb::Version, "version", ClientRequest::GET_SERVER_VERSION, 1},
    {Verb::Unsupported, "unsupported", ClientRequest::TAKEOVER, 1},
    {Verb::Reconnect, "reconnect", 0, 2},
}};

const VerbTraits& traitsOf(Verb verb) { return kTraits[static_cast<std::size_t>(verb)]; }

// The letters have forms of one and of several characters and bytes, the words common stems.
constexpr std::array<std::string_view, 9> kWords{"red", "fox",   "foxes",  "hen",     "running",
                                                 "run", "größe", "straße", "全文検索"};
// Where it stands next to another word, the server has to tell them apart.
constexpr std::string_view kEmoji = "\xF0\x9F\x98\x80";

constexpr std::array<std::string_view, 3> kFields{"title", "colour", "n"};

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  /// From 0 to one less than `count`. The library's distributions differ from machine to machine.
  std::size_t below(std::size_t count) { return static_cast<std::size_t>(engine_() % count); }
  bool oneIn(std::size_t count) { return below(count) == 0; }

  template <typename Container>
  typename Container::value_type pick(const Container& choices) {
    return choices[below(choices.size())];
  }
  // One of two words half the time, so that what is searched for is often there.
  std::string word() {
    if (oneIn(20)) return std::string(kEmoji);
    return std::string(kWords[below(oneIn(2) ? 2 : kWords.size())]);
  }

 private:
  std::mt19937_64 engine_;
};

using Texts = std::vector<std::string>;

Verb randomVerb(Random& random) {
  unsigned total = 0;
  for (const VerbTraits& traits : kTraits) total += traits.weight;
  std::size_t point = random.below(total);
  for (const VerbTraits& traits : kTraits) {
    if (point < traits.weight) return traits.verb;
    point -= traits.weight;
  }
  return Verb::ServerStatus;
}

std::string randomCollection(Random& random) {
  const std::size_t point = random.below(100);
  if (point < 80) return creatableCollections()[0];
  if (point < 93) return creatableCollections()[1];
  if (point < 96) return creatableCollections()[2];
  if (point < 98) return "nowhere";
  if (point < 99) return std::string(241, 'x');
  return "";
}

std::string randomKey(Random& random) {
  if (!random.oneIn(8)) return "k" + std::to_string(random.below(5));
  return random.pick(Texts{"", std::string(128, 'K'), std::string(129, 'K'), "größe/1",
                           std::string("\0\xff\r\n", 4), "base64:azE=", " "});
}

std::string randomWords(Random& random, std::size_t most) {
  std::string text;
  for (std::size_t count = random.below(most + 1); count > 0; --count) {
    text += random.word() + (random.oneIn(5) ? ".\n" : " ");
  }
  return text;
}

// Now and then as long as it takes for a body to be sent in pieces.
std::string randomText(Random& random) {
  std::string text = randomWords(random, 10);
  if (!random.oneIn(40)) return text;
  const auto size = random.pick(std::vector<std::size_t>{4990, 5001, 9900, 10000, 10001, 30000});
  return std::string(size, '.') + " " + text;
}

Parameters randomMetadata(Random& random) {
  if (random.oneIn(30)) return {};
  Parameters metadata{{"title", randomWords(random, 3)}};
  if (random.oneIn(3)) metadata.emplace_back("Indexable:colour", random.word());
  if (random.oneIn(5)) metadata.emplace_back("[sortable]n", std::to_string(random.below(3)));
  if (random.oneIn(20)) metadata.emplace_back("größe & more", "not searchable");
  if (random.oneIn(40)) metadata.emplace_back("title", std::string(300, 'x'));
  return metadata;
}

std::string badQuery(Random& random) {
  return random.pick(Texts{"", "red AND", "AND", "(red", "\"red", "NOT", "red NEAR/x fox", "***",
                           "!?", ":", "title:", std::string(20000, 'x'), "red OR OR fox",
                           "query: red"});
}

std::string randomQuery(Random& random) {
  std::string first = random.word();
  const std::string second = random.word();
  switch (random.below(14)) {
    case 0:
      return first + " " + second;
    case 1:
      return first + " OR " + second;
    case 2:
      return first + " NOT " + second;
    case 3:
      return "\"" + first + " " + second + "\"";
    case 4:
      return std::string(random.pick(Texts{"r*", "fo*", "gr*", "x*", "*"}));
    case 5:
      return std::string(random.pick(kFields)) + ":" + first;
    case 6:
      return "NOT " + first;
    case 7:
      return first + " NEAR/3 " + second;
    case 8:
      return "(" + first + " OR " + second + ") " + random.word();
    case 9:
      return badQuery(random);
    default:
      return first;
  }
}

// What a model can tell the hits of, see collectionModel.h.
std::string plainQuery(Random& random) {
  std::string first = random.word();
  switch (random.below(6)) {
    case 0:
      return first + " " + random.word();
    case 1:
      return first + " OR " + random.word();
    case 2:
      return first + " NOT " + random.word();
    case 3:
      return "NOT " + first;
    default:
      return first;
  }
}

void maybeNumber(Random& random, const char* name, Parameters& parameters) {
  if (!random.oneIn(6)) return;
  static const Texts kNumbers{"0", "1", "2", "3", "100", "18446744073709551615"};
  static const Texts kNoNumbers{"-1", "x", "18446744073709551616", "1.5", " 1"};
  parameters.emplace_back(name, random.pick(random.oneIn(8) ? kNoNumbers : kNumbers));
}

std::string smallKey(Random& random) { return "k" + std::to_string(random.below(5)); }

std::string someKeys(Random& random) {
  std::string list;
  for (std::size_t count = 1 + random.below(3); count > 0; --count) {
    constexpr std::size_t kPrefix = std::string_view("base64:").size();
    if (!list.empty()) list += ',';
    list += docIdOf(smallKey(random)).substr(kPrefix);
  }
  return random.oneIn(20) ? "k1" : list;
}

// Which keys the hits may have.
void maybeRange(Random& random, Parameters& parameters) {
  if (random.oneIn(8)) {
    parameters.emplace_back(random.oneIn(2) ? "after" : "upTo",
                            random.pick(Texts{"base64:azE=", "base64:azM=", "base64:", "k1"}));
  }
  if (random.oneIn(10)) parameters.emplace_back("keys", someKeys(random));
}

void maybeOrder(Random& random, Parameters& parameters) {
  if (!random.oneIn(3)) return;
  parameters.emplace_back(
      "sortField", random.pick(Texts{"KEY", "KEY", "UNSORTED", "SCORE", "title", "n", "-n"}));
}

bool isOfScores(const std::pair<std::string, std::string>& parameter) {
  return parameter.first == "scoreWanted" || parameter.first == "scoreType";
}

Parameters searchParameters(Random& random) {
  Parameters parameters;
  if (!random.oneIn(40)) parameters.emplace_back("query", randomQuery(random));
  maybeNumber(random, "start", parameters);
  maybeNumber(random, "size", parameters);
  maybeNumber(random, "resultLimit", parameters);
  if (!random.oneIn(3)) {
    parameters.emplace_back("scoreWanted", random.oneIn(10) ? "false" : "true");
  }
  if (random.oneIn(4)) parameters.emplace_back("scoreType", random.oneIn(3) ? "raw" : "normalized");
  if (random.oneIn(50)) parameters.emplace_back("scoreType", "best");
  if (random.oneIn(50)) parameters.emplace_back("pageNumber", "2");
  if (random.oneIn(2)) maybeOrder(random, parameters);
  if (!parameters.empty() && parameters.back().first == "sortField" && !random.oneIn(4)) {
    std::erase_if(parameters, isOfScores);
  }
  maybeRange(random, parameters);
  return parameters;
}

// Of the reports that tell hits and places.
Parameters resultParameters(Random& random) {
  Parameters parameters;
  if (!random.oneIn(8)) {
    parameters.emplace_back("query", random.oneIn(3) ? randomQuery(random) : plainQuery(random));
  }
  maybeOrder(random, parameters);
  maybeRange(random, parameters);
  if (random.oneIn(8)) parameters.emplace_back("resultLimit", std::to_string(random.below(4)));
  return parameters;
}

// One of several in a request, whose keys must differ.
Written smallDocument(Random& random, std::size_t number) {
  Parameters metadata = randomMetadata(random);
  // Without any a document could not be sent.
  if (metadata.empty()) metadata.emplace_back("title", "");
  return {"k" + std::to_string(number), metadata, randomWords(random, 6)};
}

void giveDocument(Random& random, Operation& operation) {
  operation.key = randomKey(random);
  operation.metadata = randomMetadata(random);
  // No bit of the encoding announces the attribute, so this makes a block that cannot be read.
  if (random.oneIn(60)) operation.metadataAttribute = 0x01000000;
  if (operation.verb == Verb::DeleteDocument) {
    if (random.oneIn(5)) operation.parameters.emplace_back("mustExist", "true");
    return;
  }
  operation.text = randomText(random);
}

void giveQuery(Random& random, Operation& operation) {
  operation.parameters = searchParameters(random);
  // An estimate takes nothing but a query, and says so.
  if (operation.verb == Verb::Selectivity && !random.oneIn(8)) {
    std::erase_if(operation.parameters, [](const auto& pair) { return pair.first != "query"; });
  }
  operation.taking = random.oneIn(2) ? Taking::Looping : Taking::Singly;
  if (random.oneIn(6) || operation.verb == Verb::AbandonedSearch) {
    operation.collection = kSharedCollection;
    operation.byOtherName = false;
    if (random.oneIn(2)) operation.parameters.emplace_back("query", "common");
  }
  if (operation.verb == Verb::AbandonedSearch) operation.most = random.below(2000);
}

void giveMatch(Random& random, Operation& operation) {
  giveDocument(random, operation);
  operation.kind = random.oneIn(3) ? ClientRequest::SCALAR_SEARCH : ClientRequest::STREAM_SEARCH;
  operation.parameters = searchParameters(random);
  const Texts several{"document", "document", "documents", "documents", "x"};
  operation.parameters.emplace_back("match", random.pick(several));
  if (random.oneIn(2)) {
    std::erase_if(operation.parameters, [](const auto& pair) { return pair.first == "query"; });
    operation.parameters.emplace_back("query", plainQuery(random));
  }
  // Else the text stands for documents that cannot be read.
  if (operation.given("match") != "documents" || random.oneIn(10)) return;
  for (std::size_t i = 0; i < 5; ++i) {
    if (random.oneIn(2)) operation.documents.push_back(smallDocument(random, i));
  }
}

void giveDigest(Random& random, Operation& operation) {
  operation.parameters.emplace_back("report", random.oneIn(20) ? "nonsense" : "digest");
  maybeNumber(random, "every", operation.parameters);
  maybeNumber(random, "size", operation.parameters);
  if (random.oneIn(3)) maybeRange(random, operation.parameters);
  std::erase_if(operation.parameters, [](const auto& pair) { return pair.first == "keys"; });
}

template <typename Wanted>
const Operation* latestIn(const Sequence& sequence, const Wanted& wanted) {
  const auto found = std::find_if(sequence.rbegin(), sequence.rend(), wanted);
  return found == sequence.rend() ? nullptr : &*found;
}

// Several batches with one name, and several names; the mark that one expects is often there.
void giveBatch(Random& random, Operation& operation) {
  Parameters& parameters = operation.parameters;
  parameters.emplace_back("batch", random.pick(Texts{"first", "load-1", "load-2", "load-3"}));
  if (random.oneIn(3)) {
    parameters.emplace_back("expectedMark", random.pick(Texts{"none", "none", "m1", "m2"}));
  }
  if (random.oneIn(2)) {
    parameters.emplace_back("newMark", random.pick(Texts{"m1", "m2", "a mark of words"}));
  }
  if (random.oneIn(40)) parameters.emplace_back("newMark", "none");
  if (random.oneIn(40)) parameters.emplace_back("expectedMark", std::string(129, 'm'));
  if (random.oneIn(4)) parameters.emplace_back("mustExist", "true");
  for (std::size_t i = 0; i < 5; ++i) {
    const std::size_t point = random.below(4);
    if (point < 2) operation.documents.push_back(smallDocument(random, i));
    if (point == 2) operation.removed.push_back("k" + std::to_string(i));
  }
  if (random.oneIn(25)) {
    operation.documents.push_back(smallDocument(random, 0));
    operation.documents.back().key = random.pick(Texts{std::string(129, 'K'), "k1"});
  }
}

// A client whose reply was lost sends its batch once more, as it was.
void sendAgain(Random& random, const Sequence& before, Operation& operation) {
  const Operation* earlier = latestIn(
      before, [&](const Operation& one) { return one.verb == Verb::Batch && !random.oneIn(3); });
  if (earlier == nullptr) return;
  operation = *earlier;
  if (random.oneIn(6)) operation.removed.clear();
  if (random.oneIn(6)) operation.parameters.emplace_back("newMark", "m3");
}

void givePage(Random& random, const Sequence& before, Operation& operation) {
  const auto isOfPages = [](const Operation& one) {
    return one.verb == Verb::Page || one.verb == Verb::Place;
  };
  operation.pageFrom = PageFrom::Begin;
  const Operation* earlier = latestIn(before, isOfPages);
  if (earlier != nullptr && !random.oneIn(3)) {
    operation.collection = earlier->collection;
    operation.byOtherName = earlier->byOtherName;
    operation.pageFrom = PageFrom::Latest;
    for (const char* name : {"query", "sortField", "after", "upTo", "keys", "resultLimit"}) {
      const std::string value = earlier->given(name);
      if (!value.empty()) operation.parameters.emplace_back(name, value);
    }
    if (random.oneIn(12)) operation.parameters.emplace_back("query", plainQuery(random));
  } else {
    operation.parameters = resultParameters(random);
  }
  if (random.oneIn(5)) operation.parameters.emplace_back("start", std::to_string(random.below(3)));
  if (operation.verb == Verb::Place) {
    operation.parameters.emplace_back("report", "place");
    return;
  }
  operation.parameters.emplace_back("size", std::to_string(1 + random.below(3)));
  if (random.oneIn(4)) {
    operation.kind = random.oneIn(2) ? ClientRequest::SCALAR_SEARCH : ClientRequest::STREAM_SEARCH;
    return;
  }
  operation.parameters.emplace_back("report", "hits");
}

void giveHits(Random& random, Operation& operation) {
  operation.parameters = resultParameters(random);
  Parameters& parameters = operation.parameters;
  parameters.emplace_back("report", "hits");
  maybeNumber(random, "start", parameters);
  if (random.oneIn(3)) {
    parameters.emplace_back("size", random.pick(Texts{"0", "1", "3", "100", "101"}));
  }
  if (random.oneIn(2)) {
    parameters.emplace_back("values", random.pick(Texts{"title", "n,colour", "n title", "größe"}));
  }
  if (random.oneIn(3)) {
    parameters.emplace_back("snippet", random.pick(Texts{"1", "20", "200", "4096", "4097"}));
  }
  if (random.oneIn(2)) return;
  operation.others.push_back(creatableCollections()[1]);
  if (random.oneIn(4)) operation.others.push_back(random.pick(creatableCollections()));
}

void giveCount(Random& random, Operation& operation) {
  operation.parameters.emplace_back("report", "count");
  if (!random.oneIn(3)) {
    operation.parameters.emplace_back("query",
                                      random.oneIn(3) ? randomQuery(random) : plainQuery(random));
  }
  maybeRange(random, operation.parameters);
}

void giveBackup(Random& random, const Sequence& before, Operation& operation) {
  const bool isRestored = operation.verb == Verb::Restore;
  const auto isBackup = [](const Operation& one) { return one.verb == Verb::Backup; };
  const Operation* earlier = latestIn(before, isBackup);
  if (isRestored && earlier == nullptr && !random.oneIn(6)) {
    operation.verb = Verb::Backup;
    operation.kind = ClientRequest::BACKUP;
    giveBackup(random, before, operation);
    return;
  }
  // Without a collection it would be all of them, those of the other side as well.
  if (operation.collection.empty()) operation.collection = creatableCollections()[0];
  operation.byOtherName = false;
  operation.backup = random.pick(Texts{"one", "two", "größe/1", random.oneIn(20) ? "" : "one"});
  if (!isRestored) return;
  if (operation.collection == "nowhere") operation.collection = creatableCollections()[1];
  if (earlier != nullptr && !random.oneIn(6)) {
    operation.backup = earlier->backup;
    operation.from = earlier->collection;
  } else if (random.oneIn(2)) {
    operation.from = randomCollection(random);
  }
  if (!random.oneIn(3)) operation.parameters.emplace_back("replace", "true");
}

void giveOptions(Random& random, Operation& operation) {
  // Nobody would drop it.
  if (operation.collection == "nowhere") operation.collection = creatableCollections()[1];
  if (random.oneIn(4)) {
    operation.parameters.emplace_back("docLang",
                                      random.pick(Texts{"de", "en_US", "xx", "pl", "ja"}));
  }
  if (random.oneIn(4)) {
    operation.parameters.emplace_back(
        "refresh", random.pick(Texts{"immediate", "immediate", "manual", "never"}));
  }
}

Operation operationOf(Verb verb, const std::string& collection = {}) {
  Operation operation;
  operation.verb = verb;
  operation.kind = traitsOf(verb).kind;
  operation.collection = collection;
  return operation;
}

// Without a collection and something to be found there most operations come to nothing.
void begin(Random& random, const std::string& collection, Sequence& sequence) {
  sequence.push_back(operationOf(Verb::CreateCollection, collection));
  if (random.oneIn(3)) giveOptions(random, sequence.back());
  if (random.oneIn(3)) return;
  for (std::size_t count = 1 + random.below(3); count > 0; --count) {
    sequence.push_back(operationOf(Verb::AddDocument, collection));
    giveDocument(random, sequence.back());
  }
  sequence.push_back(operationOf(Verb::UpdateIndex, collection));
}

Sequence beginning(Random& random) {
  Sequence sequence;
  if (!random.oneIn(12)) begin(random, creatableCollections()[0], sequence);
  if (random.oneIn(2)) begin(random, creatableCollections()[1], sequence);
  return sequence;
}

bool namesCollection(Verb verb) {
  return verb != Verb::ServerStatus && verb != Verb::Reconnect && verb != Verb::CollectionList &&
         verb != Verb::BackupList;
}

Operation randomOperation(Random& random, const Sequence& before) {
  Operation operation = operationOf(randomVerb(random));
  if (namesCollection(operation.verb)) {
    operation.collection = randomCollection(random);
    operation.byOtherName = random.oneIn(30);
  }
  switch (operation.verb) {
    case Verb::AddDocument:
    case Verb::QueueDocument:
    case Verb::DeleteDocument:
      giveDocument(random, operation);
      break;
    case Verb::StreamSearch:
    case Verb::ScalarSearch:
    case Verb::AbandonedSearch:
    case Verb::Selectivity:
      giveQuery(random, operation);
      break;
    case Verb::Match:
      giveMatch(random, operation);
      break;
    case Verb::Digest:
      giveDigest(random, operation);
      break;
    case Verb::CreateCollection:
      giveOptions(random, operation);
      break;
    case Verb::Batch:
      giveBatch(random, operation);
      if (random.oneIn(3)) sendAgain(random, before, operation);
      break;
    case Verb::BatchOutcome:
      operation.parameters.emplace_back("batch",
                                        random.pick(Texts{"first", "load-1", "load-2", "other"}));
      break;
    case Verb::Page:
    case Verb::Place:
      givePage(random, before, operation);
      break;
    case Verb::Hits:
      giveHits(random, operation);
      break;
    case Verb::Count:
      giveCount(random, operation);
      break;
    case Verb::Backup:
    case Verb::Restore:
      giveBackup(random, before, operation);
      break;
    case Verb::CollectionFacts:
      operation.parameters.emplace_back("report", "collection");
      break;
    case Verb::CollectionList:
      operation.parameters = {{"report", "collections"},
                              {"size", std::to_string(1 + random.below(3))}};
      break;
    case Verb::BackupList:
      operation.parameters = {{"report", "backups"}};
      break;
    case Verb::Unsupported:
      operation.kind = random.pick(std::vector<int>{6, 18, 23, 25});
      break;
    default:
      break;
  }
  return operation;
}

void printText(std::ostream& out, const char* name, const std::string& text) {
  constexpr std::size_t kShown = 60;
  out << ' ' << name << "=\"";
  for (const char c : text.substr(0, kShown)) {
    if (static_cast<unsigned char>(c) >= 0x20) {
      out << c;
    } else {
      out << "\\" << static_cast<int>(c);
    }
  }
  out << '"';
  if (text.size() > kShown) out << "... (" << text.size() << " bytes)";
}

}  // namespace

std::string Operation::given(std::string_view name) const {
  for (auto each = parameters.rbegin(); each != parameters.rend(); ++each) {
    if (each->first == name) return each->second;
  }
  return {};
}

std::string blockOf(const Written& document) {
  std::list<tq::comm::KVPair> metadata;
  for (const auto& [name, value] : document.metadata) {
    metadata.emplace_back(fromUtf8(name), fromUtf8(value), 0, 0);
  }
  ClientRequest request = requestTo("", ClientRequest::ADD_DOCUMENT);
  attachDocument(request, document.key, document.text, metadata);
  tq::comm::RESTMessage message(u"", request);
  return std::string(message.getMsgPrefix(), message.getMsgPrefixLen()) + document.text;
}

std::string contentOf(const std::vector<Written>& documents,
                      const std::vector<std::string>& removed) {
  std::string content;
  for (const Written& document : documents) content += blockOf(document);
  if (!removed.empty()) content += std::string(8, '\0');
  for (const std::string& key : removed) content += blockOf({key, {{"title", ""}}, ""});
  return content;
}

std::ostream& operator<<(std::ostream& out, Verb verb) { return out << traitsOf(verb).name; }

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  out << operation.verb;
  if (operation.verb == Verb::Unsupported) out << " kind " << operation.kind;
  if (!operation.collection.empty()) printText(out, "collection", operation.collection);
  if (operation.byOtherName) out << " (as collectionName)";
  if (!operation.metadata.empty() || !operation.key.empty()) printText(out, "key", operation.key);
  for (const auto& [name, value] : operation.metadata) printText(out, name.c_str(), value);
  if (operation.metadataAttribute != 0) out << " (with a second attribute)";
  if (!operation.text.empty()) printText(out, "text", operation.text);
  for (const auto& [name, value] : operation.parameters) printText(out, name.c_str(), value);
  for (const Written& document : operation.documents) {
    out << " {";
    printText(out, "key", document.key);
    for (const auto& [name, value] : document.metadata) printText(out, name.c_str(), value);
    printText(out, "text", document.text);
    out << " }";
  }
  for (const std::string& key : operation.removed) printText(out, "removed", key);
  for (const std::string& other : operation.others) printText(out, "also in", other);
  if (!operation.backup.empty()) printText(out, "backup", operation.backup);
  if (!operation.from.empty()) printText(out, "from", operation.from);
  if (operation.pageFrom == PageFrom::Begin) out << " from the beginning";
  if (operation.pageFrom == PageFrom::Latest) out << " from the latest place";
  if (operation.taking == Taking::Singly) out << " taken singly";
  if (operation.most != kAllHits) out << " at most " << operation.most << " hits";
  return out;
}

std::ostream& operator<<(std::ostream& out, const Sequence& sequence) {
  for (std::size_t i = 0; i < sequence.size(); ++i) {
    out << "  " << i + 1 << ". " << sequence[i] << '\n';
  }
  return out;
}

std::string sharedDocument(int number) {
  // Three lengths give three scores, many documents of each.
  std::string text = "common";
  for (int i = 0; i < number % 3; ++i) text += " other";
  return text + (number % 7 == 0 ? " red" : " fox");
}

const std::vector<std::string>& creatableCollections() {
  static const std::vector<std::string> names{"a", "b", "Größe/é 1"};
  return names;
}

Sequence randomSequence(std::uint64_t seed) {
  Random random(seed);
  const std::size_t length = 8 + random.below(17);
  Sequence sequence = beginning(random);
  while (sequence.size() < length) {
    sequence.push_back(randomOperation(random, sequence));
    // Queued documents are asked after more often than chance would have it.
    if (sequence.back().verb == Verb::QueueDocument && random.oneIn(3) &&
        sequence.size() < length) {
      const std::string collection = sequence.back().collection;
      sequence.push_back(operationOf(Verb::ParseResults, collection));
    }
  }
  return sequence;
}

Operation updateProbe(const std::string& collection) {
  return operationOf(Verb::UpdateIndex, collection);
}

Operation resultProbe(const Operation& page) {
  Operation probe = operationOf(Verb::Hits, page.collection);
  probe.byOtherName = page.byOtherName;
  probe.parameters = {{"report", "hits"}, {"size", "100"}};
  for (const auto& [name, value] : page.parameters) {
    if (name != "report" && name != "start" && name != "size") {
      probe.parameters.emplace_back(name, value);
    }
  }
  return probe;
}

Sequence contentProbesOf(const std::string& collection) {
  Operation digest = operationOf(Verb::Digest, collection);
  digest.parameters = {{"report", "digest"}, {"every", "1"}};
  Operation facts = operationOf(Verb::CollectionFacts, collection);
  facts.parameters = {{"report", "collection"}};
  return {digest, facts};
}

Operation statusProbe(const std::string& collection) {
  return operationOf(Verb::Status, collection);
}

Sequence probesOf(const std::string& collection) {
  const auto probe = [&](Verb verb, Parameters parameters = {}) {
    Operation operation = operationOf(verb, collection);
    operation.parameters = std::move(parameters);
    return operation;
  };
  const Parameters everything{{"query", "NOT nothing"}, {"scoreWanted", "true"}};
  Parameters words{{"query", "red"}, {"scoreWanted", "true"}, {"scoreType", "raw"}};
  for (const std::string_view word : kWords) words.front().second.append(" OR ").append(word);
  return {probe(Verb::ParseResults),
          probe(Verb::StreamSearch, everything),
          probe(Verb::UpdateIndex),
          probe(Verb::Status),
          probe(Verb::StreamSearch, everything),
          probe(Verb::ScalarSearch, words),
          probe(Verb::ParseResults)};
}

}  // namespace tq::test
