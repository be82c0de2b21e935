#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "infra/oss/kruDeadline.h"
#include "infra/oss/kruExport.h"
#include "infra/oss/kruSocket.h"
#include "infra/oss/kruWaitHook.h"

namespace tq::oss {
class SocketException;
}

namespace tq::comm {

class ClientResponse;
class Details;
class Line;
class Raiser;

/// The one TCP connection between a caller and a search server: its address, its time-out and
/// whether it is kept from one exchange to the next. Base of the protocol clients.
/// Calls on one object must not overlap; different objects are independent. A forked child that
/// goes on with its copy gets a connection of its own from its first exchange, and the stream that
/// its parent has open ends there; writing and reading by hand would disturb the parent.
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
  // interface: a new one is declared after the last.

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

  /// With a hook this client waits in no other way, with or without a limit: not to connect, write
  /// or read, nor between attempts. A hook that gives up ends the operation with
  /// ERR_CLIENT_CANCELLED, without another attempt; the connection is closed, and the outcome is
  /// the same as if the time had run out. `host` is handed to the hook as it is and must live as
  /// long as the hook is set. Null, the default: the library waits by itself. See
  /// infra/oss/kruWaitHook.h for what a hook may do. A look-up of the host name does not go through
  /// it. From `dataToRead` and the reads by hand tq::oss::SocketCancelledException passes instead,
  /// and the connection stays.
  void setWaitHook(tq::oss::WaitHook hook, void* host);

  /// Keep the connection from one exchange to the next. Default: what the constructor was told.
  void usePeristentConnection(bool on);

  /// Let the binary client collect small messages into one write. Default: as constructed.
  void useBufferedConnection(bool on);

  /// The most bytes that a reply may announce for a chunk, a record, an error text or a whole body
  /// before it is refused with ERR_CLIENT_RESP_PARSING. Default 1 GiB; values above 2^31 - 1 count
  /// as that. What is only announced takes no memory. An error of the server that comes in chunks,
  /// each within the limit, and is longer as a whole stays the server's refusal: it is raised as
  /// ERR_SERVER_APP, without its reason.
  void setMaxReplyBytes(std::size_t bytes);

  bool isConnected() const;

  /// Changes with every connection that this client makes; 0 before the first one. A caller whose
  /// requests need one and the same connection compares it.
  std::uint64_t getConnectionNumber() const;

  const icu::UnicodeString& getHost() const;
  unsigned int getPort() const;

  /// Makes sure that a connection is up: keeps an open persistent one as it is, otherwise closes
  /// and connects. Throws ERR_CONNECT_SERVER; when the system refused the connection, its own
  /// message follows as the second one. A deadline that passes is ERR_SERVER_COMM_TIMEOUT, a hook
  /// that gives up ERR_CLIENT_CANCELLED.
  void open();

  /// Drops the connection, persistent or not. Never throws, whatever the system says and without
  /// memory, too.
  void close();

  /// Waits for `length` bytes or the peer's close and returns how many stand at `buffer + offset`;
  /// 0 means that the peer has closed. With `wait` the time-out applies, and always the deadline
  /// (ERR_SERVER_COMM_TIMEOUT). A broken connection is a tq::oss::SocketException.
  unsigned long read(char* buffer, unsigned long offset, unsigned long length, bool wait);

  /// Takes what has arrived, at most `length` bytes, and waits if that is nothing; 0 means that the
  /// peer has closed. `wait` is ignored: the time-out never applies here, and a
  /// deadline that passes is ERR_SERVER_COMM_TIMEOUT. Throws tq::oss::SocketException. Bytes that a
  /// caller takes are missing from the reply that they belong to: an open stream ends, and the next
  /// exchange takes a fresh connection. The same holds for `read` and `genericRead`.
  unsigned long readOnce(char* buffer, unsigned long offset, unsigned long length, bool wait);

  /// Waits until there is something to read. True at once when `wait` is false or no time-out is
  /// set; never false. A deadline that passes first ends the wait, too. Throws
  /// ERR_SERVER_COMM_TIMEOUT, and tq::oss::SocketException without a connection.
  bool dataToRead(bool wait);

  /// All reading by hand comes here. `once` takes what has come; else all is awaited, and left.
  unsigned long genericRead(char* buffer, unsigned long offset, unsigned long length, bool once);

 protected:
  /// Bounds everything that happens in its lifetime by the deadline. An inner scope changes
  /// nothing: the outermost operation counts.
  class OperationScope {
   public:
    explicit OperationScope(CorvaneClient& client);
    /// With a deadline of its own in MILLISECONDS, 0 for none, instead of the client's.
    OperationScope(CorvaneClient& client, unsigned int deadlineMillis);
    ~OperationScope();
    OperationScope(const OperationScope&) = delete;
    OperationScope& operator=(const OperationScope&) = delete;

   private:
    CorvaneClient& client_;
    bool outermost_;
  };

  /// In its lifetime all waits together take no longer than the time-out allows one of them.
  class SharedTimeOutScope {
   public:
    explicit SharedTimeOutScope(CorvaneClient& client);
    ~SharedTimeOutScope();
    SharedTimeOutScope(const SharedTimeOutScope&) = delete;
    SharedTimeOutScope& operator=(const SharedTimeOutScope&) = delete;

   private:
    CorvaneClient& client_;
    tq::oss::Deadline before_;
  };

  /// What holds for the current operation.
  const tq::oss::Deadline& deadline() const { return deadline_; }

  /// Waits, within the time-out and the deadline, until `count` bytes are in the socket's buffer,
  /// where they stay. False: the peer has closed before. Throws ERR_SERVER_COMM_TIMEOUT,
  /// ERR_CLIENT_CANCELLED and, on a broken connection, tq::oss::SocketException.
  bool awaitReplyBytes(std::size_t count);

  /// What a failure at this server says: its host and port as arguments, and a reason if there is
  /// one.
  Details atServer(const char16_t* reason = nullptr) const;

  /// Raises what the failure means when it is the end of a permitted wait: a passed limit is
  /// ERR_SERVER_COMM_TIMEOUT; a hook that gave up is ERR_CLIENT_CANCELLED and closes the
  /// connection.
  void failIfWaitEnded(const Raiser& fail, const tq::oss::SocketException& failure,
                       unsigned long line = __builtin_LINE());

  tq::oss::Socket socket_;
  icu::UnicodeString host_;
  unsigned int port_;
  bool persistent_;
  bool buffered_;
  std::size_t maxReplyBytes_ = std::size_t{1} << 30;
  std::unique_ptr<Line> line_;

 private:
  // One pull of its may take several portions.
  friend class ClientResponse;

  void connect();
  void dropConnection();
  bool awaitMoreReplyBytes();
  bool fill();
  void limitBy(const tq::oss::Deadline& deadline);

  unsigned long timeOut_ = 0;
  tq::oss::Socket::_AddrInfoExternal addresses_;
  unsigned int deadlineMillis_ = 0;
  bool inOperation_ = false;
  tq::oss::Deadline deadline_;
};

}  // namespace tq::comm
