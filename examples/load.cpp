// Creates a collection, loads documents into it and makes them searchable:
//   load HOST PORT COLLECTION <DOCUMENTS
// A document is a line: its key, a tab, its text. The port is that of the server's HTTP-style
// protocol.

#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruParseResult.h"
#include "comm/kruRESTException.h"
#include "infra/util/kruBase64.h"

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::CorvaneRESTClient;
// Texts by their keys.
using Documents = std::map<std::string, std::string>;

std::string utf8(const icu::UnicodeString& text) {
  std::string bytes;
  return text.toUTF8String(bytes);
}

// Over HTTP a refusal that says nothing is no exception.
void requireSuccess(const ClientResponse& response) {
  if (!response.success()) throw std::runtime_error("the server refused without saying why");
}

// What an administrative or a queueing request is made of.
void ask(CorvaneRESTClient& client, const icu::UnicodeString& collection,
         ClientRequest::REQUEST kind, ClientResponse& response) {
  ClientRequest request;
  request.buildRequest(collection, kind, {});
  client.sendAndRecvMesg(request, response);
  requireSuccess(response);
}

// A document needs one pair of metadata at least. Key and text are read while they are sent, so
// that they have to live until the call returns.
void send(CorvaneRESTClient& client, const icu::UnicodeString& collection,
          ClientRequest::REQUEST kind, const std::string& key, const std::string& text) {
  ClientRequest request;
  request.buildRequest(collection, kind, {});
  request.setDocKey(key.data(), static_cast<unsigned int>(key.size()));
  request.setContent({{u"source", u"example"}}, text.data(),
                     static_cast<unsigned int>(text.size()));
  ClientResponse response;
  client.sendAndRecvMesg(request, response);
  requireSuccess(response);
}

// Replies name a document by the Base64 form of its key.
std::string keyOf(const tq::comm::ParseResult& result) {
  const std::string prefix = "base64:";
  const std::string id = utf8(result.getDocument());
  std::string key;
  if (id.compare(0, prefix.size(), prefix) != 0) return id;
  tq::util::Base64::decode(id.data() + prefix.size(), id.size() - prefix.size(), key);
  return key;
}

// Takes the documents out of `open` that the server names without a message: they are stored.
void collectResults(CorvaneRESTClient& client, const icu::UnicodeString& collection,
                    Documents& open) {
  ClientResponse response;
  ask(client, collection, ClientRequest::PARSE_RESULT, response);
  auto* results = &response.getParseResponse();
  for (;;) {
    while (results->hasMore()) {
      const auto& result = results->getNext();
      if (!result.hasMessage()) open.erase(keyOf(result));
    }
    if (client.isEndOfStream()) return;
    results = &response.getParseResponse(client);
  }
}

// Queues all documents and returns those that no result names: lost with a connection, refused, or
// stored with a result that went to another client of the collection.
Documents queue(CorvaneRESTClient& client, const icu::UnicodeString& collection,
                Documents documents) {
  for (const auto& [key, text] : documents) {
    send(client, collection, ClientRequest::ASYNCH_ADD_DOCUMENT, key, text);
  }
  ClientResponse response;
  ask(client, collection, ClientRequest::LAST_DOC_SENT, response);
  collectResults(client, collection, documents);
  return documents;
}

// An addition has an answer of its own, and doing it twice does no harm.
bool add(CorvaneRESTClient& client, const icu::UnicodeString& collection, const std::string& key,
         const std::string& text) {
  try {
    send(client, collection, ClientRequest::ADD_DOCUMENT, key, text);
    return true;
  } catch (const std::exception&) {
    if (client.getRequestOutcome() != tq::comm::RequestOutcome::Rejected) throw;
    std::cerr << "refused: " << key << '\n';
    return false;
  }
}

Documents read(std::istream& input) {
  Documents documents;
  for (std::string line; std::getline(input, line);) {
    const std::size_t tab = line.find('\t');
    if (tab != std::string::npos) documents[line.substr(0, tab)] = line.substr(tab + 1);
  }
  return documents;
}

bool load(CorvaneRESTClient& client, const icu::UnicodeString& collection, std::istream& input) {
  const Documents documents = read(input);
  ClientResponse response;
  ask(client, collection, ClientRequest::CREATE_COLLECTION, response);
  std::size_t refused = 0;
  for (const auto& [key, text] : queue(client, collection, documents)) {
    if (!add(client, collection, key, text)) ++refused;
  }
  ask(client, collection, ClientRequest::UPDATE_INDEX, response);
  std::cout << documents.size() - refused << " documents are searchable\n";
  return refused == 0;
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
  if (argc != 4 || std::string(argv[3]).find_first_of("\r\n") != std::string::npos) {
    std::cerr << "usage: load HOST PORT COLLECTION <DOCUMENTS\n";
    return 2;
  }
  try {
    const auto port = static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10));
    CorvaneRESTClient client(icu::UnicodeString::fromUTF8(argv[1]), port, true);
    client.setDeadline(60000);  // milliseconds, for each request
    client.setRetryUnsafe(false);
    return load(client, icu::UnicodeString::fromUTF8(argv[3]), std::cin) ? 0 : 1;
  } catch (const tq::oss::BaseException& failure) {
    printMessages(failure);
  } catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
  }
  return 1;
}
