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

  /// A connection that held `before` bytes of requests holds `now`. False when that is too much for
  /// what all connections hold together.
  bool account(std::size_t before, std::size_t now);

  /// False when there are too many already.
  bool enter(const std::shared_ptr<Connection>& connection);
  void leave(const std::shared_ptr<Connection>& connection);

  /// Ends the idle connections at once and the others after their reply; waits for at most
  /// stopTimeout, then cuts off what is left.
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

/// One client. It serves one request at a time and reads no further meanwhile, so that a client
/// that sends without reading is held back by its own socket.
///
/// The state, the socket and the timer belong to the strand. While a worker serves a request
/// nothing waits on the socket, and the decoder, the encoder and the output belong to the worker,
/// which hands them back together with the state that is to follow.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Socket = ClientSocket;

  Connection(Socket socket, Framing framing, ConnectionContext& context);

  void start();
  /// From any thread: end now if nothing is being served, else after the reply.
  void finish();
  /// From any thread: end now.
  void abort();

 private:
  enum class State {
    /// Waits for a request, or for the rest of one.
    listening,
    /// A worker serves a request, or its reply is being written.
    serving,
    /// The same; after this reply no request is read any more.
    lastReply,
    /// The same; the reply cannot be completed, so the connection ends where it breaks off.
    brokenReply,
    /// Everything is said; what the client still sends is thrown away.
    draining,
    closed,
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

  // What the context was last told that this connection holds.
  std::size_t accounted_ = 0;
  State state_ = State::listening;
  // The client has sent its last byte; what it asked for is still answered.
  bool inputEnded_ = false;
};

}  // namespace corvaned
