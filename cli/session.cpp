#include "cli/session.h"

#include <fmt/format.h>

#include "cli/errors.h"
#include "comm/kruClientResponse.h"

namespace corvane {

void exchange(Session& session, tq::comm::ClientRequest& request,
              tq::comm::ClientResponse& response) {
  session.client.sendAndRecvMesg(request, response);
  if (!response.success()) {
    throw OperationError(fmt::format(
        "{} refused the request without saying why; check that --port is a Corvane server's",
        address(session.settings)));
  }
}

}  // namespace corvane
