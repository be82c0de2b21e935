#pragma once

#include <array>
#include <string>
#include <string_view>

#include "server/access/accessControl.h"
#include "server/front/parameters.h"
#include "server/front/reply.h"
#include "server/front/request.h"
#include "server/front/service.h"

namespace corvaned {

/// Which group of workers serves a request. With separate groups a search never waits for a sync to
/// disk, neither a search nor a new document waits for an index update, a status waits for none of
/// them, a new document for no change that looks up keys first, which takes as long as there are
/// keys, and nobody for a survey of all collections, which opens one after the other. Whoever
/// deletes a collection waits for the step that its index update is at, and keeps no other update
/// from being asked for. A backup is only asked for here: the store makes it on a thread of its
/// own.
enum class Workload { Read, Write, LookUp, Index, Delete, Status, Survey };

/// What a request can ask for.
struct Action {
  enum class Answer { Always, Never };

  std::string_view name;
  Workload workload;
  Answer answer;
  /// What whoever asks for it must be allowed to do with the collection.
  Right needs;
  /// What it takes besides the envelope, in up to three groups.
  std::array<Parameters, 3> parameters;
  /// Throws ServerError if it refuses the request. May consume the request's content.
  Reply (*serve)(const Service& service, Request& request);
  /// Whether the collection must be open for it.
  bool opens = true;
};

/// The action of that name, or null. Includes the actions that the server knows but does not
/// support.
const Action* findAction(std::string_view name);

/// Whether `report` makes the action another one, which only reads.
bool makesReports(const Action& action);

/// Whether the request carries documents that have to be read.
bool bringsDocuments(const Action& action, const Request& request);

/// Throws ServerError that names the first parameter that the action does not take, or that has a
/// value which it cannot have. An empty value counts as none. Actions that the server does not
/// support have nothing to check.
void requireParameters(const Action& action, const Request& request);

}  // namespace corvaned
