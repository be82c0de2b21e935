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
// Reads in a row before other connections get their turn.
constexpr int kReadsPerTurn = 16;
// Up to this a connection's input is never too much: a small request is worth its place.
constexpr std::size_t kFreeBytes = std::size_t{64} << 10U;
// How long a client whose request could not be understood is listened to after the reply. Closing
// at once would make its system throw the reply away while it is still sending.
constexpr std::chrono::milliseconds kDrainTime{2000};

// One buffer a thread instead of one a connection: most of thousands of connections are idle.
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
    case Workload::write:
      return writers_;
    case Workload::index:
      return indexers_;
    case Workload::read:
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
    if (!self->serving_) self->close();
  });
}

void Connection::abort() {
  asio::post(socket_.get_executor(), [self = shared_from_this()] { self->close(); });
}

// A failure that only this connection can have caused, running out of memory above all, ends this
// connection and no other.
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
  startTimer(decoder_.idle() ? context_.options().idleTimeout : context_.options().stallTimeout);
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](std::error_code error) {
    if (error || self->closed_) return self->close();
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
      return refuse(ServerError(ErrorKind::tryAgain,
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
  serving_ = true;
  timer_.cancel();
  asio::thread_pool& workers = context_.workers(Dispatcher::workload(request));
  asio::post(workers, [self = shared_from_this(), request = std::move(request)]() mutable {
    self->work(std::move(request));
  });
}

// Requests that get no reply come in long rows, all for this group of workers; going back to the
// strand between them would cost more than they do.
void Connection::work(Request request) {
  try {
    for (;;) {
      outlet_->asked(request);
      encoder_ = outlet_->reply(encode(framing_, context_.dispatcher().handle(std::move(request))));
      fillOutput();
      if (!output_.empty() || broken_ || context_.stopping()) break;
      queued_ = decoder_.next();
      if (!queued_ || Dispatcher::workload(*queued_) != Workload::write) break;
      request = std::move(*std::exchange(queued_, std::nullopt));
    }
  } catch (const FramingError& error) {
    encoder_ = refusal(error);
    fillOutput();
    lastReply_ = true;
  } catch (const std::exception& error) {
    spdlog::warn("connection ended: {}", error.what());
    broken_ = true;
  }
  asio::post(socket_.get_executor(), [self = shared_from_this()] {
    self->serving_ = false;
    self->guarded([&] { self->writeOutput(); });
  });
}

// False when the reply is at its end, or cannot get there.
bool Connection::fillOutput() {
  try {
    while (encoder_ && output_.size() < kPortionBytes) {
      if (!encoder_->next(output_)) encoder_.reset();
    }
  } catch (const std::exception& error) {
    spdlog::error("a reply was broken off: {}", error.what());
    encoder_.reset();
    broken_ = true;
  }
  return encoder_ != nullptr;
}

void Connection::writeOutput() {
  if (closed_) return;
  if (output_.empty()) return outputWritten();
  startTimer(context_.options().stallTimeout);
  serving_ = true;
  outlet_->write(output_,
                 [self = shared_from_this()](Outlet::Result result) { self->writeEnded(result); });
}

void Connection::writeEnded(Outlet::Result result) {
  serving_ = false;
  if (closed_ || result == Outlet::Result::failed) return close();
  guarded([&] {
    if (result == Outlet::Result::ended)
      startDraining();
    else
      outputWritten();
  });
}

void Connection::outputWritten() {
  // A long reply's buffer is not kept for the next one.
  std::string().swap(output_);
  fillOutput();
  if (!output_.empty()) return writeOutput();
  if (broken_) return close();
  if (lastReply_) return startDraining();
  proceed();
}

std::unique_ptr<ReplyEncoder> Connection::refusal(const ServerError& error) {
  return outlet_->reply(
      encode(framing_, ErrorReply{std::string(messageId(error.kind())), error.what()}));
}

void Connection::refuse(const ServerError& error) {
  spdlog::debug("a connection's requests cannot be told apart any more: {}", error.what());
  encoder_ = refusal(error);
  lastReply_ = true;
  decoder_ = RequestDecoder(framing_, context_.options().limits);
  accountInput(0);
  fillOutput();
  writeOutput();
}

void Connection::startDraining() {
  std::error_code ignored;
  socket_.shutdown(Socket::shutdown_send, ignored);
  startTimer(kDrainTime);
  drain();
}

void Connection::drain() {
  socket_.async_wait(Socket::wait_read, [self = shared_from_this()](std::error_code error) {
    if (error || self->closed_) return self->close();
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
  if (std::exchange(closed_, true)) return;
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
