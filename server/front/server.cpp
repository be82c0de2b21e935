#include "server/front/server.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/steady_timer.hpp>
#include <stdexcept>
#include <thread>
#include <utility>

#include "server/front/connection.h"

namespace corvaned {
namespace {

using asio::ip::tcp;

// How long to wait before accepting again when the system is out of descriptors or memory.
constexpr std::chrono::milliseconds kAcceptPause{100};

/// One listening socket. Its pending handlers keep it alive.
class Acceptor : public std::enable_shared_from_this<Acceptor> {
 public:
  Acceptor(asio::io_context& io, Framing framing, ConnectionContext& context)
      : io_(io),
        acceptor_(asio::make_strand(io)),
        pause_(acceptor_.get_executor()),
        framing_(framing),
        context_(context) {}

  Server::Listener listen(const std::string& address, std::uint16_t port) {
    try {
      const tcp::endpoint endpoint(asio::ip::make_address(address), port);
      acceptor_.open(endpoint.protocol());
      acceptor_.set_option(tcp::acceptor::reuse_address(true));
      if (endpoint.protocol() == tcp::v6()) acceptor_.set_option(asio::ip::v6_only(true));
      acceptor_.bind(endpoint);
      acceptor_.listen(asio::socket_base::max_listen_connections);
    } catch (const std::system_error& error) {
      throw std::runtime_error(
          fmt::format("cannot listen for {} on {} port {}: {}; choose another address or port",
                      nameOf(framing_), address, port, error.code().message()));
    }
    const tcp::endpoint bound = acceptor_.local_endpoint();
    return {framing_, bound.address().to_string(), bound.port()};
  }

  void accept() {
    acceptor_.async_accept(
        asio::make_strand(io_),
        [self = shared_from_this()](std::error_code error, Connection::Socket socket) {
          self->accepted(error, std::move(socket));
        });
  }

  void close() {
    asio::post(acceptor_.get_executor(), [self = shared_from_this()] {
      std::error_code ignored;
      self->acceptor_.close(ignored);
      self->pause_.cancel();
    });
  }

 private:
  void accepted(std::error_code error, Connection::Socket socket) {
    if (!acceptor_.is_open()) return;
    if (error) {
      context_.dispatcher().logFailure("accept", error.message());
      pause_.expires_after(kAcceptPause);
      pause_.async_wait([self = shared_from_this()](std::error_code) {
        if (self->acceptor_.is_open()) self->accept();
      });
      return;
    }
    try {
      const auto connection = std::make_shared<Connection>(std::move(socket), framing_, context_);
      if (context_.enter(connection))
        connection->start();
      else if (context_.enterToBeTurnedAway(connection))
        connection->turnAway();
      else
        spdlog::debug("a connection was refused, there are too many");
    } catch (const std::exception& failure) {
      context_.dispatcher().logFailure("accept", failure.what());
    }
    accept();
  }

  asio::io_context& io_;
  tcp::acceptor acceptor_;
  asio::steady_timer pause_;
  const Framing framing_;
  ConnectionContext& context_;
};

}  // namespace

class Server::Core {
 public:
  Core(Dispatcher& dispatcher, const ServerOptions& options) : context_(dispatcher, options) {}

  ~Core() { stop(); }

  std::vector<Listener> start() {
    const ServerOptions& options = context_.options();
    std::vector<Listener> listeners;
    if (options.httpPort) listeners.push_back(listen(Framing::Http, *options.httpPort));
    if (options.binaryPort) listeners.push_back(listen(Framing::Binary, *options.binaryPort));
    for (const auto& acceptor : acceptors_) acceptor->accept();
    for (unsigned i = 0; i < options.networkThreads; ++i) threads_.emplace_back([this] { run(); });
    return listeners;
  }

  void stop() {
    for (const auto& acceptor : acceptors_) acceptor->close();
    acceptors_.clear();
    if (!threads_.empty()) context_.stopConnections();
    context_.joinWorkers();
    busy_.reset();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

 private:
  Listener listen(Framing framing, std::uint16_t port) {
    acceptors_.push_back(std::make_shared<Acceptor>(io_, framing, context_));
    return acceptors_.back()->listen(context_.options().listen, port);
  }

  void run() {
    for (;;) {
      try {
        io_.run();
        return;
      } catch (const std::exception& error) {
        spdlog::error("unexpected failure on a network thread: {}", error.what());
      }
    }
  }

  // Declared before the context, because the context's connections own timers and sockets of it.
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> busy_ = asio::make_work_guard(io_);
  ConnectionContext context_;
  std::vector<std::shared_ptr<Acceptor>> acceptors_;
  std::vector<std::thread> threads_;
};

Server::Server(Dispatcher& dispatcher, ServerOptions options) {
  // The first use of the log creates it. Two network threads must not be the first together, so it
  // is created before any of the server's threads exists.
  spdlog::default_logger();
  core_ = std::make_unique<Core>(dispatcher, options);
}

Server::~Server() = default;

void Server::start() { listeners_ = core_->start(); }

void Server::stop() { core_->stop(); }

}  // namespace corvaned
