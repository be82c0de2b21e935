#include "server/front/actions.h"

#include <array>
#include <charconv>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/front/documentBlock.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

std::string require(const Request& request, const std::string& name) {
  const std::string_view value = request.header(name);
  if (value.empty()) {
    throw ServerError(ErrorKind::MissingParameter,
                      "the parameter " + shown(name) + " is missing or empty");
  }
  return std::string(value);
}

std::string collectionOf(const Request& request) {
  const std::string_view name = collectionNamedBy(request);
  return name.empty() ? require(request, words().collection) : std::string(name);
}

void readNumber(const Request& request, const std::string& name, std::uint64_t& value) {
  const std::string_view text = request.header(name);
  if (text.empty()) return;
  std::uint64_t parsed = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (error != std::errc{} || end != text.data() + text.size()) {
    throw ServerError(ErrorKind::BadParameter, "the parameter " + shown(name) + " is " +
                                                   shown(text) + ", not a number from 0 on");
  }
  value = parsed;
}

// True if the parameter is `first`; false if it is `second` or missing. Refuses any other value.
bool chooses(const Request& request, const std::string& name, std::string_view first,
             std::string_view second) {
  const std::string_view value = request.header(name);
  if (value == first) return true;
  if (value.empty() || value == second) return false;
  throw ServerError(ErrorKind::BadParameter, "the parameter " + shown(name) + " is " +
                                                 shown(value) + ", not " + shown(first) + " or " +
                                                 shown(second));
}

SearchQuery searchQueryOf(const Request& request) {
  SearchQuery query;
  query.text = require(request, words().query);
  readNumber(request, words().start, query.start);
  readNumber(request, words().size, query.size);
  readNumber(request, words().resultLimit, query.limit);
  const bool raw = chooses(request, words().scoreType, "raw", "normalized");
  query.scale = raw ? ScoreScale::Raw : ScoreScale::Normalized;
  return query;
}

Reply search(const Service& service, Request& request) {
  HitsReply reply;
  const std::string collection = collectionOf(request);
  reply.streaming = chooses(request, words().mode, words().modeStreaming, words().modeScalar);
  reply.withScore = chooses(request, words().scoreWanted, words().yes, words().no);
  reply.hits = service.store.search(collection, searchQueryOf(request));
  return reply;
}

DocumentBlock requireBlock(Request& request) {
  if (request.refusal) throw *request.refusal;
  if (request.content.empty()) {
    throw ServerError(ErrorKind::BadDocument, "the request carries no document");
  }
  return parseDocumentBlock(std::move(request.content));
}

Document requireDocument(Request& request) {
  DocumentBlock block = requireBlock(request);
  if (block.terminate) {
    throw ServerError(ErrorKind::BadDocument,
                      "the request carries an end-of-documents record in place of a document");
  }
  return std::move(block.document);
}

Reply selectivity(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  return EstimateReply{service.store.estimate(collection, require(request, words().query))};
}

Reply createCollection(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  std::string_view language = request.header(words().language);
  if (language.empty()) language = words().defaultLanguage;
  service.store.createCollection(collection, std::string(language));
  return DoneReply{};
}

/// The actions that need nothing but a collection.
template <void (Store::*operation)(const std::string&)>
Reply onCollection(const Service& service, Request& request) {
  (service.store.*operation)(collectionOf(request));
  return DoneReply{};
}

// Each of these checks the collection's name first, so that a request with several errors is always
// refused for the same one.
Reply addDocument(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  service.store.addDocument(collection, requireDocument(request));
  return DoneReply{};
}

Reply deleteDocument(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  service.store.deleteDocument(collection, requireDocument(request).key);
  return DoneReply{};
}

// The client expects no reply, so a refusal is reported among the outcomes of queued documents.
Reply queueDocument(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  std::string key;
  try {
    const DocumentBlock block = requireBlock(request);
    if (block.terminate) return NoReply{};
    key = block.document.key;
    service.store.queueDocument(collection, block.document);
  } catch (const ServerError& error) {
    if (error.kind() == ErrorKind::UnknownCollection) throw;
    service.store.reportOutcome(
        collection, ParseOutcome{key, std::string(messageId(error.kind())), error.what()});
  }
  return NoReply{};
}

Reply parseResult(const Service& service, Request& request) {
  return OutcomesReply{service.store.takeParseOutcomes(collectionOf(request))};
}

// A collection that cannot be opened has a status, too.
Reply status(const Service& service, Request& request) {
  if (collectionNamedBy(request).empty()) return StatusReply{};
  try {
    const CollectionState state = service.store.state(collectionOf(request));
    return StatusReply{state == CollectionState::Current ? 0U : 1U, {}};
  } catch (const ServerError& error) {
    return StatusReply{2, {std::string(messageId(error.kind())), error.what()}};
  }
}

Reply version(const Service& service, Request&) { return TextReply{service.version}; }

Reply notSupported(const Service&, Request& request) {
  throw ServerError(
      ErrorKind::UnsupportedAction,
      "the action " + shown(request.header(words().action)) + " is not supported by this server");
}

constexpr auto kAlways = Action::Answer::Always;
constexpr auto kNever = Action::Answer::Never;

// The client library's vocabulary has no action names; this table is their only place in the
// server.
constexpr std::array<Action, 19> kActions{{
    {"createCollection", Workload::Write, kAlways, Right::Admin, createCollection},
    {"openCollection", Workload::Read, kAlways, Right::Read, onCollection<&Store::openCollection>},
    {"closeCollection", Workload::Write, kAlways, Right::Read,
     onCollection<&Store::closeCollection>},
    {"deleteCollection", Workload::Index, kAlways, Right::Admin,
     onCollection<&Store::deleteCollection>},
    {"addDocument", Workload::Write, kAlways, Right::Write, addDocument},
    {"asyncAddDocument", Workload::Write, kNever, Right::Write, queueDocument},
    {"deleteDocument", Workload::Write, kAlways, Right::Write, deleteDocument},
    {"updateIndex", Workload::Index, kAlways, Right::Write, onCollection<&Store::updateIndex>},
    {"search", Workload::Read, kAlways, Right::Read, search},
    {"selectivity", Workload::Read, kAlways, Right::Read, selectivity},
    {"getParseResult", Workload::Write, kAlways, Right::Write, parseResult},
    {"getStatus", Workload::Status, kAlways, Right::Read, status},
    {"getServerVersion", Workload::Status, kAlways, Right::Read, version},
    {"backup", Workload::Status, kAlways, Right::Admin, notSupported},
    {"restore", Workload::Status, kAlways, Right::Admin, notSupported},
    {"takeover", Workload::Status, kAlways, Right::Admin, notSupported},
    {"shutdown", Workload::Status, kAlways, Right::Admin, notSupported},
    {"setConstructorConfiguration", Workload::Status, kAlways, Right::Admin, notSupported},
    {"versionsValidation", Workload::Status, kAlways, Right::Read, notSupported},
}};

}  // namespace

std::string_view collectionNamedBy(const Request& request) {
  const std::string_view name = request.header(words().collection);
  return name.empty() ? request.header(words().collectionName) : name;
}

const Action* findAction(std::string_view name) {
  for (const Action& action : kActions) {
    if (action.name == name) return &action;
  }
  return nullptr;
}

}  // namespace corvaned
