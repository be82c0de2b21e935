// What checkSymbols.sh loads: it takes both clients, the codecs and the exceptions through their
// paces, as far as that goes without a server.

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruMessage.h"
#include "infra/util/kruBase64.h"
#include "infra/util/kruExtendedProperties.h"

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;

// Nothing listens on the discard port of the loopback interface.
template <class Client>
bool refusesTheConnection(Client&& client) {
  client.setDeadline(2000);
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"query", u"whale");
  ClientRequest request;
  request.buildRequest(u"books", ClientRequest::STREAM_SEARCH, properties);
  ClientResponse response;
  try {
    client.sendAndRecvMesg(request, response);
  } catch (const tq::comm::RESTException& failure) {
    return failure.getMessageList().front().getMessageId() == u"ERR_CONNECT_SERVER";
  }
  return false;
}

bool catchesTheBase() {
  try {
    tq::util::ExtendedProperties().requireProperty(u"absent");
  } catch (const tq::oss::BaseException& failure) {
    return !failure.getMessageList().empty();
  }
  return false;
}

}  // namespace

extern "C" int run() {
  if (!refusesTheConnection(tq::comm::CorvaneRESTClient(u"127.0.0.1", 9, true))) return 1;
  if (!refusesTheConnection(tq::comm::DrestoPerfClient(u"127.0.0.1", 9))) return 2;
  return catchesTheBase() ? 0 : 4;
}
