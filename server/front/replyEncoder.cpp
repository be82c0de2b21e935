#include "server/front/replyEncoder.h"

#include <utility>

namespace corvaned {
namespace {

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

}  // namespace

std::unique_ptr<ReplyEncoder> wholeReply(std::string bytes) {
  return std::make_unique<WholeReply>(std::move(bytes));
}

std::unique_ptr<ReplyEncoder> encode(Framing framing, Reply reply) {
  return framing == Framing::Http ? encodeHttp(std::move(reply)) : encodeBinary(std::move(reply));
}

}  // namespace corvaned
