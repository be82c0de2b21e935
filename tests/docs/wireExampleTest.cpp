// The bytes that the protocol documents show are what the clients send and understand.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTMessage.h"
#include "tests/support/exchange.h"
#include "tests/support/kinds.h"
#include "tests/support/script.h"
#include "tests/support/scriptedNetwork.h"

namespace {

using namespace tq::test;
using tq::comm::ClientRequest;
using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;

// One line of an example: text as it is, or bytes in capital hexadecimal digits and quoted texts;
// then the line ends that travel.
std::string bytesOfLine(std::string line) {
  std::string end;
  std::smatch found;
  if (std::regex_match(line, found, std::regex("(.*?) ?(CR LF|LF)"))) {
    end = found[2] == "LF" ? "\n" : "\r\n";
    line = found[1];
  }
  if (!std::regex_match(line, std::regex(R"(( *([0-9A-F]{2}|"[^"]*"))*)"))) return line + end;
  std::string bytes;
  const std::regex item(R"re("([^"]*)"|([0-9A-F]{2}))re");
  for (std::sregex_iterator at(line.begin(), line.end(), item), none; at != none; ++at) {
    const std::string digits = (*at)[2];
    if (digits.empty()) {
      bytes += (*at)[1];
    } else {
      bytes += static_cast<char>(std::stoi(digits, nullptr, 16));
    }
  }
  return bytes + end;
}

// What stands in the code blocks below the headings "Example", as it travels.
std::vector<std::string> examplesOf(const std::string& document) {
  std::ifstream text(std::string(KRUCOMM_DOCUMENTS) + "/" + document);
  std::vector<std::string> examples;
  bool inSection = false;
  bool inBlock = false;
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("#")) inSection = line == "### Example";
    if (!inSection) continue;
    if (line == "```") {
      inBlock = !inBlock;
      if (inBlock) examples.emplace_back();
    } else if (inBlock) {
      examples.back() += bytesOfLine(line);
    }
  }
  return examples;
}

std::string sentBy(ClientRequest& request) {
  ScriptedNetwork network(Script().awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  client.open();
  client.send(request);
  return network.connection(0).received;
}

TEST(WireExample, OfHttpRequestsIsWhatTheClientSends) {
  const std::vector<std::string> examples = examplesOf("http-protocol.md");
  ASSERT_EQ(examples.size(), 3U);

  ClientRequest search;
  tq::util::ExtendedProperties parameters;
  parameters.putProperty(u"query", u"x");
  search.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, parameters);
  EXPECT_EQ(sentBy(search), examples[0]);

  ClientRequest addition;
  addition.buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, {});
  addition.setDocKey("k1", 2);
  addition.setContent({{u"a", u"bc"}}, "hi", 2);
  const std::string header = tq::comm::RESTMessage(u"127.0.0.1", addition).getSerializedHeader();
  EXPECT_EQ(examples[1].size(), 48U);
  EXPECT_EQ(sentBy(addition), header + examples[1]);
}

TEST(WireExample, OfAnHttpReplyBringsTwoHits) {
  const std::vector<std::string> examples = examplesOf("http-protocol.md");
  ASSERT_EQ(examples.size(), 3U);
  ScriptedNetwork network(Script().expectRequest().send(examples[2]).awaitClose());
  CorvaneRESTClient client(u"127.0.0.1", 7, true);
  const Outcome outcome = runExchange(client, kStreamSearch);
  EXPECT_EQ(outcome.errorId, "");
  EXPECT_EQ(outcome.hits, (std::vector<Hit>{{"base64:YQ==", 1.5}, {"base64:Yg==", 1.5}}));
  EXPECT_FALSE(client.isTruncated());
}

TEST(WireExample, OfBinaryRepliesBringsTwoHitsAndARefusal) {
  const std::vector<std::string> examples = examplesOf("binary-protocol.md");
  ASSERT_EQ(examples.size(), 2U);
  ScriptedNetwork network(Script()
                              .expectFramedRequest()
                              .send(examples[0])
                              .expectFramedRequest()
                              .send(examples[1])
                              .awaitClose());
  DrestoPerfClient client(u"127.0.0.1", 7);
  const Outcome found = runExchange(client, kStreamSearch);
  EXPECT_EQ(found.errorId, "");
  EXPECT_EQ(found.hits, (std::vector<Hit>{{"base64:YWJj", 1.5}, {"base64:ZGU=", 0.25}}));
  EXPECT_FALSE(client.isTruncated());

  const Outcome refused = runExchange(client, kUpdateIndex);
  EXPECT_EQ(refused.errorId, "ZVK1002E");
  EXPECT_EQ(refused.errorText, "no");
}

}  // namespace
