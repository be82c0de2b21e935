#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "server/base/memoryBudget.h"
#include "server/store/change.h"
#include "server/store/journal.h"

namespace corvaned {

/// What the last change of each key has made of it, of those that the index may lack: an answer to
/// whether there is a document of that key. It is kept from when somebody asks until an index
/// update comes about that nobody has asked before, since it takes as much memory as the keys.
///
/// May be used from any thread.
class PendingKeys {
 public:
  explicit PendingKeys(MemoryBudget::Share memory) : memory_(std::move(memory)) {}

  /// Whether it has all that the index may lack.
  bool isKept() const;
  /// Notes changes from now on. Those before are to be noted as well, in any order, and then keep()
  /// to be called.
  void begin();
  void keep();
  /// The next update drops it if this has not been called by then.
  void need();
  /// False if need() was called since the last time, or hold() is in use.
  bool isIdle();
  void drop();

  /// There was no memory to note a change: what was to be kept has to be read once more. What
  /// hold() keeps is no longer all either, as the index may get the change before that.
  void miss();
  /// How often that was.
  std::uint64_t misses() const;

  /// A change that ends there in the journal, in any order. Nothing before begin(), or if the index
  /// has it already.
  void note(const JournalPosition& end, const Change& change);
  /// The index has all that ends up to there.
  void forgetUpTo(const JournalPosition& position);

  struct LetGo {
    void operator()(PendingKeys* keys) const { keys->letGo(); }
  };
  /// Nothing is forgotten or dropped while it lives.
  using Hold = std::unique_ptr<PendingKeys, LetGo>;
  Hold hold();

  /// Whether there is a document; nothing if no change of the key is known.
  std::optional<bool> find(const std::string& key) const;

 private:
  struct Last {
    JournalPosition end;
    bool isThere = false;
  };

  void letGo();
  void forget();
  void noteKey(const JournalPosition& end, const std::string& key, bool isThere);
  void countMemory();

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  MemoryBudget::Share memory_;
  bool noting_ = false;
  bool kept_ = false;
  bool needed_ = false;
  std::uint64_t misses_ = 0;
  std::unordered_map<std::string, Last> last_;
  std::size_t keyBytes_ = 0;
  // What the index has, and what of that has been forgotten here.
  JournalPosition indexed_;
  JournalPosition forgotten_;
  std::size_t holds_ = 0;
};

}  // namespace corvaned
