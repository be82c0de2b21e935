#include "server/store/indexRebuild.h"

#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/store/engineErrors.h"
#include "server/store/indexParts.h"
#include "server/store/indexReader.h"
#include "server/store/indexSums.h"
#include "server/store/indexWriter.h"
#include "server/store/indexingMemory.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

namespace fs = std::filesystem;

Change takenOver(const Xapian::Document& stored, const fs::path& index) {
  const std::string key = stored.get_value(kKeySlot);
  auto document = readDocument(key, stored.get_data());
  if (document) return {ChangeKind::Put, std::move(*document)};
  throw ServerError(ErrorKind::StorageFailed,
                    "the text of the document " + shown(key) + " in " + index.string() +
                        " cannot be read, so the index cannot be brought into its present form; "
                        "restore the collection, or stop the server and run corvaned repair");
}

}  // namespace

IndexRebuild::IndexRebuild(fs::path collection, const IndexLimits& limits)
    : earlier_(collection / IndexSums::kIndexDirectory),
      replacement_(std::move(collection)),
      limits_(limits) {
  const IndexParts parts = IndexParts::in(earlier_);
  IndexForm form = TextAnalysis(Xapian::Database(parts.paths().front().string())).form();
  form.parts = parts.size();
  IndexWriter::create(replacement_.directory(), form);
  for (const fs::path& part : parts.paths()) all_ += Xapian::Database(part.string()).get_doccount();
}

// The database is opened for one step only: of all indexes that take turns only as many are open as
// there are threads.
bool IndexRebuild::step(const StopCheck& stop) {
  const IndexParts parts = IndexParts::in(earlier_);
  DescriptorBudget::Share descriptors(limits_.descriptors.get());
  // The process keeps what one database takes.
  descriptors.add(IndexReader::kDescriptors * (parts.size() - 1));
  const Xapian::Database earlier = parts.open();
  auto next = earlier.postlist_begin("");
  const auto end = earlier.postlist_end("");
  if (next != end) next.skip_to(last_ + 1);
  std::vector<Change> changes;
  IndexingMemory memory;
  const auto hasRoom = [&] {
    return changes.size() < limits_.batchChanges && memory.bytes() < limits_.batchMemory();
  };
  for (; next != end && hasRoom(); ++next) {
    changes.push_back(takenOver(earlier.get_document(*next), earlier_));
    memory.addAsSent(changes.back());
    last_ = *next;
  }
  // Nobody searches it yet.
  IndexWriter writer(replacement_.directory(), limits_, stop);
  writer.apply(changes);
  const std::vector<ParseOutcome> refused = writer.takeRefused();
  if (!refused.empty()) {
    throw ServerError(ErrorKind::StorageFailed,
                      "the document " + shown(refused.front().key) +
                          " cannot be brought into the present form of the index: " +
                          refused.front().messageText);
  }
  done_ += changes.size();
  return next != end;
}

}  // namespace corvaned
