#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/simulatedKernel.h"

namespace tq::test {

/// A network in memory whose peer answers each request as it comes, with bytes that arrive when it
/// says. The clock stands still but for waits and `idle()`, so that a schedule of delays, time-outs
/// and late replies is the same each time it runs. One object at a time, one thread.
///
/// Unasked bytes, which belong to no request, arrive before the client begins its next request or
/// never: after that, nobody could tell them from its reply.
class TimedNetwork {
 public:
  using Answer = std::function<void(std::size_t connection, const std::string& request)>;

  /// `framed`: requests have a 2-byte length in front. `joined`: one receive may bring several of
  /// the pieces that were sent.
  TimedNetwork(bool framed, bool joined, Answer answer);

  // What the peer does, this many MICROSECONDS from now and after what it did before.
  void send(std::size_t connection, const std::string& bytes, std::uint64_t delay);
  void sendUnasked(std::size_t connection, const std::string& bytes, std::uint64_t delay);
  void close(std::size_t connection, std::uint64_t delay);
  void reset(std::size_t connection, std::uint64_t delay);

  /// Says nothing more on the connection, whatever it is asked.
  void fallSilent(std::size_t connection) { kernel_.connection(connection).fallSilent(); }

  /// Lets this many MICROSECONDS pass.
  void idle(std::uint64_t micros);

  void failNextConnect();
  /// The next write takes this many bytes, and the one after it fails.
  void failNextWrite(std::size_t bytes);
  /// The same, but the one after it has to wait for room.
  void blockNextWrite(std::size_t bytes);
  /// Connections are made in the background, so that whoever wants one waits for it.
  void connectInBackground() { options_.connectInBackground = true; }
  /// Nothing fails any more, and connecting takes no time.
  void heal();

  std::size_t connections() const { return kernel_.connections(); }
  std::uint64_t nowMicros() const;
  /// True when a caller waited without a limit for what never comes, and forgets it. The wait ended
  /// by a reset.
  bool takeWaitedForever();
  /// The longest single wait so far in MICROSECONDS, and forgets it.
  std::uint64_t takeLongestWait();
  /// How many calls were made on sockets, and how many reply bytes they brought.
  std::uint64_t calls() const;
  std::uint64_t bytesTaken() const { return kernel_.bytesReceived(); }
  /// True once bytes that belong to no request have arrived, taken or not.
  bool holdsUnasked(std::size_t connection) const;
  /// A number for what is on its way on every open connection: how many bytes, and when they come.
  std::size_t fingerprint() const;
  /// The same for one connection.
  std::size_t fingerprintOf(std::size_t connection) const;

 private:
  class AnsweringPeer;

  bool framed_;
  Answer answer_;
  SimulatedKernel::Options options_;
  SimulatedKernel kernel_;
  std::size_t waitsForever_ = 0;  // those that were told
};

}  // namespace tq::test
