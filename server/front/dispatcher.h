#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "server/front/actions.h"

namespace corvaned {

/// Has the action that a request names carried out. Knows neither sockets nor protocols. May be
/// used from any number of threads.
class Dispatcher {
 public:
  Dispatcher(Store& store, std::string version) : store_(store), version_(std::move(version)) {}

  static Workload workload(std::string_view action);

  /// Throws ServerError(Forbidden) if this identity may not ask for this.
  static void permit(const Request& request, const Identity& identity);

  /// Never throws: a failure becomes an ErrorReply, or a line in the log when the request asks for
  /// no reply. Consumes the request's content.
  Reply handle(Request request);

 private:
  Store& store_;
  std::string version_;
};

}  // namespace corvaned
