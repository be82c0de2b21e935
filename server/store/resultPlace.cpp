#include "server/store/resultPlace.h"

#include <bit>

#include "infra/util/kruBase64.h"
#include "server/base/base64.h"
#include "server/base/bytes.h"
#include "server/base/errors.h"
#include "server/store/checksum.h"

namespace corvaned {
namespace {

// Another form gets another one.
constexpr std::string_view kMagic = "KRP1";
constexpr std::size_t kChecksumBytes = 4;

bool takeNumber(ByteReader& reader, std::uint64_t& number) {
  const auto bytes = reader.take(8);
  if (bytes) number = loadU64(*bytes);
  return bytes.has_value();
}

bool takePlace(ByteReader& reader, ResultPlace& place) {
  std::uint64_t weight = 0;
  Snapshot& snapshot = place.snapshot;
  const bool whole = takeNumber(reader, snapshot.index) && takeNumber(reader, snapshot.revision) &&
                     takeNumber(reader, snapshot.hidden) && takeText(reader, place.query) &&
                     takeNumber(reader, place.rank) && takeNumber(reader, weight) &&
                     takeText(reader, place.sortedBy) && reader.empty();
  place.weight = std::bit_cast<double>(weight);
  return whole;
}

// The bytes without the checksum at their end. Nothing if it is another one.
std::optional<std::string_view> verified(std::string_view bytes) {
  if (bytes.size() < kChecksumBytes) return std::nullopt;
  const std::string_view content = bytes.substr(0, bytes.size() - kChecksumBytes);
  if (loadU32(bytes.substr(content.size())) != checksumOf(content)) return std::nullopt;
  return content;
}

}  // namespace

void throwSnapshotGone() {
  throw ServerError(ErrorKind::SnapshotGone,
                    "the state of the collection in which the search began has gone; begin it "
                    "again");
}

std::string textOf(const ResultPlace& place) {
  std::string bytes(kMagic);
  appendU64(bytes, place.snapshot.index);
  appendU64(bytes, place.snapshot.revision);
  appendU64(bytes, place.snapshot.hidden);
  appendText(bytes, place.query);
  appendU64(bytes, place.rank);
  appendU64(bytes, std::bit_cast<std::uint64_t>(place.weight));
  appendText(bytes, place.sortedBy);
  appendU32(bytes, checksumOf(bytes));
  return base64(bytes);
}

std::optional<ResultPlace> placeFrom(std::string_view text) {
  std::string bytes;
  if (!tq::util::Base64::decode(text.data(), text.size(), bytes)) return std::nullopt;
  const auto content = verified(bytes);
  if (!content || !content->starts_with(kMagic)) return std::nullopt;
  ByteReader reader(content->substr(kMagic.size()));
  ResultPlace place;
  if (!takePlace(reader, place)) return std::nullopt;
  return place;
}

}  // namespace corvaned
