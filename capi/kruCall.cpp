#include "capi/kruCall.h"

#include "capi/kruFailure.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruStaticDefs.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::capi {

namespace {

using tq::comm::ClientRequest;
using tq::comm::CorvaneRESTClient;
using tq::comm::RequestOutcome;

std::int32_t outcomeOf(const Core& core, const Call& call) {
  if (call.fetches) return KRU_ANSWERED;
  if (!core.asked) return KRU_NOT_SENT;
  switch (core.client->getRequestOutcome()) {
    case RequestOutcome::NotSent:
      return KRU_NOT_SENT;
    case RequestOutcome::MayBeApplied:
      return KRU_MAY_BE_APPLIED;
    case RequestOutcome::Rejected:
      return KRU_REJECTED;
    case RequestOutcome::Answered:
      break;
  }
  return KRU_ANSWERED;
}

// The table of kinds is no part of what the library offers its users.
bool needsQueue(ClientRequest::REQUEST kind) {
  return kind == ClientRequest::ASYNCH_ADD_DOCUMENT || kind == ClientRequest::LAST_DOC_SENT ||
         kind == ClientRequest::UPDATE_INDEX || kind == ClientRequest::PARSE_RESULT;
}

std::int32_t retryOf(const Core& core, const Call& call, const kru_error& report) {
  switch (report.code) {
    case KRU_CONNECT:
    case KRU_SEND:
    case KRU_RECEIVE:
    case KRU_TIMEOUT:
    case KRU_INTERNAL:
    case KRU_TRUNCATED:
    case KRU_CURSOR_LOST:
      break;
    default:
      return KRU_RETRY_USELESS;
  }
  // Reading on is no second request.
  if (call.fetches && report.code == KRU_TIMEOUT) return KRU_RETRY_SAFE;
  if (core.queueMode && needsQueue(call.kind)) return KRU_RETRY_QUEUE;
  if (report.outcome == KRU_NOT_SENT) return KRU_RETRY_SAFE;
  return CorvaneRESTClient::isRepeatable(call.kind) ? KRU_RETRY_SAFE : KRU_RETRY_UNSAFE;
}

std::int32_t connectionAfter(const Core& core, const Call& call, const kru_error& report) {
  if (!core.client->isConnected()) return KRU_CONNECTION_NONE;
  switch (report.code) {
    case KRU_OK:
    case KRU_END:
    case KRU_MISUSE:
    case KRU_REFUSED:
    case KRU_UNAUTHORIZED:
    case KRU_CURSOR_LOST:
    case KRU_UNSUPPORTED:
      return KRU_CONNECTION_KEPT;
    case KRU_TIMEOUT:
      return call.fetches ? KRU_CONNECTION_KEPT : KRU_CONNECTION_REPLACED;
    case KRU_OUT_OF_MEMORY:
      return report.outcome == KRU_NOT_SENT ? KRU_CONNECTION_KEPT : KRU_CONNECTION_REPLACED;
    default:
      return KRU_CONNECTION_REPLACED;
  }
}

/// The kinds whose documents and outcomes are a named client's own.
bool isNamed(ClientRequest::REQUEST kind) {
  return kind == ClientRequest::ASYNCH_ADD_DOCUMENT || kind == ClientRequest::LAST_DOC_SENT ||
         kind == ClientRequest::PARSE_RESULT;
}

void identify(const Core& core, ClientRequest& request) {
  tq::util::ExtendedProperties& properties = request.getReqProperties();
  if (!core.credentials.isEmpty()) {
    properties.putProperty(tq::comm::StaticDefs::PARAM_AUTHENTICATION_TOKEN, core.credentials);
  }
  if (!core.name.isEmpty() && isNamed(request.getRequest())) {
    properties.putProperty(u"client", core.name);
  }
}

}  // namespace

Core::Core() = default;
Core::~Core() = default;

std::int32_t refuse(kru_error* error, const char* what, const char* why) noexcept {
  if (!hasSize(error)) return KRU_MISUSE;
  kru_error report = noError();
  describe(report, {KRU_MISUSE, what, why});
  handOut(error, report);
  return report.code;
}

std::int32_t refuseUse(kru_error* error) noexcept {
  return refuse(error, "a call on this client is under way, or its wait hook jumped out of one");
}

std::int32_t settle(Core& core, const Call& call, kru_error& report, kru_error* error) noexcept {
  if (core.destroyed) core.client->close();
  // A reply that is read on belongs to a request that was there before.
  if (call.fetches && report.code == KRU_MISUSE && core.asked) report.code = KRU_CURSOR_LOST;
  report.outcome = outcomeOf(core, call);
  // The server's error was read to its end. It may be without a word or not to be decoded, or spell
  // the library's id for what is no reply. The outcome also speaks of attempts before.
  const bool isRefused = core.asked && !call.fetches && core.client->isRefused();
  if (isRefused && report.code == KRU_PROTOCOL) report.code = KRU_REFUSED;
  report.retry = retryOf(core, call, report);
  report.connection = connectionAfter(core, call, report);
  nameServer(report, *core.client);
  if (core.asked) core.last = report;
  handOut(error, report);
  return report.code;
}

void exchange(Core& core, ClientRequest& request, tq::comm::ClientResponse& response,
              const kru_limits* limits) {
  const kru_limits given = takeIn(limits, kru_limits{sizeof(kru_limits), 0, 0}, "the limits");
  identify(core, request);
  core.asked = true;
  if (limits == nullptr) {
    core.client->sendAndRecvMesg(request, response);
  } else {
    core.client->sendAndRecvMesg(request, response,
                                 tq::comm::OperationLimits{given.deadline, given.retries});
  }
  // Over HTTP a refusal without a body is no exception.
  if (!response.success()) {
    if (core.binary == nullptr && !core.client->isRefused()) {
      throw Failure{KRU_PROTOCOL, "the reply", "says nothing of what became of the request"};
    }
    throw Failure{KRU_REFUSED, "the server refused the request", "without saying why"};
  }
}

}  // namespace tq::capi
