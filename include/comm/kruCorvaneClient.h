#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <cstdint>

#include "infra/oss/kruExport.h"
#include "infra/oss/kruSocket.h"

namespace tq::comm {

class ClientResponse;

/// The one TCP connection between a caller and a search server: its address, its time-out and
/// whether it is kept from one exchange to the next. Base of the protocol clients.
/// One object serves one thread at a time; different objects need no locking.
///
/// Every failure is a RESTException whose first message has the server's host (text) and port
/// (digits) as its two arguments, unless said otherwise. All times are in MILLISECONDS.
class KRU_EXPORT CorvaneClient {
 public:
  /// Host "<unspecified>", port 0: `open()` fails at once.
  CorvaneClient();

  /// Neither resolves nor connects. `addresses` are used instead of a name look-up when there are
  /// any; they are copied. A bogus host, for which ICU got no memory, throws tq::oss::NLSException
  /// "TQ_ERR_OUT_OF_MEMORY".
  CorvaneClient(const icu::UnicodeString& host, unsigned int port,
                const tq::oss::Socket::_AddrInfoExternal& addresses, bool persistent,
                bool buffered);

  CorvaneClient(const CorvaneClient&) = delete;
  CorvaneClient& operator=(const CorvaneClient&) = delete;

  // The order of the virtual operations, here and in the derived clients, is part of the binary
  // interface: a new one is declared behind the last.

  /// MILLISECONDS that connecting may take, and each single wait for reply bytes. Default 0: none.
  /// Writing is not bounded by it; the deadline bounds everything.
  virtual void setTimeOut(unsigned int milliseconds);

  /// Releases the connection without `close()`.
  virtual ~CorvaneClient();

  /// MILLISECONDS that one whole operation may take: connecting, writing, waiting and all retries
  /// together, or all portions that one pull takes, on the monotonic clock. Default 0: none. When
  /// they are over, or the clock cannot be read, the operation raises ERR_SERVER_COMM_TIMEOUT. A
  /// look-up of the host name cannot be interrupted: give the client resolved addresses where that
  /// matters.
  void setDeadline(unsigned int milliseconds);

  /// Keep the connection from one exchange to the next. Default: what the constructor was told.
  void usePeristentConnection(bool on);

  /// Let the binary client collect small messages into one write. Default: as constructed.
  void useBufferedConnection(bool on);

  /// The most bytes that a reply may announce for a chunk, a record, an error text or a whole body
  /// before it is refused with ERR_CLIENT_RESP_PARSING. Default 1 GiB; values above 2^31 - 1 count
  /// as that. Memory grows with the bytes that arrive, never with the bytes that are announced.
  void setMaxReplyBytes(std::size_t bytes);

  bool isConnected() const;
  const icu::UnicodeString& getHost() const;
  unsigned int getPort() const;

  /// Makes sure that a connection is up: keeps an open persistent one as it is, otherwise closes
  /// and connects. Throws ERR_CONNECT_SERVER; when the system refused the connection, its own
  /// message follows as the second one.
  void open();

  /// Drops the connection, persistent or not. Never throws.
  void close();

  /// Waits for `length` bytes or the peer's close and returns how many stand at `buffer + offset`;
  /// 0 means that the peer has closed. With `wait` the time-out applies (ERR_SERVER_COMM_TIMEOUT).
  /// A broken connection is a tq::oss::SocketException.
  unsigned long read(char* buffer, unsigned long offset, unsigned long length, bool wait);

  /// Waits for at least one byte and takes up to `length`; 0 means that the peer has closed.
  /// `wait` is ignored: the time-out never applies here. Throws tq::oss::SocketException.
  unsigned long readOnce(char* buffer, unsigned long offset, unsigned long length, bool wait);

  /// Waits until there is something to read. True at once when `wait` is false or no time-out is
  /// set; never false. Throws ERR_SERVER_COMM_TIMEOUT.
  bool dataToRead(bool wait);

  /// The single place where the socket is read; `once` chooses between one read and a full one.
  unsigned long genericRead(char* buffer, unsigned long offset, unsigned long length, bool once);

 protected:
  /// Bounds everything that happens in its lifetime by the deadline. An inner scope changes
  /// nothing: the outermost operation counts.
  class OperationScope {
   public:
    explicit OperationScope(CorvaneClient& client);
    ~OperationScope();
    OperationScope(const OperationScope&) = delete;
    OperationScope& operator=(const OperationScope&) = delete;

   private:
    CorvaneClient& client_;
    bool outermost_;
  };

  /// True when the current operation has a deadline and it is over.
  bool deadlinePassed() const;
  /// Nanoseconds that the current operation has left; the largest value without a deadline.
  std::uint64_t nanosToDeadline() const;

  /// Waits for reply bytes within the time-out and the deadline, then takes up to `length`.
  /// 0: the peer has closed.
  unsigned long takeReplyBytes(char* buffer, unsigned long length);

  tq::oss::Socket socket_;
  icu::UnicodeString host_;
  unsigned int port_;
  bool connected_ = false;
  bool persistent_;
  bool buffered_;
  /// Changes with every connection that is made.
  std::uint64_t connectionNumber_ = 0;
  std::size_t maxReplyBytes_ = std::size_t{1} << 30;

 private:
  // One pull of its may take several portions.
  friend class ClientResponse;

  void connect();

  unsigned long timeOut_ = 0;
  tq::oss::Socket::_AddrInfoExternal addresses_;
  unsigned int deadlineMillis_ = 0;
  std::uint64_t deadlineNanos_ = 0;
};

}  // namespace tq::comm
