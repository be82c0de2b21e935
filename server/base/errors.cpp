#include "server/base/errors.h"

namespace corvaned {

std::string_view messageId(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::MalformedRequest:
      return "ZVK0001E";
    case ErrorKind::RequestTooLarge:
      return "ZVK0002E";
    case ErrorKind::UnknownAction:
      return "ZVK0003E";
    case ErrorKind::UnsupportedAction:
      return "ZVK0004E";
    case ErrorKind::MissingParameter:
      return "ZVK0005E";
    case ErrorKind::BadParameter:
      return "ZVK0006E";
    case ErrorKind::UnknownCollection:
      return "ZVK0007E";
    case ErrorKind::CollectionExists:
      return "ZVK0008E";
    case ErrorKind::BadCollectionName:
      return "ZVK0009E";
    case ErrorKind::BadQuery:
      return "ZVK0010E";
    case ErrorKind::QueryTooBroad:
      return "ZVK0011E";
    case ErrorKind::BadDocument:
      return "ZVK0012E";
    case ErrorKind::DocumentTooLarge:
      return "ZVK0013E";
    case ErrorKind::StorageFailed:
      return "ZVK0014E";
    case ErrorKind::DocumentsNotIndexed:
      return "ZVK0015E";
    case ErrorKind::TryAgain:
      return "ZVK0016E";
    case ErrorKind::OutOfMemory:
      return "ZVK0017E";
    case ErrorKind::Cancelled:
      return "ZVK0020E";
    case ErrorKind::TimedOut:
      return "ZVK0021E";
    case ErrorKind::Unauthorized:
      return "ZVK0022E";
    case ErrorKind::Forbidden:
      return "ZVK0023E";
    case ErrorKind::UnknownParameter:
      return "ZVK0024E";
    case ErrorKind::VersionMismatch:
      return "ZVK0025E";
    case ErrorKind::BatchRefused:
      return "ZVK0030E";
    case ErrorKind::OtherBatch:
      return "ZVK0031E";
    case ErrorKind::OtherMark:
      return "ZVK0032E";
    case ErrorKind::UnknownBatch:
      return "ZVK0033E";
    case ErrorKind::UnknownDocument:
      return "ZVK0034E";
    case ErrorKind::SnapshotGone:
      return "ZVK0035E";
    case ErrorKind::Internal:
      break;
  }
  return "ZVK0099E";
}

std::string_view cutBetweenCharacters(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
  return text.substr(0, end);
}

namespace {

enum class Backslashes { None, InFront };

std::string quoted(std::string_view text, std::size_t limit, Backslashes backslashes) {
  std::string result = "\"";
  for (const char c : cutBetweenCharacters(text, limit)) {
    if (backslashes == Backslashes::InFront && (c == '"' || c == '\\')) result += '\\';
    const auto byte = static_cast<unsigned char>(c);
    result += byte < 0x20 || byte == 0x7F ? '?' : c;
  }
  result += text.size() > limit ? "...\"" : "\"";
  return result;
}

}  // namespace

std::string shown(std::string_view text, std::size_t limit) {
  return quoted(text, limit, Backslashes::None);
}

std::string logged(std::string_view text, std::size_t limit) {
  return quoted(text, limit, Backslashes::InFront);
}

}  // namespace corvaned
