#include "server/front/dispatcher.h"

#include <spdlog/spdlog.h>

#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

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

Reply refuse(const Request& request, ErrorReply error) {
  const std::string_view name = request.header(words().action);
  const Action* action = actionOf(request);
  const bool silent = action && action->answer == Action::Answer::Never;
  spdlog::log(silent ? spdlog::level::warn : spdlog::level::debug, "{} refused: {} {}",
              name.empty() ? "request" : shown(name), error.id, error.text);
  if (silent) return NoReply{};
  if (error.id == messageId(ErrorKind::Unauthorized)) return UnauthorizedReply{std::move(error)};
  return error;
}

}  // namespace

Workload Dispatcher::workload(std::string_view name) {
  const Action* action = findAction(name);
  return action ? action->workload : Workload::Status;
}

// What concerns no collection says nothing that is worth keeping secret, or it takes the right to
// everything.
void Dispatcher::permit(const Request& request, const Identity& identity) {
  const Action* action = actionOf(request);
  if (!action) return;
  const std::string_view collection = collectionNamedBy(request);
  if (collection.empty() && action->needs == Right::Read) return;
  const auto scope = collection.empty() ? std::nullopt : std::optional(collection);
  if (identity.may(action->needs, scope)) return;
  throw ServerError(ErrorKind::Forbidden,
                    identity.name() + " may not use the action " + shown(action->name) + " on " +
                        (scope ? "the collection " + shown(collection) : "the whole server"));
}

Reply Dispatcher::handle(Request request) {
  try {
    if (!request.defect.empty()) throw ServerError(ErrorKind::MalformedRequest, request.defect);
    const Action& action = requireAction(request);
    // A refusal that no reply can tell is told by the action, if it may be carried out at all.
    if (request.refusal &&
        (action.answer == Action::Answer::Always || isOfAccess(*request.refusal))) {
      throw *request.refusal;
    }
    return action.serve({store_, version_}, request);
  } catch (const ServerError& error) {
    return refuse(request, errorReply(error.kind(), error.what()));
  } catch (const std::bad_alloc&) {
    return refuse(request, errorReply(ErrorKind::OutOfMemory,
                                      "the server has not enough memory for this request"));
  } catch (const std::system_error& error) {
    return refuse(request, errorReply(ErrorKind::StorageFailed, error.what()));
  } catch (const std::exception& error) {
    spdlog::error("unexpected failure in {}: {}", request.header(words().action), error.what());
    return refuse(
        request, errorReply(ErrorKind::Internal, std::string("internal failure: ") + error.what()));
  }
}

}  // namespace corvaned
