#include "server/base/errors.h"

namespace corvaned {

std::string_view messageId(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::malformedRequest:
      return "ZVK0001E";
    case ErrorKind::requestTooLarge:
      return "ZVK0002E";
    case ErrorKind::unknownAction:
      return "ZVK0003E";
    case ErrorKind::unsupportedAction:
      return "ZVK0004E";
    case ErrorKind::missingParameter:
      return "ZVK0005E";
    case ErrorKind::badParameter:
      return "ZVK0006E";
    case ErrorKind::unknownCollection:
      return "ZVK0007E";
    case ErrorKind::collectionExists:
      return "ZVK0008E";
    case ErrorKind::badCollectionName:
      return "ZVK0009E";
    case ErrorKind::badQuery:
      return "ZVK0010E";
    case ErrorKind::queryTooBroad:
      return "ZVK0011E";
    case ErrorKind::badDocument:
      return "ZVK0012E";
    case ErrorKind::documentTooLarge:
      return "ZVK0013E";
    case ErrorKind::storageFailed:
      return "ZVK0014E";
    case ErrorKind::documentsNotIndexed:
      return "ZVK0015E";
    case ErrorKind::tryAgain:
      return "ZVK0016E";
    case ErrorKind::outOfMemory:
      return "ZVK0017E";
    case ErrorKind::internal:
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

std::string shown(std::string_view text, std::size_t limit) {
  std::string result = "\"";
  for (const char c : cutBetweenCharacters(text, limit)) {
    const auto byte = static_cast<unsigned char>(c);
    result += byte < 0x20 || byte == 0x7F ? '?' : c;
  }
  result += text.size() > limit ? "...\"" : "\"";
  return result;
}

}  // namespace corvaned
