#include "server/front/reports.h"

#include <fmt/format.h>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "server/base/bytes.h"
#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/front/documentBlock.h"
#include "server/front/parameters.h"
#include "server/front/replyText.h"
#include "server/front/requestValues.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

// The messages of a report. The last letter tells clients that they are no errors.
constexpr const char* kCollectionLine = "ZVK0101I";
constexpr const char* kCountLine = "ZVK0102I";
constexpr const char* kDigestLine = "ZVK0103I";
constexpr const char* kHitLine = "ZVK0104I";
constexpr const char* kValueLine = "ZVK0105I";
constexpr const char* kSnippetLine = "ZVK0106I";
constexpr const char* kBackupLine = "ZVK0107I";
constexpr const char* kPlaceLine = "ZVK0108I";

constexpr std::uint64_t kMaxLines = 1000;
// Each collection that is reported may have to be opened.
constexpr std::uint64_t kUsualCollections = 100;

// Each hit that is reported has to be read.
constexpr std::uint64_t kMaxHits = 100;
constexpr std::uint64_t kUsualHits = 10;
constexpr std::uint64_t kMaxSnippet = 4096;

// What only reports take.
constexpr std::array<Word, 13> kOfReports{
    &Words::query,  &Words::after,   &Words::upTo,       &Words::keys,        &Words::size,
    &Words::every,  &Words::start,   &Words::sortField,  &Words::searchAfter, &Words::values,
    &Words::alsoIn, &Words::snippet, &Words::resultLimit};

// What getParseResult takes where it makes no report.
constexpr std::array<Word, 2> kOfOutcomes{&Words::batch, &Words::client};

std::uint64_t linesWanted(const Request& request, std::uint64_t usually) {
  std::uint64_t lines = usually;
  readNumber(request, words().size, lines);
  if (lines > kMaxLines) {
    refuseValue(request, words().size, fmt::format("more than the {} allowed", kMaxLines));
  }
  return lines;
}

// Those that are not as usual, under the names of the parameters that choose them.
std::string shownOptions(const CollectionSummary& summary) {
  const Words& w = words();
  const TextOptions& options = summary.options;
  const DocumentReading& defaults = summary.documentDefaults;
  const TextType type = defaults.form.type;
  std::string shown;
  const auto add = [&](const std::string& name, const std::string& value) {
    shown += fmt::format(" {}={}", name, value);
  };
  if (!options.keepsText) add(w.storeText, w.no);
  if (!options.keepsPositions) add(w.storePositions, w.no);
  if (!options.stems) add(w.stemming, w.no);
  if (options.onlyMarkedMetadata) add(w.searchableMetadata, w.marked);
  if (!options.stopWords.empty()) add(w.stopWords, fmt::format("{}", options.stopWords.size()));
  if (type != TextType::Plain) add(w.documentType, type == TextType::Html ? w.html : w.xml);
  if (!defaults.charset.empty()) add(w.charset, defaults.charset);
  if (!defaults.form.language.empty()) add(w.language, defaults.form.language);
  return shown;
}

ReportReply::Line collectionLine(Store& store, const std::string& name) {
  const CollectionSummary summary = store.summary(name);
  const std::string indexing =
      summary.indexing == 0 ? ""
                            : fmt::format(" indexing={}/{}", summary.indexed, summary.indexing);
  return {name, kCollectionLine,
          fmt::format("documents={} pending={} bytes={} language={}{} refresh={}{} mark={}",
                      summary.documents, summary.pending, summary.bytes, summary.language,
                      shownOptions(summary), summary.refresh, indexing,
                      summary.mark.empty() ? kNoMark : summary.mark)};
}

// Damage of one collection must not hide the others. One that is gone meanwhile has no line.
void appendLineOrReason(ReportReply& reply, Store& store, const std::string& name) {
  try {
    reply.lines.push_back(collectionLine(store, name));
  } catch (const ServerError& error) {
    if (error.kind() == ErrorKind::Cancelled || error.kind() == ErrorKind::TimedOut) throw;
    if (error.kind() == ErrorKind::UnknownCollection) return;
    reply.lines.push_back({name, std::string(messageId(error.kind())), error.what()});
  }
}

// No line says that there are no further collections.
Reply collections(const Service& service, const Request& request) {
  const std::uint64_t most = linesWanted(request, kUsualCollections);
  std::string after(request.header(words().after));
  ReportReply reply;
  while (reply.lines.empty()) {
    const std::vector<std::string> names = service.store.collections(after, most);
    if (names.empty()) break;
    for (const std::string& name : names) {
      if (RequestContext* context = RequestContext::current()) context->check();
      appendLineOrReason(reply, service.store, name);
    }
    after = names.back();
  }
  return reply;
}

Reply collection(const Service& service, const Request& request) {
  ReportReply reply;
  reply.lines.push_back(collectionLine(service.store, collectionOf(request)));
  return reply;
}

Reply backups(const Service& service, const Request& request) {
  const std::uint64_t most = linesWanted(request, kUsualCollections);
  const std::string after(request.header(words().after));
  ReportReply reply;
  for (const BackupSummary& backup : service.store.backups(after, most)) {
    if (!backup.damage.empty()) {
      const std::string_view id = messageId(ErrorKind::StorageFailed);
      reply.lines.push_back({backup.name, std::string(id), backup.damage});
      continue;
    }
    reply.lines.push_back({backup.name, kBackupLine,
                           fmt::format("made={} collections={} bytes={}", backup.made,
                                       backup.collections, backup.bytes)});
  }
  return reply;
}

SearchQuery keysOf(const Request& request) {
  SearchQuery query;
  query.order = HitOrder::Key;
  query.text = request.header(words().query);
  query.everything = query.text.empty();
  query.after = keyIn(request, words().after);
  query.upTo = keyIn(request, words().upTo);
  query.keys = keysIn(request, words().keys);
  return query;
}

Reply count(const Service& service, const Request& request) {
  const std::string collection = collectionOf(request);
  const std::uint64_t hits = service.store.count(collection, keysOf(request));
  ReportReply reply;
  reply.lines.push_back({collection, kCountLine, fmt::format("hits={}", hits)});
  return reply;
}

/// Makes a line of every so many documents.
class Digests {
 public:
  Digests(std::uint64_t every, ReportReply& reply) : every_(every), reply_(reply) { begin(); }

  void add(const Document& document) {
    addBytes(documentPrefix(document));
    addBytes(document.content);
    lastKey_ = document.key;
    if (++documents_ == every_) end();
  }

  void end() {
    if (documents_ == 0) return;
    std::array<unsigned char, crypto_hash_sha256_BYTES> hash{};
    crypto_hash_sha256_final(&state_, hash.data());
    reply_.lines.push_back(
        {documentId(lastKey_), kDigestLine,
         fmt::format("documents={} sha256={:02x}", documents_, fmt::join(hash, ""))});
    begin();
  }

 private:
  void addBytes(std::string_view bytes) {
    crypto_hash_sha256_update(&state_, reinterpret_cast<const unsigned char*>(bytes.data()),
                              bytes.size());
  }

  void begin() {
    crypto_hash_sha256_init(&state_);
    documents_ = 0;
  }

  const std::uint64_t every_;
  ReportReply& reply_;
  crypto_hash_sha256_state state_{};
  std::uint64_t documents_ = 0;
  std::string lastKey_;
};

Reply digest(const Service& service, const Request& request) {
  const std::string collection = collectionOf(request);
  const std::uint64_t lines = linesWanted(request, kMaxLines);
  SearchQuery query = keysOf(request);
  std::uint64_t every = 0;
  readNumber(request, words().every, every);
  const bool inOneLine = every == 0;
  // Without a line to make, the store still has to say whether it could.
  if (lines == 0) {
    query.size = 0;
  } else if (!inOneLine && every < query.size / lines) {
    query.size = every * lines;
  }
  ReportReply reply;
  Digests digests(every, reply);
  service.store.visit(collection, query, [&](const Document& document) { digests.add(document); });
  digests.end();
  return reply;
}

// What is searched for, and in which order.
SearchQuery searchedBy(const Request& request) {
  SearchQuery query;
  readOrder(request, query);
  query.text = request.header(words().query);
  query.everything = query.text.empty() && query.order != HitOrder::Score;
  if (!query.everything) query.text = require(request, words().query);
  query.after = keyIn(request, words().after);
  query.upTo = keyIn(request, words().upTo);
  query.keys = keysIn(request, words().keys);
  readNumber(request, words().start, query.start);
  readNumber(request, words().resultLimit, query.limit);
  readPlace(request, query);
  return query;
}

SearchQuery hitsOf(const Request& request) {
  SearchQuery query = searchedBy(request);
  query.size = kUsualHits;
  readNumber(request, words().size, query.size);
  if (query.size > kMaxHits) {
    refuseValue(request, words().size, fmt::format("more than the {} allowed", kMaxHits));
  }
  return query;
}

DetailsWanted detailsOf(const Request& request) {
  DetailsWanted wanted;
  // As many as a header holds, each of which is looked for among all metadata of each hit.
  const std::vector<std::string> names = listIn(request.header(words().values));
  wanted.names.insert(names.begin(), names.end());
  std::uint64_t bytes = 0;
  readNumber(request, words().snippet, bytes);
  if (bytes > kMaxSnippet) {
    refuseValue(request, words().snippet, fmt::format("more than the {} allowed", kMaxSnippet));
  }
  wanted.snippetBytes = static_cast<std::size_t>(bytes);
  return wanted;
}

ReportReply::Line placeLine(const std::string& collection, const ResultPlace& place) {
  return {collection, kPlaceLine, fmt::format("rank={} place={}", place.rank, textOf(place))};
}

std::vector<HitDetails> found(const Service& service, const Request& request) {
  const std::vector<std::string> collections = collectionsOf(request);
  const SearchQuery query = hitsOf(request);
  const DetailsWanted wanted = detailsOf(request);
  if (collections.size() == 1) return service.store.details(collections.front(), query, wanted);
  if (query.inPages) refuseBeside(request, words().searchAfter, words().alsoIn);
  return service.store.details(collections, query, wanted);
}

// A collection's name may have blanks, so it stands last.
std::string hitText(const HitDetails& details) {
  const std::string score = "score=" + scoreText(details.hit.milliScore);
  return details.collection.empty() ? score : score + " collection=" + details.collection;
}

Reply hits(const Service& service, const Request& request) {
  ReportReply reply;
  std::optional<ResultPlace> next;
  for (const HitDetails& each : found(service, request)) {
    const std::string id = documentId(each.hit.key);
    reply.lines.push_back({id, kHitLine, hitText(each)});
    for (const auto& [name, value] : each.values) {
      reply.lines.push_back({id, kValueLine, fmt::format("{}={}", name, value)});
    }
    if (!each.snippet.empty()) reply.lines.push_back({id, kSnippetLine, each.snippet});
    reply.memory = each.memory;
    next = each.nextPage;
  }
  if (next) reply.lines.push_back(placeLine(collectionOf(request), *next));
  return reply;
}

// To know a place behind hits it takes the last of them.
Reply place(const Service& service, const Request& request) {
  const std::string collection = collectionOf(request);
  SearchQuery query = searchedBy(request);
  query.inPages = true;
  query.size = query.start > 0 ? 1 : 0;
  query.start -= query.size;
  const auto next = service.store.search(collection, query)->nextPage();
  ReportReply reply;
  if (next) reply.lines.push_back(placeLine(collection, *next));
  return reply;
}

struct Report {
  Word name;
  bool ofCollection;
  std::array<Word, 12> takes;
  Reply (*make)(const Service& service, const Request& request);
};

constexpr std::array<Report, 7> kReports{{
    {&Words::collectionsReport, false, {&Words::after, &Words::size}, collections},
    {&Words::backupsReport, false, {&Words::after, &Words::size}, backups},
    {&Words::collectionReport, true, {}, collection},
    {&Words::countReport, true, {&Words::query, &Words::after, &Words::upTo, &Words::keys}, count},
    {&Words::digestReport,
     true,
     {&Words::after, &Words::upTo, &Words::size, &Words::every},
     digest},
    {&Words::hitsReport,
     true,
     {&Words::query, &Words::after, &Words::upTo, &Words::keys, &Words::sortField, &Words::start,
      &Words::size, &Words::resultLimit, &Words::searchAfter, &Words::values, &Words::snippet,
      &Words::alsoIn},
     hits},
    {&Words::placeReport,
     true,
     {&Words::query, &Words::after, &Words::upTo, &Words::keys, &Words::sortField, &Words::start,
      &Words::resultLimit, &Words::searchAfter},
     place},
}};

const Report& reportNamed(const Request& request) {
  const std::string_view name = request.header(words().report);
  for (const Report& known : kReports) {
    if (words().*known.name == name) return known;
  }
  refuseValue(request, words().report, "and there is no such report");
}

void requireTaken(const Report& wanted, const Request& request, Word name) {
  const auto& takes = wanted.takes;
  if (std::find(takes.begin(), takes.end(), name) != takes.end()) return;
  if (request.header(words().*name).empty()) return;
  throw ServerError(ErrorKind::UnknownParameter, "the report " + shown(words().*wanted.name) +
                                                     " does not take the parameter " +
                                                     shown(words().*name));
}

}  // namespace

bool asksForReport(const Request& request) {
  if (!request.header(words().report).empty()) return true;
  for (const Word name : kOfReports) {
    if (!request.header(words().*name).empty()) {
      refuseWithout(request, words().*name, words().report);
    }
  }
  return false;
}

bool isReportOfServer(std::string_view name) {
  return std::any_of(kReports.begin(), kReports.end(), [&](const Report& known) {
    return !known.ofCollection && words().*known.name == name;
  });
}

Reply report(const Service& service, const Request& request) {
  const Report& wanted = reportNamed(request);
  for (const Word name : kOfReports) requireTaken(wanted, request, name);
  for (const Word name : kOfOutcomes) requireTaken(wanted, request, name);
  if (!wanted.ofCollection) {
    for (const Word name : {&Words::collection, &Words::collectionName}) {
      requireTaken(wanted, request, name);
    }
  }
  return wanted.make(service, request);
}

}  // namespace corvaned
