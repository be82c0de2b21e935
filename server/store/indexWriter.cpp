#include "server/store/indexWriter.h"

#include "server/base/errors.h"
#include "server/store/files.h"

namespace corvaned {
namespace {

// What a byte of a document takes while its words are gathered, for ordinary text.
constexpr std::size_t kIndexingCost = 16;

}  // namespace

std::uint64_t IndexWriter::create(const std::filesystem::path& path, const IndexForm& form) {
  Xapian::WritableDatabase database(path.string(), Xapian::DB_CREATE);
  storeForm(database, form);
  database.set_metadata(kSchemaEntry, std::string(kSchemaVersion));
  database.commit();
  syncDirectory(path);
  return database.get_revision();
}

// A batch that fails is halved until the change that makes it fail is alone.
void IndexWriter::apply(std::span<const Change> changes) {
  if (changes.empty()) return;
  std::string reason;
  try {
    commit(changes);
    return;
  } catch (const Xapian::DatabaseError& error) {
    // The storage failed, not this document; every other document would fail, too.
    database_.reset();
    throw ServerError(ErrorKind::StorageFailed, "the index failed: " + error.get_description());
  } catch (const Xapian::Error& error) {
    database_.reset();
    reason = error.get_msg();
  }
  if (changes.size() == 1) {
    refused_.push_back({changes.front().document.key,
                        std::string(messageId(ErrorKind::DocumentsNotIndexed)),
                        "the document cannot be indexed: " + reason});
    return;
  }
  apply(changes.first(changes.size() / 2));
  apply(changes.subspan(changes.size() / 2));
}

void IndexWriter::commit(std::span<const Change> changes) {
  // An index update is not refused for want of memory: it is what others have to leave room for.
  MemoryBudget::Share memory = shareOf(limits_);
  std::size_t bytes = 0;
  for (const Change& change : changes) bytes += bytesOf(change);
  memory.force(kIndexingCost * bytes);
  if (!database_) open();
  // Outside a transaction the database would commit on its own after a number of changes.
  database_->begin_transaction();
  for (const Change& change : changes) {
    stop_();
    applyOne(change);
  }
  names_.storeIn(*database_);
  const CommitGate::Passage passage = gate_ ? gate_->pass(stop_) : CommitGate::Passage();
  database_->commit_transaction();
  syncDirectory(path_);
}

void IndexWriter::applyOne(const Change& change) {
  const std::string identity = identityTerm(change.document.key);
  if (change.kind == ChangeKind::Remove) {
    database_->delete_document(identity);
  } else {
    database_->replace_document(identity, makeDocument(change.document, analysis_, names_));
  }
}

void IndexWriter::open() {
  database_.emplace(path_.string(), Xapian::DB_OPEN);
  analysis_ = TextAnalysis(*database_);
  names_ = IndexNames(*database_);
}

}  // namespace corvaned
