#pragma once

#include <string>
#include <string_view>

#include "server/front/reply.h"
#include "server/front/request.h"
#include "server/store/store.h"

namespace corvaned {

/// Which of the server's worker groups serves a request: searches never wait behind disks, and
/// neither they nor new documents wait behind an index being brought up to date.
enum class Workload { read, write, index };

/// Finds out what a request asks for and has the store do it. Knows neither sockets nor protocols.
/// May be used from any number of threads.
class Dispatcher {
 public:
  Dispatcher(Store& store, std::string version) : store_(store), version_(std::move(version)) {}

  /// True for the actions that requests may name, also those that are refused.
  static bool knows(std::string_view action);

  static Workload workload(const Request& request);

  /// Never throws: whatever goes wrong becomes an ErrorReply, or a line in the log when the request
  /// asks for no reply. Consumes the request's content.
  Reply handle(Request request);

 private:
  Reply serve(Request& request);
  Reply queueDocument(Request& request);
  Reply refuse(const Request& request, ErrorReply error);

  Store& store_;
  std::string version_;
};

}  // namespace corvaned
