#pragma once

#include <string>

#include "cli/lastWords.h"
#include "cli/printer.h"
#include "cli/settings.h"
#include "comm/kruClientRequest.h"
#include "comm/kruCorvaneRESTClient.h"

namespace corvane {

/// What a command works with.
struct Session {
  tq::comm::CorvaneRESTClient& client;
  const Settings& settings;
  Printer& printer;
  LastWords& lastWords;

  /// What a person should know when the request may have been carried out and no answer came.
  std::string doubt{};
  /// Whether the server has answered a request: it then speaks the chosen protocol.
  bool answered = false;
};

/// The library's exchange. Throws UsageError, with nothing sent, when the request's header is too
/// long for the protocol, and OperationError when the server refuses without saying why. Ends the
/// program when the server is silent because it speaks the other protocol on this port.
void exchange(Session& session, tq::comm::ClientRequest& request,
              tq::comm::ClientResponse& response);

/// Says what the command is about to do, for the case that it is interrupted or gets no answer.
void setDoubt(Session& session, std::string doubt);

}  // namespace corvane
