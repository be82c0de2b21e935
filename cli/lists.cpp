#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "cli/commands.h"
#include "cli/facts.h"
#include "cli/keyForms.h"
#include "cli/outcomes.h"
#include "cli/pages.h"
#include "cli/request.h"
#include "cli/text.h"
#include "comm/kruClientResponse.h"
#include "comm/kruParseResult.h"
#include "comm/kruStaticDefs.h"

namespace corvane {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::ParseResult;
using tq::comm::StaticDefs;

constexpr std::string_view kMark = "mark";

bool isNumber(std::string_view fact) {
  constexpr std::array<std::string_view, 4> kNumbers{"documents", "pending", "bytes", "stopWords"};
  return std::find(kNumbers.begin(), kNumbers.end(), fact) != kNumbers.end();
}

std::string shown(std::string_view report, std::string_view fact, std::string_view value) {
  if (fact == "documents") return counted(numberIn(report, fact), "document");
  if (fact == "bytes") return counted(numberIn(report, fact), "byte");
  return fact == "pending" ? fmt::format("{} pending", value) : fmt::format("{} {}", fact, value);
}

// A collection that cannot be opened has an error in place of the facts.
void print(Session& session, const ParseResult& result) {
  const std::string name = toUtf8(result.getDocument());
  if (isRefusal(result)) {
    const std::string reason = reasonOf(result.getMessage());
    session.printer.result(fmt::format("{}: {}", printable(name), reason),
                           {{"collection", name}, {"error", reason}});
    return;
  }
  const std::string report = toUtf8(result.getMessage().getMessageText());
  std::string line = name + ":";
  nlohmann::ordered_json object = {{"collection", name}};
  for (const auto& [fact, value] : factsIn(report, kMark)) {
    // So the server says that there is no mark; a mark is never this word.
    if (fact == kMark && value == "none") continue;
    line += fmt::format("{} {}", object.size() == 1 ? "" : ",", shown(report, fact, value));
    if (isNumber(fact)) {
      object[std::string(fact)] = numberIn(report, fact);
    } else {
      object[std::string(fact)] = value;
    }
  }
  session.printer.result(line, object);
}

tq::util::ExtendedProperties rangeOf(const KeyRange& range) {
  tq::util::ExtendedProperties properties;
  if (range.after) properties.putProperty(u"after", docIdOf(keyFrom(*range.after, range.base64)));
  if (range.upTo) properties.putProperty(u"upTo", docIdOf(keyFrom(*range.upTo, range.base64)));
  return properties;
}

std::string placeBehind(const icu::UnicodeString& docId) {
  return keyOfDocId(docId).value_or(toUtf8(docId));
}

// Of a page the server has to make all within its time limit for searches.
constexpr std::uint64_t kPage = 10000;
constexpr std::uint64_t kMostDigests = 1000;

/// Goes through the keys of a range, page by page.
class KeyPages {
 public:
  KeyPages(Session& session, const KeysArguments& arguments)
      : session_(session),
        collection_(headerValue("the collection's name", arguments.collection)),
        properties_(rangeOf(arguments.range)),
        left_(arguments.limit.value_or(std::numeric_limits<std::uint64_t>::max())) {
    properties_.putProperty(StaticDefs::PARAM_SORT_FIELD, u"KEY");
  }

  /// As a PagePrinter.
  std::optional<std::string> print(std::uint64_t& printed) {
    const std::uint64_t wanted = std::min(kPage, left_), before = printed;
    properties_.putProperty(StaticDefs::PARAM_SEARCH_SIZE, digits(wanted));
    if (!last_.isEmpty()) properties_.putProperty(u"after", last_);
    ClientRequest request =
        collectionRequest(ClientRequest::STREAM_SEARCH, collection_, properties_);
    ClientResponse response;
    exchange(session_, request, response);
    print(response.getSearchResponse(), printed);
    while (!session_.client.isEndOfStream()) {
      print(response.getSearchResponse(session_.client, true), printed);
    }
    left_ -= wanted;
    if (printed - before < wanted || left_ == 0) return std::nullopt;
    return placeBehind(last_);
  }

 private:
  void print(tq::comm::SearchResponse& portion, std::uint64_t& printed) {
    for (; portion.hasMore(); ++printed) {
      last_ = portion.getNext().getDocId();
      if (session_.printer.json()) {
        nlohmann::ordered_json object;
        addKey(object, last_);
        session_.printer.object(object);
      } else {
        session_.printer.line(shownKey(last_));
      }
    }
  }

  Session& session_;
  icu::UnicodeString collection_;
  tq::util::ExtendedProperties properties_;
  std::uint64_t left_;
  icu::UnicodeString last_;
};

void printDigest(Session& session, const ParseResult& result) {
  const std::string report = toUtf8(result.getMessage().getMessageText());
  const std::string sum(factIn(report, "sha256").value_or(""));
  const std::uint64_t documents = numberIn(report, "documents");
  if (session.printer.json()) {
    nlohmann::ordered_json object = {{"sha256", sum}, {"documents", documents}};
    addKey(object, result.getDocument());
    session.printer.object(object);
  } else {
    session.printer.line(
        fmt::format("{}  {:>6}  {}", printable(sum), documents, shownKey(result.getDocument())));
  }
}

}  // namespace

ExitCode listCollections(Session& session, const std::optional<std::string>& collection) {
  const ListWords words{"collection", "there are no collections"};
  const auto take = [&](const ParseResult& result) { print(session, result); };
  if (!collection) return printReport(session, u"collections", words, take);
  tq::util::ExtendedProperties properties;
  properties.putProperty(u"report", u"collection");
  ClientRequest request = collectionRequest(
      ClientRequest::PARSE_RESULT, headerValue("the collection's name", *collection), properties);
  return printPages(session, words, [&](std::uint64_t& printed) {
    printed = takeResults(session, request, take);
    return std::nullopt;
  });
}

ExitCode listKeys(Session& session, const KeysArguments& arguments) {
  KeyPages pages(session, arguments);
  const ListWords words{"key", arguments.limit == std::uint64_t{0}
                                   ? "no keys are shown, as --limit 0 asks"
                                   : "searches find no document in this range"};
  return printPages(session, words, [&](std::uint64_t& printed) { return pages.print(printed); });
}

ExitCode digest(Session& session, const DigestArguments& arguments) {
  tq::util::ExtendedProperties properties = rangeOf(arguments.range);
  properties.putProperty(u"report", u"digest");
  // One digest of all documents cannot be put together from pages.
  const std::uint64_t lines =
      arguments.every == 0 ? 1
                           : std::clamp(kPage / arguments.every, std::uint64_t{1}, kMostDigests);
  if (arguments.every != 0) {
    properties.putProperty(u"every", digits(arguments.every));
    properties.putProperty(StaticDefs::PARAM_SEARCH_SIZE, digits(lines));
  }
  const icu::UnicodeString collection = headerValue("the collection's name", arguments.collection);
  const ListWords words{"digest", "searches find no document in this range"};
  return printPages(session, words, [&](std::uint64_t& printed) {
    ClientRequest request = collectionRequest(ClientRequest::PARSE_RESULT, collection, properties);
    icu::UnicodeString last;
    const std::size_t told = takeResults(session, request, [&](const ParseResult& result) {
      last = result.getDocument();
      printDigest(session, result);
      ++printed;
    });
    properties.putProperty(u"after", last);
    const bool isLastPage = arguments.every == 0 || told < lines;
    return isLastPage ? std::nullopt : std::optional(placeBehind(last));
  });
}

}  // namespace corvane
