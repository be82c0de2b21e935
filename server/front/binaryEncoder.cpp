#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "server/base/bytes.h"
#include "server/base/errors.h"
#include "server/front/replyEncoder.h"
#include "server/front/replyText.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

// Codes of reply headers and envelopes.
constexpr std::uint16_t kSuccess = 1;
constexpr std::uint16_t kWithScore = 5;
constexpr std::uint16_t kStatusOne = 5;
constexpr std::uint16_t kError = 6;
constexpr std::uint16_t kUnauthorized = 401;

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

std::string header(std::uint16_t code) {
  std::string bytes;
  appendU16(bytes, code);
  return bytes;
}

std::string errorReply(const ErrorReply& error) {
  std::string bytes = header(kError);
  const std::string record = messageFields(appendField, error.id, error.text);
  appendU16(bytes, static_cast<std::uint16_t>(record.size()));
  return bytes + record;
}

std::uint32_t clamped(std::uint64_t value) {
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(std::min(value, kMax));
}

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
  /// Appends the next envelope; false if there is none.
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
    // All envelopes of a reply have the same status: a client would give a hit without a score the
    // score of the previous hit.
    appendEnvelope(portion, reply_.withScore ? kWithScore : kSuccess, payload_);
    return true;
  }

 private:
  HitsReply reply_;
  Hit hit_;
  std::string payload_;
};

template <typename Record>
class BinaryMessages : public EnvelopesReply {
 public:
  explicit BinaryMessages(std::vector<Record> records, std::shared_ptr<const void> memory = {})
      : memory_(std::move(memory)), records_(std::move(records)) {}

 protected:
  bool appendNext(std::string& portion) override {
    if (position_ == records_.size()) return false;
    appendEnvelope(portion, kSuccess, recordFields(appendField, records_[position_++]));
    return true;
  }

 private:
  // Given back when the records are gone.
  std::shared_ptr<const void> memory_;
  std::vector<Record> records_;
  std::size_t position_ = 0;
};

struct BinaryForm {
  std::unique_ptr<ReplyEncoder> operator()(NoReply) const { return wholeReply({}); }
  std::unique_ptr<ReplyEncoder> operator()(DoneReply) const { return wholeReply(header(kSuccess)); }
  std::unique_ptr<ReplyEncoder> operator()(const ErrorReply& reply) const {
    return wholeReply(errorReply(reply));
  }
  // The protocol has no room for a reason.
  std::unique_ptr<ReplyEncoder> operator()(const UnauthorizedReply&) const {
    return wholeReply(header(kUnauthorized));
  }
  std::unique_ptr<ReplyEncoder> operator()(HitsReply&& reply) const {
    return std::make_unique<BinaryHits>(std::move(reply));
  }
  std::unique_ptr<ReplyEncoder> operator()(OutcomesReply&& reply) const {
    return std::make_unique<BinaryMessages<ParseOutcome>>(std::move(reply.outcomes));
  }
  std::unique_ptr<ReplyEncoder> operator()(ReportReply&& reply) const {
    return std::make_unique<BinaryMessages<ReportReply::Line>>(std::move(reply.lines),
                                                               std::move(reply.memory));
  }
  // The protocol puts the number of documents before the upper bound.
  std::unique_ptr<ReplyEncoder> operator()(const EstimateReply& reply) const {
    std::string payload;
    appendU32(payload, clamped(reply.estimate.hits));
    appendU32(payload, clamped(reply.estimate.documents));
    appendU32(payload, clamped(reply.estimate.atMost));
    std::string bytes = header(kSuccess);
    appendEnvelope(bytes, kSuccess, payload);
    appendEnvelope(bytes, kSuccess, {});
    return wholeReply(bytes);
  }
  std::unique_ptr<ReplyEncoder> operator()(const StatusReply& reply) const {
    if (reply.code == 0) return wholeReply(header(kSuccess));
    if (reply.code == 1) return wholeReply(header(kStatusOne));
    return wholeReply(errorReply(reply.reason));
  }
  std::unique_ptr<ReplyEncoder> operator()(const TextReply& reply) const {
    std::string bytes = header(kSuccess);
    appendEnvelope(bytes, kSuccess, cutBetweenCharacters(reply.text, kMaxPayload));
    return wholeReply(bytes);
  }
};

}  // namespace

std::unique_ptr<ReplyEncoder> encodeBinary(Reply reply) {
  return std::visit(BinaryForm{}, std::move(reply));
}

}  // namespace corvaned
