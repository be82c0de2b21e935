#include "server/store/resultPlace.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <bit>
#include <tuple>

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

using Seal = std::array<unsigned char, 16>;

// No place is worth anything to another process, so the secret need not outlive this one.
const std::array<unsigned char, crypto_generichash_KEYBYTES>& secret() {
  static const auto kSecret = [] {
    std::array<unsigned char, crypto_generichash_KEYBYTES> bytes{};
    randombytes_buf(bytes.data(), bytes.size());
    return bytes;
  }();
  return kSecret;
}

// Whoever could make up places could have documents shown again that were deleted meanwhile.
Seal sealOf(std::string_view bytes) {
  Seal seal{};
  crypto_generichash(seal.data(), seal.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                     bytes.size(), secret().data(), secret().size());
  return seal;
}

bool isSealed(std::string_view bytes, std::string_view seal) {
  return sodium_memcmp(sealOf(bytes).data(), seal.data(), seal.size()) == 0;
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
  const Seal seal = sealOf(bytes);
  bytes.append(reinterpret_cast<const char*>(seal.data()), seal.size());
  appendU32(bytes, checksumOf(bytes));
  return base64(bytes);
}

std::optional<ResultPlace> placeFrom(std::string_view text) {
  std::string bytes;
  if (!tq::util::Base64::decode(text.data(), text.size(), bytes)) return std::nullopt;
  const auto whole = verified(bytes);
  if (!whole || !whole->starts_with(kMagic) || whole->size() < std::tuple_size_v<Seal>) {
    return std::nullopt;
  }
  const std::string_view content = whole->substr(0, whole->size() - std::tuple_size_v<Seal>);
  ByteReader reader(content.substr(std::min(content.size(), kMagic.size())));
  ResultPlace place;
  if (!takePlace(reader, place)) return std::nullopt;
  if (!isSealed(content, whole->substr(content.size()))) place.snapshot = {};
  return place;
}

}  // namespace corvaned
