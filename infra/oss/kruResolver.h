#pragma once

#include <sys/socket.h>
#include <unicode/unistr.h>

#include <string>
#include <vector>

namespace tq::oss {

/// One address to connect to, as the system wants it.
struct Address {
  sockaddr_storage storage{};
  socklen_t length = 0;

  bool hasPort() const noexcept;
  void setPort(unsigned int port) noexcept;
};

inline constexpr unsigned int kLargestPort = 65535;

/// "<verb> <host> port <port>", for error messages.
icu::UnicodeString describeEndpoint(const char16_t* verb, const icu::UnicodeString& host,
                                    unsigned int port);

/// Throws `SocketException` for a port that no server can listen on.
void requirePort(const icu::UnicodeString& host, unsigned int port);

/// All stream addresses of a host, in the resolver's order, never none; throws `SocketException`.
std::vector<Address> resolveHost(const icu::UnicodeString& host, unsigned int port);

/// The address that the digits stand for; false when they are no address.
bool parseNumericHost(const icu::UnicodeString& host, unsigned int port, Address& address);

}  // namespace tq::oss
