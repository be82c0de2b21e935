#include "server/front/dispatcher.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "server/base/collectionName.h"
#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/front/reports.h"
#include "server/front/requestValues.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

// Of what is logged.
constexpr std::size_t kMostOfReason = 600;

const Action* actionOf(const Request& request) {
  return findAction(request.header(words().action));
}

const Action& requireAction(const Request& request) {
  const std::string_view name = request.header(words().action);
  if (name.empty()) throw ServerError(ErrorKind::UnknownAction, "the request names no action");
  const Action* action = findAction(name);
  if (!action) throw ServerError(ErrorKind::UnknownAction, "unknown action " + shown(name));
  return *action;
}

ErrorReply errorReply(ErrorKind kind, const std::string& text) {
  return ErrorReply{std::string(messageId(kind)), text};
}

bool isOfAccess(const ServerError& error) {
  return error.kind() == ErrorKind::Unauthorized || error.kind() == ErrorKind::Forbidden;
}

// What an operator has to do something about.
bool isFailure(std::string_view id) {
  return id == messageId(ErrorKind::StorageFailed) || id == messageId(ErrorKind::OutOfMemory) ||
         id == messageId(ErrorKind::DocumentsNotIndexed) || id == messageId(ErrorKind::Internal);
}

[[noreturn]] void forbid(const Identity& identity, const Action& action, Right needed,
                         std::optional<std::string_view> collection) {
  throw ServerError(ErrorKind::Forbidden,
                    fmt::format("{} may not use the action {} on {}, which takes the right {}{}",
                                identity.name(), shown(action.name),
                                collection ? "the collection " + shown(*collection)
                                           : std::string("the whole server"),
                                nameOf(needed), collection ? "" : " to every collection"));
}

// All that have to be open for it. If there are more than the action takes, it refuses them.
std::vector<std::string> collectionsFor(const Request& request, const Action& action) {
  std::vector<std::string> names;
  const std::string_view collection = collectionNamedBy(request);
  if (collection.empty()) return names;
  names.emplace_back(collection);
  if (!makesReports(action) || request.header(words().alsoIn).empty()) return names;
  for (std::string& beside : collectionsBeside(request)) {
    if (names.size() < kMostTogether) names.push_back(std::move(beside));
  }
  return names;
}

// Writing requests come in rows, of which only the first can be timed by the row's arrival.
RequestContext::Clock::time_point arrivalOf(const Request& request) {
  RequestContext* const context = RequestContext::current();
  if (!context) return RequestContext::Clock::now();
  const bool first = context->takeFirst();
  const Workload workload =
      Dispatcher::workload(request.header(words().action), request.header(words().report));
  return first || workload != Workload::Write ? context->began() : RequestContext::Clock::now();
}

}  // namespace

Workload Dispatcher::workload(std::string_view name, std::string_view report) {
  const Action* action = findAction(name);
  if (!action) return Workload::Status;
  if (report.empty() || !makesReports(*action)) return action->workload;
  return report == words().collectionsReport ? Workload::Survey : Workload::Read;
}

// What concerns no collection says nothing that is worth keeping secret, or it takes the right to
// everything.
void Dispatcher::permit(const Request& request, const Identity& identity) {
  const Action* action = actionOf(request);
  if (!action) return;
  // Who restores a collection from another one's backup can then read that.
  const std::string_view from = request.header(words().from);
  requireShortName(from);
  if (!from.empty() && !identity.may(action->needs, from)) {
    forbid(identity, *action, action->needs, from);
  }
  const std::string_view collection = collectionNamedBy(request);
  requireShortName(collection);
  const std::string_view report =
      makesReports(*action) ? request.header(words().report) : std::string_view();
  const Right needs = report.empty() ? action->needs : Right::Read;
  // A report that lacks its collection is refused for that.
  if (collection.empty() && needs == Right::Read && !isReportOfServer(report)) return;
  const auto scope = collection.empty() ? std::nullopt : std::optional(collection);
  if (!identity.may(needs, scope)) forbid(identity, *action, needs, scope);
  for (const std::string& beside : collectionsBeside(request)) {
    requireShortName(beside);
    if (!identity.may(needs, beside)) forbid(identity, *action, needs, beside);
  }
}

bool Dispatcher::isReady(const Request& request) const {
  const Action* action = actionOf(request);
  if (!action || request.refusal || !request.defect.empty()) return true;
  if (!action->opens) {
    const std::string collection(collectionNamedBy(request));
    return collection.empty() || store_.isSettled(collection);
  }
  const std::vector<std::string> names = collectionsFor(request, *action);
  return request.unopened || firstClosed(names, request.opened) == names.size();
}

void Dispatcher::makeReady(Request& request, std::function<void()> ready) {
  if (actionOf(request)->opens) return open(request, std::move(ready));
  store_.awaitSettled(std::string(collectionNamedBy(request)),
                      [ready = std::move(ready)](const std::optional<ServerError>&) { ready(); });
}

// From this one on.
std::size_t Dispatcher::firstClosed(const std::vector<std::string>& names, std::size_t from) const {
  std::size_t place = from;
  while (place < names.size() && store_.isOpen(names[place])) ++place;
  return place;
}

// A collection that does not exist is left to the action to find: of several errors that a request
// has, it decides which one counts.
void Dispatcher::open(Request& request, std::function<void()> opened) {
  const std::vector<std::string> names = collectionsFor(request, *actionOf(request));
  const std::size_t last = names.size() - 1;
  const std::size_t next = std::min(firstClosed(names, request.opened), last);
  request.opened = next + 1;
  store_.open(names[next],
              [&request, opened = std::move(opened)](const std::optional<ServerError>& failure) {
                if (failure && failure->kind() != ErrorKind::UnknownCollection &&
                    failure->kind() != ErrorKind::BadCollectionName) {
                  request.unopened = failure;
                }
                opened();
              });
}

bool Dispatcher::bringsDocuments(const Request& request) {
  const Action* action = actionOf(request);
  return action && corvaned::bringsDocuments(*action, request);
}

// Whatever is wrong with the request or its collection, the action finds.
DocumentReading Dispatcher::documentDefaults(const Request& request) const {
  if (!bringsDocuments(request) || request.unopened) return {};
  try {
    const std::string collection(collectionNamedBy(request));
    return store_.documentDefaultsIfOpen(collection).value_or(DocumentReading{});
  } catch (const std::exception&) {
    return {};
  }
}

Dispatcher::Exchange Dispatcher::begin(Request request) {
  Exchange exchange;
  exchange.began = arrivalOf(request);
  exchange.request = std::move(request);
  exchange.reply = serve(exchange.request, exchange.errorId);
  if (RequestContext* const context = RequestContext::current()) {
    if (exchange.errorId.empty()) exchange.awaited = context->awaited();
    context->forgetAwaited();
  }
  return exchange;
}

Reply Dispatcher::finish(Exchange exchange) {
  try {
    if (exchange.awaited) exchange.awaited->requireSuccess();
  } catch (const ServerError& error) {
    exchange.reply =
        refuse(exchange.request, errorReply(error.kind(), error.what()), exchange.errorId);
  }
  const Action* action = actionOf(exchange.request);
  metrics_.served(action ? action->name : "unknown", exchange.errorId,
                  RequestContext::Clock::now() - exchange.began);
  return std::move(exchange.reply);
}

Reply Dispatcher::handle(Request request) { return finish(begin(std::move(request))); }

void Dispatcher::noteUndecoded(const ServerError& refusal) {
  const ErrorReply error = errorReply(refusal.kind(), refusal.what());
  metrics_.refused(error.id);
  log({}, error, false);
}

void Dispatcher::logFailure(std::string_view during, std::string_view reason) {
  repeats_.log(spdlog::level::err, fmt::format("failure: action={} reason={}", logged(during),
                                               logged(reason, kMostOfReason)));
}

Reply Dispatcher::serve(Request& request, std::string& errorId) {
  try {
    // Strangers learn nothing, not even which actions there are.
    if (request.refusal && isOfAccess(*request.refusal)) throw *request.refusal;
    if (!request.defect.empty()) throw ServerError(ErrorKind::MalformedRequest, request.defect);
    const Action& action = requireAction(request);
    // A refusal that no reply can tell is told by the action.
    if (action.answer == Action::Answer::Always) {
      if (request.refusal) throw *request.refusal;
      requireParameters(action, request);
      if (request.unopened && action.workload != Workload::Status) throw *request.unopened;
    }
    Reply reply = action.serve({store_, version_, shutDown_}, request);
    logTold(request, reply);
    return reply;
  } catch (const ServerError& error) {
    return refuse(request, errorReply(error.kind(), error.what()), errorId);
  } catch (const std::bad_alloc&) {
    return refuse(
        request,
        errorReply(ErrorKind::OutOfMemory, "the server has not enough memory for this request"),
        errorId);
  } catch (const std::system_error& error) {
    return refuse(request, errorReply(ErrorKind::StorageFailed, error.what()), errorId);
  } catch (const std::exception& error) {
    return refuse(request,
                  errorReply(ErrorKind::Internal, std::string("internal failure: ") + error.what()),
                  errorId);
  }
}

Reply Dispatcher::refuse(const Request& request, const ErrorReply& error, std::string& errorId) {
  const Action* action = actionOf(request);
  const bool silent = action && action->answer == Action::Answer::Never;
  errorId = error.id;
  log(request, error, silent);
  if (silent) return NoReply{};
  if (error.id == messageId(ErrorKind::Unauthorized)) return UnauthorizedReply{error};
  return error;
}

// A status or a report tells of a failure without being refused for it.
void Dispatcher::logTold(const Request& request, const Reply& reply) {
  if (const auto* status = std::get_if<StatusReply>(&reply)) {
    if (isFailure(status->reason.id)) log(request, status->reason, false);
  } else if (const auto* report = std::get_if<ReportReply>(&reply)) {
    logTold(request.header(words().report), *report);
  }
}

// A failing disk may have damaged thousands of them.
void Dispatcher::logTold(std::string_view name, const ReportReply& report) {
  const auto failed = [](const ReportReply::Line& line) { return isFailure(line.messageId); };
  const auto first = std::find_if(report.lines.begin(), report.lines.end(), failed);
  if (first == report.lines.end()) return;
  const auto others = std::count_if(first + 1, report.lines.end(), failed);
  const std::string reason =
      fmt::format("{}: {} {}{}", shown(first->subject), first->messageId, first->messageText,
                  others == 0 ? "" : fmt::format("; and {} more", others));
  repeats_.log(
      spdlog::level::err,
      fmt::format("failure: action={} reason={}", logged(name), logged(reason, kMostOfReason)),
      fmt::format("{} {}", name, first->messageId));
}

void Dispatcher::log(const Request& request, const ErrorReply& error, bool silent) {
  const bool failure = isFailure(error.id);
  // Whoever has no account must not be able to fill the log.
  const bool byStranger = error.id == messageId(ErrorKind::Unauthorized);
  const auto level = failure                 ? spdlog::level::err
                     : silent && !byStranger ? spdlog::level::warn
                                             : spdlog::level::debug;
  if (!spdlog::should_log(level)) return;
  const std::string line =
      fmt::format("{}: action={} collection={} error={} reason={}", failure ? "failure" : "refused",
                  logged(request.header(words().action)), logged(collectionNamedBy(request)),
                  error.id, logged(error.text, kMostOfReason));
  // A client that awaits no reply can name another collection with each of thousands of requests.
  if (level == spdlog::level::warn) {
    return repeats_.log(level, line,
                        fmt::format("{} {}", request.header(words().action), error.id));
  }
  // The same failure may meet thousands of requests a second.
  repeats_.log(level, line);
}

}  // namespace corvaned
