#include "infra/oss/kruSocket.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <type_traits>
#include <vector>

#include "infra/oss/kruConnection.h"
#include "infra/oss/kruSocketException.h"

namespace tq::oss {

constinit const Socket::_AddrInfoExternal Socket::NullAddrInfoExternal{};

static_assert(std::is_trivially_copyable_v<Socket::_AddrInfoExternal>);
static_assert(std::is_trivially_destructible_v<Socket::_AddrInfoExternal>);

Socket::_AddrInfoExternal Socket::_AddrInfoExternal::resolve(const icu::UnicodeString& host,
                                                             unsigned int port) {
  _AddrInfoExternal result;
  for (const Address& address : resolveHost(host, port)) {
    if (result.size_ < kCapacity) result.append(&address.storage, address.length);
  }
  return result;
}

bool Socket::_AddrInfoExternal::add(const icu::UnicodeString& numericHost, unsigned int port) {
  Address address;
  if (size_ == kCapacity || !parseNumericHost(numericHost, port, address)) return false;
  append(&address.storage, address.length);
  return true;
}

void Socket::_AddrInfoExternal::append(const void* address, std::uint32_t length) noexcept {
  Entry& entry = entries_[size_++];
  entry.length = length;
  std::memcpy(entry.bytes, address, length);
}

Socket::Socket() : connection_(std::make_shared<Connection>()) {}
Socket::Socket(const Socket& other) = default;
Socket& Socket::operator=(const Socket& other) = default;
Socket::~Socket() = default;

void Socket::connect(const icu::UnicodeString& host, unsigned int port,
                     const _AddrInfoExternal& addresses, const unsigned long* timeoutMillis) {
  connection_->connect(host, port, addresses, timeoutMillis);
}

unsigned long Socket::read(char* buffer, unsigned long offset, unsigned long length) {
  return length == 0 ? 0 : connection_->read(buffer + offset, length);
}

unsigned long Socket::readOnce(char* buffer, unsigned long offset, unsigned long length) {
  return length == 0 ? 0 : connection_->readOnce(buffer + offset, length);
}

std::string_view Socket::peek() const noexcept { return connection_->peek(); }
void Socket::consume(unsigned long length) noexcept { connection_->consume(length); }
unsigned long Socket::fill() { return connection_->fill(); }
unsigned long Socket::fillAtOnce() { return connection_->fillAtOnce(); }

void Socket::write(const char* data, unsigned long offset, unsigned long length) {
  const Piece piece{data + offset, length};
  connection_->write(&piece, 1);
}

void Socket::write(const Piece* pieces, unsigned int count) { connection_->write(pieces, count); }

void Socket::writeBeginning(const char* data, unsigned long offset, unsigned long length) {
  const Piece piece{data + offset, length};
  connection_->write(&piece, 1, MSG_MORE);
}

void Socket::pushOut() noexcept { connection_->pushOut(); }

void Socket::pushBack(const char* data, unsigned long length) {
  connection_->pushBack(data, length);
}

unsigned long Socket::buffered() const noexcept { return connection_->buffered(); }
Socket::Look Socket::look() { return connection_->look(); }
bool Socket::isOpen() const noexcept { return connection_->isOpen(); }
void Socket::close() { connection_->close(); }

void Socket::setDeadline(Deadline deadline) noexcept { connection_->setDeadline(deadline); }

void Socket::setWaitHook(WaitHook hook, void* host) noexcept {
  connection_->setWaiter(Waiter(hook, host));
}

void Socket::pauseUntil(Deadline deadline) { connection_->pauseUntil(deadline); }

namespace {

/// The sockets of the three lists, one entry each, list after list.
class Selection {
 public:
  void add(const Connection& connection, short events) {
    connection.requireOpen(u"wait for");
    entries_.push_back({connection.descriptor(), events, 0});
    waiter_ = entries_.size() == 1 ? connection.waiter() : Waiter();
    const bool ready = events == POLLIN && connection.readable();
    known_.push_back(ready);
    anyKnown_ = anyKnown_ || ready;
    allKnown_ = allKnown_ && ready;
  }

  void wait(const icu::UnicodeString& what, const unsigned long* timeoutMillis) {
    if (allKnown_) return;
    Deadline deadline;
    if (anyKnown_) {
      deadline = Deadline::at(0);
    } else if (timeoutMillis != nullptr) {
      deadline = Deadline::in(*timeoutMillis);
    }
    // A hook waits for one descriptor.
    if (waiter_.hooked()) return waitInHook(what, deadline);
    if (pollUntil(entries_.data(), entries_.size(), deadline) < 0) {
      throw SocketException(what, errno);
    }
  }

  bool ready(std::size_t i) const { return known_[i] || entries_[i].revents != 0; }

 private:
  void waitInHook(const icu::UnicodeString& what, Deadline deadline) {
    const Waited waited = waiter_.untilPolled(entries_.front(), deadline);
    if (waited == Waited::GivenUp) throw SocketCancelledException(what);
    if (waited == Waited::Failed) throw SocketException(what, errno);
  }

  std::vector<pollfd> entries_;
  Waiter waiter_;
  std::vector<bool> known_;
  bool anyKnown_ = false;
  bool allKnown_ = true;
};

}  // namespace

int Socket::select(std::list<Socket>& readers, std::list<Socket>& writers,
                   std::list<Socket>& excepts, const unsigned long* timeoutMillis) {
  Selection selection;
  for (const Socket& s : readers) selection.add(*s.connection_, POLLIN);
  for (const Socket& s : writers) selection.add(*s.connection_, POLLOUT);
  for (const Socket& s : excepts) selection.add(*s.connection_, POLLPRI);
  selection.wait(u"wait for sockets", timeoutMillis);
  std::size_t at = 0;
  int count = 0;
  for (std::list<Socket>* list : {&readers, &writers, &excepts}) {
    for (auto it = list->begin(); it != list->end(); ++at) {
      if (selection.ready(at)) {
        ++count;
        ++it;
      } else {
        it = list->erase(it);
      }
    }
  }
  return count;
}

}  // namespace tq::oss
