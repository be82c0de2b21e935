#include <cxxabi.h>
#include <poll.h>

#include <algorithm>

#include "capi/kru.h"
#include "capi/kruCall.h"
#include "capi/kruTexts.h"
#include "comm/kruDrestoPerfClient.h"
#include "comm/kruVersion.h"

namespace tq::capi {

namespace {

using tq::comm::CorvaneRESTClient;
using tq::comm::DrestoPerfClient;

constexpr std::uint32_t kLastPort = 65535;

// A server takes no longer one.
constexpr std::uint32_t kLongestName = 128;

std::unique_ptr<kru_client> makeClient(std::int32_t protocol, const icu::UnicodeString& host,
                                       std::uint32_t port) {
  auto handle = std::make_unique<kru_client>();
  handle->core = std::make_shared<Core>();
  if (protocol == KRU_HTTP) {
    handle->core->client = std::make_unique<CorvaneRESTClient>(host, port, true);
    return handle;
  }
  auto binary = std::make_unique<DrestoPerfClient>(host, port);
  binary->setReassembly(true);
  handle->core->binary = binary.get();
  handle->core->client = std::move(binary);
  return handle;
}

std::int32_t eventsOf(short events) {
  return ((events & POLLIN) != 0 ? KRU_WAIT_READ : 0) |
         ((events & POLLOUT) != 0 ? KRU_WAIT_WRITE : 0);
}

tq::oss::WaitResult waitAsTheHostDoes(void* core, int fd, short events,
                                      int timeoutMillis) noexcept {
  const Core& self = *static_cast<Core*>(core);
  const std::int32_t answer = self.hook(self.host, fd, eventsOf(events), timeoutMillis);
  if (self.destroyed) return tq::oss::WaitResult::GiveUp;
  switch (answer) {
    case KRU_WAIT_READY:
      return tq::oss::WaitResult::Ready;
    case KRU_WAIT_TIMED_OUT:
      return tq::oss::WaitResult::TimedOut;
    default:
      return tq::oss::WaitResult::GiveUp;
  }
}

bool switchOf(std::uint32_t value) {
  if (value > 1) misuse("the value of a switch", "is neither 0 nor 1");
  return value == 1;
}

void setPauses(Core& core) {
  core.client->setRetryPause(core.pauseFirst, std::max(core.pauseFirst, core.pauseMost));
}

void apply(Core& core, std::int32_t setting, std::uint32_t value) {
  switch (setting) {
    case KRU_TIME_OUT:
      return core.client->setTimeOut(value);
    case KRU_DEADLINE:
      core.deadline = value;
      return core.client->setDeadline(value);
    case KRU_RETRIES:
      return core.client->setNumRetries(value);
    case KRU_RETRY_UNSAFE_KINDS:
      return core.client->setRetryUnsafe(switchOf(value));
    case KRU_RETRY_PAUSE:
      core.pauseFirst = value;
      return setPauses(core);
    case KRU_RETRY_PAUSE_MOST:
      core.pauseMost = value;
      return setPauses(core);
    case KRU_REASSEMBLY: {
      const bool on = switchOf(value);
      if (core.binary != nullptr) core.binary->setReassembly(on);
      return;
    }
    case KRU_BATCHING: {
      const bool on = switchOf(value);
      if (core.binary != nullptr) core.binary->useBufferedConnection(on);
      return;
    }
    case KRU_QUEUE_ON_ONE_CONNECTION:
      core.queueMode = switchOf(value);
      return core.client->setQueueOnOneConnection(core.queueMode);
    case KRU_MAX_REPLY_BYTES:
      return core.client->setMaxReplyBytes(value);
    default:
      misuse("the setting", "is none that this version knows");
  }
}

/// Empty for a text that is taken away.
icu::UnicodeString takeHeaderText(const char* text, std::uint32_t length, const char* what) {
  return length == 0 ? icu::UnicodeString() : takeLine(text, length, what);
}

void applyText(Core& core, std::int32_t setting, const char* text, std::uint32_t length) {
  switch (setting) {
    case KRU_CREDENTIALS:
      core.credentials = takeHeaderText(text, length, "the text of KRU_CREDENTIALS");
      return;
    case KRU_CLIENT_NAME:
      if (length > kLongestName) misuse("the text of KRU_CLIENT_NAME", "is longer than 128 bytes");
      core.name = takeHeaderText(text, length, "the text of KRU_CLIENT_NAME");
      return;
    default:
      misuse("the setting", "is none that this version knows");
  }
}

}  // namespace

}  // namespace tq::capi

using namespace tq::capi;

uint32_t kru_version(void) { return KRU_VERSION_NUMBER; }

int32_t kru_client_create(int32_t protocol, const char* host, uint32_t host_length, uint32_t port,
                          kru_client** client, kru_error* error) {
  if (client == nullptr) return refuse(error, "the place for the client is null");
  *client = nullptr;
  if (!hasSize(error)) return KRU_MISUSE;
  kru_error report = noError();
  try {
    if (protocol != KRU_HTTP && protocol != KRU_BINARY) misuse("the protocol", "is none");
    if (port == 0 || port > kLastPort) misuse("the port", "is not from 1 to 65535");
    *client = makeClient(protocol, takeLine(host, host_length, "the host"), port).release();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    describeCurrentException(report);
  }
  handOut(error, report);
  return report.code;
}

void kru_client_destroy(kru_client* client) {
  if (client == nullptr) return;
  {
    const Use use(*client->core);
    client->core->destroyed = true;
    if (use.granted()) client->core->client->close();
  }
  delete client;
}

int32_t kru_client_set(kru_client* client, int32_t setting, uint32_t value, kru_error* error) {
  return perform(client, {}, error, [&](Core& core, kru_error&) { apply(core, setting, value); });
}

int32_t kru_client_set_text(kru_client* client, int32_t setting, const char* text, uint32_t length,
                            kru_error* error) {
  return perform(client, {}, error,
                 [&](Core& core, kru_error&) { applyText(core, setting, text, length); });
}

int32_t kru_client_set_wait_hook(kru_client* client, kru_wait_hook hook, void* host,
                                 kru_error* error) {
  return perform(client, {}, error, [&](Core& core, kru_error&) {
    core.hook = hook;
    core.host = host;
    core.client->setWaitHook(hook != nullptr ? &waitAsTheHostDoes : nullptr, &core);
  });
}

int32_t kru_client_disconnect(kru_client* client, kru_error* error) {
  return perform(client, {}, error, [](Core& core, kru_error&) { core.client->close(); });
}

int32_t kru_client_connection_number(kru_client* client, uint64_t* number, kru_error* error) {
  return perform(client, {}, error, [&](Core& core, kru_error&) {
    if (number == nullptr) misuse("the place for the number", "is null");
    *number = core.client->getConnectionNumber();
  });
}

int32_t kru_client_last_error(kru_client* client, kru_error* error) {
  if (error == nullptr || !hasSize(error)) return KRU_MISUSE;
  kru_error last = noError();
  const std::int32_t code =
      perform(client, {}, error, [&](Core& core, kru_error&) { last = core.last; });
  if (code == KRU_OK) handOut(error, last);
  return code;
}
