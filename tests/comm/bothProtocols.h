#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
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

/// A reply of the HTTP protocol, before any framing, or one of the binary protocol, by its name. It
/// is made when a test looks at it: CTest starts a process for each test, and one that made the
/// replies of all the others first would do little else.
class EitherReply {
 public:
  /// One of a corpus, which outlives it.
  template <typename OneProtocolsReply>
  explicit EitherReply(const OneProtocolsReply& reply)
      : EitherReply(
            reply.name, [&reply]() -> const auto& { return reply; }) {}

  /// `find` gives a reply that outlives all copies of this.
  template <typename Find>
  EitherReply(std::string name, const Find& find)
      : name_(std::move(name)), find_([find]() -> One { return &find(); }) {}

  const std::string& name() const { return name_; }

  template <typename Visitor>
  auto visit(const Visitor& visitor) const {
    return std::visit([&](const auto* one) { return visitor(*one); }, find_());
  }

 private:
  using One = std::variant<const Reply*, const BinaryReply*>;

  std::string name_;
  std::function<One()> find_;
};

inline std::ostream& operator<<(std::ostream& out, const EitherReply& reply) {
  return out << reply.name();
}

/// One that `make` makes at the first look.
template <typename Make>
EitherReply madeOnce(const std::string& name, const Make& make) {
  using Made = std::invoke_result_t<Make>;
  const auto made = std::make_shared<std::optional<Made>>();
  return {name, [make, made]() -> const Made& {
            if (!*made) *made = make();
            return **made;
          }};
}

template <typename OneProtocolsReply>
std::vector<EitherReply> either(const std::vector<OneProtocolsReply>& replies) {
  std::vector<EitherReply> all;
  for (const auto& reply : replies) all.emplace_back(reply);
  return all;
}

inline std::string testNameOf(const testing::TestParamInfo<EitherReply>& info) {
  return info.param.name();
}

inline std::vector<EitherReply> httpNamed(const std::vector<std::string>& names) {
  std::vector<EitherReply> replies;
  for (const auto& name : names) {
    replies.emplace_back(
        name, [name]() -> const auto& { return replyNamed(name); });
  }
  return replies;
}
inline std::vector<EitherReply> binaryNamed(const std::vector<std::string>& names) {
  std::vector<EitherReply> replies;
  for (const auto& name : names) {
    replies.emplace_back(
        name, [name]() -> const auto& { return binaryReplyNamed(name); });
  }
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
