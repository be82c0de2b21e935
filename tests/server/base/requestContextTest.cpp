#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "server/base/errors.h"
#include "server/base/requestContext.h"

namespace corvaned {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;
using Clock = RequestContext::Clock;

template <typename Work>
std::string refusal(ErrorKind kind, const Work& work) {
  try {
    work();
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), kind) << error.what();
    return error.what();
  }
  return "none";
}

TEST(RequestContext, WithoutLimitsNothingEndsIt) {
  RequestContext context({});
  for (int i = 0; i < 1000; ++i) context.spend(1U << 30U);
  EXPECT_NO_THROW(context.check());
}

TEST(RequestContext, ItEndsWhenItsTimeIsOver) {
  RequestContext context({milliseconds(1), 0});
  EXPECT_THAT(refusal(ErrorKind::TimedOut,
                      [&] {
                        for (;;) context.spend(1);
                      }),
              HasSubstr("--search-timeout"));
}

TEST(RequestContext, ItEndsWhenItsCostIsSpent) {
  RequestContext context({milliseconds(0), 10});
  EXPECT_NO_THROW(context.spend(10));
  EXPECT_THAT(refusal(ErrorKind::QueryTooBroad, [&] { context.spend(1); }),
              HasSubstr("more than 10 documents"));
}

TEST(RequestContext, ItEndsAtTheEarliestTimeAtWhichItIsCancelled) {
  RequestContext context({});
  const Clock::time_point now = Clock::now();
  context.cancelAt(now + std::chrono::hours(2));
  EXPECT_NO_THROW(context.check());
  context.cancelAt(now);
  context.cancelAt(now + std::chrono::hours(1));
  EXPECT_THAT(refusal(ErrorKind::Cancelled, [&] { context.check(); }), HasSubstr("gone"));
}

TEST(RequestContext, ScopeMakesItTheCurrentOneOfItsThread) {
  EXPECT_EQ(RequestContext::current(), nullptr);
  RequestContext outer({});
  const RequestContext::Scope outerScope(outer);
  {
    RequestContext inner({});
    const RequestContext::Scope innerScope(inner);
    EXPECT_EQ(RequestContext::current(), &inner);
    const RequestContext::Scope ofNobody;
    EXPECT_EQ(RequestContext::current(), nullptr);
  }
  EXPECT_EQ(RequestContext::current(), &outer);
}

}  // namespace
}  // namespace corvaned
