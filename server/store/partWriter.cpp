#include "server/store/partWriter.h"

#include "server/store/files.h"

namespace corvaned {

void PartWriter::open() {
  if (database_) return;
  database_.emplace(path().string(), Xapian::DB_OPEN);
  analysis_ = TextAnalysis(*database_);
  names_ = IndexNames(*database_);
}

void PartWriter::prepare(const std::vector<const Change*>& changes, const IndexNames& names) {
  open();
  parts_.check(*database_, part_, changes.size());
  names_ = names;
  // Outside a transaction the database would commit on its own after a number of changes.
  database_->begin_transaction();
  for (const Change* change : changes) {
    stop_();
    apply(*change);
  }
  names_.storeIn(*database_);
}

void PartWriter::commit() {
  committing_ = true;
  database_->commit_transaction();
  committing_ = false;
  syncDirectory(path());
}

// A handle that goes commits what it still has, which would be half of a commit that has failed. It
// drops what is in a transaction.
void PartWriter::close() {
  try {
    if (committing_) database_->begin_transaction(false);
  } catch (const Xapian::Error&) {
    // It is in one.
  }
  committing_ = false;
  database_.reset();
}

void PartWriter::apply(const Change& change) {
  const std::string identity = identityTerm(change.document.key);
  if (change.kind == ChangeKind::Remove) {
    database_->delete_document(identity);
  } else {
    database_->replace_document(identity, makeDocument(change.document, analysis_, names_, stop_));
  }
}

}  // namespace corvaned
