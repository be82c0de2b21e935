#include "cli/session.h"

#include <fmt/format.h>

#include <cstring>
#include <utility>

#include "cli/credentials.h"
#include "cli/errors.h"
#include "cli/otherProtocol.h"
#include "cli/text.h"
#include "comm/kruClientResponse.h"
#include "comm/kruRESTMessage.h"

namespace corvane {

namespace {

constexpr std::size_t kLongestBinaryHeader = 65535;

// A query has no limit of its own; the binary protocol's header, in which it travels, has.
void checkHeader(const Session& session, tq::comm::ClientRequest& request) {
  if (session.settings.protocol != Protocol::Binary) return;
  tq::comm::RESTMessage message(session.client.getHost(), request);
  const std::size_t length = std::strlen(message.getSerializedHeader());
  if (length <= kLongestBinaryHeader) return;
  throw UsageError(
      fmt::format("the request's header, which holds the names and the query, has {} bytes; the "
                  "binary protocol takes {} of them, so shorten the query",
                  length, kLongestBinaryHeader));
}

}  // namespace

void exchange(Session& session, tq::comm::ClientRequest& request,
              tq::comm::ClientResponse& response) {
  identify(request, session.settings);
  checkHeader(session, request);
  {
    const SilenceWatch watch(session);
    session.client.sendAndRecvMesg(request, response);
  }
  // Over the binary protocol a refused question for the status is an answer.
  if (!session.answered && isUnreadable(response.getStatusMessage().getMessageId())) {
    if (const auto line = otherProtocolSpoken(session.settings)) throw OperationError(*line);
  }
  session.answered = true;
  if (!response.success()) {
    throw OperationError(fmt::format(
        "{} refused the request without saying why; check that --port is a Corvane server's",
        address(session.settings)));
  }
}

void setDoubt(Session& session, std::string doubt) {
  session.doubt = std::move(doubt);
  session.lastWords.set(
      {{}, session.printer.errorLine("interrupted; " + session.doubt, "INTERRUPTED")});
}

}  // namespace corvane
