#include "server/store/xapianIndex.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <xapian.h>

#include <iterator>
#include <utility>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/store/engineErrors.h"
#include "server/store/indexParts.h"
#include "server/store/indexReaders.h"
#include "server/store/indexRebuild.h"
#include "server/store/indexReplacement.h"
#include "server/store/indexUndo.h"
#include "server/store/indexWriter.h"
#include "server/store/indexingMemory.h"
#include "server/store/jointReader.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

bool isEarlier(const Xapian::Database& database, const std::filesystem::path& path) {
  const std::string schema = database.get_metadata(kSchemaEntry);
  if (schema == kEarlierSchema) return true;
  if (schema == kSchemaVersion) return false;
  throw ServerError(ErrorKind::StorageFailed,
                    fmt::format("{} was written by another version of this server (schema {}); "
                                "add its documents to a new collection",
                                path.string(), shown(schema)));
}

// One after the other: nobody counts the descriptors of those who open a collection.
bool isEarlier(const IndexParts& parts) {
  std::size_t earlier = 0;
  for (std::size_t part = 0; part < parts.size(); ++part) {
    const Xapian::Database database(parts.paths()[part].string());
    parts.check(database, part, 0);
    if (isEarlier(database, parts.paths()[part])) ++earlier;
  }
  if (earlier == 0 || earlier == parts.size()) return earlier > 0;
  throw ServerError(ErrorKind::StorageFailed,
                    fmt::format("the databases in {} are not of the same form; restore the "
                                "collection",
                                parts.paths().front().parent_path().string()));
}

// A search that meets damage may have met a great many blocks before.
void checkRequest() {
  if (const RequestContext* request = RequestContext::current()) request->check();
}

}  // namespace

void XapianIndex::create(const std::filesystem::path& collection, const IndexForm& form) {
  IndexSums::create(collection, translated([&] { return IndexWriter::create(collection, form); }),
                    0);
}

XapianIndex::XapianIndex(const std::filesystem::path& collection, IndexLimits limits,
                         const StopCheck& stop)
    : collection_(collection),
      path_(collection / IndexSums::kIndexDirectory),
      limits_(std::move(limits)),
      readers_(std::make_unique<IndexReaders>(path_, limits_)) {
  IndexReplacement::finish(collection);
  IndexReplacement::clear(collection);
  if (IndexSums::existIn(collection)) sums_.emplace(collection).verify(stop);
  // The server was killed while databases committed, or could not undo that.
  if (IndexUndo::isPending(collection)) IndexUndo::carryOut(collection);
  translated([&] {
    const IndexParts parts = IndexParts::in(path_);
    earlierForm_ = isEarlier(parts);
    refresh_ = refreshNotedIn(Xapian::Database(parts.paths().front().string()));
    if (!sums_) sums_ = IndexSums::create(collection, parts.revisions());
    return true;
  });
}

XapianIndex::~XapianIndex() = default;

// What the engine says of a damaged block depends on where the damage is: to a block that seems to
// be newer than the index it says that the index has changed, whoever tries again.
template <typename Work>
auto XapianIndex::diagnosed(std::span<const XapianIndex* const> indexes, const StopCheck& stop,
                            const Work& work) {
  return translated([&] {
    try {
      return work();
    } catch (const Xapian::QueryParserError&) {
      throw;
    } catch (const Xapian::WildcardError&) {
      throw;
    } catch (const Xapian::RuntimeError&) {
      for (const XapianIndex* const index : indexes) index->throwIfDamaged(stop);
      throw;
    }
  });
}

template <typename Work>
auto XapianIndex::diagnosed(const StopCheck& stop, const Work& work) const {
  const XapianIndex* const only = this;
  return diagnosed(std::span(&only, 1), stop, work);
}

template <typename Work>
auto XapianIndex::diagnosed(const Work& work) const {
  return diagnosed(checkRequest, work);
}

void XapianIndex::throwIfDamaged(const StopCheck& stop) const {
  {
    // Whoever comes while somebody looks does not wait for the end of that.
    const std::unique_lock look(lookMutex_, std::try_to_lock);
    if (look && !knownDamage()) lookForDamage(stop);
  }
  if (const std::optional<Damage> damage = knownDamage()) throwDamaged(*damage);
}

std::optional<Damage> XapianIndex::knownDamage() const {
  const std::lock_guard lock(damageMutex_);
  return damage_;
}

// It reads the whole index, so it is done for little of the time, however many searches fail and
// end it early.
void XapianIndex::lookForDamage(const StopCheck& stop) const {
  using Clock = std::chrono::steady_clock;
  constexpr int kShareOfTime = 20;
  const Clock::time_point start = Clock::now();
  if (start - lookedAt_ < kShareOfTime * lookCost_) return;
  const auto note = [&] {
    lookedAt_ = Clock::now();
    lookCost_ = lookedAt_ - start;
  };
  try {
    std::optional<Damage> damage = IndexSums::damageIn(collection_, stop);
    const std::lock_guard lock(damageMutex_);
    damage_ = std::move(damage);
  } catch (const DamageError&) {
    note();
    throw;
  } catch (const ServerError& error) {
    note();
    // A file may have got another name meanwhile.
    if (error.kind() != ErrorKind::StorageFailed) throw;
  } catch (const std::filesystem::filesystem_error&) {
    // The same.
  }
  note();
}

std::vector<ParseOutcome> XapianIndex::apply(const ChangeSource& changes, const StopCheck& stop) {
  std::vector<ParseOutcome> refused;
  std::vector<Change> batch;
  IndexingMemory memory;
  const auto flush = [&] {
    std::vector<ParseOutcome> more = applyBatch(batch, stop);
    std::move(more.begin(), more.end(), std::back_inserter(refused));
    batch.clear();
    memory.clear();
  };
  changes([&](Change&& change) {
    memory.add(change);
    batch.push_back(std::move(change));
    if (batch.size() >= limits_.batchChanges || memory.bytes() >= limits_.batchMemory()) flush();
  });
  flush();
  endUpdate();
  return refused;
}

// The database is opened for one batch only: that costs little beside the batch, and of all the
// indexes that take turns in being updated only as many are open as there are threads.
std::vector<ParseOutcome> XapianIndex::applyBatch(std::span<const Change> changes,
                                                  const StopCheck& stop) {
  return diagnosed(stop, [&] {
    IndexWriter writer(collection_, limits_, stop, readers_.get());
    writer.apply(changes);
    return writer.takeRefused();
  });
}

void XapianIndex::endUpdate(std::optional<std::uint64_t> lastChange) {
  sums_->endChange(revisions(), lastChange);
}

IndexRevisions XapianIndex::revisions() const {
  return translated([&] { return readers_->revisions(); });
}

MemoryBudget::Share XapianIndex::emptyShare() const { return shareOf(limits_); }

bool XapianIndex::rebuildStep(const StopCheck& stop) {
  if (ending_ || IndexReplacement::isDecided(collection_)) {
    // If a step of it fails, the next call goes on.
    ending_ = true;
    endRebuild();
    return false;
  }
  try {
    if (!rebuild_) beginRebuild(stop);
    return diagnosed(stop, [&] {
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

IndexProgress XapianIndex::rebuildProgress() const {
  return rebuild_ ? IndexProgress{rebuild_->done(), rebuild_->all()} : IndexProgress{};
}

// What is damaged must not be taken over.
void XapianIndex::beginRebuild(const StopCheck& stop) {
  sums_->verifyIfDue(stop);
  spdlog::info("{} is being brought into its present form", path_.string());
  rebuild_ = diagnosed(stop, [&] { return std::make_unique<IndexRebuild>(collection_, limits_); });
}

// Searches that are under way go on with the files of the earlier index.
void XapianIndex::endRebuild() {
  readers_->exchange([this] {
    IndexReplacement::finish(collection_);
    IndexSums sums(collection_);
    sums_ = std::move(sums);
  });
  rebuild_.reset();
  {
    const std::lock_guard lock(damageMutex_);
    damage_.reset();
  }
  earlierForm_ = false;
  ending_ = false;
  spdlog::info("{} has its present form", path_.string());
  IndexReplacement::clear(collection_);
}

void XapianIndex::beginUpdate(const StopCheck& stop) {
  sums_->verifyIfDue(stop);
  sums_->beginChange();
}

std::unique_ptr<HitSource> XapianIndex::search(const SearchQuery& query, const Hidden& hidden) {
  return diagnosed([&] {
    return readers_->run(
        [&](const IndexReader& reader) { return reader.search(query, hidden, limits_); });
  });
}

std::unique_ptr<HitSource> XapianIndex::match(const SearchQuery& query,
                                              const std::vector<Document>& documents) {
  return diagnosed([&] {
    return readers_->run(
        [&](const IndexReader& reader) { return reader.match(query, documents, limits_); });
  });
}

Estimate XapianIndex::estimate(const std::string& query, std::uint64_t exactHits,
                               const Hidden& hidden) {
  return diagnosed([&] {
    return readers_->run([&](const IndexReader& reader) {
      return reader.estimate(query, exactHits, hidden, limits_);
    });
  });
}

std::uint64_t XapianIndex::count(const SearchQuery& query, const Hidden& hidden) {
  return diagnosed([&] {
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
  diagnosed([&] { return readers_->run(visitRest, [&] { return query.size; }); });
}

// What another attempt need not ask again was so when it was asked, which is all that is promised
// of any key.
std::vector<bool> XapianIndex::contain(std::span<const std::string> keys, const StopCheck& stop) {
  std::vector<bool> found;
  found.reserve(keys.size());
  const auto askRest = [&](const IndexReader& reader) {
    while (found.size() < keys.size()) {
      stop();
      found.push_back(reader.contains(keys[found.size()]));
    }
    return true;
  };
  diagnosed([&] { return readers_->run(askRest, [&] { return found.size(); }); });
  return found;
}

std::vector<HitDetails> XapianIndex::details(const SearchQuery& query, const DetailsWanted& wanted,
                                             const Hidden& hidden) {
  return diagnosed([&] {
    return readers_->run(
        [&](const IndexReader& reader) { return reader.details(query, wanted, hidden, limits_); });
  });
}

std::vector<HitDetails> XapianIndex::details(std::span<const Member> members,
                                             const SearchQuery& query,
                                             const DetailsWanted& wanted) {
  std::vector<IndexReaders*> indexes;
  std::vector<const XapianIndex*> looked;
  std::size_t held = 0;
  for (const Member& member : members) {
    held += member.held;
    indexes.push_back(member.index.readers_.get());
    looked.push_back(&member.index);
  }
  const auto together = [&](const IndexReaders::Handles& handles) {
    std::vector<JointReader::Member> joint;
    for (std::size_t i = 0; i < members.size(); ++i) {
      joint.push_back({members[i].collection, *handles[i], members[i].hidden, members[i].held});
    }
    return JointReader(std::move(joint)).details(query, wanted, members.front().index.limits_);
  };
  return diagnosed(looked, checkRequest,
                   [&] { return IndexReaders::runTogether(indexes, together, held); });
}

CollectionSummary XapianIndex::summary() {
  return diagnosed(
      [&] { return readers_->run([](const IndexReader& reader) { return reader.summary(); }); });
}

void XapianIndex::releaseHandles() { readers_->release(); }

}  // namespace corvaned
