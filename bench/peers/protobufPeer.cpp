// protobuf: the hits of a search in messages of a thousand, each parsed into one object that is
// used again.

#include <cstring>
#include <vector>

#include "bench/peers/connection.h"
#include "hits.pb.h"

namespace {

/// The bytes of the connection, in one buffer that grows with the largest message.
class Messages {
 public:
  explicit Messages(const bench::RawConnection& connection)
      : connection_(connection), buffer_(std::size_t{256} << 10) {}

  /// The next message; empty: there are no more.
  std::string_view next() {
    await(4);
    std::size_t size = 0;
    for (int i = 0; i < 4; ++i) size = size << 8 | static_cast<unsigned char>(buffer_[begin_++]);
    await(size);
    const std::string_view message(buffer_.data() + begin_, size);
    begin_ += size;
    return message;
  }

 private:
  void await(std::size_t size) {
    if (begin_ + size > buffer_.size()) {
      std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
      if (size > buffer_.size()) buffer_.resize(2 * size);
    }
    while (end_ - begin_ < size) {
      end_ += connection_.receive(buffer_.data() + end_, buffer_.size() - end_);
    }
  }

  const bench::RawConnection& connection_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

void hits(const bench::Options& options) {
  const bench::RawConnection connection(options);
  const std::uint64_t count = options.number("count", 1000000);
  const std::string request = bench::headerOf(true, bench::searchLines(count), 0);
  bench::Portion portion;
  bench::measure(options, count, [&] {
    connection.send(request);
    Messages messages(connection);
    std::uint64_t seen = 0;
    std::uint64_t sum = 0;
    for (auto message = messages.next(); !message.empty(); message = messages.next()) {
      if (!portion.ParseFromArray(message.data(), static_cast<int>(message.size()))) {
        throw std::runtime_error("not a message");
      }
      for (const auto& hit : portion.hits()) {
        sum += hit.score() + static_cast<unsigned char>(hit.key().front());
      }
      seen += static_cast<std::uint64_t>(portion.hits_size());
    }
    if (seen != count || sum == 0) throw std::runtime_error("hits are missing");
  });
}

}  // namespace

int main(int argc, char** argv) {
  return bench::runPeer("protobufPeer", argc, argv, {{"hits", hits}});
}
