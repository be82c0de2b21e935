#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/e2e/operations.h"

// What a server must answer, as far as it can be told without ranking: both protocols lead into the
// same server, so they agree on its mistakes.
namespace tq::test {

class ServerModel {
 public:
  /// Carries the operation out in the model. Empty if the answer is what it must be; else what it
  /// should have been.
  std::string follow(const Operation& operation, const Answer& answer);

  /// True if the documents of the collection become searchable without updateIndex.
  bool isImmediate(const std::string& collection) const;
  /// True if the operation begins a result that it takes a page of. The model has to be shown the
  /// whole result first.
  bool beginsResult(const Operation& operation) const;
  void showResult(const Operation& begin, const Answer& whole);

 private:
  using Documents = std::map<std::string, Written>;

  struct AppliedBatch {
    std::string content;
    std::string newMark;
    std::string facts;
  };

  struct QueuedDocument {
    std::string key;
    bool isTaken = false;
  };

  struct Collection {
    bool isEnglish = true;
    bool isImmediate = false;
    Documents accepted;
    Documents searchable;
    /// What the index holds, deleted documents included, and the last change of each key that waits
    /// for it: true if that adds a document.
    std::set<std::string> indexed;
    std::map<std::string, bool> waiting;
    std::size_t changes = 0;
    std::string mark;
    std::map<std::string, AppliedBatch> batches;
    /// Nothing if the model cannot tell.
    std::optional<std::vector<QueuedDocument>> queued{std::vector<QueuedDocument>{}};
    /// Places are valid in the state with their number.
    std::uint64_t state = 0;
    bool mayHaveChanged = false;
  };

  struct SavedCollection {
    std::string name;
    Collection collection;
  };

  struct HitLine {
    std::string document;
    std::string text;
    bool operator==(const HitLine&) const = default;
  };

  /// The result that pages are taken of, and where the next page begins.
  struct Result {
    std::string collection;
    Parameters query;
    std::uint64_t state = 0;
    std::optional<std::vector<HitLine>> hits;
    std::uint64_t rank = 0;
  };

  /// A hit that is certain: the document, and the collection that has it.
  struct Match {
    std::string key;
    std::string collection;
    // NOLINTNEXTLINE(modernize-use-nullptr)
    auto operator<=>(const Match&) const = default;
  };

  Collection* find(const std::string& name);
  const Collection* find(const std::string& name) const;

  std::string followChange(const Operation& operation, const Answer& answer);
  std::string followCollection(const Operation& operation, const Answer& answer);
  std::string followBackup(const Operation& operation, const Answer& answer);
  std::string followBatch(const Operation& operation, const Answer& answer);
  std::string followPage(const Operation& operation, const Answer& answer);
  std::string checkPage(const Operation& operation, const Answer& answer, Result& result);
  std::string checkResults(const Operation& operation, const Answer& answer);
  std::string checkOutcomes(const Answer& answer, Collection& collection);
  std::string checkBatchOutcome(const Operation& operation, const Answer& answer) const;
  std::string checkDigest(const Operation& operation, const Answer& answer) const;
  std::string checkFacts(const Operation& operation, const Answer& answer) const;
  std::string checkNames(const Operation& operation, const Answer& answer) const;
  std::string checkHits(const Operation& operation, const Answer& answer) const;
  std::string checkValues(const Operation& operation, const Answer& answer) const;

  std::optional<std::vector<Match>> matches(const Operation& operation) const;
  const Written* documentOf(const Operation& operation, const Parsed& hit) const;

  void accept(Collection& collection, const Written& document);
  void remove(Collection& collection, const std::string& key);
  void update(Collection& collection);
  std::string refusalOf(const Operation& batch, const Collection& collection) const;
  void apply(const Operation& batch, Collection& collection);

  std::map<std::string, Collection> collections_;
  std::map<std::string, SavedCollection> backups_;
  std::optional<Result> result_;
  bool hasBegun_ = false;
  std::uint64_t states_ = 0;
};

}  // namespace tq::test
