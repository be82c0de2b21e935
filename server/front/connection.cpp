#include "server/front/connection.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/front/documentText.h"
#include "server/front/requestValues.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} << 10U;
// Maximum number of consecutive reads before other connections get their turn.
constexpr int kReadsPerTurn = 16;
// Requests up to this size are served from what the budget keeps for small uses.
constexpr std::size_t kSmallRequest = std::size_t{256} << 10U;
// The content as it is received, its copy when it is decoded, and the entry of the journal, which
// is put together in two steps.
constexpr std::size_t kContentCopies = 4;
// Documents that come together: of the smallest ones each takes twenty times its bytes once it is
// decoded.
constexpr std::size_t kManyDocumentsCopies = 20;
// A header's place in the request's map.
constexpr std::size_t kHeaderCost = 160;
// How long the server keeps reading after it has refused a request that it could not decode. If it
// closed at once while the client still sends, the client's system would discard the reply.
constexpr std::chrono::milliseconds kDrainTime{2000};
// How many clients at a time are told that there are too many. The others are closed at once.
constexpr std::size_t kMaxTurnedAway = 64;

// One buffer per thread, not per connection: of thousands of connections most are idle.
std::array<char, kReadBytes>& readBuffer() {
  thread_local std::array<char, kReadBytes> buffer;
  return buffer;
}

bool isXml(std::string_view type) {
  return type == words().xml || type == words().xmlText || type == words().xmlApplication;
}

// A document that may declare a charset of its own can have any. Reading XML takes memory for its
// names, too.
std::size_t growthOf(const Request& request, const DocumentReading& defaults) {
  std::size_t growth = 0;
  for (const std::string& name : {words().charset, words().knownCharset}) {
    const std::string charset(request.header(name));
    if (!charset.empty()) growth = std::max(growth, growthInUtf8(charset));
  }
  if (growth == 0 && !defaults.charset.empty()) growth = growthInUtf8(defaults.charset);
  bool saysType = false;
  for (const std::string& name :
       {words().documentType, words().knownDocumentType, words().mimeType}) {
    const std::string_view type = request.header(name);
    if (type.empty() || type == words().undefinedType) continue;
    saysType = true;
    if (type == words().text || type == words().plainText || (growth > 0 && !isXml(type))) continue;
    growth = std::max(growth, growthInUtf8({}));
  }
  const bool declares = growth == 0 && defaults.form.type == TextType::Html;
  if (!saysType && (declares || defaults.form.type == TextType::Xml)) growth = growthInUtf8({});
  return std::max<std::size_t>(growth, 1);
}

std::size_t copiesOf(const Request& request, const DocumentReading& defaults) {
  const std::size_t copies = kContentCopies * growthOf(request, defaults);
  const bool several = request.header(words().match) == words().severalDocuments ||
                       !request.header(words().batch).empty();
  if (!several) return copies;
  return kManyDocumentsCopies + copies - kContentCopies;
}

std::size_t bytesFor(const Request& request, std::uint64_t contentBytes,
                     const DocumentReading& defaults) {
  std::size_t bytes = static_cast<std::size_t>(contentBytes) * copiesOf(request, defaults);
  for (const auto& [name, value] : request.headers)
    bytes += kHeaderCost + name.size() + value.size();
  return bytes;
}

MemoryBudget::Use useOf(std::size_t bytes) {
  return bytes <= kSmallRequest ? MemoryBudget::Use::Small : MemoryBudget::Use::Large;
}

std::size_t mebibytes(std::size_t bytes) { return (bytes >> 20U) + 1; }

ServerError neverFits(std::uint64_t contentBytes, std::size_t bytes, const MemoryBudget& memory) {
  return {ErrorKind::RequestTooLarge,
          fmt::format("a request of {} bytes needs {} MiB of memory, and the server has "
                      "{} in all; send a smaller one, or raise --max-memory",
                      contentBytes, mebibytes(bytes), mebibytes(memory.limit()))};
}

ServerError doesNotFitNow(std::size_t bytes) {
  return {ErrorKind::TryAgain,
          fmt::format("the request needs {} MiB of memory, which other requests have in use; try "
                      "again, or raise --max-memory",
                      mebibytes(bytes))};
}

std::shared_ptr<MemoryBudget> withoutLimit() {
  return std::make_shared<MemoryBudget>(std::numeric_limits<std::size_t>::max());
}

}  // namespace

ConnectionContext::ConnectionContext(Dispatcher& dispatcher, const ServerOptions& options)
    : dispatcher_(dispatcher),
      options_(options),
      memory_(options.memory ? options.memory : withoutLimit()),
      readers_(options.readThreads),
      writers_(options.writeThreads),
      checkers_(options.lookUpThreads),
      placesToLookUp_(options.lookUpThreads),
      indexers_(options.indexThreads),
      deleters_(options.deleteThreads),
      informers_(options.statusThreads) {}

asio::thread_pool& ConnectionContext::workers(Workload workload) {
  switch (workload) {
    case Workload::Write:
      return writers_;
    case Workload::LookUp:
      return checkers_;
    case Workload::Index:
      return indexers_;
    case Workload::Delete:
      return deleters_;
    case Workload::Status:
      return informers_;
    case Workload::Survey:
      return surveyor_;
    case Workload::Read:
      break;
  }
  return readers_;
}

std::unique_ptr<Outlet> ConnectionContext::outlet(ClientSocket& socket, Framing framing) {
  return options_.outlets ? options_.outlets->make(socket, framing) : plainOutlet(socket);
}

bool ConnectionContext::enter(const std::shared_ptr<Connection>& connection) {
  const std::lock_guard lock(mutex_);
  if (stopping_ || connections_.size() >= options_.connections) return false;
  connections_.insert(connection);
  dispatcher_.metrics().connectionTaken();
  return true;
}

bool ConnectionContext::enterToBeTurnedAway(const std::shared_ptr<Connection>& connection) {
  const std::lock_guard lock(mutex_);
  dispatcher_.metrics().connectionTurnedAway();
  if (stopping_ || turnedAway_.size() >= kMaxTurnedAway) return false;
  turnedAway_.insert(connection);
  return true;
}

void ConnectionContext::leave(const std::shared_ptr<Connection>& connection) {
  const std::lock_guard lock(mutex_);
  if (connections_.erase(connection) > 0) dispatcher_.metrics().connectionEnded();
  turnedAway_.erase(connection);
  left_.notify_all();
}

std::vector<std::shared_ptr<Connection>> ConnectionContext::snapshot() {
  const std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<Connection>> all(connections_.begin(), connections_.end());
  all.insert(all.end(), turnedAway_.begin(), turnedAway_.end());
  return all;
}

void ConnectionContext::stopConnections() {
  stopping_ = true;
  for (const auto& connection : snapshot()) connection->finish();
  {
    std::unique_lock lock(mutex_);
    left_.wait_for(lock, options_.stopTimeout,
                   [&] { return connections_.empty() && turnedAway_.empty(); });
  }
  for (const auto& connection : snapshot()) connection->abort();
}

void ConnectionContext::requestWaits() {
  const std::lock_guard lock(mutex_);
  ++waiting_;
}

void ConnectionContext::requestGoesOn() {
  const std::lock_guard lock(mutex_);
  --waiting_;
  left_.notify_all();
}

void ConnectionContext::joinWorkers() {
  {
    std::unique_lock lock(mutex_);
    left_.wait(lock, [&] { return waiting_ == 0; });
  }
  readers_.join();
  writers_.join();
  checkers_.join();
  indexers_.join();
  deleters_.join();
  informers_.join();
  surveyor_.join();
  gatekeeper_.join();
}

Connection::Connection(Socket socket, Framing framing, ConnectionContext& context)
    : socket_(std::move(socket)),
      timer_(socket_.get_executor()),
      framing_(framing),
      context_(context),
      decoder_(framing, context.options().limits, this),
      outlet_(context.outlet(socket_, framing)),
      inputMemory_(context.memory()),
      aheadMemory_(context.memory()),
      requestMemory_(context.memory()),
      outputMemory_(context.memory()) {}

// A peer that is gone without a word is noticed after two minutes.
void Connection::setSocketOptions() {
  std::error_code ignored;
  socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
  socket_.non_blocking(true, ignored);
  socket_.set_option(asio::socket_base::keep_alive(true), ignored);
  const auto set = [&](int option, int value) {
    ::setsockopt(socket_.native_handle(), IPPROTO_TCP, option, &value, sizeof value);
  };
  set(TCP_KEEPIDLE, 60);
  set(TCP_KEEPINTVL, 15);
  set(TCP_KEEPCNT, 4);
}

void Connection::turnAway() {
  handOver_.post(socket_.get_executor(), [self = shared_from_this()] {
    self->setSocketOptions();
    self->guarded([&] {
      self->endWith(FramingError(
          ErrorKind::TryAgain,
          fmt::format("the server has {} connections, the most that it takes; close one, try again "
                      "later, or raise --max-connections",
                      self->context_.options().connections)));
    });
  });
}

void Connection::notePeer() {
  std::error_code error;
  const asio::ip::tcp::endpoint peer = socket_.remote_endpoint(error);
  fromThisMachine_ = !error && peer.address().is_loopback();
}

// The server may be stopped meanwhile, which closes the socket in its strand.
void Connection::start() {
  handOver_.post(socket_.get_executor(), [self = shared_from_this()] {
    self->setSocketOptions();
    self->notePeer();
    self->guarded([&] { self->proceed(); });
  });
}

void Connection::finish() {
  handOver_.post(socket_.get_executor(), [self = shared_from_this()] {
    const State state = self->state_;
    if (state == State::Listening || state == State::Waiting || state == State::Draining) {
      self->close();
    }
  });
}

void Connection::abort() {
  handOver_.post(socket_.get_executor(), [self = shared_from_this()] { self->close(); });
}

// A failure, such as lack of memory, ends the connection that caused it and no other.
template <typename Step>
void Connection::guarded(const Step& step) {
  try {
    step();
  } catch (const std::exception& error) {
    spdlog::warn("connection ended: {}", error.what());
    close();
  }
}

void Connection::watch() {
  if (watching_ || inputEnded_ || ahead_.size() >= kReadBytes) return;
  watching_ = true;
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](std::error_code error) {
    self->watching_ = false;
    if (error || self->state_ == State::Closed) return self->close();
    self->guarded([&] { self->readable(); });
  });
}

void Connection::readable() {
  if (state_ == State::Listening) return readBytes();
  if (state_ == State::Draining) return drain();
  readAhead();
}

void Connection::readAhead() {
  std::array<char, kReadBytes>& buffer = readBuffer();
  std::error_code error;
  const std::size_t room = kReadBytes - ahead_.size();
  const std::size_t count = socket_.read_some(asio::buffer(buffer, room), error);
  const auto now = RequestContext::Clock::now();
  if (error == asio::error::eof) {
    inputEnded_ = true;
    clientGoneAt(now + context_.options().hangupGrace);
  } else if (error && error != asio::error::would_block) {
    // The end of the reply will close the connection.
    inputEnded_ = true;
    clientGoneAt(now);
  }
  ahead_.append(buffer.data(), count);
  aheadMemory_.force(ahead_.capacity());
  watch();
}

// Only when the decoder needs more: a client that sends without end must not fill it.
void Connection::takeWhatWasReadAhead() {
  if (ahead_.empty()) return;
  decoder_.feed(ahead_);
  std::string().swap(ahead_);
  aheadMemory_.force(0);
}

void Connection::clientGoneAt(RequestContext::Clock::time_point time) {
  if (request_) request_->cancelAt(time);
}

void Connection::waitForBytes() {
  state_ = State::Listening;
  const ServerOptions& options = context_.options();
  if (decoder_.idle()) {
    startTimer(options.idleTimeout, &Connection::close);
    return watch();
  }
  const auto now = RequestContext::Clock::now();
  // Whoever is refused has had the reply.
  const bool discards = decoder_.discards();
  const auto limit = discards ? discardTime_ : options.requestTimeout;
  auto& until = discards ? discardedBy_ : receivedBy_;
  if (!until) until = now + limit;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*until - now);
  if (limit.count() != 0 && (options.stallTimeout.count() == 0 || left < options.stallTimeout)) {
    startTimer(std::max(left, std::chrono::milliseconds(1)),
               discards ? &Connection::close : &Connection::requestTookTooLong);
  } else {
    startTimer(options.stallTimeout, &Connection::close);
  }
  watch();
}

void Connection::requestTookTooLong() {
  refuse(FramingError(ErrorKind::TimedOut,
                      fmt::format("the request was not complete after {} ms; send it faster, in "
                                  "smaller parts, or raise --request-timeout",
                                  context_.options().requestTimeout.count())));
}

// Content is read for as long as its connection may, since its memory is set aside. Of anything
// else no more is taken than one read gives.
void Connection::readBytes() {
  std::array<char, kReadBytes>& buffer = readBuffer();
  for (int turn = 0; turn < kReadsPerTurn && !inputEnded_; ++turn) {
    const std::uint64_t missing = decoder_.missingBytes();
    if (turn > 0 && missing == 0) break;
    const std::size_t size =
        missing > 0 ? std::min<std::uint64_t>(missing, kReadBytes) : kReadBytes;
    std::error_code error;
    const std::size_t count = socket_.read_some(asio::buffer(buffer, size), error);
    if (error == asio::error::would_block) break;
    if (error == asio::error::eof) {
      inputEnded_ = true;
    } else if (error) {
      return close();
    }
    decoder_.feed({buffer.data(), count});
    if (count < size) break;
  }
  proceed();
}

void Connection::proceed() {
  if (context_.stopping()) return close();
  try {
    if (!queued_ && !decoder_.ready()) takeWhatWasReadAhead();
  } catch (const FramingError& error) {
    return refuse(error);
  }
  if (!inputMemory_.resize(decoder_.pendingBytes(), MemoryBudget::Use::Small)) {
    return refuse(FramingError(ErrorKind::TryAgain,
                               "the memory of the server is in use; try again later, or raise "
                               "--max-memory"));
  }
  try {
    if (decoder_.keptBack() && !queued_) return awaitAdmission();
    if (queued_ || decoder_.ready()) return serve(nextWorkload());
  } catch (const FramingError& error) {
    return refuse(error);
  }
  if (inputEnded_) return close();
  waitForBytes();
}

Workload Connection::nextWorkload() const {
  const auto value = [&](const std::string& name) {
    return queued_ ? queued_->header(name) : decoder_.waitingValue(name);
  };
  const Workload workload = Dispatcher::workload(value(words().action), value(words().report));
  if (workload != Workload::Write) return workload;
  const bool looksUp = !value(words().batch).empty() || value(words().mustExist) == words().yes;
  return looksUp ? Workload::LookUp : workload;
}

void Connection::serve(Workload workload) {
  state_ = State::Serving;
  stopTimer();
  const ServerOptions& options = context_.options();
  RequestContext::Limits limits;
  if (workload == Workload::Read || workload == Workload::Survey) {
    limits = {options.searchTimeout, options.searchCost};
  }
  request_ = std::make_shared<RequestContext>(limits);
  request_->allowLaterReply();
  if (inputEnded_) clientGoneAt(RequestContext::Clock::now() + options.hangupGrace);
  watch();
  handOver_.post(context_.workers(workload),
                 [self = shared_from_this(), workload] { self->work(workload); });
}

void Connection::work(Workload workload) {
  const std::shared_ptr<RequestContext> request = request_;
  const RequestContext::Scope scope(*request);
  const std::optional<State> next = answer(workload);
  // Otherwise another worker may have gone on with the request already.
  if (!next) return;
  place_.reset();
  handOver_.post(socket_.get_executor(), [self = shared_from_this(), next = *next] {
    if (self->state_ == State::Closed) return;
    self->state_ = next;
    self->request_.reset();
    if (std::exchange(self->served_, false)) {
      self->receivedBy_.reset();
      self->discardedBy_.reset();
    }
    self->guarded([&] { self->writeOutput(); });
  });
}

// Nothing if the request has to wait and another call is to answer it.
std::optional<Connection::State> Connection::answer(Workload workload) {
  try {
    return answerRow(workload);
  } catch (const std::exception& error) {
    spdlog::warn("connection ended: {}", error.what());
    return State::BrokenReply;
  }
}

// Requests without a reply come in long rows, all of them for this group of workers. Returning to
// the strand after each would cost more than serving it does.
std::optional<Connection::State> Connection::answerRow(Workload workload) {
  try {
    for (;;) {
      if (!exchange_) {
        if (!queued_) queued_ = decoder_.next();
        if (Request* const unready = std::exchange(unready_, nullptr)) {
          awaitCollection(workload, *unready);
          return std::nullopt;
        }
        if (!queued_ || nextWorkload() != workload) return State::Serving;
        if (!context_.dispatcher().isReady(*queued_)) {
          place_.reset();
          awaitCollection(workload, *queued_);
          return std::nullopt;
        }
        if (!takePlace(workload)) return std::nullopt;
        reserveForDefaults();
        if (!carryOut()) {
          awaitEnd(workload);
          return std::nullopt;
        }
      }
      encoder_ = outlet_->reply(encode(framing_, context_.dispatcher().finish(std::move(
                                                     *std::exchange(exchange_, std::nullopt)))));
      requestMemory_.force(0);
      served_ = true;
      if (!fillOutput()) return State::BrokenReply;
      if (!output_.empty() || context_.stopping() || workload != Workload::Write) {
        return State::Serving;
      }
    }
  } catch (const FramingError& error) {
    context_.dispatcher().noteUndecoded(error);
    return encodeRefusal(error);
  }
}

// That can take long, and a worker that waited for it would be missing for the others.
void Connection::awaitCollection(Workload workload, Request& request) {
  waitWithoutWorker(workload, [&](std::function<void()> goOn) {
    context_.dispatcher().makeReady(request, std::move(goOn));
  });
}

// Those that look keys up come one after the other in a collection, or wait for its disk. Others
// would find no worker if all were of one collection. False if another call goes on, with a place.
bool Connection::takePlace(Workload workload) {
  if (workload != Workload::LookUp || place_ || queued_->refusal) return true;
  const std::string collection(collectionNamedBy(*queued_));
  if (auto place = context_.placesToLookUp().tryToTake(collection)) {
    place_.emplace(std::move(*place));
    return true;
  }
  waitWithoutWorker(workload, [&](std::function<void()> goOn) {
    context_.placesToLookUp().await(collection, [self = shared_from_this(), goOn = std::move(goOn)](
                                                    FairPlaces::Place place) mutable {
      std::exchange(self, nullptr)->place_.emplace(std::move(place));
      goOn();
    });
  });
  return false;
}

// Somebody may have set other defaults since the request was admitted.
void Connection::reserveForDefaults() {
  if (queued_->refusal || queued_->content.empty()) return;
  const DocumentReading defaults = context_.dispatcher().documentDefaults(*queued_);
  const std::uint64_t contentBytes = queued_->content.size();
  const std::size_t bytes = bytesFor(*queued_, contentBytes, defaults);
  const MemoryBudget::Use use = useOf(bytes);
  if (bytes <= requestMemory_.bytes() || requestMemory_.resize(bytes, use)) return;
  const bool passes = context_.memory().canEverFit(bytes, use);
  queued_->refusal =
      passes ? doesNotFitNow(bytes) : neverFits(contentBytes, bytes, context_.memory());
}

// The worker that goes on may do so before this function returns.
template <typename Wait>
void Connection::waitWithoutWorker(Workload workload, const Wait& wait) {
  context_.requestWaits();
  waits_ = true;
  try {
    wait([self = shared_from_this(), workload]() mutable { goOn(std::move(self), workload); });
  } catch (...) {
    // Whoever was to call it may have done so all the same.
    if (!waits_.exchange(false)) return;
    context_.requestGoesOn();
    throw;
  }
}

// Whoever calls it must not be the last to have the connection: once no request waits any more the
// server may end, and with it what a connection gives back.
void Connection::goOn(std::shared_ptr<Connection> self, Workload workload) {
  if (!self || !self->waits_.exchange(false)) return;
  ConnectionContext& context = self->context_;
  const HandOver handOver = self->handOver_;
  handOver.post(context.workers(workload),
                [self = std::move(self), workload] { self->work(workload); });
  context.requestGoesOn();
}

// False if the reply has to wait for something that others do.
bool Connection::carryOut() {
  Request request = std::move(*std::exchange(queued_, std::nullopt));
  // Whatever the reply waits for then, it needs no worker.
  const auto place = std::exchange(place_, std::nullopt);
  request.identified = context_.options().access != nullptr;
  request.fromThisMachine = fromThisMachine_;
  outlet_->asked(request);
  exchange_ = context_.dispatcher().begin(std::move(request));
  return !exchange_->awaited || exchange_->awaited->isDone();
}

void Connection::awaitEnd(Workload workload) {
  waitWithoutWorker(workload, [awaited = exchange_->awaited](std::function<void()> goOn) {
    awaited->whenDone(std::move(goOn));
  });
}

// Runs on the worker that decodes the header block.
Admission::Verdict Connection::admit(Request& request, std::uint64_t contentBytes) {
  // A stranger must not hold a connection for long.
  discardTime_ = context_.options().discardTimeout;
  if (!admitIdentity(request)) return Verdict::Wait;
  discardTime_ = context_.options().requestTimeout;
  const Dispatcher& dispatcher = context_.dispatcher();
  // How a collection has its documents read is known when it is open, and may take more memory than
  // what the request says.
  if (contentBytes > 0 && Dispatcher::bringsDocuments(request) && !dispatcher.isReady(request)) {
    unready_ = &request;
    return Verdict::Wait;
  }
  neededBytes_ = bytesFor(request, contentBytes, dispatcher.documentDefaults(request));
  const MemoryBudget::Use use = useOf(neededBytes_);
  if (!context_.memory().canEverFit(neededBytes_, use)) {
    throw neverFits(contentBytes, neededBytes_, context_.memory());
  }
  return requestMemory_.resize(neededBytes_, use) ? Verdict::Take : Verdict::Wait;
}

// False if it has to be checked first.
bool Connection::admitIdentity(const Request& request) {
  AccessControl* access = context_.options().access.get();
  if (!access) return true;
  const std::string_view authorization = request.header(words().authorization);
  const auto identity = access->remembered(authorization);
  if (!identity) {
    unchecked_ = authorization;
    return false;
  }
  if (!*identity) {
    throw ServerError(ErrorKind::Unauthorized,
                      authorization.empty()
                          ? "the server asks who you are; send \"Authorization\""
                          : "the name and the password or token do not belong together");
  }
  Dispatcher::permit(request, **identity);
  return true;
}

void Connection::awaitAdmission() {
  state_ = State::Waiting;
  if (unchecked_.empty()) return awaitMemory();
  checkIdentity();
}

void Connection::checkIdentity() {
  stopTimer();
  handOver_.post(context_.gatekeeper(),
                 [self = shared_from_this(), unchecked = std::exchange(unchecked_, {})] {
                   bool checked = true;
                   try {
                     self->context_.options().access->check(unchecked);
                   } catch (const std::exception& error) {
                     self->context_.dispatcher().logFailure("authorization", error.what());
                     checked = false;
                   }
                   self->handOver_.post(self->socket_.get_executor(), [self, checked] {
                     self->guarded([&] { self->identityChecked(checked); });
                   });
                 });
}

void Connection::identityChecked(bool checked) {
  if (state_ != State::Waiting) return;
  if (checked) return serve(nextWorkload());
  decoder_.refuse(ServerError(ErrorKind::TryAgain,
                              "the server cannot check passwords at the moment; try again"));
  proceed();
}

void Connection::awaitMemory() {
  startTimer(context_.options().memoryTimeout, &Connection::memoryRefused);
  memoryTicket_ =
      context_.memory().await(neededBytes_, [weak = weak_from_this(), wait = ++memoryWait_,
                                             executor = socket_.get_executor(),
                                             handOver = handOver_](MemoryBudget::Share share) {
        handOver.post(executor, [weak, wait, share = std::move(share)]() mutable {
          const auto self = weak.lock();
          if (self) self->guarded([&] { self->memoryGranted(wait, std::move(share)); });
        });
      });
}

void Connection::memoryGranted(std::uint64_t wait, MemoryBudget::Share share) {
  if (state_ != State::Waiting || wait != memoryWait_) return;
  requestMemory_ = std::move(share);
  serve(nextWorkload());
}

void Connection::memoryRefused() {
  ++memoryWait_;
  context_.memory().withdraw(memoryTicket_);
  decoder_.refuse(doesNotFitNow(neededBytes_));
  proceed();
}

// False when the reply cannot be completed.
bool Connection::fillOutput() {
  try {
    while (encoder_ && output_.size() < kPortionBytes) {
      if (!encoder_->next(output_)) encoder_.reset();
    }
    outputMemory_.force(output_.capacity());
    return true;
  } catch (const std::exception& error) {
    context_.dispatcher().logFailure("reply", error.what());
    encoder_.reset();
    return false;
  }
}

void Connection::writeOutput() {
  if (output_.empty()) return outputWritten();
  startTimer(context_.options().stallTimeout, &Connection::close);
  outlet_->write(output_,
                 [self = shared_from_this()](Outlet::Result result) { self->writeEnded(result); });
}

void Connection::writeEnded(Outlet::Result result) {
  if (state_ == State::Closed || result == Outlet::Result::Failed) return close();
  guarded([&] {
    if (result == Outlet::Result::Ended)
      startDraining();
    else
      outputWritten();
  });
}

void Connection::outputWritten() {
  // Frees the buffer; clear() would keep the size of a long reply.
  std::string().swap(output_);
  if (!fillOutput()) state_ = State::BrokenReply;
  if (!output_.empty()) return writeOutput();
  if (state_ == State::BrokenReply) return close();
  if (state_ == State::LastReply) return startDraining();
  proceed();
}

Connection::State Connection::encodeRefusal(const FramingError& error) {
  encoder_ = outlet_->reply(encode(error.spoken().value_or(framing_),
                                   ErrorReply{std::string(messageId(error.kind())), error.what()}));
  return fillOutput() ? State::LastReply : State::BrokenReply;
}

void Connection::refuse(const FramingError& error) {
  context_.dispatcher().noteUndecoded(error);
  endWith(error);
}

void Connection::endWith(const FramingError& error) {
  decoder_ = RequestDecoder(framing_, context_.options().limits, this);
  inputMemory_.force(0);
  state_ = encodeRefusal(error);
  writeOutput();
}

void Connection::startDraining() {
  state_ = State::Draining;
  std::error_code ignored;
  socket_.shutdown(Socket::shutdown_send, ignored);
  startTimer(kDrainTime, &Connection::close);
  std::string().swap(ahead_);
  if (inputEnded_) return close();
  drain();
}

void Connection::drain() {
  std::array<char, kReadBytes>& buffer = readBuffer();
  std::error_code error;
  for (int turn = 0; turn < kReadsPerTurn; ++turn) {
    socket_.read_some(asio::buffer(buffer), error);
    if (error == asio::error::would_block) break;
    if (error) return close();
  }
  watch();
}

void Connection::close() {
  if (std::exchange(state_, State::Closed) == State::Closed) return;
  std::error_code ignored;
  stopTimer();
  clientGoneAt(RequestContext::Clock::now());
  outlet_->cancel();
  socket_.close(ignored);
  context_.memory().withdraw(memoryTicket_);
  context_.leave(shared_from_this());
}

void Connection::startTimer(std::chrono::milliseconds timeout, void (Connection::*passed)()) {
  stopTimer();
  if (timeout.count() == 0) return;
  timer_.expires_after(timeout);
  timer_.async_wait([self = shared_from_this(), run = timerRun_, passed](std::error_code error) {
    if (!error && run == self->timerRun_) self->guarded([&] { (self.get()->*passed)(); });
  });
}

void Connection::stopTimer() {
  ++timerRun_;
  timer_.cancel();
}

}  // namespace corvaned
