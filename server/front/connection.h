#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_set>

#include "server/base/memoryBudget.h"
#include "server/base/requestContext.h"
#include "server/front/dispatcher.h"
#include "server/front/fairPlaces.h"
#include "server/front/handOver.h"
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
  /// What work that looks keys up has to have on one of its threads.
  FairPlaces& placesToLookUp() { return placesToLookUp_; }
  /// Where passwords are checked, one at a time: wrong ones must not keep others from being served.
  asio::thread_pool& gatekeeper() { return gatekeeper_; }
  std::unique_ptr<Outlet> outlet(ClientSocket& socket, Framing framing);
  bool stopping() const { return stopping_; }

  MemoryBudget& memory() { return *memory_; }

  /// False if there are too many connections.
  bool enter(const std::shared_ptr<Connection>& connection);
  /// Takes a connection only to tell it that there are too many. False if even that is too much.
  bool enterToBeTurnedAway(const std::shared_ptr<Connection>& connection);
  void leave(const std::shared_ptr<Connection>& connection);

  /// Ends idle connections at once and the others after their reply. Waits at most stopTimeout,
  /// then cuts off the rest.
  void stopConnections();
  void joinWorkers();

  /// A request waits for something without a worker; whoever ends the waiting says so. It must be
  /// over before this object can go.
  void requestWaits();
  void requestGoesOn();

 private:
  std::vector<std::shared_ptr<Connection>> snapshot();

  Dispatcher& dispatcher_;
  const ServerOptions options_;
  const std::shared_ptr<MemoryBudget> memory_;
  asio::thread_pool readers_;
  asio::thread_pool writers_;
  asio::thread_pool checkers_;
  FairPlaces placesToLookUp_;
  asio::thread_pool indexers_;
  asio::thread_pool deleters_;
  asio::thread_pool informers_;
  asio::thread_pool surveyor_{1};
  asio::thread_pool gatekeeper_{1};
  std::atomic<bool> stopping_ = false;

  std::mutex mutex_;
  std::condition_variable left_;
  // Guarded by mutex_.
  std::unordered_set<std::shared_ptr<Connection>> connections_;
  std::unordered_set<std::shared_ptr<Connection>> turnedAway_;
  std::size_t waiting_ = 0;
};

/// One client. It serves one request at a time. Meanwhile it reads ahead a little, to notice when
/// the client goes, and then nothing, so that the socket's flow control slows down a client that
/// sends without reading.
///
/// The state, the socket, the timer and what was read ahead belong to the strand. While a worker
/// serves a request, the decoder, the encoder and the output belong to the worker, which hands them
/// back together with the state that is to follow.
///
/// A request is decoded in two steps. Its header block is decoded by a worker, which also sets
/// memory aside for the request; only then is the content received. A request for which there is no
/// memory waits, and the connection with it.
class Connection : public std::enable_shared_from_this<Connection>, private Admission {
 public:
  using Socket = ClientSocket;

  Connection(Socket socket, Framing framing, ConnectionContext& context);

  void start();
  /// Instead of start(): tells the client that there are too many connections.
  void turnAway();
  /// From any thread: ends now if nothing is being served, otherwise after the reply.
  void finish();
  /// From any thread: ends now.
  void abort();

 private:
  enum class State {
    /// Waiting for a request, or for the rest of one.
    Listening,
    /// Waiting for the memory that the next request needs, or for its password to be checked.
    Waiting,
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

  void watch();
  void readable();
  void readAhead();
  void takeWhatWasReadAhead();
  void clientGoneAt(RequestContext::Clock::time_point time);
  void waitForBytes();
  void readBytes();
  void requestTookTooLong();
  void proceed();
  Workload nextWorkload() const;
  void serve(Workload workload);
  void work(Workload workload);
  std::optional<State> answer(Workload workload);
  std::optional<State> answerRow(Workload workload);
  void awaitCollection(Workload workload, Request& request);
  bool takePlace(Workload workload);
  void reserveForDefaults();
  template <typename Wait>
  void waitWithoutWorker(Workload workload, const Wait& wait);
  static void goOn(std::shared_ptr<Connection> self, Workload workload);
  bool carryOut();
  void awaitEnd(Workload workload);
  bool fillOutput();
  void writeOutput();
  void outputWritten();
  void writeEnded(Outlet::Result result);
  State encodeRefusal(const FramingError& error);
  /// The request that is being received; after it none can be told apart any more.
  void refuse(const FramingError& error);
  void endWith(const FramingError& error);
  void startDraining();
  void drain();
  void close();

  void setSocketOptions();
  void notePeer();
  Verdict admit(Request& request, std::uint64_t contentBytes) override;
  bool admitIdentity(const Request& request);
  void awaitAdmission();
  void checkIdentity();
  void identityChecked(bool checked);
  void awaitMemory();
  void memoryGranted(std::uint64_t wait, MemoryBudget::Share share);
  void memoryRefused();

  void startTimer(std::chrono::milliseconds timeout, void (Connection::*passed)());
  void stopTimer();

  Socket socket_;
  asio::basic_waitable_timer<std::chrono::steady_clock,
                             asio::wait_traits<std::chrono::steady_clock>, Socket::executor_type>
      timer_;
  const Framing framing_;
  ConnectionContext& context_;
  const HandOver handOver_;
  bool fromThisMachine_ = false;

  RequestDecoder decoder_;
  std::optional<Request> queued_;
  // What the decoder keeps back until its collection is open.
  Request* unready_ = nullptr;
  // What the request has to have to be carried out, where there are places for that.
  std::optional<FairPlaces::Place> place_;
  std::optional<Dispatcher::Exchange> exchange_;
  std::unique_ptr<ReplyEncoder> encoder_;
  std::string output_;
  std::unique_ptr<Outlet> outlet_;

  // The request that a worker serves.
  std::shared_ptr<RequestContext> request_;
  // Whether the worker has served a request, or only decoded a part of it.
  bool served_ = false;
  // Whether the request waits for something without a worker.
  std::atomic<bool> waits_ = false;

  // What was read while a request was being served, and whether a read is being waited for.
  std::string ahead_;
  bool watching_ = false;
  // When the request that is being received must be complete, and the content of a refused one
  // discarded.
  std::optional<RequestContext::Clock::time_point> receivedBy_;
  std::optional<RequestContext::Clock::time_point> discardedBy_;
  // How long that of the latest request may take if it is refused.
  std::chrono::milliseconds discardTime_{0};

  // The memory of header blocks and of what follows them unasked, of the request that is being
  // received or served, and of the reply's current portion.
  MemoryBudget::Share inputMemory_;
  MemoryBudget::Share aheadMemory_;
  MemoryBudget::Share requestMemory_;
  MemoryBudget::Share outputMemory_;
  // What the request that waits for memory needs, and its place among those who wait.
  std::size_t neededBytes_ = 0;
  MemoryBudget::Ticket memoryTicket_ = 0;
  // Tells the present wait for memory from earlier ones, whose grants may still be on their way.
  std::uint64_t memoryWait_ = 0;
  // What has to be checked before the next request is admitted.
  std::string unchecked_;

  // Tells the timer's current run from earlier ones, whose handlers may still be on their way.
  std::uint64_t timerRun_ = 0;
  State state_ = State::Listening;
  // The client has ended its sending side; its earlier requests are still answered.
  bool inputEnded_ = false;
};

}  // namespace corvaned
