#include "cli/otherProtocol.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>

#include "cli/errors.h"
#include "cli/exitCode.h"
#include "cli/session.h"
#include "comm/kruClientResponse.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruBaseException.h"

namespace corvane {

namespace {

// The program is failing, and a person will see the line that names the cause.
constexpr unsigned int kMillisAfterFailure = 3000;
// The answer that is being waited for waits for the end of a look.
constexpr unsigned int kMillisOfLook = 500;

// A refusal is an answer as well: only a server that understood the request gives one.
bool answersStatus(tq::comm::CorvaneRESTClient& client, unsigned int millis) {
  client.setDeadline(millis);
  client.setNumRetries(0);
  tq::comm::ClientRequest request;
  request.buildRequest(tq::comm::ClientRequest::GET_STATUS, {});
  tq::comm::ClientResponse response;
  try {
    client.sendAndRecvMesg(request, response);
    return response.success() && !isUnreadable(response.getStatusMessage().getMessageId());
  } catch (const tq::oss::BaseException& failure) {
    return isVerdict(failure, client.getRequestOutcome()) && !suggestsOtherProtocol(failure);
  } catch (const std::exception&) {
    return false;
  }
}

std::optional<std::string> spokenWithin(const Settings& settings, unsigned int millis) {
  Settings other = settings;
  const bool http = settings.protocol == Protocol::Http;
  other.protocol = http ? Protocol::Binary : Protocol::Http;
  if (!answersStatus(*makeClient(other), millis)) return {};
  return fmt::format("{} speaks the {} protocol; use --protocol {}, or the server's port for {}",
                     address(settings), protocolName(other.protocol), protocolName(other.protocol),
                     protocolName(settings.protocol));
}

}  // namespace

std::optional<std::string> otherProtocolSpoken(const Settings& settings) {
  return spokenWithin(settings, kMillisAfterFailure);
}

SilenceWatch::SilenceWatch(Session& session) : session_(session) {
  if (session.answered || session.settings.protocol != Protocol::Http) return;
  ticker_.emplace([this](unsigned int) { look(); });
}

SilenceWatch::~SilenceWatch() {
  if (!ticker_) return;
  // The watch is ending the program.
  while (decided_.exchange(true)) ::pause();
}

// The connection's own wait cannot be given up from here, which is why the program ends.
void SilenceWatch::look() try {
  const auto line = spokenWithin(session_.settings, kMillisOfLook);
  if (!line || decided_.exchange(true)) return;
  session_.printer.error(*line);
  session_.printer.flush();
  std::_Exit(static_cast<int>(ExitCode::Failed));
} catch (const std::exception&) {
  // The answer that is being waited for decides.
}

}  // namespace corvane
