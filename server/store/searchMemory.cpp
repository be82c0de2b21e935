#include "server/store/searchMemory.h"

#include <fmt/format.h>

#include <algorithm>

#include "server/store/indexSums.h"

namespace corvaned {
namespace {

// What one hit takes while the engine sorts: twice, as its vector grows.
constexpr std::size_t kMatchCost = 256;
// What a byte of a document takes in a database in memory, which keeps a list of places for each
// word of each document: 50 was measured with texts of 400 bytes.
constexpr std::size_t kPassingCost = 64;
// What a document without words takes there, in bytes of text.
constexpr std::size_t kEmptyPassing = 32;

// What the engine takes for each of many keys in a database that has it, two blocks on the way to
// its list, and in one that does not: 15.7 KB and 0.6 KB were measured with keys all over a
// collection of 300,000 documents.
constexpr std::size_t kFoundKeyCost = 2 * kTableBlock;
constexpr std::size_t kKeyCost = std::size_t{1} << 10U;

// Of the budget, so that what is kept for small uses has room for several of them.
constexpr std::size_t kSmallPart = 64;

MemoryBudget::Use useOf(std::size_t bytes, const MemoryBudget* budget) {
  const std::size_t part = budget == nullptr ? 0 : budget->limit() / kSmallPart;
  const bool isSmall = bytes <= std::max(kFewHits * kMatchCost, part);
  return isSmall ? MemoryBudget::Use::Small : MemoryBudget::Use::Large;
}

}  // namespace

void setAside(MemoryBudget::Share& share, std::size_t bytes, const MemoryBudget* budget,
              ErrorKind never, const MemoryRefusal& refusal, std::size_t held) {
  const MemoryBudget::Use use = useOf(bytes, budget);
  if (share.resize(bytes, use)) return;
  throw ServerError(budget->canEverFit(bytes + held, use) ? ErrorKind::TryAgain : never,
                    refusal((bytes >> 20U) + 1));
}

MemoryBudget::Share memoryFor(std::size_t hits, std::size_t sortKeyBytes, const IndexLimits& limits,
                              std::size_t held) {
  MemoryBudget::Share share = shareOf(limits);
  const auto refusal = [&](std::size_t mebibytes) {
    return fmt::format(
        "the result may have {} hits, for which {} MiB of memory are not free; ask for fewer with "
        "\"size\" or \"resultLimit\", or raise --max-memory",
        hits, mebibytes);
  };
  setAside(share, hits * (kMatchCost + sortKeyBytes), limits.memory.get(), ErrorKind::QueryTooBroad,
           refusal, held);
  return share;
}

MemoryBudget::Share memoryForKeys(std::size_t keys, KeyPlaces places, const IndexLimits& limits,
                                  std::size_t held) {
  MemoryBudget::Share share = shareOf(limits);
  const std::size_t found = std::min(keys * places.collections, places.documents);
  const std::size_t bytes = found * kFoundKeyCost + keys * places.databases * kKeyCost;
  if (bytes <= kFewLists) return share;
  const auto refusal = [&](std::size_t mebibytes) {
    return fmt::format(
        "to look for {} keys takes {} MiB of memory that are not free; give fewer keys at a time, "
        "or raise --max-memory",
        keys, mebibytes);
  };
  setAside(share, bytes, limits.memory.get(), ErrorKind::QueryTooBroad, refusal, held);
  return share;
}

MemoryBudget::Share memoryToMatch(const std::vector<Document>& documents,
                                  const IndexLimits& limits) {
  std::size_t bytes = 0;
  for (const Document& document : documents) bytes += kEmptyPassing + bytesOf(document);
  MemoryBudget::Share share = shareOf(limits);
  setAside(share, bytes * kPassingCost, limits.memory.get(), ErrorKind::RequestTooLarge,
           [](std::size_t mebibytes) {
             return fmt::format(
                 "the documents to match need {} MiB of memory that are not free; send fewer at a "
                 "time, or raise --max-memory",
                 mebibytes);
           });
  return share;
}

}  // namespace corvaned
