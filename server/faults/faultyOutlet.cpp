#include "server/faults/faultyOutlet.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>
#include <string>
#include <utility>

#include "server/faults/falseReply.h"
#include "server/faults/faultPlan.h"
#include "server/front/outlet.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

class FaultyOutlet : public Outlet {
 public:
  FaultyOutlet(ClientSocket& socket, Framing framing, std::shared_ptr<FaultPlan> plan)
      : socket_(socket), timer_(socket.get_executor()), framing_(framing), plan_(std::move(plan)) {}

  void asked(const Request& request) override { action_ = request.header(words().action); }

  std::unique_ptr<ReplyEncoder> reply(std::unique_ptr<ReplyEncoder> encoder) override;

  void write(std::string_view bytes, Done done) override {
    rest_ = bytes;
    done_ = std::move(done);
    if (!std::exchange(delayed_, true) && faults_.delay.count() > 0) return pause(faults_.delay);
    step();
  }

  void cancel() override {
    cancelled_ = true;
    timer_.cancel();
  }

  /// Called when a reply has its first bytes.
  const Faults& begin() {
    faults_ = plan_->next(framing_, action_);
    action_.clear();
    sent_ = 0;
    delayed_ = false;
    return faults_;
  }

  Framing framing() const { return framing_; }

 private:
  void pause(std::chrono::milliseconds time) {
    if (cancelled_) return finish(Result::Failed);
    timer_.expires_after(time);
    timer_.async_wait([this, owner = done_](std::error_code error) {
      if (error) return finish(Result::Failed);
      step();
    });
  }

  void finish(Result result) { std::exchange(done_, nullptr)(result); }

  // How many more bytes are sent before the connection ends.
  std::uint64_t allowance() const {
    const auto limit = faults_.dropAfter ? faults_.dropAfter : faults_.resetAfter;
    return limit ? *limit - sent_ : rest_.size() + std::uint64_t{1};
  }

  void step() {
    if (allowance() == 0) return endConnection();
    if (rest_.empty()) return finish(Result::Written);
    std::size_t size = std::min<std::uint64_t>(rest_.size(), allowance());
    if (faults_.piece != 0) size = std::min(size, faults_.piece);
    asio::async_write(socket_, asio::buffer(rest_.data(), size),
                      [this, owner = done_](std::error_code error, std::size_t count) {
                        if (error) return finish(Result::Failed);
                        written(count);
                      });
  }

  void written(std::size_t count) {
    sent_ += count;
    rest_.remove_prefix(count);
    const bool goesOn = !rest_.empty() && allowance() != 0;
    if (goesOn && faults_.pause.count() > 0) return pause(faults_.pause);
    step();
  }

  void endConnection() {
    if (faults_.dropAfter) return finish(Result::Ended);
    std::error_code ignored;
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    finish(Result::Failed);
  }

  ClientSocket& socket_;
  asio::basic_waitable_timer<std::chrono::steady_clock,
                             asio::wait_traits<std::chrono::steady_clock>,
                             ClientSocket::executor_type>
      timer_;
  const Framing framing_;
  const std::shared_ptr<FaultPlan> plan_;

  // The current reply.
  std::string action_;
  Faults faults_;
  std::uint64_t sent_ = 0;
  bool delayed_ = false;

  // The current write. Pending asynchronous operations hold a copy of `done_`, which keeps the
  // connection, and thus this object, alive.
  std::string_view rest_;
  Done done_;
  bool cancelled_ = false;
};

/// Asks for the faults only when the reply has its first bytes, since the script must not count a
/// request without a reply. A reply whose content is changed is gathered first.
class FaultyReply : public ReplyEncoder {
 public:
  FaultyReply(FaultyOutlet& outlet, std::unique_ptr<ReplyEncoder> encoder)
      : outlet_(outlet), encoder_(std::move(encoder)) {}

  bool next(std::string& out) override {
    if (started_) return encoder_->next(out);
    std::string bytes;
    bool more = encoder_->next(bytes);
    if (bytes.empty()) return more;
    started_ = true;
    const Faults& faults = outlet_.begin();
    if (faults.lies()) {
      while (more) more = encoder_->next(bytes);
      bytes = falseReply(outlet_.framing(), bytes, faults);
    }
    out += bytes;
    return more;
  }

 private:
  FaultyOutlet& outlet_;
  std::unique_ptr<ReplyEncoder> encoder_;
  bool started_ = false;
};

std::unique_ptr<ReplyEncoder> FaultyOutlet::reply(std::unique_ptr<ReplyEncoder> encoder) {
  return std::make_unique<FaultyReply>(*this, std::move(encoder));
}

class FaultyOutlets : public OutletFactory {
 public:
  explicit FaultyOutlets(std::shared_ptr<FaultPlan> plan) : plan_(std::move(plan)) {}

  std::unique_ptr<Outlet> make(ClientSocket& socket, Framing framing) override {
    return std::make_unique<FaultyOutlet>(socket, framing, plan_);
  }

 private:
  std::shared_ptr<FaultPlan> plan_;
};

}  // namespace

std::shared_ptr<OutletFactory> faultyOutlets(std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyOutlets>(std::move(plan));
}

}  // namespace corvaned
