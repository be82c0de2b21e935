#include "tests/e2e/differential.h"

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace tq::test {

using tq::comm::ClientRequest;

namespace {

std::string onSide(const std::string& prefix, const std::string& collection) {
  const bool itself = collection.empty() || collection == kSharedCollection;
  return itself ? collection : prefix + collection;
}

// The form that names no collection puts neither the name nor the mode.
ClientRequest requestByOtherName(const Operation& operation, const std::string& collection,
                                 const Parameters& parameters) {
  tq::util::ExtendedProperties properties;
  for (const auto& [name, value] : parameters) {
    properties.putProperty(fromUtf8(name), fromUtf8(value));
  }
  properties.putProperty(u"collectionName", fromUtf8(collection));
  if (operation.kind == ClientRequest::STREAM_SEARCH) properties.putProperty(u"mode", u"streaming");
  ClientRequest request;
  request.buildRequest(static_cast<ClientRequest::REQUEST>(operation.kind), properties);
  return request;
}

std::list<tq::comm::KVPair> metadataOf(const Operation& operation) {
  std::list<tq::comm::KVPair> metadata;
  for (const auto& [name, value] : operation.metadata) {
    metadata.emplace_back(fromUtf8(name), fromUtf8(value), 0, operation.metadataAttribute);
  }
  return metadata;
}

bool carriesDocument(Verb verb) {
  return verb == Verb::AddDocument || verb == Verb::QueueDocument || verb == Verb::DeleteDocument ||
         verb == Verb::Match;
}

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
}

// A message that batching holds back is rightly not sent yet, and a request that the client refuses
// says nothing new.
// The facts that no two collections need have in common.
std::string withoutOwnFacts(const std::string& text) {
  static const std::regex facts(" bytes=[0-9]+| made=[^ ]+|made=[^ ]+ ");
  static const std::regex place("place=.*");
  return std::regex_replace(std::regex_replace(text, facts, ""), place, "place=*");
}

bool hasOutcome(const Operation& operation, const Answer& answer) {
  if (operation.verb == Verb::QueueDocument || operation.verb == Verb::LastDocument) return false;
  return answer.failure.empty() || answer.failure.front().id != "ERR_CLIENT_INTERNAL";
}

bool sameAnswer(const Operation& operation, const Answer& a, const Answer& b) {
  if (a.failure != b.failure || a.success != b.success || a.statusCode != b.statusCode)
    return false;
  if (a.hits != b.hits || a.parsed != b.parsed) return false;
  if (hasOutcome(operation, a) && a.outcome != b.outcome) return false;
  // How much has come when the application stops taking is the protocols' own affair.
  return operation.verb == Verb::AbandonedSearch || a.complete == b.complete;
}

bool isOfReport(const Parsed& parsed, const char* id) { return parsed.messageId == id; }

// Several databases have the hits of such a query in another order, and may score them otherwise.
bool isOrderedByDatabase(const Operation& operation) {
  if (operation.given("sortField") == "UNSORTED") return true;
  const std::string query = operation.given("query");
  const bool hasIdeographs = query.find("全") != std::string::npos;
  return query.find('*') != std::string::npos || hasIdeographs ||
         std::count(query.begin(), query.end(), ' ') > 2;
}

// The hits of such a result are the same ones, and of a part of it there are as many.
std::vector<std::string> certainHits(const Operation& operation, const Answer& answer) {
  std::vector<std::string> hits;
  for (const Hit& hit : answer.hits) hits.push_back(hit.id);
  for (const Parsed& line : answer.parsed) {
    if (line.messageId.empty() || isOfReport(line, "ZVK0104I")) hits.push_back(line.document);
  }
  std::sort(hits.begin(), hits.end());
  const auto cuts = [&](const char* name) { return !operation.given(name).empty(); };
  if (cuts("start") || cuts("size") || cuts("resultLimit") ||
      operation.verb == Verb::AbandonedSearch || operation.verb == Verb::Hits) {
    std::fill(hits.begin(), hits.end(), "a hit");
  }
  return hits;
}

// What does not depend on the number of databases.
bool sameInDatabases(const Operation& operation, const Answer& a, const Answer& b) {
  const auto idsOf = [](const Answer& answer) {
    std::vector<std::string> ids;
    for (const Said& said : answer.failure) ids.push_back(said.id);
    return ids;
  };
  if (idsOf(a) != idsOf(b) || a.success != b.success || a.statusCode != b.statusCode) return false;
  if (isOrderedByDatabase(operation)) return certainHits(operation, a) == certainHits(operation, b);
  if (a.hits != b.hits || a.parsed.size() != b.parsed.size()) return false;
  return std::equal(a.parsed.begin(), a.parsed.end(), b.parsed.begin(),
                    [](const Parsed& one, const Parsed& other) {
                      return one.document == other.document && one.messageId == other.messageId &&
                             (one.messageText == other.messageText || isOfReport(one, "ZVK0106I"));
                    });
}

// What the protocols make different: HTTP carries no version text and no estimate.
bool asTheProtocolHasIt(const Operation& operation, const Answer& http, const Answer& binary) {
  const bool succeeded = http.failure.empty();
  if (operation.verb == Verb::Version && succeeded) {
    return http.content.empty() && !binary.content.empty();
  }
  if (http.content != binary.content) return false;
  const std::vector<std::int64_t> none{1, 1, 100};
  return http.selectivity == none &&
         (operation.verb == Verb::Selectivity || binary.selectivity == none);
}

}  // namespace

Arena::Arena(Layout layout) {
  const auto start = [&](const char* backups, std::vector<std::string> options) {
    options.insert(options.end(), {"--backup-directory", backups_.path() / backups});
    return std::make_unique<CorvanedProcess>(std::move(options));
  };
  single_ = start("single", {});
  if (layout == Layout::Divided) divided_ = start("divided", {"--shards-per-collection", "3"});
}

const CorvanedProcess& Arena::serverOf(Protocol protocol) const {
  return protocol == Protocol::Binary && divided_ ? *divided_ : *single_;
}

void Arena::removeBackups() {
  namespace fs = std::filesystem;
  for (const char* server : {"single", "divided"}) {
    const fs::path backups = backups_.path() / server;
    if (!fs::exists(backups)) continue;
    for (const auto& backup : fs::directory_iterator(backups)) fs::remove_all(backup.path());
  }
  for (const Protocol protocol : {Protocol::Http, Protocol::Binary}) {
    fs::remove_all(serverOf(protocol).directory() / "data" / "before-restore");
  }
}

int Arena::stop() {
  const int code = single_->stop();
  return divided_ && code == 0 ? divided_->stop() : code;
}

ProtocolSide::ProtocolSide(Protocol protocol, const CorvanedProcess& server, bool batching)
    : prefix_(prefixOf(protocol)), client_(newClient(protocol, server)) {
  client_->useBufferedConnection(batching);
}

std::string ProtocolSide::prefixOf(Protocol protocol) {
  return protocol == Protocol::Http ? "sidH-" : "sidB-";
}

Answer ProtocolSide::perform(const Operation& operation) {
  if (operation.verb == Verb::Reconnect) return reconnect();
  if (operation.pageFrom == PageFrom::Begin) place_.clear();
  ClientRequest request = requestFor(operation);
  const std::string several = contentOf(operation.documents, operation.removed);
  const std::string outerKey = "several";
  if (!several.empty()) {
    attachDocument(request, outerKey, several);
  } else if (carriesDocument(operation.verb)) {
    attachDocument(request, operation.key, operation.text, metadataOf(operation));
  }
  Answer answer = ask(*client_, request, operation.taking, operation.most);
  notePlace(operation, answer);
  makeNeutral(operation, answer);
  return answer;
}

ClientRequest ProtocolSide::requestFor(const Operation& operation) const {
  Parameters parameters = operation.parameters;
  if (operation.pageFrom != PageFrom::NoPage) {
    parameters.emplace_back("searchAfter", place_.empty() ? "begin" : place_);
  }
  std::string others;
  for (const std::string& other : operation.others) {
    others += (others.empty() ? "" : ",") + onSide(prefix_, other);
  }
  if (!others.empty()) parameters.emplace_back("alsoIn", others);
  if (!operation.backup.empty()) parameters.emplace_back("backup", prefix_ + operation.backup);
  if (!operation.from.empty()) parameters.emplace_back("from", onSide(prefix_, operation.from));
  // Beside its own, the server holds what is the other side's; see makeNeutral().
  if (operation.verb == Verb::CollectionList || operation.verb == Verb::BackupList) {
    parameters.emplace_back("after", prefix_);
  }
  const std::string collection = onSide(prefix_, operation.collection);
  if (operation.byOtherName) return requestByOtherName(operation, collection, parameters);
  return requestTo(collection, operation.kind, parameters);
}

void ProtocolSide::notePlace(const Operation& operation, const Answer& answer) {
  const bool tellsPlaces = operation.verb == Verb::Place || !operation.given("report").empty();
  if (operation.pageFrom == PageFrom::NoPage || !tellsPlaces || !answer.success) return;
  place_.clear();
  if (answer.parsed.empty() || !isOfReport(answer.parsed.back(), "ZVK0108I")) return;
  const std::string& text = answer.parsed.back().messageText;
  constexpr std::string_view kName = "place=";
  place_ = text.substr(text.find(kName) + kName.size());
}

void ProtocolSide::makeNeutral(const Operation& operation, Answer& answer) const {
  for (Said& said : answer.failure) replaceAll(said.text, prefix_, kNeutralPrefix);
  if (operation.verb == Verb::CollectionList || operation.verb == Verb::BackupList) {
    std::erase_if(answer.parsed,
                  [&](const Parsed& line) { return !line.document.starts_with(prefix_); });
    // How many portions it took says how many the other side has.
    answer.portions = 1;
  }
  for (Parsed& parsed : answer.parsed) {
    replaceAll(parsed.document, prefix_, kNeutralPrefix);
    replaceAll(parsed.messageText, prefix_, kNeutralPrefix);
    for (const char* id : {"ZVK0101I", "ZVK0107I", "ZVK0108I"}) {
      if (isOfReport(parsed, id)) parsed.messageText = withoutOwnFacts(parsed.messageText);
    }
  }
}

// Requests without a reply may still be on their way, and those of the next connection would
// overtake them; an answer tells that they have arrived.
Answer ProtocolSide::reconnect() {
  ClientRequest request = requestTo("", ClientRequest::GET_STATUS);
  Answer answer = ask(*client_, request);
  client_->close();
  return answer;
}

std::ostream& operator<<(std::ostream& out, const Difference& difference) {
  if (!difference.expected.empty()) {
    out << "the server does not do what it should: ";
  } else {
    out << (difference.probe ? "the server's state differs, as this shows: "
                             : "the results differ of: ");
  }
  out << difference.operation << "\n  HTTP:   " << difference.http
      << "\n  binary: " << difference.binary << '\n';
  if (!difference.expected.empty()) out << "  expected: " << difference.expected << '\n';
  return out;
}

void Tally::add(const Operation& operation, const Answer& answer) {
  auto& counts = answer.failure.empty() ? succeeded : failed;
  ++counts[static_cast<std::size_t>(operation.verb)];
  for (const Said& said : answer.failure) ++errors[said.id];
  parsed += answer.parsed.size();
  if (operation.collection != kSharedCollection && !answer.hits.empty()) ++fruitfulSearches;
  if (answer.portions > 1) ++severalPortions;
  if (operation.pageFrom == PageFrom::Latest && answer.success) ++furtherPages;
  if (!operation.others.empty() && !answer.parsed.empty()) ++jointHits;
  refusedDocuments += static_cast<std::size_t>(
      std::count_if(answer.parsed.begin(), answer.parsed.end(),
                    [](const Parsed& result) { return !result.messageId.empty(); }));
}

/// One sequence and the look at what it left.
class Duel::Fight {
 public:
  Fight(Duel& duel, bool batching)
      : duel_(duel),
        http_(std::make_unique<ProtocolSide>(Protocol::Http, duel.arena_.serverOf(Protocol::Http),
                                             false)),
        binary_(std::make_unique<ProtocolSide>(Protocol::Binary,
                                               duel.arena_.serverOf(Protocol::Binary), batching)) {
    if (duel.binaryDisguise_) binary_ = duel.binaryDisguise_(std::move(binary_));
    if (duel.httpDisguise_) http_ = duel.httpDisguise_(std::move(http_));
  }

  std::optional<Difference> run(const Sequence& sequence) {
    for (const Operation& operation : sequence) {
      if (beginningDiffers(operation) || differs(operation, false)) return found_;
      if (effectDiffers(operation)) return found_;
    }
    for (const std::string& collection : creatableCollections()) {
      if (stateDiffers(collection)) return found_;
    }
    return std::nullopt;
  }

 private:
  bool differs(const Operation& operation, bool probe) {
    found_ = {operation, probe, http_->perform(operation), binary_->perform(operation)};
    if (!probe) duel_.tally_.add(operation, found_.http);
    const bool isSame = duel_.arena_.isDivided()
                            ? sameInDatabases(operation, found_.http, found_.binary)
                            : sameAnswer(operation, found_.http, found_.binary);
    if (!isSame || !asTheProtocolHasIt(operation, found_.http, found_.binary)) return true;
    found_.expected = httpModel_.follow(operation, found_.http);
    if (found_.expected.empty()) found_.expected = binaryModel_.follow(operation, found_.binary);
    return !found_.expected.empty();
  }

  // Pages have to be those of the whole result, as it is when the first of them is asked for.
  bool beginningDiffers(const Operation& operation) {
    if (!httpModel_.beginsResult(operation)) return false;
    if (differs(resultProbe(operation), true)) return true;
    httpModel_.showResult(operation, found_.http);
    binaryModel_.showResult(operation, found_.binary);
    return false;
  }

  bool effectDiffers(const Operation& operation) {
    // Queued documents become searchable by themselves, soon. So do changes that are in the index
    // and still in the journal, when the collection is opened again.
    const bool waits = operation.verb == Verb::QueueDocument ||
                       operation.verb == Verb::CloseCollection || operation.verb == Verb::Restore;
    if (waits && httpModel_.isImmediate(operation.collection) &&
        differs(updateProbe(operation.collection), true)) {
      return true;
    }
    if (operation.verb != Verb::Restore || !found_.http.success) return false;
    for (const Operation& probe : contentProbesOf(operation.collection)) {
      if (differs(probe, true)) return true;
    }
    return false;
  }

  bool stateDiffers(const std::string& collection) {
    constexpr unsigned int kNotAvailable = 2;
    if (differs(statusProbe(collection), true)) return true;
    if (found_.http.statusCode == kNotAvailable) return false;
    for (const Operation& probe : probesOf(collection)) {
      // A look that fails shows nothing, on both sides alike.
      if (differs(probe, true) || !found_.http.success) return true;
    }
    for (const Operation& probe : contentProbesOf(collection)) {
      if (differs(probe, true) || !found_.http.success) return true;
    }
    return !duel_.sameEstimates(collection, "NOT nothing", found_) ||
           !duel_.sameEstimates(collection, "red OR fox", found_);
  }

  Duel& duel_;
  std::unique_ptr<Side> http_, binary_;
  ServerModel httpModel_, binaryModel_;
  Difference found_;
};

Duel::Duel(Arena& arena, Disguise binaryDisguise, Disguise httpDisguise)
    : arena_(arena),
      binaryDisguise_(std::move(binaryDisguise)),
      httpDisguise_(std::move(httpDisguise)) {
  for (const Protocol protocol : {Protocol::Http, Protocol::Binary}) {
    arbiters_[protocol] = newClient(Protocol::Binary, arena.serverOf(protocol));
    makeSharedCollection(protocol);
  }
}

Duel::~Duel() = default;

std::optional<Difference> Duel::fight(const Sequence& sequence, bool batching) {
  std::optional<Difference> found = Fight(*this, batching).run(sequence);
  dropAll();
  const bool hasBackups =
      std::any_of(sequence.begin(), sequence.end(),
                  [](const Operation& operation) { return operation.verb == Verb::Backup; });
  if (hasBackups) arena_.removeBackups();
  return found;
}

// Speaks to the server of the protocol's side.
tq::comm::CorvaneRESTClient& Duel::arbiterOf(Protocol protocol) { return *arbiters_.at(protocol); }

void Duel::makeSharedCollection(Protocol protocol) {
  tq::comm::CorvaneRESTClient& arbiter = arbiterOf(protocol);
  ClientRequest create = requestTo(kSharedCollection, ClientRequest::CREATE_COLLECTION);
  const Answer created = ask(arbiter, create);
  if (!created.failure.empty() && created.failure.front().id == "ZVK0008E") return;
  for (int i = 0; i < kSharedDocuments; ++i) {
    ClientRequest addition = requestTo(kSharedCollection, ClientRequest::ASYNCH_ADD_DOCUMENT);
    const std::string key = "s" + std::to_string(i);
    const std::string text = sharedDocument(i);
    attachDocument(addition, key, text);
    ask(arbiter, addition);
  }
  ClientRequest update = requestTo(kSharedCollection, ClientRequest::UPDATE_INDEX);
  const Answer updated = ask(arbiter, update);
  if (!updated.success) throw std::runtime_error("the shared collection cannot be made");
}

// One client looks at the collections of both sides.
bool Duel::sameEstimates(const std::string& collection, const std::string& query,
                         Difference& found) {
  const auto estimate = [&](Protocol protocol) {
    ClientRequest request = requestTo(ProtocolSide::prefixOf(protocol) + collection,
                                      ClientRequest::SELECTIVITY, {{"query", query}});
    return ask(arbiterOf(protocol), request);
  };
  found.probe = true;
  found.operation = {};
  found.operation.verb = Verb::Selectivity;
  found.operation.collection = collection;
  found.http = estimate(Protocol::Http);
  found.binary = estimate(Protocol::Binary);
  // How many hits there could be at most depends on what a database knows of its own documents.
  if (arena_.isDivided()) found.http.selectivity[1] = found.binary.selectivity[1];
  return found.http.success && found.binary.success &&
         found.http.selectivity == found.binary.selectivity;
}

void Duel::dropAll() {
  for (const std::string& collection : creatableCollections()) {
    for (const Protocol protocol : {Protocol::Http, Protocol::Binary}) {
      ClientRequest drop =
          requestTo(ProtocolSide::prefixOf(protocol) + collection, ClientRequest::DROP_COLLECTION);
      const Answer answer = ask(arbiterOf(protocol), drop);
      if (!answer.success && answer.failure.front().id != "ZVK0007E") {
        throw std::runtime_error("a collection cannot be dropped: " + answer.failure.front().text);
      }
    }
  }
}

Sequence shortest(Sequence sequence, const std::function<bool(const Sequence&)>& fails) {
  for (std::size_t piece = sequence.size() / 2; piece > 0;) {
    bool shorter = false;
    for (std::size_t begin = 0; begin < sequence.size();) {
      const auto first = sequence.begin() + static_cast<std::ptrdiff_t>(begin);
      const auto last =
          first + static_cast<std::ptrdiff_t>(std::min(piece, sequence.size() - begin));
      Sequence without(sequence.begin(), first);
      without.insert(without.end(), last, sequence.end());
      if (fails(without)) {
        sequence = std::move(without);
        shorter = true;
      } else {
        begin += piece;
      }
    }
    // What was needed may be needed no more when something after it is gone.
    if (!shorter || piece > 1) piece = piece > 1 ? piece / 2 : 0;
  }
  return sequence;
}

bool isBatching(std::uint64_t seed) { return seed % 4 == 3; }

std::string disagreement(Duel& duel, std::uint64_t seed) {
  const bool batching = isBatching(seed);
  const Sequence whole = randomSequence(seed);
  std::optional<Difference> latest = duel.fight(whole, batching);
  if (!latest) return {};
  const Sequence least = shortest(whole, [&](const Sequence& shorter) {
    std::optional<Difference> difference = duel.fight(shorter, batching);
    if (difference) latest = difference;
    return difference.has_value();
  });
  std::ostringstream report;
  report << "seed " << seed << (batching ? " (batching)" : "")
         << (duel.isDivided() ? " (several databases)" : "")
         << " fails; run it alone with KRUCOMM_SEED=" << seed << "\nshortest failing sequence, "
         << least.size() << " of " << whole.size() << " operations:\n"
         << least;
  if (const auto difference = duel.fight(least, batching)) {
    report << *difference;
  } else {
    report << "it fails sometimes only; the latest time:\n" << *latest;
  }
  return report.str();
}

}  // namespace tq::test
