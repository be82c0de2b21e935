#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/facts.h"
#include "cli/outcomes.h"
#include "cli/request.h"
#include "cli/text.h"
#include "comm/kruClientResponse.h"
#include "comm/kruParseResult.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruBaseException.h"

namespace corvane {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::StaticDefs;

icu::UnicodeString digits(std::uint64_t number) {
  return icu::UnicodeString::fromUTF8(std::to_string(number));
}

/// Where a result goes on, and how many hits come before.
struct Place {
  std::uint64_t rank = 0;
  std::string text;
};

tq::util::ExtendedProperties queryOf(const SearchArguments& arguments,
                                     const std::optional<std::string>& from) {
  tq::util::ExtendedProperties properties;
  properties.putProperty(StaticDefs::PARAM_QUERY, headerValue("the query", arguments.query));
  if (from) properties.putProperty(u"searchAfter", headerValue("the place after --after", *from));
  return properties;
}

// Nothing if there are not so many hits.
std::optional<Place> placeBehind(Session& session, const SearchArguments& arguments,
                                 const std::string& from, std::uint64_t hits) {
  tq::util::ExtendedProperties properties = queryOf(arguments, from);
  properties.putProperty(u"report", u"place");
  properties.putProperty(StaticDefs::PARAM_START_OFFSET, digits(hits));
  ClientRequest request =
      collectionRequest(ClientRequest::PARSE_RESULT,
                        headerValue("the collection's name", arguments.collection), properties);
  std::optional<Place> place;
  takeResults(session, request, [&](const tq::comm::ParseResult& result) {
    const std::string facts = toUtf8(result.getMessage().getMessageText());
    place = Place{numberIn(facts, "rank"), std::string(factIn(facts, "place").value_or(""))};
  });
  return place;
}

ClientRequest searchRequest(const SearchArguments& arguments,
                            const std::optional<std::string>& from) {
  tq::util::ExtendedProperties properties = queryOf(arguments, from);
  properties.putProperty(StaticDefs::PARAM_SCORE_WANTED, StaticDefs::STRING_true);
  if (arguments.start != 0) {
    properties.putProperty(StaticDefs::PARAM_START_OFFSET, digits(arguments.start));
  }
  if (arguments.limit) {
    properties.putProperty(StaticDefs::PARAM_SEARCH_SIZE, digits(*arguments.limit));
  }
  return collectionRequest(ClientRequest::STREAM_SEARCH,
                           headerValue("the collection's name", arguments.collection), properties);
}

class HitPrinter {
 public:
  HitPrinter(Printer& printer, std::uint64_t start) : printer_(printer), rank_(start) {}

  void print(tq::comm::SearchResponse& portion) {
    while (portion.hasMore()) print(portion.getNext());
  }

  std::uint64_t hits() const { return hits_; }

 private:
  void print(const tq::comm::SearchResult& hit) {
    ++rank_;
    ++hits_;
    const auto bytes = keyOfDocId(hit.getDocId());
    const auto key = bytes ? fromUtf8(*bytes) : std::nullopt;
    if (printer_.json()) {
      printJson(hit, key);
      return;
    }
    const std::string shown = key && isPrintable(*key) ? *bytes : printable(hit.getDocId());
    printer_.line(fmt::format("{:>5}  {:>7.3f}  {}", rank_, hit.getScore(), shown));
  }

  void printJson(const tq::comm::SearchResult& hit, const std::optional<icu::UnicodeString>& key) {
    nlohmann::ordered_json object = {{"rank", rank_}, {"score", hit.getScore()}};
    if (key) object["key"] = toUtf8(*key);
    object["docId"] = toUtf8(hit.getDocId());
    printer_.object(object);
  }

  Printer& printer_;
  std::uint64_t rank_;
  std::uint64_t hits_ = 0;
};

ExitCode cutOff(Session& session, std::uint64_t hits, const std::string& cause) {
  session.printer.error(
      fmt::format("the result from {} was cut off after {} ({}); what is shown is right but not "
                  "everything, search again",
                  address(session.settings), counted(hits, "hit"), cause),
      "TRUNCATED");
  return ExitCode::Truncated;
}

std::string whyNoHits(const SearchArguments& arguments) {
  if (arguments.limit == std::uint64_t{0}) return "no hits are shown, as --limit 0 asks";
  if (arguments.after) return "no hits are left after this place";
  if (arguments.start == 0) return "no document matches";
  return fmt::format("no hits are left after the first {}", arguments.start);
}

void tellNextPage(Session& session, const SearchArguments& arguments, const Place& begin) {
  const auto next =
      placeBehind(session, arguments, begin.text, arguments.start + arguments.limit.value_or(0));
  if (!next) return;
  session.printer.result("the next page: --after " + printable(next->text), {{"next", next->text}});
}

// Prints portion after portion. Returns false when the result ended before it was complete.
bool printRest(Session& session, ClientResponse& response, HitPrinter& hits) {
  while (!session.client.isEndOfStream()) {
    hits.print(response.getSearchResponse(session.client, true));
  }
  return !session.client.isTruncated();
}

}  // namespace

ExitCode search(Session& session, const SearchArguments& arguments) {
  std::optional<Place> begin;
  if (arguments.pages || arguments.after) {
    begin = placeBehind(session, arguments, arguments.after.value_or("begin"), 0);
  }
  ClientRequest request =
      searchRequest(arguments, begin ? std::optional(begin->text) : std::nullopt);
  ClientResponse response;
  exchange(session, request, response);
  session.lastWords.set(
      {{}, session.printer.errorLine("interrupted; the result is not complete", "INTERRUPTED")});
  HitPrinter hits(session.printer, arguments.start + (begin ? begin->rank : 0));
  hits.print(response.getSearchResponse());
  try {
    if (!printRest(session, response, hits)) {
      return cutOff(session, hits.hits(), "the server ended it early");
    }
  } catch (const tq::oss::BaseException& failure) {
    return cutOff(session, hits.hits(), describeFailure(failure, session.settings, true));
  }
  // A page without hits has brought nobody further.
  if (hits.hits() == 0) {
    session.printer.note(whyNoHits(arguments));
  } else if (begin && hits.hits() == arguments.limit) {
    tellNextPage(session, arguments, *begin);
  }
  return ExitCode::Ok;
}

}  // namespace corvane
