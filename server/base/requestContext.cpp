#include "server/base/requestContext.h"

#include <fmt/format.h>

#include <utility>

#include "server/base/errors.h"

namespace corvaned {
namespace {

thread_local RequestContext* currentContext = nullptr;

RequestContext::Clock::time_point deadlineOf(std::chrono::milliseconds time) {
  using Clock = RequestContext::Clock;
  return time.count() == 0 ? Clock::time_point::max() : Clock::now() + time;
}

}  // namespace

RequestContext::RequestContext(Limits limits)
    : limits_(limits), deadline_(deadlineOf(limits.time)) {}

void RequestContext::cancelAt(Clock::time_point time) {
  Clock::time_point known = cancelled_.load();
  while (time < known && !cancelled_.compare_exchange_weak(known, time)) {
  }
}

void RequestContext::check() const {
  const Clock::time_point now = Clock::now();
  if (now >= cancelled_.load()) {
    throw ServerError(ErrorKind::Cancelled, "the client has gone while its request was served");
  }
  if (now >= deadline_) {
    throw ServerError(ErrorKind::TimedOut,
                      fmt::format("the request took more than {} ms, the longest that a search may "
                                  "take; use rarer words, or raise --search-timeout",
                                  limits_.time.count()));
  }
}

void RequestContext::refuseCost() const {
  throw ServerError(ErrorKind::QueryTooBroad,
                    fmt::format("the query makes the server look at more than {} documents; use "
                                "rarer words, or raise --max-search-cost",
                                limits_.cost));
}

void RequestContext::await(std::shared_ptr<Ticket> ticket) {
  RequestContext* const request = current();
  if (!request || !request->mayReplyLater_) return ticket->wait();
  request->awaited_ = std::move(ticket);
}

RequestContext* RequestContext::current() { return currentContext; }

RequestContext::Scope::Scope() : outer_(std::exchange(currentContext, nullptr)) {}

RequestContext::Scope::Scope(RequestContext& context)
    : outer_(std::exchange(currentContext, &context)) {}

RequestContext::Scope::~Scope() { currentContext = outer_; }

}  // namespace corvaned
