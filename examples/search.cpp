// Searches a collection and prints every hit, portion by portion:
//   search HOST PORT COLLECTION QUERY
// The port is that of the server's HTTP-style protocol.

#include <cstdlib>
#include <iostream>
#include <string>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruRESTException.h"
#include "comm/kruStaticDefs.h"

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
using tq::comm::StaticDefs;

std::string utf8(const icu::UnicodeString& text) {
  std::string bytes;
  return text.toUTF8String(bytes);
}

ClientRequest searchRequest(const char* collection, const char* query) {
  tq::util::ExtendedProperties properties;
  properties.putProperty(StaticDefs::PARAM_QUERY, icu::UnicodeString::fromUTF8(query));
  properties.putProperty(StaticDefs::PARAM_SCORE_WANTED, StaticDefs::STRING_true);
  ClientRequest request;
  request.buildRequest(icu::UnicodeString::fromUTF8(collection), ClientRequest::STREAM_SEARCH,
                       properties);
  return request;
}

void print(tq::comm::SearchResponse& portion) {
  while (portion.hasMore()) {
    const auto& hit = portion.getNext();
    std::cout << hit.getScore() << ' ' << utf8(hit.getDocId()) << '\n';
  }
}

// A property value becomes a header line as it is, so a line break in it would write another one.
bool isHeaderValue(const std::string& text) {
  return text.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

bool search(CorvaneRESTClient& client, const char* collection, const char* query) {
  ClientRequest request = searchRequest(collection, query);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  // Over HTTP a refusal that says nothing is no exception.
  if (!response.success()) throw std::runtime_error("the server refused without saying why");
  print(response.getSearchResponse());
  while (!client.isEndOfStream()) print(response.getSearchResponse(client, true));
  return !client.isTruncated();
}

void printMessages(const tq::oss::BaseException& failure) {
  for (const auto& message : failure.getMessageList()) {
    std::cerr << utf8(message.getMessageId()) << ' ' << utf8(message.getMessageText());
    for (const auto& argument : message.getArguments()) std::cerr << ' ' << utf8(argument);
    std::cerr << '\n';
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || !isHeaderValue(argv[3]) || !isHeaderValue(argv[4])) {
    std::cerr << "usage: search HOST PORT COLLECTION QUERY\n";
    return 2;
  }
  try {
    const auto port = static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10));
    CorvaneRESTClient client(icu::UnicodeString::fromUTF8(argv[1]), port, true);
    client.setTimeOut(5000);  // milliseconds
    if (search(client, argv[3], argv[4])) return 0;
    std::cerr << "the result was cut off\n";
  } catch (const tq::oss::BaseException& failure) {
    printMessages(failure);
  } catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
  }
  return 1;
}
