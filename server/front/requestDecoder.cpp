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
    // A header that holds a password must not come out in an error or in the log.
    const bool secret = line.starts_with(words().authorization);
    request.defect =
        "the header line " + (secret ? words().authorization : shown(line)) + " has no \": \"";
  }
}

// `block` ends with the LF of its last line, without the CR LF that ends the block.
Request parseBlock(std::string_view block, std::size_t maxLines) {
  Request request;
  for (std::size_t lines = 1; !block.empty(); ++lines) {
    if (lines > maxLines) {
      throw FramingError(ErrorKind::RequestTooLarge,
                         fmt::format("the header block has more than {} lines", maxLines));
    }
    const std::size_t end = block.find('\n');
    addLine(request, block.substr(0, end));
    block.remove_prefix(end + 1);
  }
  return request;
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20; }

// Two printable bytes are no likely length, but how each header block over HTTP begins.
[[noreturn]] void refuseBinaryBlock(std::string_view bytes) {
  if (!isControl(bytes[0]) && !isControl(bytes[1])) {
    throw FramingError(ErrorKind::MalformedRequest,
                       "this is the port of the binary protocol, and the request is one of the "
                       "HTTP protocol; use the other port",
                       Framing::Http);
  }
  throw FramingError(ErrorKind::MalformedRequest,
                     "the header block does not end where its length says");
}

}  // namespace

void RequestDecoder::feed(std::string_view bytes) {
  if (missingBytes() > 0 && position_ == pending_.size()) {
    const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(missing_, bytes.size()));
    keepContent(bytes.substr(0, part));
    bytes.remove_prefix(part);
  }
  compact();
  pending_.append(bytes);
}

bool RequestDecoder::ready() {
  switch (stage_) {
    case Stage::Header:
      return blockEnds();
    case Stage::Admission:
      return true;
    case Stage::Content:
      return missing_ == 0 || request_.refusal;
    case Stage::Discard:
      break;
  }
  return false;
}

// If a name was sent twice the last value counts, hence the search from the end.
std::string_view RequestDecoder::waitingValue(std::string_view name) const {
  if (stage_ != Stage::Header) return request_.header(name);
  const std::string_view block = lines();
  for (std::size_t end = block.size(); end > 0;) {
    const std::size_t before = end < 2 ? std::string_view::npos : block.rfind('\n', end - 2);
    const std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
    const std::string_view line = block.substr(begin, end - 1 - begin);
    const std::size_t separator = line.find(kSeparator);
    if (separator != std::string_view::npos && line.substr(0, separator) == name) {
      return line.substr(separator + kSeparator.size());
    }
    end = begin;
  }
  return {};
}

std::optional<Request> RequestDecoder::next() {
  if (stage_ == Stage::Header) {
    if (!blockEnds()) return std::nullopt;
    startRequest();
  }
  if (stage_ == Stage::Discard) return std::nullopt;
  if (stage_ == Stage::Admission && !admitted()) return std::nullopt;
  moveContent();
  if (missing_ > 0 && !request_.refusal) return std::nullopt;
  stage_ = missing_ > 0 ? Stage::Discard : Stage::Header;
  return std::exchange(request_, Request{});
}

// Moves lineStart_ to the line that ends the block; false if there is none yet.
bool RequestDecoder::findBlockEnd(std::string_view bytes) {
  for (;;) {
    const std::string_view line = bytes.substr(lineStart_);
    if (line.starts_with(kBlockEnd)) return true;
    // This CR may be the first half of the block's end, which does not count towards its length.
    if (line == kBlockEnd.substr(0, 1)) return false;
    const std::size_t lf = bytes.find('\n', std::max(searched_, lineStart_));
    const std::size_t known = lf == std::string_view::npos ? bytes.size() : lf + 1;
    if (known > limits_.headerBytes) {
      throw FramingError(
          ErrorKind::RequestTooLarge,
          fmt::format("the header block is longer than {} bytes", limits_.headerBytes));
    }
    searched_ = known;
    if (lf == std::string_view::npos) return false;
    lineStart_ = known;
  }
}

bool RequestDecoder::httpBlockEnds() {
  const std::string_view bytes = held();
  if (!findBlockEnd(bytes)) return false;
  refuseBinaryFrame();
  return true;
}

// A request of the binary protocol looks like one of this protocol whose first name is spoiled by
// the two bytes of the length, and would be carried out.
void RequestDecoder::refuseBinaryFrame() const {
  const std::string_view block = held().substr(0, lineStart_);
  if (block.empty()) {
    throw FramingError(ErrorKind::MalformedRequest, "the header block is empty");
  }
  const bool unprintable = isControl(block[0]) || (block.size() > 1 && isControl(block[1]));
  const bool lengthFits = block.size() > 2 && loadU16(block) == block.size();
  const std::string_view first = block.substr(0, block.find(kSeparator));
  if (!unprintable && !(lengthFits && first.size() > 2 && isHeaderName(first.substr(2)))) return;
  if (block.substr(1, 1) == "\n") return;
  throw FramingError(ErrorKind::MalformedRequest,
                     "this is the port of the HTTP protocol, and the request is one of the binary "
                     "protocol; use the other port",
                     Framing::Binary);
}

bool RequestDecoder::binaryBlockEnds() {
  const std::string_view bytes = held();
  if (bytes.size() < 2) return false;
  const std::size_t length = loadU16(bytes);
  const std::string_view block = bytes.substr(2, length);
  if (findBlockEnd(block)) {
    if (lineStart_ + kBlockEnd.size() != length) refuseBinaryBlock(bytes);
    return true;
  }
  if (block.size() == length) refuseBinaryBlock(bytes);
  return false;
}

std::string_view RequestDecoder::lines() const {
  return held().substr(framing_ == Framing::Http ? 0 : 2, lineStart_);
}

void RequestDecoder::startRequest() {
  request_ = parseBlock(lines(), limits_.headerLines);
  position_ += (framing_ == Framing::Http ? 0 : 2) + lineStart_ + kBlockEnd.size();
  lineStart_ = searched_ = 0;
  missing_ = parseContentLength(request_.header(words().contentLength));
  if (missing_ > limits_.contentBytes) {
    throw FramingError(
        ErrorKind::RequestTooLarge,
        fmt::format("a request of {} bytes is announced, the server takes at most {}", missing_,
                    limits_.contentBytes));
  }
  stage_ = Stage::Admission;
}

bool RequestDecoder::admitted() {
  try {
    if (admission_ && admission_->admit(request_, missing_) == Admission::Verdict::Wait) {
      return false;
    }
    // What is admitted has its memory set aside, and a buffer that grows would need it twice.
    if (admission_) request_.content.reserve(static_cast<std::size_t>(missing_));
    stage_ = Stage::Content;
  } catch (const ServerError& error) {
    refuse(error);
  }
  return true;
}

void RequestDecoder::refuse(const ServerError& error) {
  std::string().swap(request_.content);
  request_.refusal = error;
  stage_ = Stage::Content;
  moveContent();
}

void RequestDecoder::keepContent(std::string_view bytes) {
  missing_ -= bytes.size();
  if (stage_ == Stage::Content && !request_.refusal) request_.content.append(bytes);
  if (stage_ == Stage::Discard && missing_ == 0) stage_ = Stage::Header;
}

void RequestDecoder::moveContent() {
  const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(missing_, held().size()));
  keepContent(held().substr(0, part));
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
