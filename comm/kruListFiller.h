#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "comm/kruResultList.h"

namespace tq::comm {

/// Fills elements of a list straight from one portion of a reply. What was taken is in the list,
/// and counted, when the filler ends, or earlier by `commit`.
template <typename Result>
class ListFiller {
 public:
  ListFiller(const ListFiller&) = delete;
  ListFiller& operator=(const ListFiller&) = delete;

 protected:
  /// The portion is the bytes of the reply that `keep` is given parts of.
  ListFiller(ResultList<Result>& list, int& count, std::string_view portion)
      : list_(list),
        count_(count),
        portionEnd_(portion.data() + portion.size()),
        runStart_(portion.data()),
        runEnd_(portion.data()) {}
  ~ListFiller() { commit(); }

  /// The element that `take` takes, as its last use has left it.
  Result& element() {
    if (filled_ == ready_.size()) refill();
    return ready_[filled_];
  }
  /// `size`: the bytes of the longest text that the element may come to hold.
  void take(std::size_t size) noexcept {
    if (size > kLargestKept) list_.keepNothing();
    ++filled_;
  }

  /// A copy of these bytes, which have others of the portion in front of them, in the list's
  /// memory.
  const char* keep(std::string_view bytes) {
    if (bytes.data() + bytes.size() > runEnd_) beginRun(bytes);
    return run_->get() + (bytes.data() - runStart_);
  }
  /// The run that the bytes kept last are in.
  const ByteRuns::Run* run() const noexcept { return run_; }

  void commit() noexcept {
    list_.commit(filled_);
    count_ += static_cast<int>(filled_);
    ready_ = {};
    filled_ = 0;
  }

 private:
  // A longer text is memory that an element should not hold on to from portion to portion.
  static constexpr std::size_t kLargestKept = 256;

  [[gnu::noinline]] void refill() {
    commit();
    ready_ = list_.ready();
  }

  [[gnu::noinline]] void beginRun(std::string_view bytes) {
    const auto left = static_cast<std::size_t>(portionEnd_ - bytes.data());
    run_ = &list_.runs().begin({bytes.data(), left}, bytes.size());
    runStart_ = bytes.data();
    runEnd_ = runStart_ + list_.runs().size();
  }

  ResultList<Result>& list_;
  int& count_;

  // Elements that the list goes on with, and how many of them are taken.
  std::span<Result> ready_;
  std::size_t filled_ = 0;

  // The run that was begun last, and the bytes of the portion that it is a copy of.
  const char* portionEnd_;
  const ByteRuns::Run* run_ = nullptr;
  const char* runStart_;
  const char* runEnd_;
};

}  // namespace tq::comm
