#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruDrestoPerfClient.h"
#include "tests/comm/binaryFixture.h"
#include "tests/support/binaryReplies.h"
#include "tests/support/exchange.h"
#include "tests/support/protocolReplies.h"
#include "tests/support/replyCorpus.h"

/// What the tests of promises that both protocols make are written with.
namespace tq::test {

/// A reply of the HTTP protocol, before any framing, or one of the binary protocol.
using EitherReply = std::variant<Reply, BinaryReply>;

template <typename OneProtocolsReply>
std::vector<EitherReply> either(const std::vector<OneProtocolsReply>& replies) {
  return {replies.begin(), replies.end()};
}

inline std::string nameOf(const EitherReply& reply) {
  return std::visit([](const auto& one) { return one.name; }, reply);
}
inline std::string testNameOf(const testing::TestParamInfo<EitherReply>& info) {
  return nameOf(info.param);
}

inline std::vector<EitherReply> httpNamed(const std::vector<std::string>& names) {
  std::vector<EitherReply> replies;
  for (const auto& name : names) replies.emplace_back(replyNamed(name));
  return replies;
}
inline std::vector<EitherReply> binaryNamed(const std::vector<std::string>& names) {
  std::vector<EitherReply> replies;
  for (const auto& name : names) replies.emplace_back(binaryReplyNamed(name));
  return replies;
}

/// A client whose connection is kept. Only over the binary protocol there is something to
/// reassemble.
inline std::unique_ptr<tq::comm::CorvaneRESTClient> clientFor(bool binary, bool reassembly = false,
                                                              unsigned int port = 7) {
  if (!binary) return std::make_unique<tq::comm::CorvaneRESTClient>(u"127.0.0.1", port, true);
  auto client = std::make_unique<tq::comm::DrestoPerfClient>(u"127.0.0.1", port);
  client->setReassembly(reassembly);
  return client;
}

/// Runs an exchange and takes all that it brings; of an exchange over HTTP the corpus knows only
/// what every client sees.
inline BinaryOutcome runOver(tq::comm::CorvaneRESTClient& client, int kind,
                             Pull pull = Pull::Looping) {
  auto* const binary = dynamic_cast<tq::comm::DrestoPerfClient*>(&client);
  if (binary != nullptr) return runBinary(*binary, kind, pull);
  return {runExchange(client, kind, pull)};
}

/// The exchange after the one that is tested: what it asks, gets and must see.
struct NextExchange {
  int kind;
  std::string text;
  BinaryOutcome expected;
};
inline const NextExchange& nextOver(bool binary) {
  static const NextExchange http{nextReply().kind, plain(nextReply()), {nextReply().expected}};
  static const NextExchange binaries{nextBinaryReply().kind, nextBinaryReply().text,
                                     nextBinaryReply().expected};
  return binary ? binaries : http;
}

/// A peer that takes one request, answers with these bytes and does what follows.
inline Script answerTo(bool binary, const std::string& text, std::size_t segment = 0) {
  Script script;
  Replies(binary).expect(script).send(text, segment);
  return script;
}

}  // namespace tq::test
