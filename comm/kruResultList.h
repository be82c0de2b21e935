#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <memory_resource>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "comm/kruByteRuns.h"
#include "comm/kruResultMemory.h"

namespace tq::comm {

/// What the lists of search hits and of parse results have in common. The elements stand in arrival
/// order in slabs that never move; references to them stay valid until `init` or `assign`.
///
/// A parser that fills elements in place may have the next portion's made of the same objects: what
/// they hold of it, such as the memory of a text, need not be fetched again.
template <typename Result>
class ResultList {
 public:
  ResultList() = default;
  ~ResultList() { destroyElements(); }
  ResultList(const ResultList&) = delete;
  ResultList& operator=(const ResultList&) = delete;

  void init() noexcept {
    if (!reusable_) destroyElements();
    dropSlabsFrom(kKeptSlabs);
    for (Slab& slab : slabs_) slab.used = 0;
    reusable_ = true;
    tail_ = 0;
    size_ = 0;
    begin_ = {};
    // The element that the cursor stood at is gone; at the end it cannot dangle.
    cursor_ = nullptr;
    count_ = 0;
    runs_.clear();
  }

  template <typename Results>
  void assign(const Results& results) {
    init();
    for (const Result& result : results) append(result);
    moveToFirst();
    count_ = static_cast<unsigned int>(size_);
  }

  void copy(const ResultList& other) {
    init();
    for (const Slab& slab : other.slabs_) {
      for (const Result& result : slab) append(result);
    }
    moveToFirst();
    count_ = static_cast<unsigned int>(size_);
  }

  void add(const Result& result) {
    append(result);
    noteAdded();
  }

  /// When everything has been taken, the element that is added next is the next to take, in place
  /// of the first one. None goes away.
  void goOn() noexcept {
    if (count_ == 0 && size_ != 0) begin_ = {tail_, slabs_[tail_].used};
  }
  /// From here on the first one is, as ever.
  void startAnew() noexcept { begin_ = {}; }
  /// When everything has been taken, the elements go away.
  void dropTaken() noexcept {
    if (count_ == 0 && size_ != 0) init();
  }

  /// Elements for the list to go on with, in whatever state their use in an earlier portion has
  /// left them. They are no part of it before `commit`, which adds the first ones of them.
  std::span<Result> ready() {
    Slab& slab = slabWithRoom();
    if (slab.used == slab.made) slab.makeOne(false);
    return {slab.elements() + slab.used, slab.made - slab.used};
  }
  void commit(std::size_t elements) noexcept {
    if (elements == 0) return;
    slabs_[tail_].used += elements;
    size_ += elements;
    // As if they were added one by one.
    const unsigned int untilOne = 1U - count_;
    count_ += static_cast<unsigned int>(elements);
    if (untilOne - 1U < elements) moveToFirst();
  }

  /// What elements may point into; lives until `init` or `assign`.
  ByteRuns& runs() noexcept { return runs_; }

  /// Something in an element is too large to be kept for the next portion.
  void keepNothing() noexcept { reusable_ = false; }

  bool hasMore() const noexcept { return count_ != 0 && cursor_ != nullptr; }

  Result& next() {
    --count_;
    if (cursor_ == nullptr) return spare_.emplace(false);
    Result& result = *cursor_;
    if (++cursor_ == cursorEnd_) moveOn();
    return result;
  }

  unsigned int count() const noexcept { return count_; }
  void incrCount() noexcept { ++count_; }

 private:
  // The first portion of a search is often its last, and short.
  static constexpr std::size_t kSmallestSlab = 8;
  static constexpr std::size_t kLargestSlab = 256;
  // Slabs that outlive a portion: 8, 16, ... 256 and six more of 256 elements.
  static constexpr std::size_t kKeptSlabs = 12;

  /// The first `made` elements are objects, the first `used` of them are in the list.
  struct Slab {
    Slab(std::size_t elements, std::pmr::memory_resource* from)
        : memory(std::pmr::polymorphic_allocator<Result>(from).allocate(elements),
                 Free{from, elements}),
          capacity(elements) {}

    Result* elements() const noexcept { return memory.get(); }
    const Result* begin() const noexcept { return elements(); }
    const Result* end() const noexcept { return elements() + used; }
    void makeOne(const auto&... from) {
      std::construct_at(elements() + made, from...);
      ++made;
    }
    void destroyFrom(std::size_t first) noexcept {
      if (first < made) std::destroy_n(elements() + first, made - first);
      made = std::min(made, first);
    }

    struct Free {
      std::pmr::memory_resource* from;
      std::size_t elements;
      void operator()(Result* first) const noexcept {
        std::pmr::polymorphic_allocator<Result>(from).deallocate(first, elements);
      }
    };
    std::unique_ptr<Result, Free> memory;
    std::size_t capacity;
    std::size_t made = 0;
    std::size_t used = 0;
  };

  /// An element by its slab. It may be the one behind the last of that.
  struct Place {
    std::size_t slab = 0;
    std::size_t element = 0;
  };

  /// The slab that the next element goes to.
  Slab& slabWithRoom() {
    if (tail_ < slabs_.size() && slabs_[tail_].used == slabs_[tail_].capacity) {
      // The list stays as it is when there is no memory for another slab.
      if (tail_ + 1 == slabs_.size()) addSlab(slabs_[tail_].capacity * 2);
      ++tail_;
    } else if (slabs_.empty()) {
      addSlab(kSmallestSlab);
    }
    return slabs_[tail_];
  }

  void addSlab(std::size_t elements) {
    slabs_.emplace_back(std::min(elements, kLargestSlab), memory_);
  }

  void append(const Result& result) {
    Slab& slab = slabWithRoom();
    slab.destroyFrom(slab.used);
    slab.makeOne(result);
    ++slab.used;
    ++size_;
    // A copy may hold on to what it shares with its original.
    reusable_ = false;
  }

  void noteAdded() noexcept {
    if (++count_ == 1) moveToFirst();
  }

  void moveToFirst() noexcept {
    const Place first = std::exchange(begin_, {});
    cursorSlab_ = first.slab;
    if (size_ == 0) return moveTo(nullptr);
    cursor_ = slabs_[first.slab].elements() + first.element;
    moveOn();
  }

  /// The cursor has come to the end of what it knew of its slab.
  void moveOn() noexcept {
    if (cursor_ != slabs_[cursorSlab_].end()) return moveTo(cursor_);
    ++cursorSlab_;
    const bool more = cursorSlab_ <= tail_ && slabs_[cursorSlab_].used != 0;
    moveTo(more ? slabs_[cursorSlab_].elements() : nullptr);
  }

  void moveTo(Result* element) noexcept {
    cursor_ = element;
    cursorEnd_ = element != nullptr ? slabs_[cursorSlab_].end() : nullptr;
  }

  void destroyElements() noexcept {
    for (Slab& slab : slabs_) slab.destroyFrom(0);
  }

  void dropSlabsFrom(std::size_t first) noexcept {
    for (std::size_t i = first; i < slabs_.size(); ++i) slabs_[i].destroyFrom(0);
    if (first < slabs_.size())
      slabs_.erase(slabs_.begin() + static_cast<std::ptrdiff_t>(first), slabs_.end());
  }

  std::pmr::memory_resource* memory_ = memoryOfResults();
  std::vector<Slab> slabs_;
  // The slab that is being filled; every slab before it is full.
  std::size_t tail_ = 0;
  std::size_t size_ = 0;
  // The next element to take, and its slab. Null at the end, where it stays when elements follow.
  Result* cursor_ = nullptr;
  std::size_t cursorSlab_ = 0;
  // No further than the end of the slab's elements, of which there may be more since.
  const Result* cursorEnd_ = nullptr;
  unsigned int count_ = 0;
  // Where the cursor goes when an element is added and none was left to take.
  Place begin_;
  bool reusable_ = true;
  ByteRuns runs_;
  // What is handed out behind the last element.
  std::optional<Result> spare_;
};

}  // namespace tq::comm
