#include "comm/kruCorvaneClient.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <list>

#include "comm/kruFunctionIds.h"
#include "comm/kruLine.h"
#include "comm/kruRESTException.h"
#include "comm/kruRaise.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

constexpr Raiser fail("kruCorvaneClient");
constexpr char16_t kNoHost[] = u"<unspecified>";

}  // namespace

CorvaneClient::CorvaneClient()
    : CorvaneClient(icu::UnicodeString(kNoHost), 0, tq::oss::Socket::NullAddrInfoExternal, false,
                    false) {}

CorvaneClient::CorvaneClient(const icu::UnicodeString& host, unsigned int port,
                             const tq::oss::Socket::_AddrInfoExternal& addresses, bool persistent,
                             bool buffered)
    : host_(host),
      port_(port),
      persistent_(persistent),
      buffered_(buffered),
      line_(std::make_unique<Line>()),
      addresses_(addresses) {
  tq::oss::Converter::checked(host_);
}

CorvaneClient::~CorvaneClient() = default;

void CorvaneClient::setTimeOut(unsigned int milliseconds) { timeOut_ = milliseconds; }

void CorvaneClient::setDeadline(unsigned int milliseconds) { deadlineMillis_ = milliseconds; }

void CorvaneClient::usePeristentConnection(bool on) { persistent_ = on; }

void CorvaneClient::useBufferedConnection(bool on) { buffered_ = on; }

void CorvaneClient::setMaxReplyBytes(std::size_t bytes) {
  maxReplyBytes_ = std::min<std::size_t>(bytes, std::numeric_limits<int>::max());
}

void CorvaneClient::setWaitHook(tq::oss::WaitHook hook, void* host) {
  socket_.setWaitHook(hook, host);
}

bool CorvaneClient::isConnected() const { return line_->state() != Line::State::NotConnected; }

std::uint64_t CorvaneClient::getConnectionNumber() const { return line_->connectionNumber(); }

const icu::UnicodeString& CorvaneClient::getHost() const { return host_; }

unsigned int CorvaneClient::getPort() const { return port_; }

void CorvaneClient::open() {
  const tq::oss::TraceScope trace(trace::CorvaneClientOpen);
  if (isConnected()) {
    if (persistent_) return;
    dropConnection();
  }
  if (host_ == kNoHost) fail(StaticDefs::ERR_CONNECT_SERVER, atServer());
  connect();
  line_->connected();
}

void CorvaneClient::connect() {
  const OperationScope operation(*this);
  try {
    socket_.connect(host_, port_, addresses_, timeOut_ != 0 ? &timeOut_ : nullptr);
  } catch (const tq::oss::SocketCancelledException& e) {
    failIfWaitEnded(fail, e);
  } catch (const tq::oss::SocketException& e) {
    if (deadline_.passed()) fail(StaticDefs::ERR_SERVER_COMM_TIMEOUT, atServer());
    // The system's own words travel with it.
    fail(StaticDefs::ERR_CONNECT_SERVER, atServer().cause(e.getMessageList()));
  } catch (const tq::oss::BaseException&) {
    fail(StaticDefs::ERR_CONNECT_SERVER, atServer());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    fail(StaticDefs::ERR_CONNECT_SERVER, atServer());
  }
}

void CorvaneClient::close() {
  const tq::oss::TraceScope trace(trace::CorvaneClientClose);
  if (isConnected()) dropConnection();
}

void CorvaneClient::dropConnection() {
  line_->closed();
  try {
    socket_.close();
  } catch (...) {
    // The descriptor is released even when the system reports an error, and when there is no memory
    // to make an exception of that, so nothing is left to do. No thread is cancelled in a close.
  }
}

unsigned long CorvaneClient::read(char* buffer, unsigned long offset, unsigned long length,
                                  bool wait) {
  const tq::oss::TraceScope trace(trace::CorvaneClientRead);
  const OperationScope operation(*this);
  // The full read waits for all of the bytes and leaves them in the socket, the single one takes
  // them, so that they are delivered exactly once.
  dataToRead(wait);
  // The wait above ends with the first byte. Each wait for another has the time-out as well.
  try {
    while (wait && socket_.buffered() < length) {
      const SharedTimeOutScope timeOut(*this);
      if (socket_.fill() == 0) break;
    }
  } catch (const tq::oss::SocketTimeoutException&) {
    fail(StaticDefs::ERR_SERVER_COMM_TIMEOUT, atServer());
  } catch (const tq::oss::SocketCancelledException&) {
    throw;
  } catch (const tq::oss::SocketException&) {
    // The full read gives what has come before the connection broke.
  }
  genericRead(buffer, offset, length, false);
  dataToRead(wait);
  return genericRead(buffer, offset, length, true);
}

unsigned long CorvaneClient::readOnce(char* buffer, unsigned long offset, unsigned long length,
                                      bool) {
  const tq::oss::TraceScope trace(trace::CorvaneClientReadOnce);
  return genericRead(buffer, offset, length, true);
}

bool CorvaneClient::dataToRead(bool wait) {
  const tq::oss::TraceScope trace(trace::CorvaneClientDataToRead);
  if (!wait || timeOut_ == 0) return true;
  const OperationScope operation(*this);
  std::list<tq::oss::Socket> readers{socket_};
  std::list<tq::oss::Socket> writers;
  std::list<tq::oss::Socket> excepts;
  const unsigned long allowed = std::min<std::uint64_t>(timeOut_, deadline_.leftMillis());
  if (tq::oss::Socket::select(readers, writers, excepts, &allowed) == 0) {
    fail(StaticDefs::ERR_SERVER_COMM_TIMEOUT, atServer());
  }
  return true;
}

unsigned long CorvaneClient::genericRead(char* buffer, unsigned long offset, unsigned long length,
                                         bool once) {
  const tq::oss::TraceScope trace(trace::CorvaneClientGenericRead);
  const OperationScope operation(*this);
  try {
    if (!once) return socket_.read(buffer, offset, length);
    const unsigned long taken = socket_.readOnce(buffer, offset, length);
    if (taken != 0) line_->disturb();
    return taken;
  } catch (const tq::oss::SocketTimeoutException&) {
    fail(StaticDefs::ERR_SERVER_COMM_TIMEOUT, atServer());
  }
}

bool CorvaneClient::awaitReplyBytes(std::size_t count) {
  while (socket_.buffered() < count) {
    // A peer that always has a byte ready makes no wait necessary, and only waits look at the
    // clock.
    if (deadline_.passed()) fail(StaticDefs::ERR_SERVER_COMM_TIMEOUT, atServer());
    try {
      if (!awaitMoreReplyBytes()) return false;
    } catch (const tq::oss::SocketException& e) {
      failIfWaitEnded(fail, e);
      throw;
    }
  }
  return true;
}

bool CorvaneClient::awaitMoreReplyBytes() {
  // The receive itself is bounded too: a socket with buffered bytes counts as readable, and one
  // that was reported readable may have nothing after all.
  const SharedTimeOutScope timeOut(*this);
  // With an empty buffer the reply has most likely not arrived yet, so waiting comes first.
  if (socket_.buffered() == 0) dataToRead(true);
  return fill();
}

bool CorvaneClient::fill() {
  const tq::oss::TraceScope trace(trace::CorvaneClientGenericRead);
  return socket_.fill() != 0;
}

void CorvaneClient::failIfWaitEnded(const Raiser& raiser, const tq::oss::SocketException& failure,
                                    unsigned long line) {
  if (dynamic_cast<const tq::oss::SocketTimeoutException*>(&failure) != nullptr) {
    raiser(StaticDefs::ERR_SERVER_COMM_TIMEOUT, atServer(), line);
  }
  if (dynamic_cast<const tq::oss::SocketCancelledException*>(&failure) != nullptr) {
    close();
    raiser(StaticDefs::ERR_CLIENT_CANCELLED, atServer(), line);
  }
}

Details CorvaneClient::atServer(const char16_t* reason) const {
  return (reason != nullptr ? Details(reason) : Details()).server(host_, port_);
}

void CorvaneClient::limitBy(const tq::oss::Deadline& deadline) {
  deadline_ = deadline;
  socket_.setDeadline(deadline);
}

CorvaneClient::OperationScope::OperationScope(CorvaneClient& client)
    : OperationScope(client, client.deadlineMillis_) {}

CorvaneClient::OperationScope::OperationScope(CorvaneClient& client, unsigned int deadlineMillis)
    : client_(client), outermost_(!client.inOperation_) {
  if (!outermost_) return;
  client_.inOperation_ = true;
  if (deadlineMillis != 0) client_.limitBy(tq::oss::Deadline::in(deadlineMillis));
}

CorvaneClient::OperationScope::~OperationScope() {
  if (!outermost_) return;
  client_.inOperation_ = false;
  if (!client_.deadline_.isNone()) client_.limitBy(tq::oss::Deadline::none());
}

CorvaneClient::SharedTimeOutScope::SharedTimeOutScope(CorvaneClient& client)
    : client_(client), before_(client.deadline_) {
  if (client_.timeOut_ == 0) return;
  client_.limitBy(tq::oss::Deadline::earlier(before_, tq::oss::Deadline::in(client_.timeOut_)));
}

CorvaneClient::SharedTimeOutScope::~SharedTimeOutScope() { client_.limitBy(before_); }

}  // namespace tq::comm
