#include "comm/kruCorvaneClient.h"

#include <algorithm>
#include <limits>
#include <list>

#include "comm/kruFunctionIds.h"
#include "comm/kruRESTException.h"
#include "comm/kruRaise.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruClock.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruSocketException.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

constexpr const char* kFile = "kruCorvaneClient";
constexpr char16_t kNoHost[] = u"<unspecified>";
constexpr std::uint64_t kNanosPerMilli = 1000000;

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

bool CorvaneClient::isConnected() const { return connected_; }

const icu::UnicodeString& CorvaneClient::getHost() const { return host_; }

unsigned int CorvaneClient::getPort() const { return port_; }

void CorvaneClient::open() {
  const tq::oss::TraceScope trace(trace::CorvaneClientOpen);
  if (connected_) {
    if (persistent_) return;
    try {
      socket_.close();
    } catch (...) {
      // The connection is given up either way.
    }
    connected_ = false;
  }
  if (host_ == kNoHost) raise(StaticDefs::ERR_CONNECT_SERVER, kFile, __LINE__, host_, port_);
  connect();
  connected_ = true;
  ++connectionNumber_;
}

void CorvaneClient::connect() {
  const OperationScope operation(*this);
  try {
    socket_.connect(host_, port_, addresses_, timeOut_ != 0 ? &timeOut_ : nullptr);
  } catch (const tq::oss::SocketException& e) {
    if (deadlinePassed()) {
      raise(StaticDefs::ERR_SERVER_COMM_TIMEOUT, kFile, __LINE__, host_, port_);
    }
    // The system's own words travel with it.
    raise(StaticDefs::ERR_CONNECT_SERVER, kFile, __LINE__, host_, port_, e.getMessageList());
  } catch (const tq::oss::BaseException&) {
    raise(StaticDefs::ERR_CONNECT_SERVER, kFile, __LINE__, host_, port_);
  } catch (...) {
    raise(StaticDefs::ERR_CONNECT_SERVER, kFile, __LINE__, host_, port_);
  }
}

void CorvaneClient::close() {
  const tq::oss::TraceScope trace(trace::CorvaneClientClose);
  if (!connected_) return;
  try {
    socket_.close();
  } catch (...) {
    // Nobody can do anything about it; the connection counts as closed.
  }
  connected_ = false;
}

unsigned long CorvaneClient::read(char* buffer, unsigned long offset, unsigned long length,
                                  bool wait) {
  const tq::oss::TraceScope trace(trace::CorvaneClientRead);
  // The full read waits for all of the bytes and leaves them in the socket, the single one takes
  // them, so that they are delivered exactly once.
  dataToRead(wait);
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
  std::list<tq::oss::Socket> readers{socket_};
  std::list<tq::oss::Socket> writers;
  std::list<tq::oss::Socket> excepts;
  // Rounded up, so that a wait never ends just before the deadline; 0 when that came since the
  // caller looked.
  const std::uint64_t left = nanosToDeadline();
  const unsigned long allowed = std::min<unsigned long>(
      timeOut_, left / kNanosPerMilli + (left % kNanosPerMilli != 0 ? 1 : 0));
  if (tq::oss::Socket::select(readers, writers, excepts, &allowed) == 0) {
    raise(StaticDefs::ERR_SERVER_COMM_TIMEOUT, kFile, __LINE__, host_, port_);
  }
  return true;
}

unsigned long CorvaneClient::genericRead(char* buffer, unsigned long offset, unsigned long length,
                                         bool once) {
  const tq::oss::TraceScope trace(trace::CorvaneClientGenericRead);
  return once ? socket_.readOnce(buffer, offset, length) : socket_.read(buffer, offset, length);
}

unsigned long CorvaneClient::takeReplyBytes(char* buffer, unsigned long length) {
  try {
    // Bytes that are always there already would never let a wait find out.
    if (deadlinePassed()) {
      raise(StaticDefs::ERR_SERVER_COMM_TIMEOUT, kFile, __LINE__, host_, port_);
    }
    if (socket_.buffered() == 0) dataToRead(true);
    return genericRead(buffer, 0, length, true);
  } catch (const tq::oss::SocketTimeoutException&) {
    raise(StaticDefs::ERR_SERVER_COMM_TIMEOUT, kFile, __LINE__, host_, port_);
  }
}

bool CorvaneClient::deadlinePassed() const { return nanosToDeadline() == 0; }

std::uint64_t CorvaneClient::nanosToDeadline() const {
  if (deadlineNanos_ == 0) return std::numeric_limits<std::uint64_t>::max();
  const std::uint64_t now = tq::oss::monotonicNanos();
  return now < deadlineNanos_ ? deadlineNanos_ - now : 0;
}

CorvaneClient::OperationScope::OperationScope(CorvaneClient& client)
    : client_(client), outermost_(client.deadlineMillis_ != 0 && client.deadlineNanos_ == 0) {
  if (!outermost_) return;
  // Without a clock the sum wraps to a time that is over, or not further ahead than was asked for.
  client_.deadlineNanos_ =
      tq::oss::monotonicNanos() + std::uint64_t{client_.deadlineMillis_} * kNanosPerMilli;
  client_.socket_.setDeadline(client_.deadlineNanos_);
}

CorvaneClient::OperationScope::~OperationScope() {
  if (!outermost_) return;
  client_.deadlineNanos_ = 0;
  client_.socket_.setDeadline(0);
}

}  // namespace tq::comm
