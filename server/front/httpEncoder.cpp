#include <fmt/format.h>

#include <array>
#include <charconv>
#include <utility>
#include <vector>

#include "server/base/bytes.h"
#include "server/front/replyEncoder.h"
#include "server/front/replyText.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

// Clients skip the first four bytes of a result body.
constexpr std::uint32_t kBodyStart = 0;
constexpr std::uint32_t kNoMoreRecords = 0;

void appendField(std::string& out, std::string_view name, std::string_view value) {
  appendU32(out, static_cast<std::uint32_t>(name.size()));
  out += name;
  appendU32(out, static_cast<std::uint32_t>(value.size()));
  out += value;
}

void appendRecord(std::string& out, std::string_view fields) {
  appendU32(out, static_cast<std::uint32_t>(fields.size()));
  out += fields;
}

std::string withLength(std::string_view status, std::string_view body) {
  std::string reply = "HTTP/1.1 ";
  reply.append(status).append("\r\n").append(words().replyContentLength).append(": ");
  reply.append(fmt::to_string(body.size())).append("\r\n\r\n").append(body);
  return reply;
}

std::string oneRecordReply(std::string_view status, std::string_view fields) {
  std::string body;
  appendU32(body, kBodyStart);
  appendRecord(body, fields);
  return withLength(status, body);
}

/// A sequence of records. It is sent in chunks of whole records; if it fits into one portion it is
/// sent with a length instead, unless chunks are asked for.
class RecordsReply : public ReplyEncoder {
 public:
  explicit RecordsReply(bool alwaysChunked) : alwaysChunked_(alwaysChunked) {}

  bool next(std::string& out) final {
    if (ended_) return false;
    std::string portion;
    if (!started_) appendU32(portion, kBodyStart);
    while (!ended_ && portion.size() < kPortionBytes) {
      if (!appendNext(portion)) {
        appendU32(portion, kNoMoreRecords);
        ended_ = true;
      }
    }
    send(portion, out);
    return true;
  }

 protected:
  /// Appends the next record; false if there is none.
  virtual bool appendNext(std::string& portion) = 0;

 private:
  void send(const std::string& portion, std::string& out) {
    if (!std::exchange(started_, true)) {
      if (ended_ && !alwaysChunked_) {
        out += withLength("200 OK", portion);
        return;
      }
      out.append("HTTP/1.1 200 OK\r\n").append(words().transferEncoding).append(": ");
      out.append(words().chunked).append("\r\n\r\n");
    }
    appendChunk(portion, out);
    if (ended_) out += "0\r\n\r\n";
  }

  static void appendChunk(const std::string& portion, std::string& out) {
    std::array<char, 16> digits{};
    const auto size =
        std::to_chars(digits.data(), digits.data() + digits.size(), portion.size(), 16);
    out.append(digits.data(), size.ptr).append("\r\n").append(portion).append("\r\n");
  }

  bool alwaysChunked_;
  bool started_ = false;
  bool ended_ = false;
};

class HttpHits : public RecordsReply {
 public:
  explicit HttpHits(HitsReply reply) : RecordsReply(reply.streaming), reply_(std::move(reply)) {}

 protected:
  bool appendNext(std::string& portion) override {
    if (!reply_.hits->next(hit_)) return false;
    fields_.clear();
    appendField(fields_, "URI", documentId(hit_.key));
    if (reply_.withScore) appendField(fields_, "SCORE", scoreText(hit_.milliScore));
    appendRecord(portion, fields_);
    return true;
  }

 private:
  HitsReply reply_;
  Hit hit_;
  std::string fields_;
};

template <typename Record>
class HttpMessages : public RecordsReply {
 public:
  explicit HttpMessages(std::vector<Record> records, std::shared_ptr<const void> memory = {})
      : RecordsReply(false), memory_(std::move(memory)), records_(std::move(records)) {}

 protected:
  bool appendNext(std::string& portion) override {
    if (position_ == records_.size()) return false;
    appendRecord(portion, recordFields(appendField, records_[position_++]));
    return true;
  }

 private:
  // Given back when the records are gone.
  std::shared_ptr<const void> memory_;
  std::vector<Record> records_;
  std::size_t position_ = 0;
};

struct HttpForm {
  std::unique_ptr<ReplyEncoder> operator()(NoReply) const { return wholeReply({}); }
  std::unique_ptr<ReplyEncoder> operator()(DoneReply) const {
    return wholeReply(withLength("200 OK", {}));
  }
  std::unique_ptr<ReplyEncoder> operator()(const ErrorReply& reply) const {
    return wholeReply(oneRecordReply("500 Internal Server Error",
                                     messageFields(appendField, reply.id, reply.text)));
  }
  std::unique_ptr<ReplyEncoder> operator()(const UnauthorizedReply& reply) const {
    return wholeReply(oneRecordReply(
        "401 Unauthorized", messageFields(appendField, reply.reason.id, reply.reason.text)));
  }
  std::unique_ptr<ReplyEncoder> operator()(HitsReply&& reply) const {
    return std::make_unique<HttpHits>(std::move(reply));
  }
  std::unique_ptr<ReplyEncoder> operator()(OutcomesReply&& reply) const {
    return std::make_unique<HttpMessages<ParseOutcome>>(std::move(reply.outcomes));
  }
  std::unique_ptr<ReplyEncoder> operator()(ReportReply&& reply) const {
    return std::make_unique<HttpMessages<ReportReply::Line>>(std::move(reply.lines),
                                                             std::move(reply.memory));
  }
  std::unique_ptr<ReplyEncoder> operator()(const EstimateReply& reply) const {
    std::string fields;
    appendField(fields, "ESTIMATE", fmt::to_string(reply.estimate.hits));
    appendField(fields, "AT_MOST", fmt::to_string(reply.estimate.atMost));
    appendField(fields, "DOCUMENTS", fmt::to_string(reply.estimate.documents));
    return wholeReply(oneRecordReply("200 OK", fields));
  }
  std::unique_ptr<ReplyEncoder> operator()(const StatusReply& reply) const {
    std::string fields;
    appendField(fields, "STATUS_CODE", fmt::to_string(reply.code));
    return wholeReply(oneRecordReply("200 OK", fields));
  }
  std::unique_ptr<ReplyEncoder> operator()(const TextReply& reply) const {
    return wholeReply(withLength("200 OK", reply.text));
  }
};

}  // namespace

std::unique_ptr<ReplyEncoder> encodeHttp(Reply reply) {
  return std::visit(HttpForm{}, std::move(reply));
}

}  // namespace corvaned
