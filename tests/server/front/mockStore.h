#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/store/store.h"

namespace corvaned::test {

/// The result of a search that finds nothing, or a page without hits of one.
class NoHits : public HitSource {
 public:
  explicit NoHits(std::optional<ResultPlace> next = std::nullopt) : next_(std::move(next)) {}
  bool next(Hit&) override { return false; }
  std::optional<ResultPlace> nextPage() const override { return next_; }

 private:
  std::optional<ResultPlace> next_;
};

class MockStore : public Store {
 public:
  bool isOpen(const std::string&) override { return true; }
  bool isSettled(const std::string&) override { return true; }
  void awaitSettled(const std::string&, Opened settled) override { settled(std::nullopt); }
  void stop() override {}
  /// Of every collection.
  DocumentReading defaults{};
  MOCK_METHOD(void, open, (const std::string&, Opened), (override));

  MOCK_METHOD(void, createCollection,
              (const std::string&, const std::string&, const Refresh&, const TextOptions&),
              (override));
  DocumentReading documentDefaults(const std::string&) override { return defaults; }
  std::optional<DocumentReading> documentDefaultsIfOpen(const std::string&) override {
    return defaults;
  }
  MOCK_METHOD(void, setDocumentDefaults, (const std::string&, const DocumentReading&), (override));
  MOCK_METHOD(void, openCollection, (const std::string&), (override));
  MOCK_METHOD(void, closeCollection, (const std::string&), (override));
  MOCK_METHOD(void, deleteCollection, (const std::string&), (override));
  MOCK_METHOD(void, addDocument, (const std::string&, const Document&), (override));
  MOCK_METHOD(void, queueDocument, (const std::string&, const Document&, const std::string&),
              (override));
  MOCK_METHOD(void, reportOutcome, (const std::string&, ParseOutcome, const std::string&),
              (override));
  MOCK_METHOD(void, deleteDocument, (const std::string&, const std::string&, bool), (override));
  MOCK_METHOD(BatchOutcome, apply, (const std::string&, Batch), (override));
  MOCK_METHOD(BatchOutcome, batchOutcome, (const std::string&, const std::string&), (override));
  MOCK_METHOD(void, updateIndex, (const std::string&), (override));
  MOCK_METHOD(std::vector<ParseOutcome>, takeParseOutcomes,
              (const std::string&, const std::string&), (override));
  MOCK_METHOD(std::unique_ptr<HitSource>, search, (const std::string&, const SearchQuery&),
              (override));
  MOCK_METHOD(std::unique_ptr<HitSource>, match,
              (const std::string&, const SearchQuery&, const std::vector<Document>&), (override));
  MOCK_METHOD(Estimate, estimate, (const std::string&, const std::string&, std::uint64_t),
              (override));
  MOCK_METHOD(std::uint64_t, count, (const std::string&, const SearchQuery&), (override));
  MOCK_METHOD(void, visit, (const std::string&, const SearchQuery&, const DocumentVisitor&),
              (override));
  MOCK_METHOD(CollectionSummary, summary, (const std::string&), (override));
  MOCK_METHOD(std::vector<std::string>, collections, (const std::string&, std::uint64_t),
              (override));
  MOCK_METHOD(std::vector<HitDetails>, details,
              (const std::string&, const SearchQuery&, const DetailsWanted&), (override));
  MOCK_METHOD(std::vector<HitDetails>, details,
              (const std::vector<std::string>&, const SearchQuery&, const DetailsWanted&),
              (override));
  MOCK_METHOD(void, backup, (const std::string&, const std::string&), (override));
  MOCK_METHOD(std::vector<BackupSummary>, backups, (const std::string&, std::uint64_t), (override));
  MOCK_METHOD(void, restore, (const Restoration&), (override));
  MOCK_METHOD(CollectionState, state, (const std::string&), (override));
};

}  // namespace corvaned::test
