#include "server/store/indexCompaction.h"

#include <fmt/format.h>
#include <xapian.h>

#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/store/directory.h"
#include "server/store/engineErrors.h"
#include "server/store/indexParts.h"
#include "server/store/indexReplacement.h"
#include "server/store/indexSums.h"

namespace corvaned {
namespace {

namespace fs = std::filesystem;

bool holdTheSame(const Xapian::Database& a, const Xapian::Database& b) {
  return a.get_doccount() == b.get_doccount() && a.get_lastdocid() == b.get_lastdocid() &&
         a.get_total_length() == b.get_total_length();
}

void compactDatabase(const fs::path& from, const fs::path& to) {
  const Xapian::Database earlier(from.string());
  Xapian::Database(earlier).compact(to.string(), Xapian::DBCOMPACT_NO_RENUMBER);
  if (Xapian::Database::check(to.string(), 0, nullptr) == 0 &&
      holdTheSame(earlier, Xapian::Database(to.string()))) {
    return;
  }
  throw ServerError(ErrorKind::StorageFailed,
                    from.string() + " was not compacted: the engine's copy of it is not whole");
}

void makeCompactIndex(const fs::path& from, const fs::path& to, const StopCheck& stop) {
  const IndexParts parts = IndexParts::in(from);
  if (parts.size() > 1) fs::create_directory(to);
  const IndexParts compacted(to, parts.size());
  for (std::size_t part = 0; part < parts.size(); ++part) {
    stop();
    compactDatabase(parts.paths()[part], compacted.paths()[part]);
  }
  syncTree(to, stop);
}

}  // namespace

void compactIndex(const fs::path& collection, const StopCheck& stop) {
  const IndexReplacement replacement(collection);
  try {
    translated([&] {
      makeCompactIndex(collection / IndexSums::kIndexDirectory,
                       replacement.directory() / IndexSums::kIndexDirectory, stop);
    });
    replacement.decide();
  } catch (...) {
    replacement.giveUp();
    throw;
  }
  IndexReplacement::finish(collection);
  IndexReplacement::clear(collection);
}

}  // namespace corvaned
