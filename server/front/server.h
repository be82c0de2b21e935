#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "server/front/dispatcher.h"
#include "server/front/framing.h"
#include "server/front/serverOptions.h"

namespace corvaned {

/// The sockets in front of a dispatcher. A slow client costs a connection and a bounded buffer, and
/// never a thread.
class Server {
 public:
  struct Listener {
    Framing framing = Framing::http;
    std::string address;
    std::uint16_t port = 0;
  };

  /// The dispatcher must outlive the server.
  Server(Dispatcher& dispatcher, ServerOptions options);
  /// Stops.
  ~Server();

  /// Binds and serves from now on, on threads of its own. Throws std::runtime_error naming the
  /// address that cannot be had.
  void start();

  /// Where the server can be reached, once start() has returned.
  const std::vector<Listener>& listeners() const { return listeners_; }

  /// Takes no more connections or requests, lets those that are being served finish for at most
  /// stopTimeout, and returns when every thread has ended. May be called more than once.
  void stop();

 private:
  class Core;
  std::unique_ptr<Core> core_;
  std::vector<Listener> listeners_;
};

}  // namespace corvaned
