#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "server/base/logRepeats.h"
#include "server/base/requestContext.h"
#include "server/base/ticket.h"
#include "server/front/actions.h"
#include "server/front/metrics.h"

namespace corvaned {

/// Has the action that a request names carried out. Knows neither sockets nor protocols. May be
/// used from any number of threads.
class Dispatcher {
 public:
  /// `shutDown` ends the server, and returns before it has ended. Without it no request can.
  Dispatcher(Store& store, std::string version, std::function<void()> shutDown = {})
      : store_(store), version_(std::move(version)), shutDown_(std::move(shutDown)) {}

  /// What was counted so far. The connections count here, too.
  Metrics& metrics() { return metrics_; }

  /// `report`: whether the request asks for one.
  static Workload workload(std::string_view action, bool report = false);

  /// Throws ServerError(Forbidden) if this identity may not ask for this.
  static void permit(const Request& request, const Identity& identity);

  /// Whether the request can be handled now. If not, its collection has to be opened first.
  bool isReady(const Request& request) const;
  /// Calls `opened` once `request` can be handled, from any thread.
  void open(Request& request, std::function<void()> opened);

  /// A request that has been carried out, except for what others do for it.
  struct Exchange {
    Request request;
    Reply reply;
    std::string errorId;
    RequestContext::Clock::time_point began;
    /// What the reply has to wait for; null if for nothing.
    std::shared_ptr<Ticket> awaited;
  };

  /// Never throws: a failure becomes an ErrorReply, or a line in the log when the request asks for
  /// no reply. Consumes the request's content.
  Exchange begin(Request request);
  /// The reply, once what it waits for is done.
  Reply finish(Exchange exchange);
  /// Both. For a thread that need not serve others meanwhile.
  Reply handle(Request request);

 private:
  Reply serve(Request& request, std::string& errorId);
  Reply refuse(const Request& request, const ErrorReply& error, std::string& errorId);
  void log(const Request& request, const ErrorReply& error, bool silent);

  Store& store_;
  std::string version_;
  std::function<void()> shutDown_;
  Metrics metrics_;
  LogRepeats repeats_;
};

}  // namespace corvaned
