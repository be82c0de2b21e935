#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/store.h"

namespace corvaned {

class Collection;

/// The open collections, by name. Opens, closes and drops one without holding up the others: its
/// mutex is held for look-ups only. Those who need a collection that is being opened wait for that
/// one opening, and all of them are told if it fails; whoever asks later has it tried again.
///
/// May be used from any thread. Its mutex comes after every other lock: nothing that waits is
/// called, and nothing opened or closed, while it is held.
class Registry {
  struct Entry;

 public:
  using Opener = std::function<std::unique_ptr<Collection>(const std::string& name)>;
  /// Gets the reason if the collection cannot be opened. Must not throw.
  using Ready = std::function<void(const std::optional<ServerError>& failure)>;

  explicit Registry(Opener opener) : opener_(std::move(opener)) {}

  /// Keeps a collection open for as long as it lives.
  class Use {
   public:
    Use(Use&& other) noexcept
        : registry_(other.registry_), entry_(std::exchange(other.entry_, nullptr)) {}
    Use& operator=(Use&&) = delete;
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use();

    Collection* operator->() const;
    Collection& operator*() const { return *operator->(); }

   private:
    friend class Registry;
    Use(Registry& registry, std::shared_ptr<Entry> entry);

    Registry& registry_;
    std::shared_ptr<Entry> entry_;
  };

  /// Keeps everybody else from opening, closing or creating a collection of this name. Those who
  /// use it already are not held up.
  class Reservation {
   public:
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;
    /// The collection is as it was, or can be opened for the first time.
    ~Reservation();

    /// Null if it was not open.
    Collection* collection() const;
    /// The collection counts as closed, although others still have it.
    void forget() { forgotten_ = true; }
    /// Returns when nobody has it any more; false if that takes longer. Whoever calls this must not
    /// have it, and nobody who has it may wait for it to be opened.
    bool awaitUnused(std::chrono::milliseconds time) const;

   private:
    friend class Registry;
    Reservation(Registry& registry, std::shared_ptr<Entry> entry);

    Registry& registry_;
    std::shared_ptr<Entry> entry_;
    bool forgotten_ = false;
  };

  /// Opens the collection if it is closed, on this thread. Throws what the opener throws.
  Use use(const std::string& name);
  /// Nothing if it is not open. Takes no memory.
  std::optional<Use> useIfOpen(const std::string& name);

  /// An opening that has begun: whoever has it must carry it out.
  class Opening {
   public:
    void carryOut() const;

   private:
    friend class Registry;
    Opening(Registry& registry, std::shared_ptr<Entry> entry)
        : registry_(&registry), entry_(std::move(entry)) {}

    Registry* registry_;
    std::shared_ptr<Entry> entry_;
  };

  bool isOpen(const std::string& name) const;
  /// Calls `ready` when the collection is open: in here, or later. If an opening is returned, the
  /// caller has to carry it out.
  std::optional<Opening> awaitOpen(const std::string& name, Ready ready);

  Reservation reserve(const std::string& name);
  /// Whether nobody is opening, closing or reserving it, so that reserve() need not wait.
  bool isSettled(const std::string& name) const;
  /// Calls `ready` when that is so: in here, or later.
  void awaitSettled(const std::string& name, Ready ready);

  /// Closes the collection, as soon as it has been opened and nobody uses it any more. Nothing if
  /// it is neither open nor being opened.
  void close(const std::string& name);
  /// Closes the collection that has not been used for the longest time. False if all are being used
  /// or cannot be closed.
  bool closeOldest();

  /// How many are open.
  std::size_t size() const;
  /// The same by what is wrong with them.
  CollectionCounts counts() const;

 private:
  using Lock = std::unique_lock<std::mutex>;

  /// And whether it is new: whoever gets that has to open it, or to say that there is none.
  std::pair<std::shared_ptr<Entry>, bool> entryOf(const std::string& name);
  void open(const std::shared_ptr<Entry>& entry);
  std::optional<ServerError> tryToOpen(Entry& entry) const;
  std::optional<ServerError> reasonNotToOpen(Entry& entry) const;
  static void callAll(const std::vector<Ready>& waiting,
                      const std::optional<ServerError>& failure) noexcept;
  bool shut(Lock& lock, const std::shared_ptr<Entry>& entry);
  void release(const std::shared_ptr<Entry>& entry);
  void putIntoUnused(const std::shared_ptr<Entry>& entry);
  void takeFromUnused(Entry& entry);
  void makeOpen(const std::shared_ptr<Entry>& entry);
  void makeGone(Entry& entry);

  const Opener opener_;
  // Made in time: those who wait for an opening have to be told also if there is no memory.
  const ServerError noMemory_{ErrorKind::OutOfMemory,
                              "there is not enough memory to open the collection"};

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_, and so are the entries. The open ones that nobody uses stand in the order in
  // which they were used last.
  std::unordered_map<std::string, std::shared_ptr<Entry>> entries_;
  std::list<std::shared_ptr<Entry>> unused_;
};

}  // namespace corvaned
