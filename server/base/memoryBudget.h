#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <utility>

namespace corvaned {

/// The memory that requests, replies, index updates and open collections may take together. It
/// counts what its users say that they are going to need, and allocates nothing. May be used from
/// any thread; it must outlive its shares.
class MemoryBudget {
 public:
  /// What memory is for. The last eighth of the budget is kept for small uses, so that a few large
  /// documents do not keep everybody else from being served.
  enum class Use { Small, Large };

  /// A part of the budget, given back when the object goes. Like any value it is used by one thread
  /// at a time.
  class Share {
   public:
    Share() = default;
    explicit Share(MemoryBudget& budget) : budget_(&budget) {}
    Share(Share&& other) noexcept
        : budget_(std::exchange(other.budget_, nullptr)), bytes_(std::exchange(other.bytes_, 0)) {}
    Share& operator=(Share&& other) noexcept {
      std::swap(budget_, other.budget_);
      std::swap(bytes_, other.bytes_);
      return *this;
    }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;
    ~Share() { force(0); }

    /// Makes the share this large. False, and no change, if that does not fit into the budget. A
    /// share that gets smaller always succeeds, and so does one without a budget.
    [[nodiscard]] bool resize(std::size_t bytes, Use use);
    /// The same for memory that is taken already: it counts even where it does not fit.
    void force(std::size_t bytes);
    /// Makes so many of its bytes, at most all, a share of their own.
    [[nodiscard]] Share split(std::size_t bytes);
    std::size_t bytes() const { return bytes_; }

   private:
    friend class MemoryBudget;
    Share(MemoryBudget* budget, std::size_t bytes) : budget_(budget), bytes_(bytes) {}

    MemoryBudget* budget_ = nullptr;
    std::size_t bytes_ = 0;
  };

  /// Receives a share that was waited for.
  using Granted = std::function<void(Share)>;
  using Ticket = std::uint64_t;

  explicit MemoryBudget(std::size_t limit) : limit_(limit) {}

  std::size_t limit() const { return limit_; }
  std::size_t used() const;
  /// Whether a share of this size can be had at all, once everything else is given back.
  bool canEverFit(std::size_t bytes, Use use) const { return bytes <= limitOf(use); }

  /// Calls `granted` as soon as a large share of this size is free; those who wait get theirs in
  /// the order in which they asked. The call comes from the thread that gives memory back, or from
  /// this one, and must not block or throw.
  Ticket await(std::size_t bytes, Granted granted);
  /// Ends the waiting. If the share has been granted meanwhile this changes nothing.
  void withdraw(Ticket ticket);

 private:
  struct Waiter {
    Ticket ticket = 0;
    std::size_t bytes = 0;
    Granted granted;
  };

  std::size_t limitOf(Use use) const { return use == Use::Small ? limit_ : limit_ - limit_ / 8; }
  bool take(std::size_t bytes, Use use);
  void takeAnyway(std::size_t bytes);
  void giveBack(std::size_t bytes);
  std::list<Waiter> grantable();
  void callGranted(std::list<Waiter> waiters) noexcept;

  const std::size_t limit_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::size_t used_ = 0;
  std::size_t givenBack_ = 0;
  std::list<Waiter> waiters_;
  Ticket lastTicket_ = 0;
};

}  // namespace corvaned
