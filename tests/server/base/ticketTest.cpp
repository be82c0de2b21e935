#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "server/base/requestContext.h"
#include "server/base/ticket.h"

namespace corvaned {
namespace {

TEST(Ticket, AllWhoWaitAreToldOfTheEnd) {
  Ticket ticket;
  std::atomic<int> told = 0;
  ticket.whenDone([&] { ++told; });
  std::vector<std::jthread> waiting;
  for (int i = 0; i < 4; ++i) {
    waiting.emplace_back([&] {
      ticket.wait();
      ++told;
    });
  }
  EXPECT_FALSE(ticket.isDone());
  EXPECT_EQ(told, 0);
  ticket.finish();
  waiting.clear();
  EXPECT_TRUE(ticket.isDone());
  ticket.whenDone([&] { ++told; });
  EXPECT_EQ(told, 6);
  EXPECT_NO_THROW(ticket.requireSuccess());
}

TEST(Ticket, FailureIsToldToEachOfThem) {
  Ticket ticket;
  std::atomic<int> failed = 0;
  std::vector<std::jthread> waiting;
  for (int i = 0; i < 4; ++i) {
    waiting.emplace_back([&] {
      try {
        ticket.wait();
      } catch (const ServerError& error) {
        if (error.kind() == ErrorKind::StorageFailed && error.what() == std::string("no")) ++failed;
      }
    });
  }
  ticket.finish(ServerError(ErrorKind::StorageFailed, "no"));
  waiting.clear();
  EXPECT_EQ(failed, 4);
  EXPECT_THROW(ticket.requireSuccess(), ServerError);
}

TEST(Ticket, CallThatFailsKeepsNobodyElseFromBeingTold) {
  Ticket ticket;
  int told = 0;
  ticket.whenDone([] { throw std::bad_alloc(); });
  ticket.whenDone([&] { ++told; });
  ticket.finish();
  EXPECT_EQ(told, 1);
}

TEST(Ticket, ReplyWaitsInPlaceOfTheThreadWhereThatIsAllowed) {
  const auto ticket = std::make_shared<Ticket>();
  RequestContext request({});
  request.allowLaterReply();
  const RequestContext::Scope scope(request);
  RequestContext::await(ticket);
  EXPECT_EQ(request.awaited(), ticket);
  RequestContext strict({});
  const RequestContext::Scope inner(strict);
  ticket->finish(ServerError(ErrorKind::StorageFailed, "no"));
  EXPECT_THROW(RequestContext::await(ticket), ServerError);
  EXPECT_EQ(strict.awaited(), nullptr);
}

}  // namespace
}  // namespace corvaned
