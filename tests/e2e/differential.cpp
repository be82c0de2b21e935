#include "tests/e2e/differential.h"

#include <algorithm>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace tq::test {

using tq::comm::ClientRequest;
using tq::comm::RequestOutcome;

namespace {

constexpr const char* kNeutralPrefix = "side-";

std::string onSide(const std::string& prefix, const std::string& collection) {
  const bool itself = collection.empty() || collection == kSharedCollection;
  return itself ? collection : prefix + collection;
}

ClientRequest requestFor(const Operation& operation, const std::string& collection) {
  if (!operation.byOtherName) return requestTo(collection, operation.kind, operation.parameters);
  // The form that names no collection puts neither the name nor the mode.
  tq::util::ExtendedProperties properties;
  for (const auto& [name, value] : operation.parameters) {
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

ProtocolSide::ProtocolSide(Protocol protocol, const CorvanedProcess& server, bool batching)
    : prefix_(prefixOf(protocol)), client_(newClient(protocol, server)) {
  client_->useBufferedConnection(batching);
}

std::string ProtocolSide::prefixOf(Protocol protocol) {
  return protocol == Protocol::Http ? "sidH-" : "sidB-";
}

Answer ProtocolSide::perform(const Operation& operation) {
  if (operation.verb == Verb::Reconnect) return reconnect();
  ClientRequest request = requestFor(operation, onSide(prefix_, operation.collection));
  if (carriesDocument(operation.verb)) {
    attachDocument(request, operation.key, operation.text, metadataOf(operation));
  }
  Answer answer = ask(*client_, request, operation.taking, operation.most);
  for (Said& said : answer.failure) replaceAll(said.text, prefix_, kNeutralPrefix);
  for (Parsed& parsed : answer.parsed) replaceAll(parsed.messageText, prefix_, kNeutralPrefix);
  return answer;
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
  return out << (difference.probe ? "the server's state differs, as this shows: "
                                  : "the results differ of: ")
             << difference.operation << "\n  HTTP:   " << difference.http
             << "\n  binary: " << difference.binary << '\n';
}

void Tally::add(const Operation& operation, const Answer& answer) {
  auto& counts = answer.failure.empty() ? succeeded : failed;
  ++counts[static_cast<std::size_t>(operation.verb)];
  for (const Said& said : answer.failure) ++errors[said.id];
  parsed += answer.parsed.size();
  if (operation.collection != kSharedCollection && !answer.hits.empty()) ++fruitfulSearches;
  if (answer.portions > 1) ++severalPortions;
  refusedDocuments += static_cast<std::size_t>(
      std::count_if(answer.parsed.begin(), answer.parsed.end(),
                    [](const Parsed& result) { return !result.messageId.empty(); }));
}

/// One sequence and the look at what it left.
class Duel::Fight {
 public:
  Fight(Duel& duel, bool batching)
      : duel_(duel),
        http_(std::make_unique<ProtocolSide>(Protocol::Http, duel.server_, false)),
        binary_(std::make_unique<ProtocolSide>(Protocol::Binary, duel.server_, batching)) {
    if (duel.disguise_) binary_ = duel.disguise_(std::move(binary_));
  }

  std::optional<Difference> run(const Sequence& sequence) {
    for (const Operation& operation : sequence) {
      if (differs(operation, false)) return found_;
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
    return !sameAnswer(operation, found_.http, found_.binary) ||
           !asTheProtocolHasIt(operation, found_.http, found_.binary);
  }

  bool stateDiffers(const std::string& collection) {
    constexpr unsigned int kNotAvailable = 2;
    if (differs(statusProbe(collection), true)) return true;
    if (found_.http.statusCode == kNotAvailable) return false;
    for (const Operation& probe : probesOf(collection)) {
      // A look that fails shows nothing, on both sides alike.
      if (differs(probe, true) || !found_.http.success) return true;
    }
    return !duel_.sameEstimates(collection, "NOT nothing", found_) ||
           !duel_.sameEstimates(collection, "red OR fox", found_);
  }

  Duel& duel_;
  std::unique_ptr<Side> http_, binary_;
  Difference found_;
};

Duel::Duel(const CorvanedProcess& server, Disguise binaryDisguise)
    : server_(server),
      disguise_(std::move(binaryDisguise)),
      arbiter_(newClient(Protocol::Binary, server)) {
  makeSharedCollection();
}

Duel::~Duel() = default;

std::optional<Difference> Duel::fight(const Sequence& sequence, bool batching) {
  std::optional<Difference> found = Fight(*this, batching).run(sequence);
  dropAll();
  return found;
}

void Duel::makeSharedCollection() {
  ClientRequest create = requestTo(kSharedCollection, ClientRequest::CREATE_COLLECTION);
  const Answer created = ask(*arbiter_, create);
  if (!created.failure.empty() && created.failure.front().id == "ZVK0008E") return;
  for (int i = 0; i < kSharedDocuments; ++i) {
    ClientRequest addition = requestTo(kSharedCollection, ClientRequest::ASYNCH_ADD_DOCUMENT);
    const std::string key = "s" + std::to_string(i);
    const std::string text = sharedDocument(i);
    attachDocument(addition, key, text);
    ask(*arbiter_, addition);
  }
  ClientRequest update = requestTo(kSharedCollection, ClientRequest::UPDATE_INDEX);
  const Answer updated = ask(*arbiter_, update);
  if (!updated.success) throw std::runtime_error("the shared collection cannot be made");
}

// One client looks at the collections of both sides.
bool Duel::sameEstimates(const std::string& collection, const std::string& query,
                         Difference& found) {
  const auto estimate = [&](Protocol protocol) {
    ClientRequest request = requestTo(ProtocolSide::prefixOf(protocol) + collection,
                                      ClientRequest::SELECTIVITY, {{"query", query}});
    return ask(*arbiter_, request);
  };
  found.probe = true;
  found.operation = {};
  found.operation.verb = Verb::Selectivity;
  found.operation.collection = collection;
  found.http = estimate(Protocol::Http);
  found.binary = estimate(Protocol::Binary);
  return found.http.success && found.binary.success &&
         found.http.selectivity == found.binary.selectivity;
}

void Duel::dropAll() {
  for (const std::string& collection : creatableCollections()) {
    for (const Protocol protocol : {Protocol::Http, Protocol::Binary}) {
      ClientRequest drop =
          requestTo(ProtocolSide::prefixOf(protocol) + collection, ClientRequest::DROP_COLLECTION);
      const Answer answer = ask(*arbiter_, drop);
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
  if (!duel.fight(whole, batching)) return {};
  const Sequence least = shortest(
      whole, [&](const Sequence& shorter) { return duel.fight(shorter, batching).has_value(); });
  std::ostringstream report;
  report << "seed " << seed << (batching ? " (batching)" : "") << ": the protocols differ; run it "
         << "alone with KRUCOMM_SEED=" << seed << "\nshortest failing sequence, " << least.size()
         << " of " << whole.size() << " operations:\n"
         << least;
  if (const auto difference = duel.fight(least, batching)) {
    report << *difference;
  } else {
    report << "it fails sometimes only\n";
  }
  return report.str();
}

}  // namespace tq::test
