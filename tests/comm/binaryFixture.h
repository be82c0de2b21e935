#pragma once

#include <list>
#include <string>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTMessage.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

/// Small verbs that the tests of the binary client share.
namespace tq::test {

constexpr auto kOnDemand = ScriptedNetwork::Arrival::OnDemand;
constexpr auto kAllThere = ScriptedNetwork::Arrival::AllThere;

inline tq::comm::DrestoPerfClient binaryClient() {
  return tq::comm::DrestoPerfClient(u"127.0.0.1", 7);
}

inline const std::vector<std::string> kHostAndPort{"127.0.0.1", "7"};

/// A request whose document lives as long as it does.
struct Document {
  explicit Document(int kind, std::size_t size = 10, std::size_t padding = 0) : content(size, 'c') {
    for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>('a' + i % 23);
    tq::util::ExtendedProperties properties;
    if (padding != 0) {
      properties.putProperty(u"padding", icu::UnicodeString(static_cast<int32_t>(padding), U'p',
                                                            static_cast<int32_t>(padding)));
    }
    request.buildRequest(u"c1", static_cast<tq::comm::ClientRequest::REQUEST>(kind), properties);
    request.setContent(std::list<tq::comm::KVPair>{{u"title", u"one"}}, content.data(),
                       static_cast<unsigned int>(size));
    request.setDocKey("key", 3);
  }
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  std::string content;
  tq::comm::ClientRequest request;
};

/// A request's bytes, piece by piece.
struct Framed {
  explicit Framed(tq::comm::ClientRequest& request) {
    tq::comm::RESTMessage message(u"127.0.0.1", request);
    const std::string text = message.getSerializedHeader();
    header = word16(static_cast<unsigned int>(text.size())) + text;
    if (request.getRequest() == tq::comm::ClientRequest::LAST_DOC_SENT) {
      header += std::string(8, '\0');
    } else if (message.getMsgPrefixLen() != 0) {
      prefix.assign(message.getMsgPrefix(), message.getMsgPrefixLen());
      if (message.getMsgBodyLength() != 0) {
        body.assign(message.getMsgBody(), message.getMsgBodyLength());
      }
    }
  }
  std::string whole() const { return header + prefix + body; }
  std::size_t fixed() const { return header.size() + prefix.size(); }

  std::string header;  // with its length, and with the terminate record of the kind that has one
  std::string prefix;
  std::string body;
};

inline Script answer(const std::string& reply) {
  return Script().expectFramedRequest().send(reply).awaitClose();
}

inline const std::string kOk = word16(1);

}  // namespace tq::test
