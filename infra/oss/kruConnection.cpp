#include "infra/oss/kruConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "infra/oss/kruConnecting.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruSystemCalls.h"

namespace tq::oss {

namespace {

constexpr unsigned int kPiecesPerCall = 16;
// Below what the kernel moves in one call, so that no sum of lengths overflows on the way there.
constexpr unsigned long kLargestTransfer = 1UL << 30;
// With a deadline the clock is looked at in between, however fast the peer takes the bytes. Copying
// a megabyte takes a slow machine some milliseconds, which nothing can interrupt.
constexpr unsigned long kTimedTransfer = 1UL << 17;

bool wouldBlock(int errorNumber) noexcept {
  return errorNumber == EAGAIN || errorNumber == EWOULDBLOCK;
}

/// A run of pieces, gathered batch by batch and advanced by what the kernel took.
class Outgoing {
 public:
  Outgoing(const Socket::Piece* pieces, unsigned int count) : next_(pieces), end_(pieces + count) {
    skipEmpty();
  }

  bool done() const noexcept { return next_ == end_; }

  unsigned int gather(iovec* batch, unsigned long room) const noexcept {
    unsigned int used = 0;
    unsigned long offset = offset_;
    for (const Socket::Piece* p = next_; p != end_ && used < kPiecesPerCall && room != 0; ++p) {
      const unsigned long length = std::min(p->length - offset, room);
      if (length != 0) {
        // iovec serves receiving too and so has no const.
        batch[used].iov_base = const_cast<char*>(p->data + offset);
        batch[used++].iov_len = length;
      }
      room -= length;
      offset = 0;
    }
    return used;
  }

  void advance(unsigned long count) noexcept {
    while (count != 0) {
      const unsigned long step = std::min(count, next_->length - offset_);
      count -= step;
      offset_ += step;
      skipEmpty();
    }
  }

 private:
  void skipEmpty() noexcept {
    while (next_ != end_ && offset_ == next_->length) {
      ++next_;
      offset_ = 0;
    }
  }

  const Socket::Piece* next_;
  const Socket::Piece* end_;
  unsigned long offset_ = 0;
};

}  // namespace

Connection::~Connection() { releaseDescriptor(); }

void Connection::connect(const icu::UnicodeString& host, unsigned int port,
                         const Socket::_AddrInfoExternal& known,
                         const unsigned long* timeoutMillis) {
  releaseDescriptor();
  host_ = host;
  port_ = port;
  const Deadline own = timeoutMillis != nullptr ? Deadline::in(*timeoutMillis) : Deadline::none();
  const Connected result =
      connectToFirst(addressesOf(known), Deadline::earlier(own, deadline_), waiter_);
  if (result.outcome == Waited::Failed) throwSystemError(u"connect to", result.errorNumber);
  require(result.outcome, u"connect to");
  fd_ = result.fd;
}

std::vector<Address> Connection::addressesOf(const Socket::_AddrInfoExternal& known) const {
  if (known.size_ == 0) return resolveHost(host_, port_);
  std::vector<Address> addresses(known.size_);
  for (unsigned int i = 0; i < known.size_; ++i) {
    Address& address = addresses[i];
    address.length = known.entries_[i].length;
    std::memcpy(&address.storage, known.entries_[i].bytes, address.length);
    if (address.hasPort()) continue;
    requirePort(host_, port_);
    address.setPort(port_);
  }
  return addresses;
}

unsigned long Connection::read(char* out, unsigned long length) {
  requireOpen(u"receive from");
  while (received_.size() < length && !ended()) {
    if (!received_.makeRoom(length)) Converter::throwOutOfMemory();
    received_.commit(receive(received_.tail(), received_.room(), true));
  }
  const unsigned long count = std::min<unsigned long>(received_.size(), length);
  if (count == 0) {
    throwIfReset();
    return 0;
  }
  std::memcpy(out, received_.data(), count);
  return count;
}

unsigned long Connection::readOnce(char* out, unsigned long length) {
  requireOpen(u"receive from");
  const unsigned long held = received_.take(out, length);
  if (held == length) return held;
  if (held != 0) return ended() ? held : held + fetch(out + held, length - held, false);
  const unsigned long fresh = ended() ? 0 : fetch(out, length, true);
  if (fresh == 0) throwIfReset();
  return fresh;
}

unsigned long Connection::fill() {
  if (receiveMore(true) != 0) return received_.size();
  throwIfReset();
  return 0;
}

unsigned long Connection::fillAtOnce() { return receiveMore(false) != 0 ? received_.size() : 0; }

unsigned long Connection::receiveMore(bool wait) {
  requireOpen(u"receive from");
  if (ended()) return 0;
  received_.makeRoomForMore();
  if (received_.room() == 0) Converter::throwOutOfMemory();
  const unsigned long fresh = receive(received_.tail(), received_.room(), wait);
  received_.commit(fresh);
  return fresh;
}

// The buffer must be empty. A read of a slice or more would only be copied twice; without memory
// for the buffer smaller ones go past it as well.
unsigned long Connection::fetch(char* out, unsigned long length, bool wait) {
  if (length >= ReceiveBuffer::kSlice || !received_.makeRoom(length)) {
    return receive(out, length, wait);
  }
  received_.commit(receive(received_.tail(), received_.room(), wait));
  return received_.take(out, length);
}

// The thread may be cancelled in a system call, and the call may have moved bytes by then without
// anyone learning how many. None of these calls throws, so what unwinds them is a cancellation.
template <typename Call>
auto Connection::closingIfCancelled(Call call) {
  struct Guard {
    Connection* connection;
    ~Guard() {
      if (connection != nullptr) connection->releaseDescriptor();
    }
  } guard{this};
  const auto result = call();
  guard.connection = nullptr;
  return result;
}

unsigned long Connection::receive(char* out, unsigned long length, bool wait) {
  const int flags = wait && mayBlock() ? 0 : MSG_DONTWAIT;
  for (;;) {
    const ssize_t count = closingIfCancelled(
        [&] { return systemCalls().recv(fd_, out, std::min(length, kLargestTransfer), flags); });
    if (count > 0) return static_cast<unsigned long>(count);
    if (count == 0) {
      peerClosed_ = true;
      return 0;
    }
    const int errorNumber = errno;
    if (errorNumber == EINTR) continue;
    if (!wouldBlock(errorNumber)) {
      receiveError_ = errorNumber;
      return 0;
    }
    if (!wait) return 0;
    awaitEvent(POLLIN, u"receive from");
  }
}

void Connection::write(const Socket::Piece* pieces, unsigned int count, int more) {
  requireOpen(u"send to");
  const int flags = MSG_NOSIGNAL | more | (mayBlock() ? 0 : MSG_DONTWAIT);
  const unsigned long most = deadline_.isNone() ? kLargestTransfer : kTimedTransfer;
  iovec batch[kPiecesPerCall];
  for (Outgoing out(pieces, count); !out.done();) {
    if (deadline_.passed()) {
      throw SocketTimeoutException(describe(u"send to"));
    }
    msghdr message{};
    message.msg_iov = batch;
    message.msg_iovlen = out.gather(batch, most);
    const ssize_t sent =
        closingIfCancelled([&] { return systemCalls().sendmsg(fd_, &message, flags); });
    if (sent >= 0) {
      out.advance(static_cast<unsigned long>(sent));
      continue;
    }
    const int errorNumber = errno;
    if (errorNumber == EINTR) continue;
    if (!wouldBlock(errorNumber)) throwSystemError(u"send to", errorNumber);
    awaitEvent(POLLOUT, u"send to");
  }
}

// Saying again that nothing is to be delayed makes the kernel send what it holds back. Where that
// fails, the connection is over.
void Connection::pushOut() noexcept {
  const int on = 1;
  if (isOpen()) systemCalls().setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void Connection::awaitEvent(short event, const char16_t* verb) {
  require(closingIfCancelled([&] { return waiter_.untilReady(fd_, event, deadline_); }), verb);
}

void Connection::pushBack(const char* data, unsigned long length) {
  requireOpen(u"give bytes back to");
  if (!received_.putBack(data, length)) Converter::throwOutOfMemory();
}

Socket::Look Connection::look() {
  if (received_.size() != 0) return Socket::Look::Data;
  if (!isOpen() || ended()) return Socket::Look::Closed;
  // An empty buffer has room for one byte without any memory, and a look needs no more than one.
  received_.makeRoom(1);
  const unsigned long count = receive(received_.tail(), received_.room(), false);
  received_.commit(count);
  if (count != 0) return Socket::Look::Data;
  return ended() ? Socket::Look::Closed : Socket::Look::Quiet;
}

void Connection::pauseUntil(Deadline deadline) const {
  if (waiter_.pause(deadline) == Waited::GivenUp) throw SocketCancelledException(u"pause");
}

void Connection::close() {
  if (!isOpen()) return;
  const int errorNumber = releaseDescriptor();
  if (errorNumber != 0) throwSystemError(u"close connection to", errorNumber);
}

// The descriptor is gone whatever the call says, a signal included: closing it again could hit one
// that another thread has just been given.
int Connection::releaseDescriptor() noexcept {
  received_.clear();
  peerClosed_ = false;
  receiveError_ = 0;
  const int fd = std::exchange(fd_, -1);
  if (fd < 0 || systemCalls().close(fd) == 0) return 0;
  return errno == EINTR || errno == EINPROGRESS ? 0 : errno;
}

icu::UnicodeString Connection::describe(const char16_t* verb) const {
  return describeEndpoint(verb, host_, port_);
}

void Connection::requireOpen(const char16_t* verb) const {
  if (!isOpen()) throwSystemError(verb, ENOTCONN);
}

void Connection::throwSystemError(const char16_t* verb, int errorNumber) const {
  throw SocketException(describe(verb), errorNumber);
}

void Connection::require(Waited waited, const char16_t* verb) const {
  switch (waited) {
    case Waited::Ready:
      return;
    case Waited::Late:
      throw SocketTimeoutException(describe(verb));
    case Waited::GivenUp:
      throw SocketCancelledException(describe(verb));
    case Waited::Failed:
      throwSystemError(u"wait for", errno);
  }
}

void Connection::throwIfReset() const {
  if (receiveError_ != 0) throwSystemError(u"receive from", receiveError_);
}

}  // namespace tq::oss
