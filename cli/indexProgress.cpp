#include "cli/indexProgress.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "cli/credentials.h"
#include "cli/errors.h"
#include "cli/facts.h"
#include "cli/request.h"
#include "cli/text.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruParseResult.h"
#include "infra/oss/kruBaseException.h"

namespace corvane {

namespace {

using tq::comm::ClientRequest;

Settings impatient(Settings settings) {
  constexpr unsigned int kPatience = 1000;
  settings.timeOut = kPatience;
  return settings;
}

// Of the facts of a collection, "indexing=1200/50000" among others. Empty if no update is under
// way, as before its first step.
std::string progressIn(std::string_view facts) {
  const std::string_view fraction = factIn(facts, "indexing").value_or("");
  const std::size_t slash = fraction.find('/');
  if (slash == std::string_view::npos) return {};
  return fmt::format("{} of {} changes are indexed", printable(fraction.substr(0, slash)),
                     printable(fraction.substr(slash + 1)));
}

}  // namespace

IndexProgress::IndexProgress(const Settings& settings, icu::UnicodeString collection)
    : settings_(impatient(settings)), collection_(std::move(collection)) {}

IndexProgress::~IndexProgress() = default;

void IndexProgress::ask() noexcept {
  if (refused_) return;
  try {
    askServer();
  } catch (const tq::oss::BaseException& failure) {
    refused_ = client_ && isVerdict(failure, client_->getRequestOutcome());
  } catch (...) {
    // A server that is busy with the update may answer the next question.
  }
}

void IndexProgress::askServer() {
  if (!client_) client_ = makeClient(settings_);
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"report", u"collection");
  ClientRequest request = collectionRequest(ClientRequest::PARSE_RESULT, collection_, properties);
  identify(request, settings_);
  tq::comm::ClientResponse response;
  client_->sendAndRecvMesg(request, response);
  auto& facts = response.getParseResponse();
  if (facts.hasMore()) text_ = progressIn(toUtf8(facts.getNext().getMessage().getMessageText()));
}

}  // namespace corvane
