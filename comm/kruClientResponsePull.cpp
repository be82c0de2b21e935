#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruRaise.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

constexpr Raiser fail("kruClientResponse");

// Only a client that speaks a protocol can receive; the connection alone cannot.
CorvaneRESTClient& receiverOf(CorvaneClient& client) {
  auto* receiver = dynamic_cast<CorvaneRESTClient*>(&client);
  if (receiver == nullptr) {
    fail(StaticDefs::ERR_INVALID_STATE,
         Details(u"this client speaks no protocol").server(client.getHost(), client.getPort()));
  }
  return *receiver;
}

// Results that have all been taken are dropped before the next portion comes: otherwise the first
// one added would send the cursor back to the beginning and hand them out again.
template <typename Results>
void pullUntilResults(CorvaneRESTClient& client, ClientResponse& response, Results& held) {
  while (held.count() == 0 && !client.isEndOfStream()) {
    held.init();
    client.recv(response);
  }
}

}  // namespace

SearchResponse& ClientResponse::getSearchResponse(CorvaneClient& client, bool streaming) {
  const tq::oss::TraceScope scope(trace::ClientResponsePullSearchResponse);
  if (resultsBuffered_) return getSearchResponse();
  CorvaneRESTClient& receiver = receiverOf(client);
  receiver.refuseForeign(*this);
  const CorvaneRESTClient::PullScope pull(receiver);
  resetResultCount();
  if (streaming) {
    pullUntilResults(receiver, *this, searchResponse_);
  } else {
    receiver.recv(*this);
  }
  return searchResponse_;
}

ParseResponse& ClientResponse::getParseResponse(CorvaneClient& client) {
  const tq::oss::TraceScope scope(trace::ClientResponsePullParseResponse);
  if (resultsBuffered_) return getParseResponse();
  CorvaneRESTClient& receiver = receiverOf(client);
  receiver.refuseForeign(*this);
  const CorvaneRESTClient::PullScope pull(receiver);
  resetResultCount();
  pullUntilResults(receiver, *this, parseResponse_);
  return parseResponse_;
}

}  // namespace tq::comm
