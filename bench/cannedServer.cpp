// Answers the benchmarks' requests with replies that are prepared once. It shares no code with the
// library, so that a benchmark measures one side only, and it decides nothing while it is measured:
// what a search or a list of parse results brings is a block of records, sent as often as it takes.
//
//   cannedServer http|binary|resp|protobuf [--portion=HITS]
//
// prints its port and serves until its standard input ends. `http` also answers a general HTTP
// client, for `searchJson` with JSON. `resp` and `protobuf` are for peers: the former answers every
// command with OK, the latter is asked as over the binary protocol and answers with hits in
// messages that have their size, four bytes, in front.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

enum class Protocol { Http, Binary, Resp, Protobuf };

constexpr std::size_t kReadBytes = std::size_t{256} << 10;
constexpr std::size_t kWriteBytes = std::size_t{64} << 10;

void appendNumber(std::string& out, std::uint64_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    out += static_cast<char>((value >> shift) & 0xFF);
  }
}

void appendField(std::string& out, int lengthBytes, std::string_view name, std::string_view value) {
  appendNumber(out, name.size(), lengthBytes);
  out += name;
  appendNumber(out, value.size(), lengthBytes);
  out += value;
}

std::string base64(std::string_view bytes) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      group = group << 8 | (i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    }
    for (int shift = 18; shift >= 0; shift -= 6) text += kDigits[(group >> shift) & 63];
  }
  const std::size_t missing = (3 - bytes.size() % 3) % 3;
  return text.replace(text.size() - missing, missing, missing, '=');
}

// Sixteen bytes that look like a key that a database makes: none is like the next.
std::string keyOf(std::uint64_t number) {
  std::string key;
  appendNumber(key, (number + 1) * 0x9E3779B97F4A7C15U, 8);
  appendNumber(key, (number + 1) * 0xC2B2AE3D27D4EB4FU, 8);
  return key;
}

std::uint64_t scoreOf(std::uint64_t number) { return 65535 - (number * 61) % 60000; }

std::string scoreText(std::uint64_t thousandths) {
  char text[32];
  std::snprintf(text, sizeof text, "%u.%03u", static_cast<unsigned>(thousandths / 1000),
                static_cast<unsigned>(thousandths % 1000));
  return text;
}

void appendHit(std::string& out, Protocol protocol, std::uint64_t number) {
  if (protocol == Protocol::Binary) {
    appendNumber(out, 5, 2);
    appendNumber(out, 18, 2);
    appendNumber(out, scoreOf(number), 2);
    out += keyOf(number);
    return;
  }
  std::string record;
  appendField(record, 4, "URI", "base64:" + base64(keyOf(number)));
  appendField(record, 4, "SCORE", scoreText(scoreOf(number)));
  appendNumber(out, record.size(), 4);
  out += record;
}

void appendVarint(std::string& out, std::uint64_t value) {
  for (; value > 127; value >>= 7) out += static_cast<char>(value | 128);
  out += static_cast<char>(value);
}

// A field of the protobuf encoding: `message Hit { bytes key = 1; uint32 score = 2; }`, and a hit
// is the repeated field 1 of a portion.
void appendProtobufHit(std::string& out, Protocol, std::uint64_t number) {
  std::string hit("\x0A\x10", 2);
  hit += keyOf(number) + '\x10';
  appendVarint(hit, scoreOf(number));
  out += '\x0A';
  appendVarint(out, hit.size());
  out += hit;
}

void appendJsonHit(std::string& out, Protocol, std::uint64_t number) {
  out += R"({"id":"base64:)" + base64(keyOf(number)) + R"(","score":)" +
         scoreText(scoreOf(number)) + "},";
}

// Most documents are named alone, which says that they are stored; one of ten has a message.
void appendOutcome(std::string& out, Protocol protocol, std::uint64_t number) {
  const int lengthBytes = protocol == Protocol::Binary ? 2 : 4;
  std::string record;
  appendField(record, lengthBytes, "Doc", "base64:" + base64(keyOf(number)));
  if (number % 10 == 9) {
    appendField(record, lengthBytes, "MsgId", "ZVK2007W");
    appendField(record, lengthBytes, "MsgText", "The document has no text that can be searched.");
  }
  if (protocol == Protocol::Binary) appendNumber(out, 1, 2);
  appendNumber(out, record.size(), lengthBytes);
  out += record;
}

using RecordWriter = void (*)(std::string&, Protocol, std::uint64_t);

/// The reply of `count` records: a start, a block of several portions as often as it fits, a rest.
class RecordsReply {
 public:
  RecordsReply(Protocol protocol, RecordWriter writer, std::uint64_t count, std::uint64_t portion)
      : protocol_(protocol), writer_(writer) {
    begin(std::min(count, portion));
    const std::uint64_t left = count - std::min(count, portion);
    const std::string one = portionOf(portion, {}, {});
    const std::uint64_t perBlock = kWriteBytes / one.size() + 1;
    blocks_ = left / (perBlock * portion);
    if (blocks_ > 0) {
      for (std::uint64_t i = 0; i < perBlock; ++i) block_ += one;
    }
    end(left - blocks_ * perBlock * portion, portion);
  }

  template <typename Send>
  bool sendWith(Send send) const {
    if (!send(start_)) return false;
    for (std::uint64_t i = 0; i < blocks_; ++i) {
      if (!send(block_)) return false;
    }
    return send(rest_);
  }

 private:
  void begin(std::uint64_t records) {
    if (protocol_ == Protocol::Protobuf) {
      start_ = portionOf(records, {}, {});
      return;
    }
    if (protocol_ == Protocol::Binary) {
      appendNumber(start_, 1, 2);
      start_ += portionOf(records, {}, {});
      return;
    }
    start_ = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    start_ += portionOf(records, isJson() ? "" : std::string(4, '\0'), {});
  }

  void end(std::uint64_t records, std::uint64_t portion) {
    for (; records >= portion; records -= portion) rest_ += portionOf(portion, {}, {});
    if (protocol_ == Protocol::Binary) {
      rest_ += portionOf(records, {}, std::string("\0\1\0\0", 4));
    } else if (protocol_ == Protocol::Protobuf) {
      if (records != 0) rest_ += portionOf(records, {}, {});
      rest_ += std::string(4, '\0');
    } else {
      if (!isJson()) rest_ += portionOf(records, {}, std::string(4, '\0'));
      if (isJson() && records != 0) rest_ += portionOf(records, {}, {});
      rest_ += "0\r\n\r\n";
    }
  }

  bool isJson() const { return writer_ == appendJsonHit; }

  std::string portionOf(std::uint64_t records, const std::string& before,
                        const std::string& after) const {
    std::string bytes = before;
    for (std::uint64_t i = 0; i < records; ++i) writer_(bytes, protocol_, i);
    bytes += after;
    if (protocol_ == Protocol::Binary) return bytes;
    if (protocol_ == Protocol::Protobuf) {
      std::string size;
      appendNumber(size, bytes.size(), 4);
      return size + bytes;
    }
    // An array a line, whose last comma gives way to its end.
    if (isJson()) {
      bytes.back() = ']';
      bytes = '[' + bytes + '\n';
    }
    char size[24];
    std::snprintf(size, sizeof size, "%zx\r\n", bytes.size());
    return size + bytes + "\r\n";
  }

  Protocol protocol_;
  RecordWriter writer_;
  std::string start_;
  std::string block_;
  std::uint64_t blocks_ = 0;
  std::string rest_;
};

std::string statusReply(Protocol protocol) {
  if (protocol == Protocol::Binary) return {"\0\1", 2};
  std::string record;
  appendField(record, 4, "STATUS_CODE", "0");
  std::string body(4, '\0');
  appendNumber(body, record.size(), 4);
  body += record;
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string doneReply(Protocol protocol) {
  if (protocol == Protocol::Binary) return {"\0\1", 2};
  return "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
}

/// The replies of one protocol; those of records are prepared when the first client asks.
class Replies {
 public:
  Replies(Protocol protocol, std::uint64_t portion)
      : status(statusReply(protocol)),
        done(doneReply(protocol)),
        protocol_(protocol),
        portion_(portion) {}

  std::shared_ptr<const RecordsReply> records(RecordWriter writer, std::uint64_t count) {
    const std::lock_guard lock(mutex_);
    auto& reply = prepared_[{writer, count}];
    if (!reply) reply = std::make_shared<RecordsReply>(protocol_, writer, count, portion_);
    return reply;
  }

  const std::string status;
  const std::string done;

 private:
  Protocol protocol_;
  std::uint64_t portion_;
  std::mutex mutex_;
  std::map<std::pair<RecordWriter, std::uint64_t>, std::shared_ptr<const RecordsReply>> prepared_;
};

/// The value of a header line, empty when there is none.
std::string_view valueOf(std::string_view header, std::string_view name) {
  for (std::size_t at = header.find(name); at != std::string_view::npos;
       at = header.find(name, at + 1)) {
    const std::size_t value = at + name.size() + 2;
    if ((at == 0 || header[at - 1] == '\n') && header.substr(at + name.size(), 2) == ": ") {
      return header.substr(value, header.find_first_of("\r\n", value) - value);
    }
  }
  return {};
}

std::uint64_t numberOf(std::string_view digits) {
  return std::strtoull(std::string(digits).c_str(), nullptr, 10);
}

class Connection {
 public:
  Connection(int fd, Protocol protocol, Replies& replies)
      : fd_(fd), protocol_(protocol), replies_(replies), buffer_(kReadBytes) {}
  ~Connection() { ::close(fd_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void serve() {
    while (protocol_ == Protocol::Resp ? serveCommand() : serveRequest()) continue;
  }

 private:
  // "*2", and for each of the two "$5" and a line of five bytes; nothing else is looked at.
  bool serveCommand() {
    std::string count;
    if (!takeLine(count)) return false;
    for (std::uint64_t left = numberOf(std::string_view(count).substr(1)); left > 0; --left) {
      std::string size;
      if (!takeLine(size) || !skip(numberOf(std::string_view(size).substr(1)) + 2)) return false;
    }
    return send("+OK\r\n");
  }

  bool takeLine(std::string& line) {
    for (;;) {
      const std::string_view waiting(buffer_.data() + begin_, have_);
      const std::size_t end = waiting.find("\r\n");
      if (end != std::string_view::npos && end != 0) {
        line = waiting.substr(0, end);
        return take(end + 2);
      }
      if (end == 0 || !receive()) return false;
    }
  }

  bool serveRequest() {
    std::string_view header;
    if (!takeHeader(header)) return false;
    const std::string text(header);
    const std::string_view length = valueOf(text, "Content-Length  ");
    // The second spelling is that of a general HTTP client.
    return skip(numberOf(length.empty() ? valueOf(text, "Content-Length") : length)) &&
           answer(text);
  }

  // The header stays readable until the next receive.
  bool takeHeader(std::string_view& header) {
    for (;;) {
      const std::string_view waiting(buffer_.data() + begin_, have_);
      if (protocol_ != Protocol::Http && waiting.size() >= 2) {
        const std::size_t size = static_cast<std::size_t>(static_cast<unsigned char>(waiting[0]))
                                     << 8 |
                                 static_cast<unsigned char>(waiting[1]);
        if (waiting.size() >= 2 + size) {
          header = waiting.substr(2, size);
          return take(2 + size);
        }
      }
      if (protocol_ == Protocol::Http) {
        const std::size_t end = waiting.find("\n\r\n");
        if (end != std::string_view::npos) {
          header = waiting.substr(0, end + 1);
          return take(end + 3);
        }
      }
      if (!receive()) return false;
    }
  }

  bool skip(std::uint64_t bytes) {
    while (bytes > have_) {
      bytes -= have_;
      take(have_);
      if (!receive()) return false;
    }
    return take(static_cast<std::size_t>(bytes));
  }

  bool answer(const std::string& header) {
    const std::string_view action = valueOf(header, "action");
    if (action == "asyncAddDocument") return true;
    if (action == "getStatus") return send(replies_.status);
    if (const auto writer = writerFor(action); writer != nullptr) {
      const auto reply = replies_.records(writer, numberOf(valueOf(header, "query")));
      return reply->sendWith([this](const std::string& bytes) { return send(bytes); });
    }
    return send(replies_.done);
  }

  RecordWriter writerFor(std::string_view action) const {
    if (action == "getParseResult") return appendOutcome;
    if (action == "searchJson") return appendJsonHit;
    if (action != "search") return nullptr;
    return protocol_ == Protocol::Protobuf ? appendProtobufHit : appendHit;
  }

  bool take(std::size_t bytes) {
    begin_ += bytes;
    have_ -= bytes;
    return true;
  }

  bool receive() {
    if (have_ == 0) begin_ = 0;
    if (begin_ + have_ == buffer_.size()) {
      if (begin_ == 0) return false;
      std::memmove(buffer_.data(), buffer_.data() + begin_, have_);
      begin_ = 0;
    }
    const std::size_t end = begin_ + have_;
    const ssize_t count = ::recv(fd_, buffer_.data() + end, buffer_.size() - end, 0);
    if (count <= 0) return false;
    have_ += static_cast<std::size_t>(count);
    return true;
  }

  bool send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t count =
          ::send(fd_, bytes.data(), std::min(bytes.size(), kWriteBytes), MSG_NOSIGNAL);
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  int fd_;
  Protocol protocol_;
  Replies& replies_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;
  std::size_t have_ = 0;
};

int listenOnLoopback() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(fd, generic, length) != 0 || ::listen(fd, 1024) != 0 ||
      ::getsockname(fd, generic, &length) != 0) {
    throw std::runtime_error("cannot listen on the loopback interface");
  }
  std::printf("%u\n", ntohs(address.sin_port));
  std::fflush(stdout);
  return fd;
}

void acceptForEver(int listener, Protocol protocol, Replies& replies) {
  for (;;) {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::thread([fd, protocol, &replies] { Connection(fd, protocol, replies).serve(); }).detach();
  }
}

Protocol protocolOf(std::string_view name) {
  if (name == "http") return Protocol::Http;
  if (name == "binary") return Protocol::Binary;
  if (name == "resp") return Protocol::Resp;
  if (name == "protobuf") return Protocol::Protobuf;
  throw std::runtime_error("usage: cannedServer http|binary|resp|protobuf [--portion=HITS]");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Protocol protocol = protocolOf(argc > 1 ? argv[1] : "");
    std::uint64_t portion = 1000;
    if (argc > 2 && std::string_view(argv[2]).starts_with("--portion=")) {
      portion = std::max<std::uint64_t>(numberOf(argv[2] + 10), 1);
    }
    Replies replies(protocol, portion);
    std::thread(acceptForEver, listenOnLoopback(), protocol, std::ref(replies)).detach();
    while (std::getchar() != EOF) continue;
    std::_Exit(0);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "cannedServer: %s\n", error.what());
    return 1;
  }
}
