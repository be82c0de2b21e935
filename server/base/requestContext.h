#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <utility>

#include "server/base/ticket.h"

namespace corvaned {

/// What ends the work for one request before it is done: its time, its cost, or the end of the
/// client that wanted it. Long work calls spend() or check() at every step and lets their exception
/// pass.
///
/// Belongs to the thread that serves the request, except for cancelAt() and check().
class RequestContext : public std::enable_shared_from_this<RequestContext> {
 public:
  using Clock = std::chrono::steady_clock;

  struct Limits {
    /// How long the request may take from now on, time spent in queues included. 0: any time.
    std::chrono::milliseconds time{0};
    /// How many steps spend() may be told of. 0: any number.
    std::uint64_t cost = 0;
  };

  explicit RequestContext(Limits limits);

  /// From any thread: the client has gone, and nothing more is to be done after that time.
  void cancelAt(Clock::time_point time);

  /// From any thread: throws ServerError if the work has to end.
  void check() const;
  /// The same, for this many steps of work.
  void spend(std::uint64_t steps) {
    spent_ += steps;
    if (limits_.cost != 0 && spent_ > limits_.cost) refuseCost();
    // Reading the clock costs more than most steps.
    if ((++calls_ & 0xFFU) == 0) check();
  }

  /// Whoever serves the request can let the reply wait without keeping a thread.
  void allowLaterReply() { mayReplyLater_ = true; }
  /// What the reply has to wait for; null if for nothing.
  const std::shared_ptr<Ticket>& awaited() const { return awaited_; }
  void forgetAwaited() { awaited_.reset(); }

  /// The last step of an operation that others carry out: returns when that is done, and throws if
  /// it fails; or lets the current request's reply wait for it, and returns at once.
  static void await(std::shared_ptr<Ticket> ticket);

  /// When it arrived; if it stands for a row of requests, when their first one did.
  Clock::time_point began() const { return began_; }
  /// True for the first of the requests that asks.
  bool takeFirst() { return std::exchange(first_, false); }

  /// The request that this thread serves; null if it serves none.
  static RequestContext* current();

  /// Makes a request the current one of this thread, or none: what others rely on as well must not
  /// end with the request that happens to carry it out.
  class Scope {
   public:
    Scope();
    explicit Scope(RequestContext& context);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    RequestContext* outer_;
  };

 private:
  [[noreturn]] void refuseCost() const;

  const Limits limits_;
  const Clock::time_point began_ = Clock::now();
  const Clock::time_point deadline_;
  std::atomic<Clock::time_point> cancelled_{Clock::time_point::max()};
  std::uint64_t spent_ = 0;
  std::uint64_t calls_ = 0;
  bool first_ = true;
  bool mayReplyLater_ = false;
  std::shared_ptr<Ticket> awaited_;
};

}  // namespace corvaned
