#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_set>

#include "server/front/dispatcher.h"
#include "server/front/outlet.h"
#include "server/front/replyEncoder.h"
#include "server/front/requestDecoder.h"
#include "server/front/serverOptions.h"

namespace corvaned {

class Connection;

/// What all connections of a server share.
class ConnectionContext {
 public:
  ConnectionContext(Dispatcher& dispatcher, const ServerOptions& options);

  Dispatcher& dispatcher() { return dispatcher_; }
  const ServerOptions& options() const { return options_; }
  asio::thread_pool& workers(Workload workload);
  std::unique_ptr<Outlet> outlet(ClientSocket& socket, Framing framing);
  bool stopping() const { return stopping_; }

  /// A connection that buffered `before` bytes of requests now buffers `now`. False if that exceeds
  /// the total of all connections.
  bool account(std::size_t before, std::size_t now);

  /// False if there are too many connections.
  bool enter(const std::shared_ptr<Connection>& connection);
  void leave(const std::shared_ptr<Connection>& connection);

  /// Ends idle connections at once and the others after their reply. Waits at most stopTimeout,
  /// then cuts off the rest.
  void stopConnections();
  void joinWorkers();

 private:
  std::vector<std::shared_ptr<Connection>> snapshot();

  Dispatcher& dispatcher_;
  const ServerOptions options_;
  asio::thread_pool readers_;
  asio::thread_pool writers_;
  asio::thread_pool indexers_;
  std::atomic<bool> stopping_ = false;
  std::atomic<std::size_t> buffered_ = 0;

  std::mutex mutex_;
  std::condition_variable left_;
  std::unordered_set<std::shared_ptr<Connection>> connections_;  // Guarded by mutex_.
};

/// One client. It serves one request at a time and reads nothing meanwhile, so that the socket's
/// flow control slows down a client that sends without reading.
///
/// The state, the socket and the timer belong to the strand. While a worker serves a request
/// nothing waits on the socket, and the decoder, the encoder and the output belong to the worker,
/// which hands them back together with the state that is to follow.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Socket = ClientSocket;

  Connection(Socket socket, Framing framing, ConnectionContext& context);

  void start();
  /// From any thread: ends now if nothing is being served, otherwise after the reply.
  void finish();
  /// From any thread: ends now.
  void abort();

 private:
  enum class State {
    /// Waiting for a request, or for the rest of one.
    Listening,
    /// A worker is serving a request, or its reply is being written.
    Serving,
    /// The same, and no further request is read after this reply.
    LastReply,
    /// The same, but the reply cannot be completed: the connection closes where the reply breaks
    /// off.
    BrokenReply,
    /// Everything is sent; what the client still sends is read and discarded.
    Draining,
    Closed,
  };

  template <typename Step>
  void guarded(const Step& step);

  void waitForBytes();
  void readBytes();
  void proceed();
  void serve(Request request);
  void work(Request request);
  State answer(Request request);
  State answerRow(Request request);
  bool fillOutput();
  void writeOutput();
  void outputWritten();
  void writeEnded(Outlet::Result result);
  State encodeRefusal(const ServerError& error);
  void refuse(const ServerError& error);
  void startDraining();
  void drain();
  void close();

  bool accountInput(std::size_t bytes);
  void startTimer(std::chrono::milliseconds timeout);

  Socket socket_;
  asio::basic_waitable_timer<std::chrono::steady_clock,
                             asio::wait_traits<std::chrono::steady_clock>, Socket::executor_type>
      timer_;
  const Framing framing_;
  ConnectionContext& context_;

  RequestDecoder decoder_;
  std::optional<Request> queued_;
  std::unique_ptr<ReplyEncoder> encoder_;
  std::string output_;
  std::unique_ptr<Outlet> outlet_;

  // The number of buffered bytes that the context knows of.
  std::size_t accounted_ = 0;
  State state_ = State::Listening;
  // The client has ended its sending side; its earlier requests are still answered.
  bool inputEnded_ = false;
};

}  // namespace corvaned
