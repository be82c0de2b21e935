#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string_view>

#include "infra/oss/kruDeadline.h"
#include "infra/oss/kruExport.h"
#include "infra/oss/kruWaitHook.h"

namespace tq::oss {

class Connection;

/// A TCP connection to a server, with a receive buffer in user space, so that most small reads need
/// no system call.
///
/// A copy stands for the same connection and buffer; the connection closes with the last of them.
/// Calls on one connection must not overlap; different connections are independent.
///
/// ALL TIME-OUTS ARE IN MILLISECONDS.
///
/// Failures are thrown as `SocketException`, which says what the system said and its errno; the end
/// of a permitted wait as `SocketTimeoutException`, one that the wait hook gave up as
/// `SocketCancelledException`. No call raises SIGPIPE or fails because a signal arrived;
/// descriptors are not inherited by programs that the process starts. A thread may be cancelled
/// (`pthread_cancel`, deferred) while it waits in a socket: the stack unwinds and the connection is
/// closed, because bytes of it may be lost.
class KRU_EXPORT Socket {
 public:
  /// Addresses that were resolved beforehand: a plain value of fixed size.
  // NOLINTNEXTLINE(bugprone-reserved-identifier): callers know the class by this name
  class KRU_EXPORT _AddrInfoExternal {
   public:
    static constexpr unsigned int kCapacity = 16;

    constexpr _AddrInfoExternal() = default;

    /// Asks the resolver, however long that takes; keeps the first 16 addresses, in its order.
    /// Throws `SocketException` when there is none.
    static _AddrInfoExternal resolve(const icu::UnicodeString& host, unsigned int port);

    /// Adds an IPv4 or IPv6 address in digits; port 0 stands for the port given to `connect`. False
    /// when the host is no such address, the port is above 65535, or there is no room.
    bool add(const icu::UnicodeString& numericHost, unsigned int port);

    unsigned int size() const noexcept { return size_; }

   private:
    friend class Connection;

    struct Entry {
      alignas(4) unsigned char bytes[28] = {};
      std::uint32_t length = 0;
    };

    void append(const void* address, std::uint32_t length) noexcept;

    Entry entries_[kCapacity] = {};
    std::uint32_t size_ = 0;
  };

  /// Empty: `connect` resolves the host by its name.
  static const _AddrInfoExternal NullAddrInfoExternal;

  /// Not connected.
  Socket();
  Socket(const Socket& other);
  Socket& operator=(const Socket& other);
  ~Socket();

  /// Closes what is open, then tries the given addresses, or all those of the host, in their order,
  /// until one accepts. The time-out holds for all of them together (each gets an equal share of
  /// what is left); null means none. Looking a name up is the resolver's business: neither a limit
  /// nor a hook nor the thread's cancellation can cut it short. After a failure the socket is not
  /// connected.
  void connect(const icu::UnicodeString& host, unsigned int port,
               const _AddrInfoExternal& addresses, const unsigned long* timeoutMillis);

  /// Copies the next `length` bytes to `buffer + offset`, waiting for them, and LEAVES them in the
  /// socket: the next read sees them again. Returns how many; fewer than `length` mean that the
  /// connection has ended, 0 that it was closed with nothing left. A reset is thrown once nothing
  /// is left. With a length of 0 it does not wait.
  unsigned long read(char* buffer, unsigned long offset, unsigned long length);

  /// TAKES what has arrived, at most `length` bytes, and waits if that is nothing; otherwise like
  /// `read`. A shorter buffer is first filled up with what can be received without waiting.
  unsigned long readOnce(char* buffer, unsigned long offset, unsigned long length);

  /// What is buffered, without a system call; empty when nothing is. Valid until the next operation
  /// on the socket or a copy of it.
  std::string_view peek() const noexcept;
  /// Takes that many bytes off the front of what is buffered; all of it when that is less.
  void consume(unsigned long length) noexcept;
  /// Receives at least one MORE byte into the buffer, in one receive, waiting for it as `readOnce`
  /// does. Returns how many bytes are buffered then; 0 when the peer has closed and no more will
  /// come. Throws when it has reset. Either way what is buffered stays.
  unsigned long fill();
  /// The same without waiting: 0 as well when nothing more has arrived or the peer has reset.
  unsigned long fillAtOnce();

  /// Returns when the kernel has taken all of it, or throws.
  void write(const char* data, unsigned long offset, unsigned long length);

  /// The same for bytes whose rest is written next: the kernel need not send them, and wake the
  /// peer for them, before it has the rest. A writer that then does not write it calls `pushOut`.
  void writeBeginning(const char* data, unsigned long offset, unsigned long length);
  /// Has sent what `writeBeginning` left with the kernel. Does nothing when not connected.
  void pushOut() noexcept;

  struct Piece {
    const char* data;
    unsigned long length;
  };
  /// The same for pieces that belong together, which leave in one call where the kernel has room.
  void write(const Piece* pieces, unsigned int count);

  /// Puts bytes back: the next read returns them before any others.
  void pushBack(const char* data, unsigned long length);

  /// Bytes that can be read without a system call.
  unsigned long buffered() const noexcept;

  enum class Look { Quiet, Data, Closed };
  /// Looks for bytes or a close of the peer, without waiting. What arrives is kept for the next
  /// read; a reset, or a socket that is not connected, counts as closed.
  Look look();

  /// Between a successful `connect` and the next `close`, whatever the peer has done since.
  bool isOpen() const noexcept;

  /// Does nothing when not connected. The socket is closed afterwards even if this throws.
  void close();

  /// Every wait of the operations above ends at this time with `SocketTimeoutException`. Bytes that
  /// arrived before stay in the buffer. Holds until it is set again; none at first.
  void setDeadline(Deadline deadline) noexcept;

  /// From now on every wait of the operations above, and of `select` with this socket alone, is the
  /// hook's, with a deadline or without; `host` is handed to it as it is. Null brings poll back.
  /// The hook holds for all copies of the socket and over its connections. After `GiveUp` the
  /// socket is as after a time-out, so part of a message may have been sent; a connect leaves none.
  void setWaitHook(WaitHook hook, void* host) noexcept;

  /// Holds the calling thread until the deadline, connected or not. The hook may end it earlier, by
  /// giving up.
  void pauseUntil(Deadline deadline);

  /// Waits until a socket of the lists can be read, written, or has urgent data; null means without
  /// limit. A reader with buffered bytes, or whose peer was seen to close, is ready at once. Leaves
  /// the ready sockets in the lists and returns their number; 0 after the time-out, and at once
  /// when the lists are empty. Throws when a socket is not connected. Deadlines play no part here.
  static int select(std::list<Socket>& readers, std::list<Socket>& writers,
                    std::list<Socket>& excepts, const unsigned long* timeoutMillis);

 private:
  std::shared_ptr<Connection> connection_;
};

}  // namespace tq::oss
