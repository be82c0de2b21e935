#pragma once

#include <unicode/unistr.h>

#include <string_view>
#include <vector>

#include "infra/oss/kruDeadline.h"
#include "infra/oss/kruReceiveBuffer.h"
#include "infra/oss/kruResolver.h"
#include "infra/oss/kruSocket.h"
#include "infra/oss/kruWaiting.h"

namespace tq::oss {

/// What the copies of one `Socket` share: the descriptor, the bytes received and not yet taken, and
/// how the receiving side ended.
///
/// The descriptor is a blocking one. With neither a deadline nor a hook a wait is a single blocking
/// receive; otherwise each receive is told not to wait, and the waiter does the waiting.
class Connection {
 public:
  Connection() = default;
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void connect(const icu::UnicodeString& host, unsigned int port,
               const Socket::_AddrInfoExternal& known, const unsigned long* timeoutMillis);
  unsigned long read(char* out, unsigned long length);
  unsigned long readOnce(char* out, unsigned long length);
  unsigned long fill();
  unsigned long fillAtOnce();
  std::string_view peek() const noexcept { return {received_.data(), received_.size()}; }
  void consume(unsigned long length) noexcept { received_.drop(length); }
  /// `more` is MSG_MORE for bytes whose rest follows at once.
  void write(const Socket::Piece* pieces, unsigned int count, int more = 0);
  void pushOut() noexcept;
  void pushBack(const char* data, unsigned long length);
  Socket::Look look();
  void close();

  bool isOpen() const noexcept { return fd_ >= 0; }
  int descriptor() const noexcept { return fd_; }
  unsigned long buffered() const noexcept { return received_.size(); }
  /// A read would return or throw at once.
  bool readable() const noexcept { return received_.size() != 0 || ended(); }
  void setDeadline(Deadline deadline) noexcept { deadline_ = deadline; }
  void setWaiter(Waiter waiter) noexcept { waiter_ = waiter; }
  const Waiter& waiter() const noexcept { return waiter_; }
  void pauseUntil(Deadline deadline) const;
  icu::UnicodeString describe(const char16_t* verb) const;
  void requireOpen(const char16_t* verb) const;

 private:
  std::vector<Address> addressesOf(const Socket::_AddrInfoExternal& known) const;
  [[noreturn]] void throwSystemError(const char16_t* verb, int errorNumber) const;
  void throwIfReset() const;
  /// Throws unless the wait ended as it should.
  void require(Waited waited, const char16_t* verb) const;
  bool mayBlock() const noexcept { return deadline_.isNone() && !waiter_.hooked(); }
  bool ended() const noexcept { return peerClosed_ || receiveError_ != 0; }
  int releaseDescriptor() noexcept;

  template <typename Call>
  auto closingIfCancelled(Call call);
  void awaitEvent(short event, const char16_t* verb);
  unsigned long receive(char* out, unsigned long length, bool wait);
  unsigned long receiveMore(bool wait);
  unsigned long fetch(char* out, unsigned long length, bool wait);

  // The peer, for messages.
  icu::UnicodeString host_;
  unsigned int port_ = 0;

  int fd_ = -1;
  Deadline deadline_;
  Waiter waiter_;

  // The receiving side. The kernel tells of an end or a reset once; every later read must hear it.
  ReceiveBuffer received_;
  bool peerClosed_ = false;
  int receiveError_ = 0;
};

}  // namespace tq::oss
