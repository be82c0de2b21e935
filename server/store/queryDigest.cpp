#include "server/store/queryDigest.h"

#include <sodium.h>

#include <array>
#include <cstdint>

#include "server/base/bytes.h"

namespace corvaned {

// Not what only says how much of the result is wanted, and in which form.
std::string queryDigest(const SearchQuery& query) {
  // Half of it is more than enough to tell two queries apart.
  constexpr std::size_t kKept = 16;
  std::string all;
  appendText(all, query.text);
  appendU32(all, query.everything ? 1 : 0);
  appendU32(all, static_cast<std::uint32_t>(query.order));
  appendText(all, query.sortBy);
  appendU32(all, query.descending ? 1 : 0);
  appendText(all, query.after);
  appendText(all, query.upTo);
  appendU64(all, query.limit);
  for (const std::string& key : query.keys) appendText(all, key);
  std::array<unsigned char, crypto_hash_sha256_BYTES> hash{};
  crypto_hash_sha256(hash.data(), reinterpret_cast<const unsigned char*>(all.data()), all.size());
  return {reinterpret_cast<const char*>(hash.data()), kKept};
}

}  // namespace corvaned
