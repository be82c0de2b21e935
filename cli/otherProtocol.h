#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "cli/settings.h"
#include "cli/ticker.h"

namespace corvane {

struct Session;

/// Asks the server's port for its status in the protocol that was not chosen. Returns a line for a
/// person when it answers, and nothing otherwise. For a request that has failed: takes three
/// seconds at most.
std::optional<std::string> otherProtocolSpoken(const Settings& settings);

/// Watches the wait for the first answer over the HTTP-style protocol. A server's binary port may
/// take the start of such a request for the length of a longer one and wait for the rest, so that
/// silence is all that shows. After each second of it the watch asks in the binary protocol, over a
/// connection of its own and for half a second, and ends the program when it is answered. A server
/// that is only slow does not notice more than that.
class SilenceWatch {
 public:
  explicit SilenceWatch(Session& session);
  ~SilenceWatch();
  SilenceWatch(const SilenceWatch&) = delete;
  SilenceWatch& operator=(const SilenceWatch&) = delete;

 private:
  void look();

  Session& session_;
  // Set once, by whoever comes first: the answer, or the watch.
  std::atomic<bool> decided_{false};
  std::optional<Ticker> ticker_;
};

}  // namespace corvane
