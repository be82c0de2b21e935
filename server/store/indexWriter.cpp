#include "server/store/indexWriter.h"

#include <fmt/format.h>

#include <algorithm>

#include "server/base/errors.h"
#include "server/store/engineErrors.h"
#include "server/store/files.h"
#include "server/store/indexReaders.h"
#include "server/store/indexUndo.h"
#include "server/store/indexingMemory.h"
#include "server/store/parallel.h"

namespace corvaned {
namespace {

// The tables that a database has open while it is written, and its lock.
constexpr std::size_t kWriterDescriptors = 8;

std::filesystem::path indexIn(const std::filesystem::path& collection) {
  return collection / IndexSums::kIndexDirectory;
}

std::string reasonOf(const std::exception_ptr& failure) {
  try {
    translated([&] { std::rethrow_exception(failure); });
  } catch (const std::exception& error) {
    return error.what();
  }
  return {};
}

}  // namespace

IndexRevisions IndexWriter::create(const std::filesystem::path& collection, const IndexForm& form) {
  const IndexParts parts(indexIn(collection), form.parts);
  if (parts.size() > 1) makeDirectory(indexIn(collection));
  for (std::size_t part = 0; part < parts.size(); ++part) {
    const std::filesystem::path& path = parts.paths()[part];
    Xapian::WritableDatabase database(path.string(), Xapian::DB_CREATE);
    storeForm(database, form);
    parts.mark(database, part);
    database.set_metadata(kSchemaEntry, std::string(kSchemaVersion));
    database.commit();
    syncDirectory(path);
  }
  if (parts.size() > 1) syncDirectory(indexIn(collection));
  return parts.revisions();
}

IndexWriter::IndexWriter(std::filesystem::path collection, const IndexLimits& limits,
                         const StopCheck& stop, IndexReaders* readers)
    : collection_(std::move(collection)),
      parts_(IndexParts::in(indexIn(collection_))),
      limits_(limits),
      stop_(stop),
      readers_(readers),
      descriptors_(limits.descriptors.get()) {
  // The process keeps what one database takes.
  if (parts_.size() > 1) descriptors_.add(kWriterDescriptors * (parts_.size() - 1));
  writers_.reserve(parts_.size());
  for (std::size_t part = 0; part < parts_.size(); ++part) {
    writers_.emplace_back(parts_, part, stop_);
  }
}

// A batch that fails is halved until the change that makes it fail is alone.
void IndexWriter::apply(std::span<const Change> changes) {
  if (changes.empty()) return;
  const std::optional<std::string> reason = reasonAgainst(changes);
  if (!reason) return;
  if (changes.size() == 1) {
    refused_.push_back({changes.front().document.key,
                        std::string(messageId(ErrorKind::DocumentsNotIndexed)),
                        "the document cannot be indexed: " + *reason});
    return;
  }
  apply(changes.first(changes.size() / 2));
  apply(changes.subspan(changes.size() / 2));
}

// Nothing if they have been applied. An index update is not refused for want of memory that others
// have: it is what they have to leave room for. What the whole budget cannot give, nobody can.
std::optional<std::string> IndexWriter::reasonAgainst(std::span<const Change> changes) {
  const auto fits = [&](std::size_t bytes) {
    return !limits_.memory || limits_.memory->canEverFit(bytes, MemoryBudget::Use::Large);
  };
  MemoryBudget::Share memory = shareOf(limits_);
  IndexingMemory needed;
  for (const Change& change : changes) {
    stop_();
    memory.force(IndexingMemory::bytesToAdd(change));
    needed.add(change);
  }
  const std::size_t least = needed.leastBytes();
  if (!fits(least)) {
    return fmt::format(
        "its words take {} MiB of memory, more than --max-memory allows; divide it, or raise "
        "--max-memory and add it again",
        (least >> 20U) + 1);
  }
  const std::size_t ample = std::max(needed.bytes(), least);
  memory.force(fits(ample) ? ample : least);
  try {
    commit(changes);
    return std::nullopt;
  } catch (const Xapian::RuntimeError&) {
    // The storage failed, not this document; every other document would fail, too.
    close();
    throw;
  } catch (const Xapian::Error& error) {
    close();
    return error.get_msg();
  }
}

void IndexWriter::commit(std::span<const Change> changes) {
  open();
  const std::vector<Share> shares = sharesOf(changes);
  inParallel(shares.size(), limits_.helpers, [&](std::size_t number) {
    shares[number].writer->prepare(shares[number].changes, names_);
  });
  publish(shares);
  names_ = shares.front().writer->names();
}

void IndexWriter::open() {
  if (open_) return;
  if (writers_.size() > 1) finishLast();
  writers_.front().open();
  names_ = writers_.front().names();
  open_ = true;
}

// A failure can have left the databases different, without what it takes to undo that. Or it can
// have left open whether a complete change could still be undone after a crash, when what that
// takes has been written over.
void IndexWriter::finishLast() {
  if (readers_ && readers_->isSettled()) return;
  const auto undo = [this] { IndexUndo::carryOut(collection_); };
  if (!IndexUndo::isPending(collection_)) {
    syncDirectory(collection_);
    if (readers_) readers_->settle();
  } else if (readers_) {
    readers_->publish(undo);
  } else {
    undo();
  }
}

// The databases are searched with the same names. So all of them have to know a new one, also those
// that nothing else is changed in.
std::vector<IndexWriter::Share> IndexWriter::sharesOf(std::span<const Change> changes) {
  std::vector<Share> shares;
  for (PartWriter& writer : writers_) shares.push_back({&writer, {}});
  for (const Change& change : changes) {
    shares[parts_.partOf(change.document.key)].changes.push_back(&change);
    if (writers_.size() == 1 || change.kind == ChangeKind::Remove) continue;
    registerNames(change.document, writers_.front().analysis(), names_);
  }
  if (!names_.hasNew()) {
    std::erase_if(shares, [](const Share& share) { return share.changes.empty(); });
  }
  return shares;
}

void IndexWriter::publish(const std::vector<Share>& shares) {
  const CommitGate::Passage passage =
      readers_ ? readers_->commits().pass(stop_) : CommitGate::Passage();
  if (writers_.size() == 1) {
    writers_.front().commit();
  } else if (readers_) {
    readers_->publish([&] { commitTogether(shares); });
  } else {
    commitTogether(shares);
  }
}

void IndexWriter::commitTogether(const std::vector<Share>& shares) {
  // One database commits as a whole by itself.
  if (shares.size() == 1) return shares.front().writer->commit();
  std::vector<std::filesystem::path> paths;
  paths.reserve(shares.size());
  for (const Share& share : shares) paths.push_back(share.writer->path());
  try {
    IndexUndo::begin(collection_, paths);
    inParallel(shares.size(), limits_.helpers,
               [&](std::size_t number) { shares[number].writer->commit(); });
  } catch (...) {
    takeBack(std::current_exception());
    throw;
  }
  IndexUndo::complete(collection_);
}

void IndexWriter::takeBack(const std::exception_ptr& failure) {
  close();
  if (!IndexUndo::isPending(collection_)) return;
  try {
    IndexUndo::carryOut(collection_);
  } catch (const std::exception& second) {
    throw ServerError(ErrorKind::StorageFailed,
                      reasonOf(failure) + "; and that could not be undone: " + second.what());
  }
}

void IndexWriter::close() {
  for (PartWriter& writer : writers_) writer.close();
  open_ = false;
}

}  // namespace corvaned
