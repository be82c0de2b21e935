#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>

namespace corvaned {

/// How the file descriptors that the system allows are divided, so that clients can never use up
/// those that the collections need.
struct DescriptorPlan {
  std::size_t connections = 0;
  std::size_t collections = 0;
};

/// Gives connections as many as are wanted, at most half of what the process itself leaves, and
/// collections the rest. Throws std::runtime_error if the limit is too small to serve anybody.
DescriptorPlan divideDescriptors(std::size_t limit, std::size_t connectionsWanted);

/// The descriptors that open collections may have together. It counts what its users say that they
/// are going to open. May be used from any thread; it must outlive its shares.
class DescriptorBudget {
 public:
  /// A part of the budget, given back when the object goes. Used by one thread at a time.
  class Share {
   public:
    Share() = default;
    /// Without a budget a share may have any size.
    explicit Share(DescriptorBudget* budget) : budget_(budget) {}
    Share(Share&& other) noexcept
        : budget_(std::exchange(other.budget_, nullptr)), count_(std::exchange(other.count_, 0)) {}
    Share& operator=(Share&& other) noexcept {
      std::swap(budget_, other.budget_);
      std::swap(count_, other.count_);
      return *this;
    }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;
    ~Share();

    /// Adds this many descriptors, and has others closed if that takes it. Throws
    /// ServerError(TryAgain) if there are not enough.
    void add(std::size_t count);

   private:
    DescriptorBudget* budget_ = nullptr;
    std::size_t count_ = 0;
  };

  explicit DescriptorBudget(std::size_t limit) : limit_(limit) {}

  std::size_t limit() const { return limit_; }
  std::size_t used() const;

  /// What closes something when there are too few; false if there is nothing to close. Called
  /// without locks, on the thread that needs descriptors. Comes before the first share.
  void setReclaim(std::function<bool()> reclaim) { reclaim_ = std::move(reclaim); }

 private:
  bool take(std::size_t count);
  void giveBack(std::size_t count);

  const std::size_t limit_;
  std::function<bool()> reclaim_;

  mutable std::mutex mutex_;
  std::size_t used_ = 0;  // Guarded by mutex_.
};

}  // namespace corvaned
