#pragma once

#include <unicode/unistr.h>

#include <memory>
#include <string>

namespace tq::comm {
class CorvaneRESTClient;
}

namespace corvane {

enum class Protocol { Http, Binary };

/// How the server is reached.
struct Settings {
  std::string host = "127.0.0.1";
  unsigned int port = 0;
  /// Milliseconds that one request may take, its repetitions included, and each further part of a
  /// long result; 0 waits for ever.
  unsigned int timeOut = 300'000;
  Protocol protocol = Protocol::Binary;
  /// The file with the credentials; empty if none was named.
  std::string credentials;
  /// What requests say about who asks; empty for nobody.
  icu::UnicodeString authorization;
};

const char* protocolName(Protocol protocol);

/// "host:port", with brackets around an IPv6 address.
std::string address(const Settings& settings);

/// A client of the chosen protocol on a persistent connection, which is opened by its first
/// request. Throws UsageError when the host's name cannot be a host's name.
std::unique_ptr<tq::comm::CorvaneRESTClient> makeClient(const Settings& settings);

}  // namespace corvane
