#include "server/front/dispatcher.h"

#include <spdlog/spdlog.h>

#include <array>
#include <charconv>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/front/documentBlock.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

enum class Action {
  createCollection,
  openCollection,
  closeCollection,
  deleteCollection,
  addDocument,
  asyncAddDocument,
  deleteDocument,
  updateIndex,
  search,
  selectivity,
  getParseResult,
  getStatus,
  getServerVersion,
  notSupported,
};

struct NamedAction {
  std::string_view name;
  Action action;
};

// Action names are no part of the client library's vocabulary class; this is their one place here.
constexpr std::array<NamedAction, 19> kActions{{
    {"createCollection", Action::createCollection},
    {"openCollection", Action::openCollection},
    {"closeCollection", Action::closeCollection},
    {"deleteCollection", Action::deleteCollection},
    {"addDocument", Action::addDocument},
    {"asyncAddDocument", Action::asyncAddDocument},
    {"deleteDocument", Action::deleteDocument},
    {"updateIndex", Action::updateIndex},
    {"search", Action::search},
    {"selectivity", Action::selectivity},
    {"getParseResult", Action::getParseResult},
    {"getStatus", Action::getStatus},
    {"getServerVersion", Action::getServerVersion},
    {"backup", Action::notSupported},
    {"restore", Action::notSupported},
    {"takeover", Action::notSupported},
    {"shutdown", Action::notSupported},
    {"setConstructorConfiguration", Action::notSupported},
    {"versionsValidation", Action::notSupported},
}};

std::optional<Action> actionCalled(std::string_view name) {
  for (const NamedAction& entry : kActions) {
    if (entry.name == name) return entry.action;
  }
  return std::nullopt;
}

std::optional<Action> actionOf(const Request& request) {
  return actionCalled(request.header(words().action));
}

Action requireAction(const Request& request) {
  const std::string_view name = request.header(words().action);
  const auto action = actionOf(request);
  if (name.empty()) throw ServerError(ErrorKind::unknownAction, "the request names no action");
  if (!action) throw ServerError(ErrorKind::unknownAction, "unknown action " + shown(name));
  if (*action == Action::notSupported) {
    throw ServerError(ErrorKind::unsupportedAction,
                      "the action " + shown(name) + " is not supported by this server");
  }
  return *action;
}

std::string require(const Request& request, const std::string& name) {
  const std::string_view value = request.header(name);
  if (value.empty()) {
    throw ServerError(ErrorKind::missingParameter,
                      "the parameter " + shown(name) + " is missing or empty");
  }
  return std::string(value);
}

bool namesCollection(const Request& request) {
  return !request.header(words().collection).empty() ||
         !request.header(words().collectionName).empty();
}

std::string collectionOf(const Request& request) {
  const std::string_view other = request.header(words().collectionName);
  if (request.header(words().collection).empty() && !other.empty()) return std::string(other);
  return require(request, words().collection);
}

void readNumber(const Request& request, const std::string& name, std::uint64_t& value) {
  const std::string_view text = request.header(name);
  if (text.empty()) return;
  std::uint64_t parsed = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (error != std::errc{} || end != text.data() + text.size()) {
    throw ServerError(ErrorKind::badParameter, "the parameter " + shown(name) + " is " +
                                                   shown(text) + ", not a number from 0 on");
  }
  value = parsed;
}

// `second` unless the parameter says `first`; anything else is refused.
bool chooses(const Request& request, const std::string& name, std::string_view first,
             std::string_view second) {
  const std::string_view value = request.header(name);
  if (value == first) return true;
  if (value.empty() || value == second) return false;
  throw ServerError(ErrorKind::badParameter, "the parameter " + shown(name) + " is " +
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
  query.scale = raw ? ScoreScale::raw : ScoreScale::normalized;
  return query;
}

Reply search(Store& store, const Request& request) {
  HitsReply reply;
  const std::string collection = collectionOf(request);
  reply.streaming = chooses(request, words().mode, words().modeStreaming, words().modeScalar);
  reply.withScore = chooses(request, words().scoreWanted, words().yes, words().no);
  reply.hits = store.search(collection, searchQueryOf(request));
  return reply;
}

Document requireDocument(Request& request) {
  if (request.content.empty()) {
    throw ServerError(ErrorKind::badDocument, "the request carries no document");
  }
  DocumentBlock block = parseDocumentBlock(std::move(request.content));
  if (block.terminate) {
    throw ServerError(ErrorKind::badDocument,
                      "the request carries an end-of-documents record in place of a document");
  }
  return std::move(block.document);
}

// The collection's name is looked at first in each of these, so that a request with several faults
// is always refused for the same one.
Reply addDocument(Store& store, Request& request) {
  const std::string collection = collectionOf(request);
  store.addDocument(collection, requireDocument(request));
  return DoneReply{};
}

Reply deleteDocument(Store& store, Request& request) {
  const std::string collection = collectionOf(request);
  store.deleteDocument(collection, requireDocument(request).key);
  return DoneReply{};
}

Reply selectivity(Store& store, const Request& request) {
  const std::string collection = collectionOf(request);
  return EstimateReply{store.estimate(collection, require(request, words().query))};
}

Reply createCollection(Store& store, const Request& request) {
  const std::string collection = collectionOf(request);
  std::string_view language = request.header(words().language);
  if (language.empty()) language = words().defaultLanguage;
  store.createCollection(collection, std::string(language));
  return DoneReply{};
}

// What a collection's state is, is an answer also when the collection cannot be had.
Reply status(Store& store, const Request& request) {
  if (!namesCollection(request)) return StatusReply{};
  try {
    const CollectionState state = store.state(collectionOf(request));
    return StatusReply{state == CollectionState::current ? 0U : 1U, {}};
  } catch (const ServerError& error) {
    return StatusReply{2, {std::string(messageId(error.kind())), error.what()}};
  }
}

ErrorReply errorReply(ErrorKind kind, const std::string& text) {
  return ErrorReply{std::string(messageId(kind)), text};
}

}  // namespace

bool Dispatcher::knows(std::string_view action) { return actionCalled(action).has_value(); }

Workload Dispatcher::workload(const Request& request) {
  switch (actionOf(request).value_or(Action::notSupported)) {
    case Action::deleteCollection:
    case Action::updateIndex:
      return Workload::index;
    case Action::createCollection:
    case Action::closeCollection:
    case Action::addDocument:
    case Action::asyncAddDocument:
    case Action::deleteDocument:
    case Action::getParseResult:
      return Workload::write;
    default:
      return Workload::read;
  }
}

Reply Dispatcher::handle(Request request) {
  try {
    return serve(request);
  } catch (const ServerError& error) {
    return refuse(request, errorReply(error.kind(), error.what()));
  } catch (const std::bad_alloc&) {
    return refuse(request, errorReply(ErrorKind::outOfMemory,
                                      "the server has not enough memory for this request"));
  } catch (const std::system_error& error) {
    return refuse(request, errorReply(ErrorKind::storageFailed, error.what()));
  } catch (const std::exception& error) {
    spdlog::error("unexpected failure in {}: {}", request.header(words().action), error.what());
    return refuse(
        request, errorReply(ErrorKind::internal, std::string("internal failure: ") + error.what()));
  }
}

Reply Dispatcher::serve(Request& request) {
  if (!request.defect.empty()) throw ServerError(ErrorKind::malformedRequest, request.defect);
  switch (requireAction(request)) {
    case Action::createCollection:
      return createCollection(store_, request);
    case Action::openCollection:
      return store_.openCollection(collectionOf(request)), DoneReply{};
    case Action::closeCollection:
      return store_.closeCollection(collectionOf(request)), DoneReply{};
    case Action::deleteCollection:
      return store_.deleteCollection(collectionOf(request)), DoneReply{};
    case Action::addDocument:
      return addDocument(store_, request);
    case Action::asyncAddDocument:
      return queueDocument(request);
    case Action::deleteDocument:
      return deleteDocument(store_, request);
    case Action::updateIndex:
      return store_.updateIndex(collectionOf(request)), DoneReply{};
    case Action::search:
      return search(store_, request);
    case Action::selectivity:
      return selectivity(store_, request);
    case Action::getParseResult:
      return OutcomesReply{store_.takeParseOutcomes(collectionOf(request))};
    case Action::getStatus:
      return status(store_, request);
    case Action::getServerVersion:
      return TextReply{version_};
    case Action::notSupported:
      break;
  }
  return DoneReply{};
}

// Nobody waits for an answer, so what goes wrong with a document is told with the others' outcomes.
Reply Dispatcher::queueDocument(Request& request) {
  const std::string collection = collectionOf(request);
  std::string key;
  try {
    if (request.content.empty()) {
      throw ServerError(ErrorKind::badDocument, "the request carries no document");
    }
    DocumentBlock block = parseDocumentBlock(std::move(request.content));
    if (block.terminate) return NoReply{};
    key = block.document.key;
    store_.queueDocument(collection, block.document);
  } catch (const ServerError& error) {
    if (error.kind() == ErrorKind::unknownCollection) throw;
    store_.reportOutcome(collection,
                         ParseOutcome{key, std::string(messageId(error.kind())), error.what()});
  }
  return NoReply{};
}

Reply Dispatcher::refuse(const Request& request, ErrorReply error) {
  const std::string_view action = request.header(words().action);
  const bool silent = actionOf(request) == Action::asyncAddDocument;
  spdlog::log(silent ? spdlog::level::warn : spdlog::level::debug, "{} refused: {} {}",
              action.empty() ? "request" : shown(action), error.id, error.text);
  if (silent) return NoReply{};
  return error;
}

}  // namespace corvaned
