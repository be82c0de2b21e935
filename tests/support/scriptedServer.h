#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/script.h"

namespace tq::test {

/// What a server's connections have seen, numbered in their order.
class ConnectionLog {
 public:
  std::size_t connections() const;
  std::size_t requests() const;
  ConnectionRecord connection(std::size_t index) const;

  /// Waits until the connection has seen the client's close.
  void awaitClientClose(std::size_t index) const;
  /// Waits until the connection has received this many complete requests.
  void awaitRequests(std::size_t index, std::size_t count) const;
  /// Waits until all connections together have.
  void awaitRequests(std::size_t count) const;

  /// Begins the record of a further connection, and returns its number.
  std::size_t begin();
  void note(std::size_t index, const std::function<void(ConnectionRecord&)>& what);

 private:
  std::size_t countRequests() const;
  void waitFor(const std::function<bool()>& condition) const;

  // Guarded by mutex_.
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<ConnectionRecord> records_;
};

/// Connections that a server tells from its others by their first request. They follow scripts of
/// their own and have a log of their own, so that it does not matter to the others when they come.
struct Aside {
  std::function<bool(const std::string& firstRequest)> isMeant;
  std::vector<Script> scripts;
};

/// A server on a free port of the loopback interface that follows scripts, each connection in a
/// thread of its own. The n-th connection follows the n-th script; further ones follow the last.
///
/// A segment goes out with one send, undelayed, and only when the client has taken the one before
/// it, so that the cuts that a test asks for are the cuts that the client's receives see. That
/// holds for clients of the same process; others get their segments without a pause.
///
/// Every wait ends when the object is destroyed. Waits of the test itself have no time limit: the
/// limit of the test run turns a hang into a failure.
class ScriptedServer {
 public:
  explicit ScriptedServer(std::vector<Script> scripts, bool ipv6 = false)
      : ScriptedServer(std::move(scripts), {}, ipv6) {}
  explicit ScriptedServer(Script script) : ScriptedServer(std::vector{std::move(script)}) {}
  /// A connection belongs to the first of `asides` that means it. It is numbered when its first
  /// request is complete, and in no log when it ends before.
  ScriptedServer(std::vector<Script> scripts, std::vector<Aside> asides, bool ipv6 = false);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  unsigned int port() const { return port_; }

  /// Ends the stalls that are under way and those to come.
  void release();

  /// Of all connections except those aside.
  const ConnectionLog& log() const { return lines_.back().log; }
  std::size_t connections() const { return log().connections(); }
  std::size_t requests() const { return log().requests(); }
  ConnectionRecord connection(std::size_t index) const { return log().connection(index); }
  void awaitClientClose(std::size_t index) const { log().awaitClientClose(index); }
  void awaitRequests(std::size_t index, std::size_t count) const {
    log().awaitRequests(index, count);
  }
  void awaitRequests(std::size_t count) const { log().awaitRequests(count); }

  /// Of those that the n-th of the asides means.
  const ConnectionLog& aside(std::size_t index) const { return lines_.at(index).log; }
  /// How many connections there were, the asides' and those without a request included.
  std::size_t accepted() const { return accepted_; }

 private:
  struct Line {
    explicit Line(Aside aside) : meant(std::move(aside)) {}

    const Aside meant;
    ConnectionLog log;
  };
  class Conversation;

  void acceptLoop();
  void serve(Conversation& conversation);
  bool findLine(Conversation& conversation);
  void play(Conversation& conversation, const Step& step);
  void collect(Conversation& conversation,
               const std::function<std::size_t(const std::string&)>& complete);
  void sendSegments(Conversation& conversation, const Step& step);
  void awaitDrained(int fd) const;
  void stallUntilReleased(Conversation& conversation) const;
  bool receiveSome(Conversation& conversation) const;

  // The others' is the last.
  std::deque<Line> lines_;
  unsigned int port_ = 0;

  // Written once, so that every wait of every thread ends: polled beside each descriptor.
  int stopEvent_ = -1;
  int releaseEvent_ = -1;
  int listener_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<std::size_t> accepted_{0};

  // Begun by the acceptor, and ended when it has.
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

/// A port of the loopback interface on which nothing listens for as long as the object lives.
class RefusedPort {
 public:
  RefusedPort();
  ~RefusedPort();
  RefusedPort(const RefusedPort&) = delete;
  RefusedPort& operator=(const RefusedPort&) = delete;
  unsigned int port() const { return port_; }

 private:
  // Before the descriptor: binding it tells the port.
  unsigned int port_ = 0;
  int fd_ = -1;
};

}  // namespace tq::test
