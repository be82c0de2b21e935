#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "infra/oss/kruClock.h"
#include "infra/oss/kruNLSException.h"
#include "infra/oss/kruSocket.h"
#include "infra/oss/kruSocketException.h"
#include "tests/support/fakeSystemCalls.h"
#include "tests/support/loopback.h"

/// A socket, a peer to talk to, and a fake that passes everything on until told otherwise.
class SocketFixture : public testing::Test {
 protected:
  using Socket = tq::oss::Socket;
  using Deadline = tq::oss::Deadline;
  using SocketException = tq::oss::SocketException;
  using SocketTimeoutException = tq::oss::SocketTimeoutException;
  using Call = tq::test::Call;

  tq::test::Peer connected(Socket& socket) {
    socket.connect(u"127.0.0.1", listener.port(), Socket::NullAddrInfoExternal, nullptr);
    return listener.accept();
  }

  /// Returns when what the peer did has reached the socket.
  void arrived() { tq::test::awaitReadable(fake.lastDescriptor()); }

  static std::string readOnce(Socket& socket, unsigned long length) {
    std::string bytes(length, '?');
    bytes.resize(socket.readOnce(bytes.data(), 0, length));
    return bytes;
  }
  static std::string read(Socket& socket, unsigned long length) {
    std::string bytes(length, '?');
    bytes.resize(socket.read(bytes.data(), 0, length));
    return bytes;
  }

  /// The exception that the operation throws; fails the test when it throws none.
  template <typename Exception = SocketException, typename Operation>
  static Exception thrown(Operation operation) {
    try {
      operation();
    } catch (const Exception& caught) {
      return caught;
    }
    throw std::logic_error("the operation threw nothing");
  }

  static icu::UnicodeString firstArgument(const SocketException& exception) {
    const auto& arguments = exception.getMessageList().front().getArguments();
    return arguments.empty() ? icu::UnicodeString() : arguments[0];
  }

  icu::UnicodeString describe(const char16_t* verb, unsigned int port) {
    const std::string digits = std::to_string(port);
    return icu::UnicodeString(verb)
        .append(u" 127.0.0.1 port ", -1)
        .append(icu::UnicodeString::fromUTF8(digits));
  }

  tq::test::Listener listener;
  tq::test::FakeSystemCalls fake;
};
