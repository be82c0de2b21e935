#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/replyCorpus.h"
#include "tests/support/scriptedServer.h"

namespace {

using namespace tq::test;

/// A peer that owes the library nothing.
class RawClient {
 public:
  explicit RawClient(unsigned int port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawClient() { close(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }
  void write(const std::string& bytes) {
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  std::string receive() {
    std::array<char, 4096> buffer;
    const auto count = ::recv(fd_, buffer.data(), buffer.size(), 0);
    error_ = count < 0 ? errno : 0;
    return count <= 0 ? std::string() : std::string(buffer.data(), static_cast<std::size_t>(count));
  }
  int error() const { return error_; }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
  bool connected_ = false;
  int error_ = 0;
};

TEST(ScriptedServer, CollectsAWholeRequestInHowManyPiecesItComes) {
  const std::string request = "Content-Length  : 5\naction: x\n\r\n12345";
  ScriptedServer server(Script().expectRequest().send("ok").awaitClose());
  RawClient client(server.port());
  for (const char c : request) client.write(std::string(1, c));
  EXPECT_EQ(client.receive(), "ok");
  EXPECT_EQ(server.connection(0).requests, std::vector<std::string>{request});
}

TEST(ScriptedServer, CollectsAFramedRequest) {
  const std::string block = "Content-Length: 3\n\r\n";
  const std::string right = std::string(1, '\0') + static_cast<char>(block.size()) + block + "abc";
  ScriptedServer server(Script().expectFramedRequest().send("ok").awaitClose());
  RawClient client(server.port());
  client.write(right);
  EXPECT_EQ(client.receive(), "ok");
  EXPECT_EQ(server.connection(0).requests, std::vector<std::string>{right});
}

TEST(ScriptedServer, SendsSegmentsThatArriveOneByOne) {
  ScriptedServer server(Script().send("abcdefgh", 3).awaitClose());
  RawClient client(server.port());
  EXPECT_EQ(client.receive(), "abc");
  EXPECT_EQ(client.receive(), "def");
  EXPECT_EQ(client.receive(), "gh");
}

TEST(ScriptedServer, ClosesAtTheEndOfItsScript) {
  ScriptedServer server(Script().send("x"));
  RawClient client(server.port());
  EXPECT_EQ(client.receive(), "x");
  EXPECT_EQ(client.receive(), "");
  EXPECT_EQ(client.error(), 0);
}

TEST(ScriptedServer, ResetsWhenToldTo) {
  ScriptedServer server(Script().expectBytes(1).reset());
  RawClient client(server.port());
  client.write("x");
  EXPECT_EQ(client.receive(), "");
  EXPECT_EQ(client.error(), ECONNRESET);
}

TEST(ScriptedServer, StallsUntilReleased) {
  ScriptedServer server(Script().send("early").stall().send("late"));
  RawClient client(server.port());
  EXPECT_EQ(client.receive(), "early") << "not followed by what comes behind the stall";
  server.release();
  EXPECT_EQ(client.receive(), "late");
}

TEST(ScriptedServer, FollowsAScriptPerConnectionAndThenTheLast) {
  ScriptedServer server({Script().send("1"), Script().send("2")});
  for (const char* expected : {"1", "2", "2"}) {
    RawClient client(server.port());
    EXPECT_EQ(client.receive(), expected);
  }
  EXPECT_EQ(server.connections(), 3U);
}

TEST(ScriptedServer, KeepsConnectionsAsideByTheirFirstRequestWheneverTheyCome) {
  const auto asks = [](const std::string& request) { return request.starts_with("ask"); };
  const auto isFramed = [](const std::string& request) { return request.front() == '\0'; };
  ScriptedServer server({Script().expectRequest().send("1"), Script().expectRequest().send("2")},
                        {{asks, {Script().expectRequest().send("a")}},
                         {isFramed, {Script().expectFramedRequest().send("b")}}});
  { const RawClient sendsNothing(server.port()); }
  const std::vector<std::pair<std::string, std::string>> exchanges = {
      {"ask\n\r\n", "a"},
      {std::string("\0\7", 2) + "ask \n\r\n", "b"},
      {"do\n\r\n", "1"},
      {"ask\n\r\n", "a"},
      {"do not ask\n\r\n", "2"}};
  for (const auto& [request, reply] : exchanges) {
    RawClient client(server.port());
    for (const char c : request) client.write(std::string(1, c));
    EXPECT_EQ(client.receive(), reply) << request;
  }
  EXPECT_EQ(server.accepted(), 6U);
  EXPECT_EQ(server.connections(), 2U);
  EXPECT_EQ(server.requests(), 2U);
  EXPECT_EQ(server.connection(1).received, "do not ask\n\r\n");
  EXPECT_EQ(server.aside(0).connections(), 2U);
  EXPECT_EQ(server.aside(1).requests(), 1U);
}

TEST(ScriptedServer, SeesTheClientsClose) {
  ScriptedServer server(Script().stall());
  RawClient client(server.port());
  client.close();
  server.awaitClientClose(0);
  EXPECT_TRUE(server.connection(0).clientClosed);
}

TEST(RefusedPort, Refuses) {
  const RefusedPort refused;
  EXPECT_FALSE(RawClient(refused.port()).connected());
}

TEST(Script, ARequestIsCompleteWithTheBytesThatItsLengthLineAnnounces) {
  EXPECT_EQ(completeRequestLength("a: b\n", false), 0U);
  EXPECT_EQ(completeRequestLength("a: b\n\r\n", false), 7U);
  EXPECT_EQ(completeRequestLength("\r\n", false), 2U);
  EXPECT_EQ(completeRequestLength("Content-Length  : \n\r\nrest", false), 21U);
  EXPECT_EQ(completeRequestLength("Content-Length  : 2\n\r\na", false), 0U);
  EXPECT_EQ(completeRequestLength("Content-Length  : 2\n\r\nabc", false), 24U);
}

TEST(ReplyCorpus, ItsChunksAreItsBody) {
  for (const auto& reply : allReplies()) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{16}}) {
      const auto form = chunked(reply, size, true);
      std::string body;
      for (const auto& chunk : form.chunks) {
        body += form.text.substr(chunk.dataBegin, chunk.dataEnd - chunk.dataBegin);
        EXPECT_EQ(body.size(), chunk.bodyEnd);
      }
      EXPECT_EQ(body, reply.body) << reply;
    }
  }
}

}  // namespace
