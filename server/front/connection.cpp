#include "server/front/connection.h"

#include <spdlog/spdlog.h>

#include <array>
#include <asio/post.hpp>
#include <utility>
#include <vector>

#include "server/base/errors.h"

namespace corvaned {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} << 10U;
// Maximum number of consecutive reads before other connections get their turn.
constexpr int kReadsPerTurn = 16;
// A connection may always buffer this much, so that small requests are served even when the total
// is exhausted.
constexpr std::size_t kFreeBytes = std::size_t{64} << 10U;
// How long the server keeps reading after it has refused a request that it could not decode. If it
// closed at once while the client still sends, the client's system would discard the reply.
constexpr std::chrono::milliseconds kDrainTime{2000};

// One buffer per thread, not per connection: of thousands of connections most are idle.
std::array<char, kReadBytes>& readBuffer() {
  thread_local std::array<char, kReadBytes> buffer;
  return buffer;
}

}  // namespace

ConnectionContext::ConnectionContext(Dispatcher& dispatcher, const ServerOptions& options)
    : dispatcher_(dispatcher),
      options_(options),
      readers_(options.readThreads),
      writers_(options.writeThreads),
      indexers_(options.indexThreads) {}

asio::thread_pool& ConnectionContext::workers(Workload workload) {
  switch (workload) {
    case Workload::Write:
      return writers_;
    case Workload::Index:
      return indexers_;
    case Workload::Read:
      break;
  }
  return readers_;
}

std::unique_ptr<Outlet> ConnectionContext::outlet(ClientSocket& socket, Framing framing) {
  return options_.outlets ? options_.outlets->make(socket, framing) : plainOutlet(socket);
}

bool ConnectionContext::account(std::size_t before, std::size_t now) {
  const std::size_t total = buffered_ += now - before;
  return now <= kFreeBytes || total <= options_.bufferedBytes;
}

bool ConnectionContext::enter(const std::shared_ptr<Connection>& connection) {
  const std::lock_guard lock(mutex_);
  if (stopping_ || connections_.size() >= options_.connections) return false;
  connections_.insert(connection);
  return true;
}

void ConnectionContext::leave(const std::shared_ptr<Connection>& connection) {
  const std::lock_guard lock(mutex_);
  connections_.erase(connection);
  left_.notify_all();
}

std::vector<std::shared_ptr<Connection>> ConnectionContext::snapshot() {
  const std::lock_guard lock(mutex_);
  return {connections_.begin(), connections_.end()};
}

void ConnectionContext::stopConnections() {
  stopping_ = true;
  for (const auto& connection : snapshot()) connection->finish();
  {
    std::unique_lock lock(mutex_);
    left_.wait_for(lock, options_.stopTimeout, [&] { return connections_.empty(); });
  }
  for (const auto& connection : snapshot()) connection->abort();
}

void ConnectionContext::joinWorkers() {
  readers_.join();
  writers_.join();
  indexers_.join();
}

Connection::Connection(Socket socket, Framing framing, ConnectionContext& context)
    : socket_(std::move(socket)),
      timer_(socket_.get_executor()),
      framing_(framing),
      context_(context),
      decoder_(framing, context.options().limits),
      outlet_(context.outlet(socket_, framing)) {}

void Connection::start() {
  std::error_code ignored;
  socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
  socket_.non_blocking(true, ignored);
  asio::post(socket_.get_executor(),
             [self = shared_from_this()] { self->guarded([&] { self->proceed(); }); });
}

void Connection::finish() {
  asio::post(socket_.get_executor(), [self = shared_from_this()] {
    const bool idle = self->state_ == State::Listening || self->state_ == State::Draining;
    if (idle) self->close();
  });
}

void Connection::abort() {
  asio::post(socket_.get_executor(), [self = shared_from_this()] { self->close(); });
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

void Connection::waitForBytes() {
  state_ = State::Listening;
  startTimer(decoder_.idle() ? context_.options().idleTimeout : context_.options().stallTimeout);
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](std::error_code error) {
    if (error || self->state_ == State::Closed) return self->close();
    self->guarded([&] { self->readBytes(); });
  });
}

void Connection::readBytes() {
  std::array<char, kReadBytes>& buffer = readBuffer();
  for (int turn = 0; turn < kReadsPerTurn && !inputEnded_; ++turn) {
    std::error_code error;
    const std::size_t count = socket_.read_some(asio::buffer(buffer), error);
    if (error == asio::error::would_block) break;
    if (error == asio::error::eof) {
      inputEnded_ = true;
    } else if (error) {
      return close();
    }
    decoder_.feed({buffer.data(), count});
    if (!accountInput(decoder_.heldBytes())) {
      return refuse(ServerError(ErrorKind::TryAgain,
                                "the server holds too many unfinished requests; try again"));
    }
    if (count < buffer.size()) break;
  }
  proceed();
}

bool Connection::accountInput(std::size_t bytes) {
  return context_.account(std::exchange(accounted_, bytes), bytes);
}

void Connection::proceed() {
  if (context_.stopping()) return close();
  try {
    if (!queued_) queued_ = decoder_.next();
    if (queued_) return serve(std::move(*std::exchange(queued_, std::nullopt)));
  } catch (const FramingError& error) {
    return refuse(error);
  }
  if (inputEnded_) return close();
  accountInput(decoder_.heldBytes());
  waitForBytes();
}

void Connection::serve(Request request) {
  state_ = State::Serving;
  timer_.cancel();
  asio::thread_pool& workers = context_.workers(Dispatcher::workload(request));
  asio::post(workers, [self = shared_from_this(), request = std::move(request)]() mutable {
    self->work(std::move(request));
  });
}

void Connection::work(Request request) {
  const State next = answer(std::move(request));
  asio::post(socket_.get_executor(), [self = shared_from_this(), next] {
    if (self->state_ == State::Closed) return;
    self->state_ = next;
    self->guarded([&] { self->writeOutput(); });
  });
}

Connection::State Connection::answer(Request request) {
  try {
    return answerRow(std::move(request));
  } catch (const std::exception& error) {
    spdlog::warn("connection ended: {}", error.what());
    return State::BrokenReply;
  }
}

// Requests without a reply come in long rows, all of them for this group of workers. Returning to
// the strand after each would cost more than serving it does.
Connection::State Connection::answerRow(Request request) {
  try {
    for (;;) {
      outlet_->asked(request);
      encoder_ = outlet_->reply(encode(framing_, context_.dispatcher().handle(std::move(request))));
      if (!fillOutput()) return State::BrokenReply;
      if (!output_.empty() || context_.stopping()) return State::Serving;
      queued_ = decoder_.next();
      if (!queued_ || Dispatcher::workload(*queued_) != Workload::Write) return State::Serving;
      request = std::move(*std::exchange(queued_, std::nullopt));
    }
  } catch (const FramingError& error) {
    return encodeRefusal(error);
  }
}

// False when the reply cannot be completed.
bool Connection::fillOutput() {
  try {
    while (encoder_ && output_.size() < kPortionBytes) {
      if (!encoder_->next(output_)) encoder_.reset();
    }
    return true;
  } catch (const std::exception& error) {
    spdlog::error("a reply was broken off: {}", error.what());
    encoder_.reset();
    return false;
  }
}

void Connection::writeOutput() {
  if (output_.empty()) return outputWritten();
  startTimer(context_.options().stallTimeout);
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

Connection::State Connection::encodeRefusal(const ServerError& error) {
  encoder_ = outlet_->reply(
      encode(framing_, ErrorReply{std::string(messageId(error.kind())), error.what()}));
  return fillOutput() ? State::LastReply : State::BrokenReply;
}

void Connection::refuse(const ServerError& error) {
  spdlog::debug("a connection's requests cannot be told apart any more: {}", error.what());
  decoder_ = RequestDecoder(framing_, context_.options().limits);
  accountInput(0);
  state_ = encodeRefusal(error);
  writeOutput();
}

void Connection::startDraining() {
  state_ = State::Draining;
  std::error_code ignored;
  socket_.shutdown(Socket::shutdown_send, ignored);
  startTimer(kDrainTime);
  drain();
}

void Connection::drain() {
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](std::error_code error) {
    if (error || self->state_ == State::Closed) return self->close();
    std::array<char, kReadBytes>& buffer = readBuffer();
    for (int turn = 0; turn < kReadsPerTurn; ++turn) {
      self->socket_.read_some(asio::buffer(buffer), error);
      if (error == asio::error::would_block) break;
      if (error) return self->close();
    }
    self->drain();
  });
}

void Connection::close() {
  if (std::exchange(state_, State::Closed) == State::Closed) return;
  std::error_code ignored;
  timer_.cancel();
  outlet_->cancel();
  socket_.close(ignored);
  accountInput(0);
  context_.leave(shared_from_this());
}

void Connection::startTimer(std::chrono::milliseconds timeout) {
  if (timeout.count() == 0) {
    timer_.cancel();
    return;
  }
  timer_.expires_after(timeout);
  timer_.async_wait([self = shared_from_this()](std::error_code error) {
    if (!error) self->close();
  });
}

}  // namespace corvaned
