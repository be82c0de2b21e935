#include <fmt/format.h>

#include <charconv>
#include <nlohmann/json.hpp>
#include <string_view>

#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/facts.h"
#include "cli/keyForms.h"
#include "cli/outcomes.h"
#include "cli/pages.h"
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

constexpr std::string_view kStateHasGone = "ZVK0035E";

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

// Nothing if there are not that many hits.
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

// How often the beginning of a result is looked for anew.
constexpr int kMaxBeginnings = 20;

// Whoever names no place has no state to keep to: if the state goes before its first page is there,
// the next one will do.
std::optional<Place> ask(Session& session, const SearchArguments& arguments,
                         ClientResponse& response) {
  for (int left = arguments.pages && !arguments.after ? kMaxBeginnings : 1;; --left) {
    std::optional<Place> begin;
    if (arguments.pages || arguments.after) {
      begin = placeBehind(session, arguments, arguments.after.value_or("begin"), 0);
    }
    ClientRequest request =
        searchRequest(arguments, begin ? std::optional(begin->text) : std::nullopt);
    try {
      exchange(session, request, response);
      return begin;
    } catch (const tq::oss::BaseException& failure) {
      if (left == 1 || failureId(failure) != kStateHasGone) throw;
    }
  }
}

/// A hit as it is printed, with its collection where there are several.
struct ShownHit {
  double score = 0;
  icu::UnicodeString docId;
  std::optional<std::string> collection;
};

class HitPrinter {
 public:
  HitPrinter(Printer& printer, std::uint64_t start) : printer_(printer), rank_(start) {}

  void print(tq::comm::SearchResponse& portion) {
    while (portion.hasMore()) {
      const tq::comm::SearchResult& hit = portion.getNext();
      print({hit.getScore(), hit.getDocId(), {}});
    }
  }

  void print(const ShownHit& hit) {
    ++rank_;
    ++hits_;
    if (printer_.json()) return printJson(hit);
    std::string line = fmt::format("{:>5}  {:>7.3f}  {}", rank_, hit.score, shownKey(hit.docId));
    if (hit.collection) line += "  (" + printable(*hit.collection) + ")";
    printer_.line(line);
  }

  std::uint64_t hits() const { return hits_; }

 private:
  void printJson(const ShownHit& hit) {
    nlohmann::ordered_json object = {{"rank", rank_}, {"score", hit.score}};
    if (hit.collection) object["collection"] = *hit.collection;
    addKey(object, hit.docId);
    printer_.object(object);
  }

  Printer& printer_;
  std::uint64_t rank_;
  std::uint64_t hits_ = 0;
};

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

// The name stands last, since it may have blanks.
std::string collectionIn(std::string_view report) {
  constexpr std::string_view kName = " collection=";
  const std::size_t place = report.find(kName);
  return std::string(place == report.npos ? "" : report.substr(place + kName.size()));
}

double scoreIn(std::string_view report) {
  const std::string_view text = factIn(report, "score").value_or("0");
  double score = 0;
  std::from_chars(text.data(), text.data() + text.size(), score);
  return score;
}

// A comma stands between two of them.
icu::UnicodeString namesOf(const std::vector<std::string>& collections) {
  icu::UnicodeString names;
  for (const std::string& collection : collections) {
    if (collection.find(',') != std::string::npos) {
      throw UsageError("the name after --also, '" + printable(collection) +
                       "', has a comma; search in that collection first, and --also in the others");
    }
    if (!names.isEmpty()) names += u',';
    names += headerValue("the name after --also", collection);
  }
  return names;
}

ClientRequest togetherRequest(const SearchArguments& arguments) {
  constexpr std::uint64_t kMostHits = 100;
  if (arguments.limit.value_or(0) > kMostHits) {
    throw UsageError(fmt::format("with --also, --limit is at most {}", kMostHits));
  }
  tq::util::ExtendedProperties properties = queryOf(arguments, std::nullopt);
  properties.putProperty(u"report", u"hits");
  properties.putProperty(u"alsoIn", namesOf(arguments.also));
  properties.putProperty(StaticDefs::PARAM_START_OFFSET, digits(arguments.start));
  properties.putProperty(StaticDefs::PARAM_SEARCH_SIZE,
                         digits(arguments.limit.value_or(kMostHits)));
  return collectionRequest(ClientRequest::PARSE_RESULT,
                           headerValue("the collection's name", arguments.collection), properties);
}

// The records of a search have no room for the names of collections, those of a report have.
ExitCode searchTogether(Session& session, const SearchArguments& arguments) {
  ClientRequest request = togetherRequest(arguments);
  HitPrinter hits(session.printer, arguments.start);
  takeResults(session, request, [&](const tq::comm::ParseResult& result) {
    const std::string facts = toUtf8(result.getMessage().getMessageText());
    hits.print({scoreIn(facts), result.getDocument(), collectionIn(facts)});
  });
  if (session.client.isTruncated()) {
    return cutOff(session, counted(hits.hits(), "hit"), "the server ended it early");
  }
  if (hits.hits() == 0) session.printer.note(whyNoHits(arguments));
  return ExitCode::Ok;
}

}  // namespace

ExitCode search(Session& session, const SearchArguments& arguments) {
  // Also a report, which is asked for by a kind of request that can have an effect.
  session.client.setRetryUnsafe(true);
  if (!arguments.also.empty()) return searchTogether(session, arguments);
  ClientResponse response;
  const std::optional<Place> begin = ask(session, arguments, response);
  session.lastWords.set(
      {{}, session.printer.errorLine("interrupted; the result is not complete", "INTERRUPTED")});
  HitPrinter hits(session.printer, arguments.start + (begin ? begin->rank : 0));
  hits.print(response.getSearchResponse());
  try {
    if (!printRest(session, response, hits)) {
      return cutOff(session, counted(hits.hits(), "hit"), "the server ended it early");
    }
  } catch (const tq::oss::BaseException& failure) {
    return cutOff(session, counted(hits.hits(), "hit"),
                  describeFailure(failure, session.settings, true));
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
