#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

  /// `report`: which one the request asks for, if any.
  static Workload workload(std::string_view action, std::string_view report = {});

  /// Throws ServerError(Forbidden) if this identity may not ask for this, and
  /// ServerError(BadCollectionName) for a name that is too long to be looked for among its rights.
  static void permit(const Request& request, const Identity& identity);

  /// Whether the request can be handled now. If not, it would wait for one of its collections.
  bool isReady(const Request& request) const;
  /// Calls `ready` when it is time to ask isReady() again, from any thread. One more of the
  /// collections that the request needs has then been opened, or cannot be.
  void makeReady(Request& request, std::function<void()> ready);

  /// Whether the collection has a say in how much memory the request takes.
  static bool bringsDocuments(const Request& request);
  /// How the documents that a request carries are read where it does not say it, as far as that is
  /// known: its collection should be open.
  DocumentReading documentDefaults(const Request& request) const;

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

  /// Counts and logs a request that was refused because it could not be decoded.
  void noteUndecoded(const ServerError& refusal);

  /// Tells the operator of a failure that no reply can tell.
  void logFailure(std::string_view during, std::string_view reason);

 private:
  std::size_t firstClosed(const std::vector<std::string>& names, std::size_t from) const;
  void open(Request& request, std::function<void()> opened);
  Reply serve(Request& request, std::string& errorId);
  Reply refuse(const Request& request, const ErrorReply& error, std::string& errorId);
  void logTold(const Request& request, const Reply& reply);
  void logTold(std::string_view name, const ReportReply& report);
  void log(const Request& request, const ErrorReply& error, bool silent);

  Store& store_;
  std::string version_;
  std::function<void()> shutDown_;
  Metrics metrics_;
  LogRepeats repeats_;
};

}  // namespace corvaned
