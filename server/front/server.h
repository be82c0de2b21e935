#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "server/front/dispatcher.h"
#include "server/front/framing.h"
#include "server/front/serverOptions.h"

namespace corvaned {

/// Accepts connections and has a dispatcher serve their requests. A slow client costs a connection
/// and a bounded buffer, but no thread.
class Server {
 public:
  struct Listener {
    Framing framing = Framing::Http;
    std::string address;
    std::uint16_t port = 0;
  };

  /// The dispatcher must outlive the server.
  Server(Dispatcher& dispatcher, ServerOptions options);
  /// Stops.
  ~Server();

  /// Listens, and serves requests on its own threads. Throws std::runtime_error that names the
  /// address if it cannot listen there.
  void start();

  /// Where the server can be reached. Empty until start() has returned.
  const std::vector<Listener>& listeners() const { return listeners_; }

  /// Accepts no further connections and requests, waits at most stopTimeout for requests that are
  /// being served, and returns when every thread has ended. May be called more than once.
  void stop();

 private:
  class Core;
  std::unique_ptr<Core> core_;
  std::vector<Listener> listeners_;
};

}  // namespace corvaned
