#pragma once

#include <unicode/unistr.h>

#include <functional>
#include <string>

#include "comm/kruClientRequest.h"
#include "comm/kruClientResponse.h"
#include "comm/kruCorvaneRESTClient.h"
#include "tests/support/replyCorpus.h"

namespace tq::test {

std::string utf8(const icu::UnicodeString& text);

/// A request of the kind as a caller would build it, for collection "c1"; kinds 3 and 9 carry a
/// document. Its bytes live as long as the process.
tq::comm::ClientRequest requestFor(int kind);

/// How the portions after a search's first one are taken.
enum class Pull {
  Looping,  // getSearchResponse(client, true) until it brings nothing
  Single,   // recv() until the end of the stream
};

/// Takes what is left in a list of results.
void takeHits(tq::comm::SearchResponse& response, Outcome& outcome);
void takeParsed(tq::comm::ParseResponse& response, Outcome& outcome);
/// Notes all of the response but its lists.
void noteResponse(tq::comm::ClientResponse& response, Outcome& outcome);

/// Runs an exchange and takes everything that it brings.
Outcome runExchange(tq::comm::CorvaneRESTClient& client, tq::comm::ClientRequest& request,
                    Pull pull = Pull::Looping);
Outcome runExchange(tq::comm::CorvaneRESTClient& client, int kind, Pull pull = Pull::Looping);

/// What the call throws, as an outcome; an outcome without an error id when it returns.
Outcome errorOf(const std::function<void()>& call);

}  // namespace tq::test
