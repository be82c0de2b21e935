#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/script.h"

namespace tq::test {

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
  explicit ScriptedServer(std::vector<Script> scripts, bool ipv6 = false);
  explicit ScriptedServer(Script script) : ScriptedServer(std::vector{std::move(script)}) {}
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  unsigned int port() const { return port_; }

  /// Ends the stalls that are under way and those to come.
  void release();

  std::size_t connections() const;
  std::size_t requests() const;
  ConnectionRecord connection(std::size_t index) const;

  /// Waits until the connection has seen the client's close.
  void awaitClientClose(std::size_t index) const;
  /// Waits until the connection has received this many complete requests.
  void awaitRequests(std::size_t index, std::size_t count) const;
  /// Waits until all connections together have.
  void awaitRequests(std::size_t count) const;

  /// Stops listening: a further connect is refused.
  void stopListening();

 private:
  void acceptLoop();
  void serve(std::size_t index, int fd);
  void play(std::size_t index, int fd, const Step& step, std::string& pending);
  void collect(std::size_t index, int fd, std::string& pending,
               const std::function<std::size_t(const std::string&)>& complete);
  void sendSegments(std::size_t index, int fd, const Step& step);
  void awaitDrained(int fd) const;
  void stallUntilReleased(std::size_t index, int fd);
  bool receiveSome(std::size_t index, int fd, std::string& pending);
  void noteClosed(std::size_t index);
  const Script& scriptFor(std::size_t index) const;
  std::size_t countRequests() const;
  void waitFor(const std::function<bool()>& condition) const;

  std::vector<Script> scripts_;
  unsigned int port_ = 0;

  // Written once, so that every wait of every thread ends: polled beside each descriptor.
  int stopEvent_ = -1;
  int releaseEvent_ = -1;
  int noListenEvent_ = -1;
  int listener_ = -1;
  std::atomic<bool> stopping_{false};

  // Guarded by mutex_.
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<ConnectionRecord> records_;
  std::vector<std::thread> workers_;
  bool listening_ = true;

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
