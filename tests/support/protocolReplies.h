#pragma once

#include <string>
#include <vector>

#include "tests/support/binaryReplies.h"
#include "tests/support/replyCorpus.h"
#include "tests/support/script.h"

namespace tq::test {

/// What a server of one of the protocols says.
class Replies {
 public:
  explicit Replies(bool binary) : binary_(binary) {}

  Script& expect(Script& script) const {
    return binary_ ? script.expectFramedRequest() : script.expectRequest();
  }

  /// A peer that gives these answers in turn, none where one is empty, then waits for the close.
  Script answers(const std::vector<std::string>& texts) const {
    Script script;
    for (const auto& text : texts) {
      expect(script);
      if (!text.empty()) script.send(text);
    }
    return script.awaitClose();
  }

  std::string done() const { return binary_ ? word16(1) : http(200, ""); }

  std::string refusal(const std::string& id, const std::string& text) const {
    const Fields fields = {{"MsgId", id}, {"MsgText", text}};
    return binary_ ? word16(6) + errorRecord(fields)
                   : http(500, kFront + enveloped(record(fields)));
  }

  /// Status 0, whichever the protocol.
  std::string ready() const {
    return binary_ ? word16(1) : http(200, kFront + enveloped(record({{"STATUS_CODE", "0"}})));
  }

  /// Status 1, whichever the protocol.
  std::string changesWait() const {
    return binary_ ? word16(5) : http(200, kFront + enveloped(record({{"STATUS_CODE", "1"}})));
  }

  /// Hits with the score 0.5, each in a piece of its own; not `whole`: without what ends them.
  Script& sendHits(Script& script, const std::vector<std::string>& keys, bool whole = true) const {
    if (binary_) {
      script.send(word16(1) + scoredHit(500, keys.front()));
      for (std::size_t i = 1; i < keys.size(); ++i) script.send(scoredHit(500, keys[i]));
      return whole ? script.send(endOfResults()) : script;
    }
    Reply reply{"", kStreamSearch};
    reply.body = kFront;
    std::vector<std::size_t> ends;
    for (const auto& key : keys) {
      reply.body += enveloped(hitRecord(idOfKey(key), "0.5"));
      ends.push_back(reply.body.size());
    }
    reply.body += bigEndian(0);
    ends.push_back(reply.body.size());
    const Chunked form = chunkedAt(reply, ends, true);
    std::size_t at = 0;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      script.send(form.text.substr(at, form.chunks[i].dataEnd + 2 - at));
      at = form.chunks[i].dataEnd + 2;
    }
    return whole ? script.send(form.text.substr(at)) : script;
  }

  /// Hits that come in one piece, which says where they end.
  std::string hitsAtOnce(const std::vector<std::string>& keys) const {
    std::string hits;
    for (const auto& key : keys) {
      hits += binary_ ? scoredHit(500, key) : enveloped(hitRecord(idOfKey(key), "0.5"));
    }
    return binary_ ? word16(1) + hits + endOfResults() : http(200, kFront + hits + bigEndian(0));
  }

  /// The outcomes of two documents: one is stored, one is refused.
  std::string outcomes() const {
    const Fields stored = {{"Doc", idOfKey("k1")}};
    const Fields refused = {{"Doc", "k2"}, {"MsgId", "ZVK0017E"}, {"MsgText", "too long"}};
    if (binary_) {
      return word16(1) + envelope(1, record16(stored)) + envelope(1, record16(refused)) +
             endOfResults();
    }
    return http(200,
                kFront + enveloped(record(stored)) + enveloped(record(refused)) + bigEndian(0));
  }

 private:
  using Fields = std::vector<std::pair<std::string, std::string>>;
  inline static const std::string kFront = std::string(4, '\0');

  static std::string http(int status, const std::string& body) {
    Reply reply{"", kGetStatus};
    reply.status = status;
    reply.body = body;
    return plain(reply);
  }

  bool binary_;
};

}  // namespace tq::test
