#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/base/memoryBudget.h"
#include "server/store/indexLimits.h"
#include "server/store/store.h"

namespace corvaned {

/// Results up to this size are not worth asking how large they may get.
constexpr std::size_t kFewHits = 1000;

/// What the lists of documents that a search reads may take without being counted.
constexpr std::size_t kFewLists = std::size_t{1} << 20U;

/// Makes the text of a refusal, of how many MiB are missing.
using MemoryRefusal = std::function<std::string(std::size_t mebibytes)>;

/// Makes the share so large. Trying again is no advice where it can never fit beside `held`, which
/// whoever asks has already: that is refused with `never`.
void setAside(MemoryBudget::Share& share, std::size_t bytes, const MemoryBudget* budget,
              ErrorKind never, const MemoryRefusal& refusal, std::size_t held = 0);

/// Sets aside what up to `hits` hits may take while they are sorted; for each of them also
/// `sortKeyBytes` if they are sorted by more than a key. `held` as in setAside().
MemoryBudget::Share memoryFor(std::size_t hits, std::size_t sortKeyBytes, const IndexLimits& limits,
                              std::size_t held = 0);

/// Where keys are looked for. Of the databases of one collection at most one has a key.
struct KeyPlaces {
  std::size_t collections;
  std::size_t databases;
  std::size_t documents;
};

/// Sets aside what the engine takes to look for so many keys at the same time. `held` as in
/// setAside().
MemoryBudget::Share memoryForKeys(std::size_t keys, KeyPlaces places, const IndexLimits& limits,
                                  std::size_t held = 0);

/// Sets aside what documents take that are held in memory to be matched.
MemoryBudget::Share memoryToMatch(const std::vector<Document>& documents,
                                  const IndexLimits& limits);

}  // namespace corvaned
