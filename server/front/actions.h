#pragma once

#include <string>
#include <string_view>

#include "server/front/reply.h"
#include "server/front/request.h"
#include "server/store/store.h"

namespace corvaned {

/// Which of the server's worker groups serves a request: searches never wait behind disks, and
/// neither they nor new documents wait while an index is brought up to date.
enum class Workload { read, write, index };

/// What the actions work with.
struct Service {
  Store& store;
  const std::string& version;
};

/// Something that a request may ask for.
struct Action {
  enum class Answer { always, never };

  std::string_view name;
  Workload workload;
  Answer answer;
  /// Throws ServerError when it refuses the request. May consume the request's content.
  Reply (*serve)(const Service& service, Request& request);
};

/// The action of that name, also one that the server knows and refuses; null when there is none.
const Action* findAction(std::string_view name);

}  // namespace corvaned
