#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "infra/oss/kruResolver.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruSystemCalls.h"

namespace {

using tq::oss::Address;
using tq::oss::SocketException;

/// A resolver that answers as it was told.
class Resolver : public testing::Test {
 protected:
  Resolver() {
    now = this;
    calls_ = tq::oss::realSystemCalls();
    calls_.getaddrinfo = getaddrinfo;
    calls_.freeaddrinfo = freeaddrinfo;
    before_ = tq::oss::replaceSystemCalls(&calls_);
  }
  ~Resolver() override {
    tq::oss::replaceSystemCalls(before_);
    now = nullptr;
  }

  /// One more address in the answer.
  void answers(int family, std::size_t length = sizeof(sockaddr_in)) {
    addresses_.emplace_back().ss_family = static_cast<sa_family_t>(family);
    addrinfo& entry = entries_.emplace_back();
    entry.ai_family = family;
    entry.ai_addr = reinterpret_cast<sockaddr*>(&addresses_.back());
    entry.ai_addrlen = static_cast<socklen_t>(length);
    if (entries_.size() > 1) entries_[entries_.size() - 2].ai_next = &entry;
  }

  static SocketException refusal(const icu::UnicodeString& host, unsigned int port) {
    try {
      tq::oss::resolveHost(host, port);
    } catch (const SocketException& caught) {
      return caught;
    }
    return {};
  }

  int code = 0;
  addrinfo asked{};
  std::string name;
  std::string service;
  unsigned int questions = 0;
  unsigned int freed = 0;

 private:
  static int getaddrinfo(const char* host, const char* port, const addrinfo* hints,
                         addrinfo** result) {
    ++now->questions;
    now->asked = *hints;
    now->name = host;
    now->service = port;
    *result = now->entries_.empty() ? nullptr : &now->entries_.front();
    return now->code;
  }
  static void freeaddrinfo(addrinfo*) { ++now->freed; }

  static Resolver* now;

  tq::oss::SystemCalls calls_;
  const tq::oss::SystemCalls* before_ = nullptr;
  std::deque<sockaddr_storage> addresses_;
  std::deque<addrinfo> entries_;
};

Resolver* Resolver::now = nullptr;

TEST_F(Resolver, IsAskedForStreamsOfAnyFamilyAndThePortInDigits) {
  answers(AF_INET);
  tq::oss::resolveHost(u"db.example", 65535);
  EXPECT_EQ(name, "db.example");
  EXPECT_EQ(service, "65535");
  EXPECT_EQ(asked.ai_family, AF_UNSPEC);
  EXPECT_EQ(asked.ai_socktype, SOCK_STREAM);
  EXPECT_EQ(asked.ai_flags, AI_NUMERICSERV);
}

TEST_F(Resolver, IsAskedForNoNameWhereDigitsAreExpected) {
  answers(AF_INET);
  Address address;
  EXPECT_TRUE(tq::oss::parseNumericHost(u"127.0.0.1", 65535, address));
  EXPECT_EQ(asked.ai_flags, AI_NUMERICSERV | AI_NUMERICHOST);
}

TEST_F(Resolver, GetsItsAnswerBack) {
  answers(AF_INET);
  tq::oss::resolveHost(u"db.example", 1);
  EXPECT_EQ(freed, 1U);
  Address address;
  tq::oss::parseNumericHost(u"127.0.0.1", 0, address);
  EXPECT_EQ(freed, 2U);
}

TEST_F(Resolver, MayKnowFamiliesThatNobodyHereConnectsTo) {
  answers(AF_UNIX, sizeof(sockaddr_un));
  answers(AF_INET6, sizeof(sockaddr_in6));
  answers(AF_UNIX, sizeof(sockaddr_un));
  answers(AF_INET);
  const std::vector<Address> found = tq::oss::resolveHost(u"db.example", 80);
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].storage.ss_family, AF_INET6);
  EXPECT_EQ(found[0].length, sizeof(sockaddr_in6));
  EXPECT_EQ(found[1].storage.ss_family, AF_INET);
}

TEST_F(Resolver, MayGiveNoAddressThatAnyoneCouldHold) {
  answers(AF_INET, sizeof(sockaddr_storage) + 1);
  answers(AF_INET, sizeof(sockaddr_storage));
  const std::vector<Address> found = tq::oss::resolveHost(u"db.example", 80);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].length, sizeof(sockaddr_storage));
}

TEST_F(Resolver, ThatKnowsNoUsableAddressDoesNotKnowTheName) {
  answers(AF_UNIX, sizeof(sockaddr_un));
  EXPECT_EQ(refusal(u"db.example", 80).getErrorNumber(), EAI_NONAME);
  Address address;
  EXPECT_FALSE(tq::oss::parseNumericHost(u"127.0.0.1", 80, address));
}

TEST_F(Resolver, ThatGivesNothingDoesNotKnowTheName) {
  EXPECT_EQ(refusal(u"db.example", 80).getErrorNumber(), EAI_NONAME);
  Address address;
  EXPECT_FALSE(tq::oss::parseNumericHost(u"127.0.0.1", 80, address));
}

TEST_F(Resolver, IsNotAskedForANameThatItWouldReadAsAnother) {
  for (const icu::UnicodeString& host :
       {icu::UnicodeString(), icu::UnicodeString(u"a\0b", 3), icu::UnicodeString(u"\0a", 2)}) {
    const SocketException failure = refusal(host, 80);
    EXPECT_EQ(failure.getErrorNumber(), EINVAL);
    const tq::oss::Message& message = failure.getMessageList().front();
    EXPECT_EQ(message.getMessageText(), u"The host name is empty or holds a zero character.");
    EXPECT_EQ(message.getArguments()[0],
              icu::UnicodeString(u"resolve ").append(host).append(u" port 80", 8));
    Address address;
    EXPECT_FALSE(tq::oss::parseNumericHost(host, 80, address));
  }
  EXPECT_EQ(questions, 0U);
}

TEST_F(Resolver, IsAskedForPortsThatAServerCanListenOnAlone) {
  answers(AF_INET);
  Address address;
  for (const unsigned int port : {1U, 65535U}) {
    EXPECT_EQ(tq::oss::resolveHost(u"db.example", port).size(), 1U) << port;
    EXPECT_TRUE(tq::oss::parseNumericHost(u"127.0.0.1", port, address)) << port;
  }
  EXPECT_EQ(questions, 4U);
  for (const unsigned int port : {0U, 65536U}) {
    const SocketException failure = refusal(u"db.example", port);
    EXPECT_EQ(failure.getErrorNumber(), EINVAL) << port;
    const tq::oss::Message& message = failure.getMessageList().front();
    EXPECT_EQ(message.getMessageText(), u"The port must be from 1 to 65535.");
    EXPECT_TRUE(message.getArguments()[0].startsWith(u"connect to db.example port ")) << port;
  }
  EXPECT_FALSE(tq::oss::parseNumericHost(u"127.0.0.1", 65536, address));
  EXPECT_EQ(questions, 4U);
}

}  // namespace
