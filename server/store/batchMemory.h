#pragma once

#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "server/base/bytes.h"
#include "server/base/memoryBudget.h"
#include "server/store/change.h"

namespace corvaned {

/// That of a batch that is accepted.
BatchOutcome outcomeOf(const BatchEntry& batch);

/// What a collection remembers of its batches, and its mark. A batch that comes once more is known
/// by its name, also when its changes have long been taken from the journal into the index.
///
/// Of the latest batches all is remembered. A name that ends with a number belongs to a series,
/// those that begin alike; of a series the highest number that was forgotten is remembered, so that
/// a batch with this or a lower number is known to be old.
///
/// What the journal holds of it comes back when the journal is read. The rest is in the file
/// "batches", integers big-endian, texts with 4-byte lengths before them:
///
///     "KRB1"
///     the mark
///     the number of batches (4 bytes), and of each, the oldest first: name, digest, the numbers of
///     documents, deletions and deletions that found nothing (8 bytes each)
///     the number of series (4 bytes), and of each, the one used longest ago first: its name, the
///     highest forgotten number (8 bytes)
///     only if there are any: the number of batches of which the index has left something out
///     (4 bytes), and of each its name and what was said of that
///     CRC-32 of the bytes before (4 bytes)
///
/// May be used from any thread. Errors are ServerError(StorageFailed).
class BatchMemory {
 public:
  static constexpr std::size_t kBatches = 1000;
  static constexpr std::size_t kSeries = 1000;

  struct Known {
    std::string digest;
    BatchOutcome outcome;
    /// The journal's, that must be on disk before anybody is told; 0 if it is.
    std::uint64_t ticket = 0;
  };

  /// Reads the file of the collection, if there is one. Throws if it is damaged.
  BatchMemory(const std::filesystem::path& collection, MemoryBudget::Share memory);

  std::optional<Known> find(const std::string& name) const;
  /// Whether a batch of this series was forgotten that has this number or a higher one.
  bool isOld(const std::string& name) const;
  std::string mark() const;

  /// In the order in which the batches were accepted. One that is known already is then the latest.
  void note(const BatchEntry& batch, std::uint64_t ticket);
  /// What the index left out of the batch, in words. Does nothing if the batch is not known, or if
  /// this has been noted before.
  void noteLeftOut(const std::string& name, std::string leftOut);
  /// What the journal brings when it is opened, from before and after the file was made.
  void replay(const BatchEntry& batch);
  /// The journal has brought all.
  void endReplay();

  /// What the file has to hold, and what note() has brought by then.
  struct Contents {
    std::string bytes;
    std::uint64_t notes = 0;
  };
  /// Nothing if the file holds all.
  std::optional<Contents> unsaved() const;
  /// Makes the file, durably.
  void save(const Contents& contents);
  /// Makes the file if there is none.
  void makeFile();

  static std::filesystem::path pathIn(const std::filesystem::path& collection);

 private:
  struct Series {
    std::uint64_t number = 0;
    std::uint64_t lastUse = 0;
  };

  /// What is remembered.
  struct State {
    std::string mark;
    std::deque<std::string> names;
    std::unordered_map<std::string, Known> known;
    std::map<std::string, std::string> leftOut;
    std::unordered_map<std::string, Series> series;
  };

  bool decode(std::string_view bytes);
  bool decodeLeftOut(ByteReader& reader);
  std::string encoded() const;
  /// Whether the latest batches that were replayed are the latest of the file.
  bool endsAsFile() const;
  void remember(const std::string& name, Known known);
  void chargeMemory();
  void use(const std::string& name);
  void forgetOldest();
  void forget(const std::string& series, std::uint64_t number);

  const std::filesystem::path path_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  MemoryBudget::Share memory_;
  State now_;
  // While the journal is read: what the file has, if it has any batch.
  std::optional<State> inFile_;
  std::uint64_t uses_ = 0;
  std::uint64_t notes_ = 0;
  std::uint64_t savedNotes_ = 0;
  bool hasFile_ = false;
};

}  // namespace corvaned
