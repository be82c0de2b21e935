#include "server/store/xapianIndex.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <xapian.h>

#include <iterator>
#include <utility>

#include "server/base/errors.h"
#include "server/store/engineErrors.h"
#include "server/store/indexReaders.h"
#include "server/store/indexRebuild.h"
#include "server/store/indexWriter.h"
#include "server/store/xapianSchema.h"

namespace corvaned {

void XapianIndex::create(const std::filesystem::path& collection, const IndexForm& form) {
  const std::uint64_t revision = translated(
      [&] { return IndexWriter::create(collection / IndexSums::kIndexDirectory, form); });
  IndexSums::create(collection, revision);
}

XapianIndex::XapianIndex(const std::filesystem::path& collection, IndexLimits limits)
    : collection_(collection),
      path_(collection / IndexSums::kIndexDirectory),
      limits_(std::move(limits)),
      readers_(std::make_unique<IndexReaders>(path_, limits_)) {
  IndexRebuild::finish(collection);
  IndexRebuild::clear(collection);
  if (IndexSums::existIn(collection)) sums_.emplace(collection).verify();
  translated([&] {
    const Xapian::Database database(path_.string());
    const std::string schema = database.get_metadata(kSchemaEntry);
    earlierForm_ = schema == kEarlierSchema;
    if (!earlierForm_ && schema != kSchemaVersion) {
      throw ServerError(ErrorKind::StorageFailed,
                        fmt::format("{} was written by another version of this server (schema {}); "
                                    "add its documents to a new collection",
                                    path_.string(), shown(schema)));
    }
    if (!sums_) sums_ = IndexSums::create(collection, database.get_revision());
    return true;
  });
}

XapianIndex::~XapianIndex() = default;

std::vector<ParseOutcome> XapianIndex::apply(const ChangeSource& changes, const StopCheck& stop) {
  std::vector<ParseOutcome> refused;
  std::vector<Change> batch;
  std::size_t bytes = 0;
  const auto flush = [&] {
    std::vector<ParseOutcome> more = applyBatch(batch, stop);
    std::move(more.begin(), more.end(), std::back_inserter(refused));
    batch.clear();
    bytes = 0;
  };
  changes([&](Change&& change) {
    bytes += bytesOf(change);
    batch.push_back(std::move(change));
    if (batch.size() >= limits_.batchChanges || bytes >= limits_.batchBytes) flush();
  });
  flush();
  endUpdate();
  return refused;
}

// The database is opened for one batch only: that costs little beside the batch, and of all the
// indexes that take turns in being updated only as many are open as there are threads.
std::vector<ParseOutcome> XapianIndex::applyBatch(std::span<const Change> changes,
                                                  const StopCheck& stop) {
  return translated([&] {
    IndexWriter writer(path_, limits_, stop, &readers_->commits());
    writer.apply(changes);
    return writer.takeRefused();
  });
}

void XapianIndex::endUpdate() { sums_->endChange(revision()); }

std::uint64_t XapianIndex::revision() const {
  return translated([&] { return readers_->revision(); });
}

MemoryBudget::Share XapianIndex::emptyShare() const { return shareOf(limits_); }

bool XapianIndex::rebuildStep(const StopCheck& stop) {
  if (ending_ || IndexRebuild::isDecided(collection_)) {
    // If a step of it fails, the next call goes on.
    ending_ = true;
    endRebuild();
    return false;
  }
  try {
    if (!rebuild_) beginRebuild();
    return translated([&] {
      if (!rebuild_->step(stop)) rebuild_->decide();
      return true;
    });
  } catch (...) {
    // Another attempt begins anew. Until then others need the space.
    if (rebuild_) rebuild_->giveUp();
    rebuild_.reset();
    throw;
  }
}

// What is damaged must not be taken over.
void XapianIndex::beginRebuild() {
  sums_->verifyIfDue();
  spdlog::info("{} is being brought into its present form", path_.string());
  rebuild_ = translated([&] { return std::make_unique<IndexRebuild>(collection_, limits_); });
}

// Searches that are under way go on with the files of the earlier index.
void XapianIndex::endRebuild() {
  readers_->exchange([this] {
    IndexRebuild::finish(collection_);
    IndexSums sums(collection_);
    sums_ = std::move(sums);
  });
  rebuild_.reset();
  earlierForm_ = false;
  ending_ = false;
  spdlog::info("{} has its present form", path_.string());
  IndexRebuild::clear(collection_);
}

void XapianIndex::beginUpdate() {
  sums_->verifyIfDue();
  sums_->beginChange();
}

std::unique_ptr<HitSource> XapianIndex::search(const SearchQuery& query, const Hidden& hidden) {
  return translated([&] {
    return readers_->run(
        [&](const IndexReader& reader) { return reader.search(query, hidden, limits_); });
  });
}

std::unique_ptr<HitSource> XapianIndex::match(const SearchQuery& query,
                                              const std::vector<Document>& documents) {
  return translated([&] {
    return readers_->run(
        [&](const IndexReader& reader) { return reader.match(query, documents, limits_); });
  });
}

Estimate XapianIndex::estimate(const std::string& query, std::uint64_t exactHits,
                               const Hidden& hidden) {
  return translated([&] {
    return readers_->run([&](const IndexReader& reader) {
      return reader.estimate(query, exactHits, hidden, limits_);
    });
  });
}

std::uint64_t XapianIndex::count(const SearchQuery& query, const Hidden& hidden) {
  return translated([&] {
    return readers_->run(
        [&](const IndexReader& reader) { return reader.count(query, hidden, limits_); });
  });
}

// If the snapshot goes in the middle, another attempt goes on behind the last document.
void XapianIndex::visit(SearchQuery query, const Hidden& hidden,
                        const Store::DocumentVisitor& take) {
  const auto passOn = [&](const Document& document) {
    query.after = document.key;
    --query.size;
    take(document);
  };
  const auto visitRest = [&](const IndexReader& reader) {
    reader.visit(query, hidden, limits_, passOn);
    return true;
  };
  translated([&] { return readers_->run(visitRest, [&] { return query.size; }); });
}

std::vector<bool> XapianIndex::contain(std::span<const std::string> keys, const StopCheck& stop) {
  return translated([&] {
    return readers_->run([&](const IndexReader& reader) {
      std::vector<bool> found;
      found.reserve(keys.size());
      for (const std::string& key : keys) {
        stop();
        found.push_back(reader.contains(key));
      }
      return found;
    });
  });
}

std::vector<HitDetails> XapianIndex::details(const SearchQuery& query, const DetailsWanted& wanted,
                                             const Hidden& hidden) {
  return translated([&] {
    return readers_->run(
        [&](const IndexReader& reader) { return reader.details(query, wanted, hidden, limits_); });
  });
}

CollectionSummary XapianIndex::summary() {
  return translated(
      [&] { return readers_->run([](const IndexReader& reader) { return reader.summary(); }); });
}

void XapianIndex::releaseHandles() { readers_->release(); }

}  // namespace corvaned
