#pragma once

#include "cli/printer.h"
#include "cli/settings.h"
#include "comm/kruCorvaneRESTClient.h"

namespace corvane {

/// What a command works with: one connection to one server, and a place for its words.
struct Session {
  tq::comm::CorvaneRESTClient& client;
  const Settings& settings;
  Printer& printer;
};

/// Runs an exchange and checks that the server said yes. Throws OperationError when an answer came
/// that says neither yes nor why not.
void exchange(Session& session, tq::comm::ClientRequest& request,
              tq::comm::ClientResponse& response);

}  // namespace corvane
