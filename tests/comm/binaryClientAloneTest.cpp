// Sends, receives and catches with no other header of the library than the client's own.
#include <gtest/gtest.h>

#include "comm/kruDrestoPerfClient.h"

namespace {

TEST(BinaryClientAlone, SendsReceivesAndCatches) {
  tq::comm::DrestoPerfClient client(u"127.0.0.1", 0);
  tq::comm::ClientRequest request;
  tq::comm::ClientResponse response;
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"query", u"word");
  request.buildRequest(u"c1", tq::comm::ClientRequest::STREAM_SEARCH, properties);
  try {
    client.sendAndRecvMesg(request, response);
    while (response.getSearchResponse().hasMore()) response.getSearchResponse().getNext();
    FAIL() << "connected to port 0";
  } catch (const tq::comm::RESTException& e) {
    EXPECT_TRUE(e.getMessageList().front().getMessageId() == u"ERR_CONNECT_SERVER");
  }
}

}  // namespace
