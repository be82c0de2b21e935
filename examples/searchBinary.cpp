// Says how many documents match a query and prints the keys of the best ten, over the binary
// protocol:
//   search_binary HOST PORT COLLECTION QUERY

#include <cstdlib>
#include <iostream>
#include <string>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "comm/kruStaticDefs.h"

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::DrestoPerfClient;
using tq::comm::StaticDefs;

std::string utf8(const icu::UnicodeString& text) {
  std::string bytes;
  return text.toUTF8String(bytes);
}

tq::util::ExtendedProperties queryFor(const char* query) {
  tq::util::ExtendedProperties properties;
  properties.putProperty(StaticDefs::PARAM_QUERY, icu::UnicodeString::fromUTF8(query));
  return properties;
}

void printEstimate(DrestoPerfClient& client, const icu::UnicodeString& collection,
                   const char* query) {
  ClientRequest request;
  request.buildRequest(collection, ClientRequest::SELECTIVITY, queryFor(query));
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  const auto& estimate = response.getSelectivityInfo();
  std::cout << "about " << estimate.getFirst() << " of " << estimate.getThird() << " documents\n";
}

bool printBest(DrestoPerfClient& client, const icu::UnicodeString& collection, const char* query) {
  auto properties = queryFor(query);
  properties.putProperty(StaticDefs::PARAM_SCORE_WANTED, StaticDefs::STRING_true);
  properties.putProperty(StaticDefs::PARAM_SEARCH_SIZE, u"10");
  ClientRequest request;
  request.buildRequest(collection, ClientRequest::STREAM_SEARCH, properties);
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  auto* hits = &response.getSearchResponse();
  for (;;) {
    while (hits->hasMore()) {
      const auto& hit = hits->getNext();
      std::cout << hit.getScore() << ' ' << utf8(hit.getDocId()) << '\n';
    }
    if (client.isEndOfStream()) return !client.isTruncated();
    hits = &response.getSearchResponse(client, true);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || (std::string(argv[3]) + argv[4]).find_first_of("\r\n") != std::string::npos) {
    std::cerr << "usage: search_binary HOST PORT COLLECTION QUERY\n";
    return 2;
  }
  try {
    const auto port = static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10));
    DrestoPerfClient client(icu::UnicodeString::fromUTF8(argv[1]), port);
    // Without it a first portion that was cut in the middle of a record is an error.
    client.setReassembly(true);
    client.setDeadline(60000);  // milliseconds
    const auto collection = icu::UnicodeString::fromUTF8(argv[3]);
    printEstimate(client, collection, argv[4]);
    if (printBest(client, collection, argv[4])) return 0;
    std::cerr << "the result was cut off\n";
  } catch (const tq::oss::BaseException& failure) {
    for (const auto& message : failure.getMessageList()) {
      std::cerr << utf8(message.getMessageId()) << ' ' << utf8(message.getMessageText());
      for (const auto& argument : message.getArguments()) std::cerr << ' ' << utf8(argument);
      std::cerr << '\n';
    }
  } catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
  }
  return 1;
}
