#pragma once

#include <cxxabi.h>
#include <unicode/unistr.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "capi/kru.h"
#include "capi/kruFailure.h"
#include "comm/kruClientRequest.h"

namespace tq::comm {
class ClientResponse;
class CorvaneRESTClient;
class DrestoPerfClient;
}  // namespace tq::comm

namespace tq::capi {

/// A client as its handle, its cursors and the call that is under way share it, so that none of
/// them is left with one that is gone.
struct Core {
  Core();
  ~Core();

  std::unique_ptr<tq::comm::CorvaneRESTClient> client;
  tq::comm::DrestoPerfClient* binary = nullptr;  // the same client, if it speaks that protocol

  // A call is under way, or a hook has jumped out of one.
  std::atomic<bool> busy{false};
  // The handle is gone.
  std::atomic<bool> destroyed{false};

  kru_wait_hook hook = nullptr;
  void* host = nullptr;
  std::uint32_t deadline = 0;  // KRU_DEADLINE
  bool queueMode = false;
  icu::UnicodeString credentials{};  // empty: none
  icu::UnicodeString name{};         // empty: none
  unsigned int pauseFirst = 0;
  unsigned int pauseMost = 0;

  bool asked = false;  // the call under way has come to the server
  kru_error last = noError();
};

/// One call of the face: what it is about, for what its failure means to its caller.
struct Call {
  tq::comm::ClientRequest::REQUEST kind{};
  bool fetches = false;  // it reads a reply on
};

/// Makes sure that one call at a time uses a client. A jump out of a hook skips the end of this, so
/// that what was left half done is never gone on with.
class Use {
 public:
  explicit Use(Core& core) : core_(core), granted_(!core.busy.exchange(true)) {}
  ~Use() {
    if (granted_) core_.busy = false;
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  bool granted() const { return granted_; }

 private:
  Core& core_;
  bool granted_;
};

/// Hands the caller a misuse that was found before anything was begun.
std::int32_t refuse(kru_error* error, const char* what, const char* why = "") noexcept;

/// The same for a call that was not granted the client.
std::int32_t refuseUse(kru_error* error) noexcept;

/// Says what the call means for retry and connection, remembers it, and hands it out.
std::int32_t settle(Core& core, const Call& call, kru_error& report, kru_error* error) noexcept;

/// Runs `work(core, report)`, for a caller that was granted the client, so that nothing but a
/// cancelled thread's unwinding gets out of it.
template <typename Work>
std::int32_t performGranted(Core& core, const Call& call, kru_error* error, Work work) {
  core.asked = false;
  kru_error report = noError();
  try {
    work(core, report);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    describeCurrentException(report);
  }
  return settle(core, call, report, error);
}

template <typename Work>
std::int32_t perform(std::shared_ptr<Core> core, const Call& call, kru_error* error, Work work) {
  const Use use(*core);
  return use.granted() ? performGranted(*core, call, error, std::move(work)) : refuseUse(error);
}

template <typename Work>
std::int32_t perform(kru_client* client, const Call& call, kru_error* error, Work work);

/// Sends the request, with the client's texts, and reads its reply or the start of it.
void exchange(Core& core, tq::comm::ClientRequest& request, tq::comm::ClientResponse& response,
              const kru_limits* limits);

}  // namespace tq::capi

struct kru_client {
  std::shared_ptr<tq::capi::Core> core;
};

namespace tq::capi {

template <typename Work>
std::int32_t perform(kru_client* client, const Call& call, kru_error* error, Work work) {
  if (!hasSize(error)) return KRU_MISUSE;
  if (client == nullptr) return refuse(error, "the client is null");
  return perform(client->core, call, error, std::move(work));
}

}  // namespace tq::capi
