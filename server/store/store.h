#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace corvaned {

/// A document as clients send it: a key of 1 to 128 bytes, UTF-8 metadata, content (may be empty).
struct Document {
  std::string key;
  std::vector<std::pair<std::string, std::string>> metadata;
  std::string content;
};

/// One hit. `milliScore` is the score times 1000, rounded once and here, so that both protocols
/// report the same number.
struct Hit {
  std::string key;
  std::uint16_t milliScore = 0;
};

/// The hits of one search, best first, equal weights in the order of their keys.
class HitSource {
 public:
  virtual ~HitSource() = default;
  /// Puts the next hit into `hit`; false, and `hit` untouched, behind the last one. May throw; what
  /// was handed out before stays valid.
  virtual bool next(Hit& hit) = 0;
};

enum class ScoreScale {
  /// The best hit of the whole result has 1.000.
  normalized,
  /// The engine's own weight, cut at 65.535.
  raw,
};

struct SearchQuery {
  std::string text;
  /// The ranked result is cut after `limit` hits; of what is left `size` hits from `start` on.
  std::uint64_t start = 0;
  std::uint64_t size = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t limit = std::numeric_limits<std::uint64_t>::max();
  ScoreScale scale = ScoreScale::normalized;
};

/// What a planner may want to know before it searches.
struct Estimate {
  std::uint64_t hits = 0;
  std::uint64_t atMost = 0;
  std::uint64_t documents = 0;
};

/// What became of one queued document. No messageId: it is stored.
struct ParseOutcome {
  std::string key;
  std::string messageId;
  std::string messageText;
};

enum class CollectionState {
  /// Every accepted change is searchable.
  current,
  /// Changes wait for updateIndex.
  changesPending,
};

/// Where the documents are. Every operation may be called from any thread at any time; it throws
/// ServerError when it did nothing. An operation that returns has done what it says durably: a
/// crash of the process or the machine right behind it loses nothing.
class Store {
 public:
  virtual ~Store() = default;

  virtual void createCollection(const std::string& name, const std::string& language) = 0;
  virtual void openCollection(const std::string& name) = 0;
  virtual void closeCollection(const std::string& name) = 0;
  virtual void deleteCollection(const std::string& name) = 0;

  /// Adds the document or replaces the one that has its key. Searchable after updateIndex.
  virtual void addDocument(const std::string& name, const Document& document) = 0;
  /// As addDocument, but durable only when takeParseOutcomes has reported it.
  virtual void queueDocument(const std::string& name, const Document& document) = 0;
  /// Puts the outcome of a document that never reached the store among those of queueDocument.
  virtual void reportOutcome(const std::string& name, ParseOutcome outcome) = 0;
  /// Deleting a key that is not there succeeds. The document is not found any more from now on.
  virtual void deleteDocument(const std::string& name, const std::string& key) = 0;
  /// Makes every change accepted before the call searchable.
  virtual void updateIndex(const std::string& name) = 0;
  /// One outcome for each document queued since the last call, oldest first, all of them durable.
  virtual std::vector<ParseOutcome> takeParseOutcomes(const std::string& name) = 0;

  virtual std::unique_ptr<HitSource> search(const std::string& name, const SearchQuery& query) = 0;
  virtual Estimate estimate(const std::string& name, const std::string& query) = 0;
  virtual CollectionState state(const std::string& name) = 0;
};

}  // namespace corvaned
