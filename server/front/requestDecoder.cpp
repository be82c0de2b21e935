#include "server/front/requestDecoder.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "server/base/bytes.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

constexpr std::string_view kBlockEnd = "\r\n";
constexpr std::string_view kSeparator = ": ";

std::uint64_t parseContentLength(std::string_view text) {
  if (text.empty()) return 0;
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc::result_out_of_range) {
    throw FramingError(ErrorKind::RequestTooLarge,
                       "the announced content length " + shown(text) + " is beyond every limit");
  }
  if (error != std::errc{} || end != text.data() + text.size()) {
    throw FramingError(ErrorKind::MalformedRequest,
                       "the content length " + shown(text) + " is not a number");
  }
  return value;
}

void addHeader(Request& request, std::string_view name, std::string_view value) {
  const auto [place, fresh] = request.headers.try_emplace(std::string(name), value);
  if (fresh) return;
  if (name == words().contentLength && place->second != value) {
    throw FramingError(ErrorKind::MalformedRequest, "two different content lengths are announced");
  }
  place->second = value;
}

void addLine(Request& request, std::string_view line) {
  const std::size_t separator = line.find(kSeparator);
  if (separator != std::string_view::npos) {
    addHeader(request, line.substr(0, separator), line.substr(separator + kSeparator.size()));
  } else if (request.defect.empty()) {
    request.defect = "the header line " + shown(line) + " has no \": \"";
  }
}

// `block` ends with the LF of its last line, without the CR LF that ends the block.
Request parseBlock(std::string_view block) {
  Request request;
  while (!block.empty()) {
    const std::size_t end = block.find('\n');
    addLine(request, block.substr(0, end));
    block.remove_prefix(end + 1);
  }
  return request;
}

// The lines of a block of known size. CR LF at the start of a line ends the block and must be its
// last bytes.
std::string_view linesOf(std::string_view block) {
  std::size_t lineStart = 0;
  while (lineStart < block.size()) {
    if (block.substr(lineStart, kBlockEnd.size()) == kBlockEnd) break;
    const std::size_t lf = block.find('\n', lineStart);
    if (lf == std::string_view::npos)
      lineStart = block.size();
    else
      lineStart = lf + 1;
  }
  if (block.size() - lineStart != kBlockEnd.size()) {
    throw FramingError(ErrorKind::MalformedRequest,
                       "the header block does not end where its length says");
  }
  return block.substr(0, lineStart);
}

}  // namespace

void RequestDecoder::feed(std::string_view bytes) {
  if (inContent_ && position_ == pending_.size()) {
    const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(missing_, bytes.size()));
    request_.content.append(bytes.substr(0, part));
    missing_ -= part;
    bytes.remove_prefix(part);
  }
  compact();
  pending_.append(bytes);
}

std::optional<Request> RequestDecoder::next() {
  if (!inContent_) {
    const auto block = takeHeaderBlock();
    if (!block) return std::nullopt;
    startRequest(*block);
  }
  moveContent();
  if (missing_ > 0) return std::nullopt;
  inContent_ = false;
  return std::exchange(request_, Request{});
}

std::optional<std::string_view> RequestDecoder::takeHeaderBlock() {
  return framing_ == Framing::Http ? takeHttpBlock() : takeBinaryBlock();
}

std::optional<std::string_view> RequestDecoder::takeHttpBlock() {
  const std::string_view held = std::string_view(pending_).substr(position_);
  for (;;) {
    const std::string_view line = held.substr(lineStart_);
    if (line.starts_with(kBlockEnd)) break;
    // This CR may be the first half of the block's end, which does not count towards its length.
    if (line == kBlockEnd.substr(0, 1)) return std::nullopt;
    const std::size_t lf = held.find('\n', std::max(searched_, lineStart_));
    const std::size_t known = lf == std::string_view::npos ? held.size() : lf + 1;
    if (known > limits_.headerBytes) {
      throw FramingError(
          ErrorKind::RequestTooLarge,
          fmt::format("the header block is longer than {} bytes", limits_.headerBytes));
    }
    searched_ = known;
    if (lf == std::string_view::npos) return std::nullopt;
    lineStart_ = known;
  }
  const std::string_view block = held.substr(0, lineStart_);
  position_ += lineStart_ + kBlockEnd.size();
  lineStart_ = searched_ = 0;
  return block;
}

std::optional<std::string_view> RequestDecoder::takeBinaryBlock() {
  const std::string_view held = std::string_view(pending_).substr(position_);
  if (held.size() < 2) return std::nullopt;
  const std::size_t length = loadU16(held);
  if (length > held.size() - 2) return std::nullopt;
  position_ += 2 + length;
  return linesOf(held.substr(2, length));
}

void RequestDecoder::startRequest(std::string_view block) {
  request_ = parseBlock(block);
  missing_ = parseContentLength(request_.header(words().contentLength));
  if (missing_ > limits_.contentBytes) {
    throw FramingError(
        ErrorKind::RequestTooLarge,
        fmt::format("a request of {} bytes is announced, the server takes at most {}", missing_,
                    limits_.contentBytes));
  }
  inContent_ = true;
}

void RequestDecoder::moveContent() {
  const std::string_view held = std::string_view(pending_).substr(position_);
  const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(missing_, held.size()));
  request_.content.append(held.substr(0, part));
  missing_ -= part;
  position_ += part;
}

void RequestDecoder::compact() {
  if (position_ < pending_.size()) {
    // Moving the rest to the front on every call would copy a large batch once per request.
    if (position_ < pending_.size() / 2) return;
    pending_.erase(0, position_);
  } else {
    // An idle connection keeps no buffer.
    std::string().swap(pending_);
  }
  position_ = 0;
}

}  // namespace corvaned
