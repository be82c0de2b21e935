#include "cli/load.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <utility>
#include <variant>

#include "cli/commands.h"
#include "cli/credentials.h"
#include "cli/errors.h"
#include "cli/outcomes.h"
#include "cli/request.h"
#include "cli/text.h"
#include "comm/kruClientResponse.h"
#include "comm/kruParseResult.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruBaseException.h"

namespace corvane {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;

// The HTTP-style client reports a failed write by an id that it shares with failures which a second
// attempt would only meet again.
bool mayPass(const tq::oss::BaseException& failure) {
  auto id = icu::UnicodeString::fromUTF8(failureId(failure));
  // The time that a request may take is over.
  if (id == tq::comm::StaticDefs::ERR_SERVER_COMM_TIMEOUT) return false;
  return tq::comm::CorvaneRESTClient::isCommnError(id) ||
         id == tq::comm::StaticDefs::ERR_CLIENT_INTERNAL;
}

// Other loads into the collection must not take the answers that are meant for this one.
icu::UnicodeString freshClientName() {
  std::random_device random;
  std::string name = "load-";
  for (int i = 0; i < 4; ++i) name += fmt::format("{:08x}", random());
  return fromUtf8(name).value_or(icu::UnicodeString());
}

// Up to this many documents are not worth another round of queueing.
constexpr std::size_t kFewDocuments = 10;

constexpr const char16_t* kClient = u"client";

}  // namespace

BatchLoader::BatchLoader(Session& session, icu::UnicodeString collection, WindowLimits limits,
                         std::function<void()> changed)
    : session_(session),
      collection_(std::move(collection)),
      client_(freshClientName()),
      limits_(limits),
      changed_(std::move(changed)) {}

void BatchLoader::add(Document document) {
  if (byKey_.count(document.key) != 0) deliver();
  windowBytes_ += document.bytes();
  window_.push_back({std::move(document)});
  byKey_.emplace(window_.back().document.key, std::prev(window_.end()));
  if (window_.size() >= limits_.documents || windowBytes_ >= limits_.bytes) deliver();
}

void BatchLoader::finish() {
  if (!window_.empty()) deliver();
  if (std::exchange(mayHaveMore_, false)) collect();
}

// A server that does not look at the name may tell of another client's documents.
std::uint64_t BatchLoader::taken() const { return taken_ - std::min(taken_, takenAndLeftOut_); }

std::size_t BatchLoader::pending() const { return disputed_.size() + (sent_ ? window_.size() : 0); }

std::vector<Refusal> BatchLoader::takeRefusals() { return std::exchange(refusals_, {}); }

void BatchLoader::deliver() {
  sent_ = mayHaveMore_ = true;
  for (const Entry& entry : window_) leftOut_.erase(entry.document.key);
  changed_();
  try {
    deliverOnce();
  } catch (const tq::oss::BaseException& failure) {
    if (!mayPass(failure)) throw;
    session_.client.close();
    if (!window_.empty()) deliverOnce();
  }
  // Queueing is by far the faster way, and goes on while it settles something.
  for (std::size_t left = 0; window_.size() != left && window_.size() > kFewDocuments;) {
    left = window_.size();
    deliverOnce();
  }
  confirm();
  sent_ = false;
  windowBytes_ = 0;
  changed_();
}

void BatchLoader::deliverOnce() {
  for (const Entry& entry : window_) queue(entry.document);
  ClientRequest last = collectionRequest(ClientRequest::LAST_DOC_SENT, collection_);
  last.getReqProperties().putProperty(kClient, client_);
  identify(last, session_.settings);
  ClientResponse none;
  session_.client.sendAndRecvMesg(last, none);
  collect();
}

void BatchLoader::queue(const Document& document) {
  ClientRequest request = collectionRequest(ClientRequest::ASYNCH_ADD_DOCUMENT, collection_);
  request.getReqProperties().putProperty(kClient, client_);
  attachDocument(request, document.key, document.text, document.metadata);
  identify(request, session_.settings);
  ClientResponse none;
  session_.client.sendAndRecvMesg(request, none);
}

// What was received before a failure counts as well.
void BatchLoader::collect() try {
  takeOutcomes(session_, collection_, client_, [this](const auto& result) { note(result); });
  settle();
} catch (...) {
  settle();
  throw;
}

void BatchLoader::note(const tq::comm::ParseResult& result) {
  if (isRefusal(result) && isLeftOut(result.getMessage().getMessageId())) {
    return noteLeftOut(result);
  }
  // A server names a document by its key, as text or in the form of a hit's document id.
  auto found = byKey_.find(toUtf8(result.getDocument()));
  if (found == byKey_.end()) {
    found = byKey_.find(keyOfDocId(result.getDocument()).value_or(std::string()));
  }
  // Another client of the collection queued this one, or it has been settled before.
  if (found == byKey_.end()) return;
  Entry& entry = *found->second;
  if (isRefusal(result)) {
    entry.refused = true;
  } else {
    entry.accepted = true;
  }
}

// A document that was sent twice may be refused twice. Its key may stand in this window, too, or
// have come in several: which line was refused is not known.
void BatchLoader::noteLeftOut(const tq::comm::ParseResult& result) {
  const std::string key = keyOfDocId(result.getDocument()).value_or(toUtf8(result.getDocument()));
  if (!leftOut_.insert(key).second) return;
  refusals_.push_back({0, nameOf(result), reasonOf(result.getMessage())});
  if (const auto found = byKey_.find(key); found != byKey_.end()) {
    found->second->leftOut = true;
  } else {
    ++takenAndLeftOut_;
  }
}

// Only when all results are known, because two of them may have one key: ours and another client's.
void BatchLoader::settle() {
  for (auto entry = window_.begin(); entry != window_.end();) {
    const auto next = std::next(entry);
    if (entry->refused) {
      byKey_.erase(entry->document.key);
      disputed_.splice(disputed_.end(), window_, entry);
    } else if (entry->accepted) {
      countTaken(*entry);
      byKey_.erase(entry->document.key);
      window_.erase(entry);
    }
    entry = next;
  }
  changed_();
}

// The answer to an addition is about this document and no other.
void BatchLoader::confirm() {
  disputed_.splice(disputed_.end(), window_);
  byKey_.clear();
  for (; !disputed_.empty(); disputed_.pop_front()) {
    if (isTaken(disputed_.front().document)) countTaken(disputed_.front());
  }
}

void BatchLoader::countTaken(const Entry& entry) {
  ++taken_;
  if (entry.leftOut) ++takenAndLeftOut_;
}

bool BatchLoader::isTaken(const Document& document) {
  ClientRequest request = collectionRequest(ClientRequest::ADD_DOCUMENT, collection_);
  attachDocument(request, document.key, document.text, document.metadata);
  ClientResponse response;
  try {
    exchange(session_, request, response);
    return true;
  } catch (const tq::oss::BaseException& failure) {
    if (!isVerdict(failure, session_.client.getRequestOutcome())) throw;
    const auto& message = failure.getMessageList().front();
    // Perhaps the index has refused it before, when it had been queued.
    const bool isNews = !isLeftOut(message.getMessageId()) || leftOut_.insert(document.key).second;
    if (isNews) refusals_.push_back({document.line, document.key, reasonOf(message)});
    return false;
  }
}

namespace {

// Counts and reports while the documents go to the loader.
class LoadRun {
 public:
  LoadRun(Session& session, const LoadArguments& arguments, const icu::UnicodeString& collection)
      : session_(session),
        arguments_(arguments),
        loader_(session, collection, arguments.limits, [this] { setLastWords(); }) {
    setLastWords();
  }

  void take(std::variant<Document, Refusal> item) {
    if (auto* refusal = std::get_if<Refusal>(&item)) {
      line_ = refusal->line;
      refuse(*refusal);
    } else {
      line_ = std::get<Document>(item).line;
      loader_.add(std::get<Document>(std::move(item)));
      reportRefusals();
    }
    if (++seen_ % 500 == 0) showProgress();
    checkLimit();
  }

  void finish() {
    loader_.finish();
    reportRefusals();
    checkLimit();
  }

  ExitCode summary() {
    session_.printer.result(sentence(), sums());
    return refused_ == 0 ? ExitCode::Ok : ExitCode::PartlyLoaded;
  }

  // Of a load that was broken off.
  void summaryUntilThen() {
    reportRefusals();
    if (loader_.pending() != 0) session_.printer.note(uncertainty());
    session_.printer.result(sentence(), sumsUntilThen());
  }

  std::uint64_t loaded() const { return loader_.taken(); }
  const icu::UnicodeString& client() const { return loader_.client(); }

 private:
  std::string sentence() const {
    return fmt::format("loaded {} into {}, {} refused", counted(loader_.taken(), "document"),
                       arguments_.collection, refused_);
  }

  std::string uncertainty() const {
    return counted(loader_.pending(), "more document") + " may be in the collection or not";
  }

  nlohmann::ordered_json sums() const {
    return {
        {"collection", arguments_.collection}, {"loaded", loader_.taken()}, {"refused", refused_}};
  }

  nlohmann::ordered_json sumsUntilThen() const {
    nlohmann::ordered_json object = sums();
    object["unconfirmed"] = loader_.pending();
    return object;
  }

  void setLastWords() {
    const Printer& printer = session_.printer;
    const std::string doubt = loader_.pending() == 0 ? "" : "; " + uncertainty();
    session_.lastWords.set({printer.resultLine(sentence(), sumsUntilThen()),
                            printer.errorLine("interrupted" + doubt, "INTERRUPTED")});
  }

  void refuse(const Refusal& refusal) {
    ++refused_;
    // The sums tell of those beyond the limit.
    if (refused_ <= arguments_.maxErrors.value_or(refused_)) report(session_, refusal);
    setLastWords();
  }

  void reportRefusals() {
    for (const Refusal& refusal : loader_.takeRefusals()) refuse(refusal);
  }

  // Everything before the line that reached the limit is offered all the same.
  void checkLimit() {
    if (!arguments_.maxErrors || refused_ < *arguments_.maxErrors) return;
    loader_.finish();
    reportRefusals();
    throw OperationError(fmt::format("stopped after line {}, because of --max-errors {}", line_,
                                     *arguments_.maxErrors));
  }

  void showProgress() {
    session_.printer.progress(fmt::format("{} read, {} loaded, {} refused", counted(seen_, "line"),
                                          loader_.taken(), refused_));
  }

  Session& session_;
  const LoadArguments& arguments_;
  std::uint64_t seen_ = 0;
  std::uint64_t line_ = 0;
  std::uint64_t refused_ = 0;
  BatchLoader loader_;
};

void tellWhatIsNext(const Session& session, const std::string& collection) {
  session.printer.note(
      fmt::format("searches find the documents after 'corvane update {}'", collection));
}

}  // namespace

ExitCode loadDocuments(Session& session, const LoadArguments& arguments, std::istream& input) {
  const icu::UnicodeString name = headerValue("the collection's name", arguments.collection);
  // Queued documents get no reply, so a collection that does not exist would show late.
  ClientRequest open = collectionRequest(ClientRequest::OPEN_COLLECTION, name);
  ClientResponse opened;
  exchange(session, open, opened);

  LoadRun run(session, arguments, name);
  DocumentReader reader(input);
  try {
    while (auto item = reader.next()) run.take(std::move(*item));
    run.finish();
  } catch (...) {
    run.summaryUntilThen();
    throw;
  }
  const ExitCode code = run.summary();
  if (run.loaded() == 0) return code;
  if (!arguments.update) {
    tellWhatIsNext(session, arguments.collection);
    return code;
  }
  // The sums must not be held back by a long update.
  session.printer.flush();
  const ExitCode updated = updateIndex(session, arguments.collection, run.client());
  return updated == ExitCode::Ok ? code : updated;
}

}  // namespace corvane
