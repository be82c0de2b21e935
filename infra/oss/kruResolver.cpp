#include "infra/oss/kruResolver.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "infra/oss/kruConverter.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruSystemCalls.h"

namespace tq::oss {

namespace {

struct ResultDeleter {
  void operator()(addrinfo* result) const noexcept { systemCalls().freeaddrinfo(result); }
};
using Result = std::unique_ptr<addrinfo, ResultDeleter>;

int query(const icu::UnicodeString& host, unsigned int port, int flags, Result& result) {
  const std::string name = Converter::toUTF8(host);
  const std::string service = std::to_string(port);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | flags;
  addrinfo* found = nullptr;
  int code = 0;
  do {
    code = systemCalls().getaddrinfo(name.c_str(), service.c_str(), &hints, &found);
  } while (code == EAI_SYSTEM && errno == EINTR);
  if (code == 0) result.reset(found);
  return code;
}

[[noreturn]] void throwUnresolved(const icu::UnicodeString& host, unsigned int port, int code) {
  const int systemError = errno;
  const icu::UnicodeString what = describeEndpoint(u"resolve", host, port);
  if (code == EAI_SYSTEM) throw SocketException(what, systemError);
  const char* text = ::gai_strerror(code);
  throw SocketException(what, code, Converter::fromUTF8(text, std::strlen(text)));
}

// To getaddrinfo a NUL ends the name, and an empty name is this machine.
bool isName(const icu::UnicodeString& host) {
  return !host.isEmpty() && !host.isBogus() && host.indexOf(u'\0') < 0;
}

bool toAddress(const addrinfo& entry, Address& address) {
  const bool known = entry.ai_family == AF_INET || entry.ai_family == AF_INET6;
  if (!known || entry.ai_addrlen > sizeof address.storage) return false;
  std::memcpy(&address.storage, entry.ai_addr, entry.ai_addrlen);
  address.length = entry.ai_addrlen;
  return true;
}

in_port_t& portOf(sockaddr_storage& storage) {
  if (storage.ss_family == AF_INET6) return reinterpret_cast<sockaddr_in6&>(storage).sin6_port;
  return reinterpret_cast<sockaddr_in&>(storage).sin_port;
}

}  // namespace

bool Address::hasPort() const noexcept {
  sockaddr_storage copy = storage;
  return portOf(copy) != 0;
}

void Address::setPort(unsigned int port) noexcept {
  portOf(storage) = htons(static_cast<in_port_t>(port));
}

icu::UnicodeString describeEndpoint(const char16_t* verb, const icu::UnicodeString& host,
                                    unsigned int port) {
  const std::string digits = std::to_string(port);
  icu::UnicodeString text(verb);
  text.append(u' ').append(host).append(u" port ", 6);
  return text.append(Converter::fromUTF8(digits.data(), digits.size()));
}

void requirePort(const icu::UnicodeString& host, unsigned int port) {
  if (port >= 1 && port <= kLargestPort) return;
  throw SocketException(describeEndpoint(u"connect to", host, port), EINVAL,
                        u"The port must be from 1 to 65535.");
}

std::vector<Address> resolveHost(const icu::UnicodeString& host, unsigned int port) {
  requirePort(host, port);
  if (!isName(host)) {
    throw SocketException(describeEndpoint(u"resolve", host, port), EINVAL,
                          u"The host name is empty or holds a zero character.");
  }
  Result result;
  const int code = query(host, port, 0, result);
  if (code != 0) throwUnresolved(host, port, code);
  std::vector<Address> addresses;
  for (const addrinfo* entry = result.get(); entry != nullptr; entry = entry->ai_next) {
    Address address;
    if (toAddress(*entry, address)) addresses.push_back(address);
  }
  if (addresses.empty()) throwUnresolved(host, port, EAI_NONAME);
  return addresses;
}

bool parseNumericHost(const icu::UnicodeString& host, unsigned int port, Address& address) {
  if (!isName(host) || port > kLargestPort) return false;
  Result result;
  if (query(host, port, AI_NUMERICHOST, result) != 0 || !result) return false;
  return toAddress(*result, address);
}

}  // namespace tq::oss
