// A host's module that is linked to the shared objects, so that a test can load and unload all of
// them together.

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruDrestoPerfClient.h"
#include "infra/util/kruExtendedProperties.h"

namespace {

bool answers(tq::comm::CorvaneRESTClient& client, unsigned int kind) {
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"kind", kind == 8 ? u"8" : u"4");
  properties.putProperty(u"mark", u"1");
  tq::comm::ClientRequest request;
  request.buildRequest(u"c1", static_cast<tq::comm::ClientRequest::REQUEST>(kind), properties);
  tq::comm::ClientResponse response;
  client.sendAndRecvMesg(request, response);
  if (kind == 8) response.getSearchResponse(client, true);
  return response.getReturnCode() == 0;
}

}  // namespace

/// 0 when requests to both peers were answered.
extern "C" __attribute__((visibility("default"))) int guestExchange(unsigned int httpPort,
                                                                    unsigned int binaryPort) {
  try {
    tq::comm::CorvaneRESTClient http(u"127.0.0.1", httpPort, true);
    tq::comm::DrestoPerfClient binary(u"127.0.0.1", binaryPort);
    const bool all =
        answers(http, 4) && answers(http, 8) && answers(binary, 4) && answers(binary, 8);
    return all ? 0 : 1;
  } catch (...) {
    return 2;
  }
}
