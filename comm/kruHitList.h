#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <list>
#include <memory>
#include <string_view>
#include <utility>

#include "comm/kruResultList.h"
#include "comm/kruSearchResult.h"

namespace tq::comm {

/// The bytes of raw keys, copied from a reply in runs and not key by key. The hits of a list point
/// into them; a copy of a hit takes its share of the run that its key is in.
class KeyRuns {
 public:
  using Run = std::shared_ptr<char[]>;

  /// A caller that keeps one hit of a run keeps the run, hence no larger ones.
  static constexpr std::size_t kLargest = 8192;

  /// A run that begins with the first `needed` of these bytes and goes on with as many of them as
  /// one run may have. It lives until `clear`.
  const Run& begin(std::string_view bytes, std::size_t needed) {
    size_ = std::max(needed, std::min(bytes.size(), kLargest));
    // An empty key has an address too.
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

/// The list of hits, with the bytes of their keys.
struct HitList : ResultList<SearchResult> {
  void init() noexcept {
    ResultList::init();
    keys.clear();
  }
  template <typename Results>
  void assign(const Results& results) {
    ResultList::assign(results);
    keys.clear();
  }
  void copy(const HitList& other) {
    ResultList::copy(other);
    keys.clear();
  }

  KeyRuns keys;
};

}  // namespace tq::comm
