#include "server/store/indexSalvage.h"

#include <fcntl.h>
#include <xapian.h>

#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "server/base/errors.h"
#include "server/store/files.h"
#include "server/store/indexSums.h"
#include "server/store/textAnalysis.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

constexpr std::string_view kRefusedRevision = "\xFF\xFF\xFF\xFF";
constexpr const char* kVersionFile = "iamglass";
// The engine opens an index without them, and finds texts and keys all the same. That with a key
// once more comes last.
constexpr std::array<const char*, 4> kDispensable{"position.glass", "synonym.glass",
                                                  "spelling.glass", "termlist.glass"};

/// What can be read by `work`; nothing if the engine refuses a block on the way. The handle is the
/// work's own, since one that has refused something is not to be trusted.
template <typename Work>
auto readable(const std::filesystem::path& path, const Work& work)
    -> std::optional<decltype(work(std::declval<Xapian::Database&>()))> {
  try {
    Xapian::Database database(path.string());
    return work(database);
  } catch (const Xapian::Error&) {
    return std::nullopt;
  }
}

bool canBeOpened(const std::filesystem::path& path) {
  return readable(path, [](Xapian::Database& database) { return database.get_lastdocid(); })
      .has_value();
}

bool mayExist(const std::filesystem::path& path, Xapian::docid number) {
  try {
    Xapian::Database(path.string()).get_doclength(number);
    return true;
  } catch (const Xapian::DocNotFoundError&) {
    return false;
  } catch (const Xapian::Error&) {
    return true;
  }
}

std::string keyInTerms(const Xapian::Database& database, Xapian::docid number) {
  for (auto term = database.termlist_begin(number); term != database.termlist_end(number); ++term) {
    if (const auto key = keyOfIdentity(*term)) return *key;
  }
  return {};
}

std::string keyOf(const std::filesystem::path& path, Xapian::docid number) {
  const auto value = readable(path, [&](Xapian::Database& database) {
    return database.get_document(number, Xapian::DOC_ASSUME_VALID).get_value(kKeySlot);
  });
  if (value && !value->empty()) return *value;
  return readable(path, [&](Xapian::Database& database) { return keyInTerms(database, number); })
      .value_or("");
}

}  // namespace

IndexSalvage::IndexSalvage(const std::filesystem::path& collection,
                           const std::vector<Damage>& damage, std::filesystem::path work)
    : work_(std::move(work)) {
  std::filesystem::copy(collection / IndexSums::kIndexDirectory, work_);
  try {
    refuseBlocks(collection, damage);
    if (canBeOpened(work_)) return;
    // The engine opens no index in which it cannot read the root of a table.
    for (const char* table : kDispensable) {
      std::filesystem::remove(work_ / table);
      if (canBeOpened(work_)) return;
    }
  } catch (...) {
    std::filesystem::remove_all(work_);
    throw;
  }
  std::filesystem::remove_all(work_);
  throw ServerError(ErrorKind::StorageFailed,
                    "nothing of the index of " + collection.string() +
                        " can be read; restore the collection, or delete it and add its documents "
                        "again");
}

void IndexSalvage::refuseBlocks(const std::filesystem::path& collection,
                                const std::vector<Damage>& damage) const {
  // An index that this version has never opened has none.
  std::optional<IndexSums> sums;
  if (IndexSums::existIn(collection)) sums.emplace(collection);
  for (const Damage& each : damage) {
    const std::filesystem::path path = work_ / each.file.filename();
    if (each.file.filename() == kVersionFile) {
      const auto content = sums ? sums->contentOf(kVersionFile) : std::nullopt;
      if (content) writeAll(openFile(path, O_WRONLY | O_CREAT | O_TRUNC), *content, path);
    } else if (path.extension() == kTableSuffix) {
      writeAt(openFile(path, O_WRONLY | O_CREAT), kRefusedRevision, each.place, path);
    }
  }
}

IndexSalvage::~IndexSalvage() {
  std::error_code ignored;
  std::filesystem::remove_all(work_, ignored);
}

std::optional<IndexForm> IndexSalvage::form() const {
  return readable(work_, [](Xapian::Database& database) { return TextAnalysis(database).form(); });
}

void IndexSalvage::read(const DocumentVisitor& onDocument, const LossVisitor& onLoss) const {
  const Xapian::docid last = Xapian::Database(work_.string()).get_lastdocid();
  const bool keepsText = form().value_or(IndexForm{}).options.keepsText;
  for (Xapian::docid number = 1; number <= last; ++number) {
    if (!mayExist(work_, number)) continue;
    const std::string key = keyOf(work_, number);
    const auto data = readable(work_, [&](Xapian::Database& database) {
      return database.get_document(number, Xapian::DOC_ASSUME_VALID).get_data();
    });
    const bool whole = keepsText && data && !key.empty();
    auto document = whole ? readDocument(key, *data) : std::nullopt;
    if (document)
      onDocument(std::move(*document));
    else
      onLoss(number, key);
  }
}

}  // namespace corvaned
