#include "cli/load.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>
#include <variant>

#include "cli/errors.h"
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

// A failed write has an id of its own over the HTTP-style protocol, which it shares with failures
// that a second try meets again.
bool mayPass(const tq::oss::BaseException& failure) {
  auto id = icu::UnicodeString::fromUTF8(failureId(failure));
  return tq::comm::CorvaneRESTClient::isCommnError(id) ||
         id == tq::comm::StaticDefs::ERR_CLIENT_INTERNAL;
}

// A warning or an information comes with a document that is in the collection.
bool isRefusal(const tq::comm::ParseResult& result) {
  if (!result.hasMessage()) return false;
  const auto level = result.getMessage().getLevel();
  return level == tq::oss::Message::LEVEL_ERROR || level == tq::oss::Message::LEVEL_SEVERE;
}

std::string reasonOf(const tq::oss::Message& message) {
  return fmt::format("{} ({})", printable(message.getMessageText()),
                     printable(message.getMessageId()));
}

void report(Session& session, const Refusal& refusal) {
  nlohmann::ordered_json object = {{"refused", refusal.key}, {"line", refusal.line}};
  object["reason"] = refusal.reason;
  if (session.printer.json()) {
    session.printer.object(object);
    return;
  }
  const std::string key =
      refusal.key.empty() ? "" : fmt::format(", key \"{}\"", printable(refusal.key));
  session.printer.error(fmt::format("line {}{}: {}", refusal.line, key, printable(refusal.reason)));
}

}  // namespace

BatchLoader::BatchLoader(Session& session, icu::UnicodeString collection, WindowLimits limits)
    : session_(session), collection_(std::move(collection)), limits_(limits) {}

void BatchLoader::add(Document document) {
  if (byKey_.count(document.key) != 0) deliver();
  windowBytes_ += document.bytes();
  window_.push_back(std::move(document));
  byKey_.emplace(window_.back().key, std::prev(window_.end()));
  if (window_.size() >= limits_.documents || windowBytes_ >= limits_.bytes) deliver();
}

void BatchLoader::finish() {
  if (!window_.empty()) deliver();
}

std::vector<Refusal> BatchLoader::takeRefusals() { return std::exchange(refusals_, {}); }

void BatchLoader::deliver() {
  try {
    deliverOnce();
  } catch (const tq::oss::BaseException& failure) {
    if (!mayPass(failure)) throw;
    session_.client.close();
  }
  if (!window_.empty()) deliverOnce();
  giveUp();
}

void BatchLoader::giveUp() {
  for (const Document& document : window_) {
    refusals_.push_back({document.line, document.key, "the server did not confirm it, twice"});
  }
  window_.clear();
  byKey_.clear();
  windowBytes_ = 0;
}

void BatchLoader::deliverOnce() {
  for (const Document& document : window_) queue(document);
  ClientRequest last = collectionRequest(ClientRequest::LAST_DOC_SENT, collection_);
  ClientResponse none;
  session_.client.sendAndRecvMesg(last, none);
  collect();
}

void BatchLoader::queue(const Document& document) {
  ClientRequest request = collectionRequest(ClientRequest::ASYNCH_ADD_DOCUMENT, collection_);
  attachDocument(request, document.key, document.text, document.metadata);
  ClientResponse none;
  session_.client.sendAndRecvMesg(request, none);
}

void BatchLoader::collect() {
  ClientRequest request = collectionRequest(ClientRequest::PARSE_RESULT, collection_);
  ClientResponse response;
  exchange(session_, request, response);
  auto* results = &response.getParseResponse();
  for (;;) {
    while (results->hasMore()) settle(results->getNext());
    if (session_.client.isEndOfStream()) break;
    results = &response.getParseResponse(session_.client);
  }
}

void BatchLoader::settle(const tq::comm::ParseResult& result) {
  // A server names a document by its key, as text or in the form of a hit's document id.
  auto found = byKey_.find(toUtf8(result.getDocument()));
  if (found == byKey_.end()) {
    found = byKey_.find(keyOfDocId(result.getDocument()).value_or(std::string()));
  }
  // What is not ours was queued by another client of the collection.
  if (found == byKey_.end()) return;
  const auto document = found->second;
  if (isRefusal(result)) {
    refusals_.push_back({document->line, document->key, reasonOf(result.getMessage())});
  } else {
    ++taken_;
  }
  byKey_.erase(found);
  window_.erase(document);
}

namespace {

// Counts and reports while the documents go to the loader.
class LoadRun {
 public:
  LoadRun(Session& session, BatchLoader& loader) : session_(session), loader_(loader) {}

  void take(std::variant<Document, Refusal> item) {
    if (auto* refusal = std::get_if<Refusal>(&item)) {
      refuse(*refusal);
    } else {
      loader_.add(std::get<Document>(std::move(item)));
      reportRefusals();
    }
    if (++seen_ % 500 == 0) showProgress();
  }

  void finish() {
    loader_.finish();
    reportRefusals();
  }

  ExitCode summary(const std::string& collection) {
    reportRefusals();
    session_.printer.result(fmt::format("loaded {} documents into {}, {} refused", loader_.taken(),
                                        collection, refused_),
                            sums(collection));
    return refused_ == 0 ? ExitCode::ok : ExitCode::partlyLoaded;
  }

  // Of a load that was broken off.
  void summaryUntilThen(const std::string& collection) {
    reportRefusals();
    if (session_.printer.json()) {
      nlohmann::ordered_json object = sums(collection);
      object["unconfirmed"] = loader_.pending();
      session_.printer.object(object);
      return;
    }
    session_.printer.note(
        fmt::format("{} more documents may be in the collection or not", loader_.pending()));
    summary(collection);
  }

 private:
  nlohmann::ordered_json sums(const std::string& collection) const {
    return {{"collection", collection}, {"loaded", loader_.taken()}, {"refused", refused_}};
  }

  void refuse(const Refusal& refusal) {
    ++refused_;
    report(session_, refusal);
  }

  void reportRefusals() {
    for (const Refusal& refusal : loader_.takeRefusals()) refuse(refusal);
  }

  void showProgress() {
    session_.printer.progress(fmt::format("{} lines read, {} documents loaded, {} refused", seen_,
                                          loader_.taken(), refused_));
  }

  Session& session_;
  BatchLoader& loader_;
  std::uint64_t seen_ = 0;
  std::uint64_t refused_ = 0;
};

}  // namespace

ExitCode loadDocuments(Session& session, const std::string& collection, std::istream& input,
                       WindowLimits limits) {
  const icu::UnicodeString name = headerValue("the collection's name", collection);
  // Queued documents get no reply, so a collection that does not exist would show late.
  ClientRequest open = collectionRequest(ClientRequest::OPEN_COLLECTION, name);
  ClientResponse opened;
  exchange(session, open, opened);

  BatchLoader loader(session, name, limits);
  LoadRun run(session, loader);
  DocumentReader reader(input);
  try {
    while (auto item = reader.next()) run.take(std::move(*item));
    run.finish();
  } catch (...) {
    run.summaryUntilThen(collection);
    throw;
  }
  return run.summary(collection);
}

}  // namespace corvane
