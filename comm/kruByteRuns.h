#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <list>
#include <memory>
#include <string_view>
#include <utility>

namespace tq::comm {

/// Bytes of a reply that the results of a list point into, copied in runs and not result by result.
/// A result that leaves the list takes its share of its run.
class ByteRuns {
 public:
  using Run = std::shared_ptr<char[]>;

  /// A caller that keeps a share of a run keeps the run, hence no larger ones.
  static constexpr std::size_t kLargest = 8192;

  /// A run that begins with the first `needed` of these bytes and goes on with as many of them as
  /// one run may have. It lives until `clear`.
  const Run& begin(std::string_view bytes, std::size_t needed) {
    size_ = std::max(needed, std::min(bytes.size(), kLargest));
    // Empty bytes have an address too.
    Run run = std::make_shared_for_overwrite<char[]>(std::max<std::size_t>(size_, 1));
    if (size_ != 0) std::memcpy(run.get(), bytes.data(), size_);
    if (next_ == runs_.end()) next_ = runs_.emplace(next_);
    *next_ = std::move(run);
    return *next_++;
  }
  /// The bytes of the run begun last.
  std::size_t size() const noexcept { return size_; }

  void clear() noexcept {
    // One portion seldom has more runs than this; their places in the list are worth keeping.
    if (runs_.size() > kKept) runs_.resize(kKept);
    for (Run& run : runs_) run.reset();
    next_ = runs_.begin();
  }

 private:
  static constexpr std::size_t kKept = 16;

  std::list<Run> runs_;
  std::list<Run>::iterator next_ = runs_.end();
  std::size_t size_ = 0;
};

}  // namespace tq::comm
