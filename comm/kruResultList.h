#pragma once

#include <list>
#include <memory_resource>
#include <optional>

namespace tq::comm {

/// What the lists of search hits and of parse results have in common. The elements stand in arrival
/// order in memory of the list's own, given back all at once; references to them stay valid until
/// `init` or `assign`.
template <typename Result>
class ResultList {
 public:
  ResultList() = default;
  ResultList(const ResultList&) = delete;
  ResultList& operator=(const ResultList&) = delete;

  void init() {
    results_.clear();
    memory_.release();
    // The element that the cursor stood at is gone; at the end it cannot dangle.
    cursor_ = results_.end();
    count_ = 0;
  }

  template <typename Results>
  void assign(const Results& results) {
    init();
    for (const Result& result : results) results_.push_back(result);
    cursor_ = results_.begin();
    count_ = static_cast<unsigned int>(results_.size());
  }

  void add(const Result& result) {
    results_.push_back(result);
    if (++count_ == 1) cursor_ = results_.begin();
  }

  bool hasMore() const {
    if (results_.empty() || count_ == 0) return false;
    return Cursor(cursor_) != results_.end();
  }

  Result& next() {
    --count_;
    if (cursor_ == results_.end()) return spare_.emplace(false);
    return *cursor_++;
  }

  unsigned int count() const { return count_; }
  void incrCount() { ++count_; }
  const std::pmr::list<Result>& all() const { return results_; }

 private:
  using Cursor = typename std::pmr::list<Result>::const_iterator;

  std::pmr::monotonic_buffer_resource memory_;
  std::pmr::list<Result> results_{&memory_};
  typename std::pmr::list<Result>::iterator cursor_ = results_.end();
  unsigned int count_ = 0;
  // What is handed out behind the last element.
  std::optional<Result> spare_;
};

}  // namespace tq::comm
