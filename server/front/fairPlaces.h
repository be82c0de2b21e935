#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace corvaned {

/// Places for work that may take long, however long. Only half of them go to collections that have
/// one already; the others are kept for those that have none. So a few collections whose work is
/// stuck, one of them with many requests, leave places for the next. Whoever has to wait for a
/// place waits without a thread.
///
/// May be used from any thread.
class FairPlaces {
  struct Collection {
    std::size_t taken = 0;
    std::size_t waiting = 0;
  };
  using Collections = std::unordered_map<std::string, Collection>;
  using Entry = Collections::value_type;

 public:
  /// Is given back when the object goes. The places must outlive it.
  class Place {
   public:
    Place(Place&& other) noexcept
        : places_(other.places_), entry_(std::exchange(other.entry_, nullptr)) {}
    Place& operator=(Place&&) = delete;
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() {
      if (entry_) places_.giveBack(*entry_);
    }

   private:
    friend class FairPlaces;
    Place(FairPlaces& places, Entry& entry) : places_(places), entry_(&entry) {}

    FairPlaces& places_;
    Entry* entry_;
  };
  /// Must not throw.
  using Take = std::function<void(Place)>;

  explicit FairPlaces(std::size_t count) : count_(count) {}

  /// A place for work of the collection, unless it has to wait for one.
  std::optional<Place> tryToTake(const std::string& collection);
  /// Calls `take` with a place for work of the collection: in here, or later on the thread of
  /// whoever gives one back. Those of one collection come in their order. If this throws, it is not
  /// called.
  void await(const std::string& collection, Take take);

 private:
  struct Waiting {
    Entry* entry;
    Take take;
  };

  Entry& entryOf(const std::string& collection);
  bool isFreeFor(const Collection& collection) const;
  bool mayTake(const Collection& collection) const;
  void take(Collection& collection);
  void giveBack(Entry& entry);
  void eraseIfIdle(Entry& entry);

  const std::size_t count_;
  std::mutex mutex_;
  // Guarded by mutex_. What waits has its collection among these, so that it takes no memory to let
  // it go on.
  Collections collections_;
  std::list<Waiting> waiting_;
  std::size_t taken_ = 0;
};

}  // namespace corvaned
