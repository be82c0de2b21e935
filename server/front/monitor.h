#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace corvaned {

/// Answers an operator's tools over plain HTTP on the loopback interface: GET /metrics, /health and
/// /ready. It has a thread of its own, so that it answers however busy the server is.
class Monitor {
 public:
  struct Sources {
    /// The text of /metrics.
    std::function<std::string()> metrics;
    /// Why the server is not ready; empty if it is.
    std::function<std::string()> obstacle;
    /// Lines about what an operator has to see to although the server is ready; none: nothing.
    std::function<std::string()> notice{};
  };

  /// Port 0: any free one. Throws std::runtime_error if it cannot listen there. The sources are
  /// called from the monitor's thread until it is destroyed. Clients are served one after the
  /// other: each may take `patience`, and more as long as no other one comes.
  Monitor(std::uint16_t port, Sources sources,
          std::chrono::milliseconds patience = std::chrono::milliseconds(2000));
  ~Monitor();
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  std::uint16_t port() const { return port_; }

 private:
  void run();
  bool await(int client, short event, std::chrono::steady_clock::time_point end) const;
  std::string receiveRequest(int client, std::chrono::steady_clock::time_point end) const;
  void sendAll(int client, std::string_view bytes, std::chrono::steady_clock::time_point end) const;
  void serve(int client) const;
  std::string reply(const std::string& request) const;
  std::string replyToGet(const std::string& request) const;

  const Sources sources_;
  const std::chrono::milliseconds patience_;
  int listener_ = -1;
  int stop_ = -1;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

}  // namespace corvaned
