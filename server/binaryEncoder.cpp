#include <algorithm>
#include <limits>
#include <utility>

#include "server/bytes.h"
#include "server/replyEncoder.h"
#include "server/replyText.h"
#include "server/vocabulary.h"

namespace corvaned {
namespace {

// Codes of reply headers and envelopes.
constexpr std::uint16_t kSuccess = 1;
constexpr std::uint16_t kWithScore = 5;
constexpr std::uint16_t kStatusOne = 5;
constexpr std::uint16_t kError = 6;

constexpr std::size_t kMaxPayload = 65535;

void appendField(std::string& out, std::string_view name, std::string_view value) {
  appendU16(out, static_cast<std::uint16_t>(name.size()));
  out += name;
  appendU16(out, static_cast<std::uint16_t>(value.size()));
  out += value;
}

void appendEnvelope(std::string& out, std::uint16_t status, std::string_view payload) {
  appendU16(out, status);
  appendU16(out, static_cast<std::uint16_t>(payload.size()));
  out += payload;
}

std::string messageFields(std::string_view id, const std::string& text) {
  std::string fields;
  appendField(fields, "MsgId", id);
  appendField(fields, "MsgText", errorText(text));
  return fields;
}

std::string header(std::uint16_t code) {
  std::string bytes;
  appendU16(bytes, code);
  return bytes;
}

std::string errorReply(const ErrorReply& error) {
  std::string bytes = header(kError);
  const std::string record = messageFields(error.id, error.text);
  appendU16(bytes, static_cast<std::uint16_t>(record.size()));
  return bytes + record;
}

std::uint32_t clamped(std::uint64_t value) {
  constexpr std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(std::min(value, most));
}

class WholeReply : public ReplyEncoder {
 public:
  explicit WholeReply(std::string bytes) : bytes_(std::move(bytes)) {}

  bool next(std::string& out) override {
    out += bytes_;
    return !std::exchange(bytes_, {}).empty();
  }

 private:
  std::string bytes_;
};

class EnvelopesReply : public ReplyEncoder {
 public:
  bool next(std::string& out) final {
    if (ended_) return false;
    std::string portion;
    if (!std::exchange(started_, true)) portion = header(kSuccess);
    while (!ended_ && portion.size() < kPortionBytes) {
      if (!appendNext(portion)) {
        appendEnvelope(portion, kSuccess, {});
        ended_ = true;
      }
    }
    out += portion;
    return true;
  }

 protected:
  /// Appends one envelope; false when there is none left.
  virtual bool appendNext(std::string& portion) = 0;

 private:
  bool started_ = false;
  bool ended_ = false;
};

class BinaryHits : public EnvelopesReply {
 public:
  explicit BinaryHits(HitsReply reply) : reply_(std::move(reply)) {}

 protected:
  bool appendNext(std::string& portion) override {
    if (!reply_.hits->next(hit_)) return false;
    payload_.clear();
    if (reply_.withScore) appendU16(payload_, hit_.milliScore);
    payload_ += hit_.key;
    // Always the same status within a reply: a hit without a score would be taken to have the score
    // of the hit in front of it.
    appendEnvelope(portion, reply_.withScore ? kWithScore : kSuccess, payload_);
    return true;
  }

 private:
  HitsReply reply_;
  Hit hit_;
  std::string payload_;
};

class BinaryOutcomes : public EnvelopesReply {
 public:
  explicit BinaryOutcomes(OutcomesReply reply) : reply_(std::move(reply)) {}

 protected:
  bool appendNext(std::string& portion) override {
    if (position_ == reply_.outcomes.size()) return false;
    const ParseOutcome& outcome = reply_.outcomes[position_++];
    std::string record;
    appendField(record, words().doc, documentId(outcome.key));
    if (!outcome.messageId.empty()) {
      record += messageFields(outcome.messageId, outcome.messageText);
    }
    appendEnvelope(portion, kSuccess, record);
    return true;
  }

 private:
  OutcomesReply reply_;
  std::size_t position_ = 0;
};

std::unique_ptr<ReplyEncoder> whole(std::string bytes) {
  return std::make_unique<WholeReply>(std::move(bytes));
}

struct BinaryForm {
  std::unique_ptr<ReplyEncoder> operator()(NoReply) const { return whole({}); }
  std::unique_ptr<ReplyEncoder> operator()(DoneReply) const { return whole(header(kSuccess)); }
  std::unique_ptr<ReplyEncoder> operator()(const ErrorReply& reply) const {
    return whole(errorReply(reply));
  }
  std::unique_ptr<ReplyEncoder> operator()(HitsReply&& reply) const {
    return std::make_unique<BinaryHits>(std::move(reply));
  }
  std::unique_ptr<ReplyEncoder> operator()(OutcomesReply&& reply) const {
    return std::make_unique<BinaryOutcomes>(std::move(reply));
  }
  // The last two of the three numbers travel in crossed order.
  std::unique_ptr<ReplyEncoder> operator()(const EstimateReply& reply) const {
    std::string payload;
    appendU32(payload, clamped(reply.estimate.hits));
    appendU32(payload, clamped(reply.estimate.documents));
    appendU32(payload, clamped(reply.estimate.atMost));
    std::string bytes = header(kSuccess);
    appendEnvelope(bytes, kSuccess, payload);
    appendEnvelope(bytes, kSuccess, {});
    return whole(bytes);
  }
  std::unique_ptr<ReplyEncoder> operator()(const StatusReply& reply) const {
    if (reply.code == 0) return whole(header(kSuccess));
    if (reply.code == 1) return whole(header(kStatusOne));
    return whole(errorReply(reply.reason));
  }
  std::unique_ptr<ReplyEncoder> operator()(const TextReply& reply) const {
    std::string bytes = header(kSuccess);
    appendEnvelope(bytes, kSuccess, cutBetweenCharacters(reply.text, kMaxPayload));
    return whole(bytes);
  }
};

}  // namespace

std::unique_ptr<ReplyEncoder> encodeBinary(Reply reply) {
  return std::visit(BinaryForm{}, std::move(reply));
}

}  // namespace corvaned
