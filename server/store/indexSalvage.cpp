#include "server/store/indexSalvage.h"

#include <fcntl.h>
#include <xapian.h>

#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "server/base/errors.h"
#include "server/store/directory.h"
#include "server/store/files.h"
#include "server/store/indexParts.h"
#include "server/store/indexSums.h"
#include "server/store/indexUndo.h"
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

// The engine opens no database in which it cannot read the root of a table.
bool isMadeOpenable(const std::filesystem::path& database) {
  if (canBeOpened(database)) return true;
  for (const char* table : kDispensable) {
    std::filesystem::remove(database / table);
    if (canBeOpened(database)) return true;
  }
  return false;
}

[[noreturn]] void throwUnreadable(const std::filesystem::path& database) {
  throw ServerError(ErrorKind::StorageFailed,
                    "nothing of the index " + database.string() +
                        " can be read; restore the collection, or delete it and add its documents "
                        "again");
}

// If one of several is missing, nobody can say what was in it.
void requirePlace(const IndexParts& parts, std::size_t part) {
  readable(parts.paths()[part], [&](Xapian::Database& database) {
    parts.checkPlace(database, part);
    return true;
  });
}

}  // namespace

IndexSalvage::IndexSalvage(const std::filesystem::path& collection,
                           const std::vector<Damage>& damage, std::filesystem::path work)
    : work_(std::move(work)) {
  const std::filesystem::path index = collection / IndexSums::kIndexDirectory;
  makeDirectory(work_);
  try {
    std::filesystem::copy(index, work_ / IndexSums::kIndexDirectory,
                          std::filesystem::copy_options::recursive);
    undoLastChange(collection);
    const IndexParts parts = IndexParts::in(work_ / IndexSums::kIndexDirectory);
    databases_ = parts.paths();
    refuseBlocks(collection, damage);
    for (std::size_t part = 0; part < parts.size(); ++part) {
      const std::filesystem::path& database = databases_[part];
      if (!isMadeOpenable(database))
        throwUnreadable(parts.size() == 1 ? index : index / database.filename());
      requirePlace(parts, part);
    }
  } catch (...) {
    tryToRemoveTree(work_);
    throw;
  }
}

// What some databases have and others do not is still in the journal.
void IndexSalvage::undoLastChange(const std::filesystem::path& collection) const {
  if (!IndexUndo::isPending(collection) || IndexUndo::faultIn(collection)) return;
  std::filesystem::copy_file(IndexUndo::pathIn(collection), IndexUndo::pathIn(work_));
  IndexUndo::carryOut(work_);
}

void IndexSalvage::refuseBlocks(const std::filesystem::path& collection,
                                const std::vector<Damage>& damage) const {
  const std::filesystem::path index = collection / IndexSums::kIndexDirectory;
  // An index that this version has never opened has none.
  std::optional<IndexSums> sums;
  if (IndexSums::existIn(collection)) sums.emplace(collection);
  for (const Damage& each : damage) {
    const std::filesystem::path name = each.file.lexically_relative(index);
    const std::filesystem::path path = work_ / IndexSums::kIndexDirectory / name;
    if (!std::filesystem::exists(path.parent_path())) throwUnreadable(each.file.parent_path());
    if (each.file.filename() == kVersionFile) {
      const auto content = sums ? sums->contentOf(name.string()) : std::nullopt;
      if (content) writeAll(openFile(path, O_WRONLY | O_CREAT | O_TRUNC), *content, path);
    } else if (path.extension() == kTableSuffix) {
      writeAt(openFile(path, O_WRONLY | O_CREAT), kRefusedRevision, each.place, path);
    }
  }
}

IndexSalvage::~IndexSalvage() { tryToRemoveTree(work_); }

std::optional<IndexForm> IndexSalvage::form() const {
  for (const std::filesystem::path& each : databases_) {
    auto form =
        readable(each, [](Xapian::Database& database) { return TextAnalysis(database).form(); });
    if (!form) continue;
    form->parts = databases_.size();
    return form;
  }
  return std::nullopt;
}

void IndexSalvage::read(const DocumentVisitor& onDocument, const LossVisitor& onLoss) const {
  const bool keepsText = form().value_or(IndexForm{}).options.keepsText;
  for (std::size_t part = 0; part < databases_.size(); ++part) {
    readFrom(part, keepsText, onDocument, onLoss);
  }
}

void IndexSalvage::readFrom(std::size_t part, bool keepsText, const DocumentVisitor& onDocument,
                            const LossVisitor& onLoss) const {
  const std::filesystem::path& database = databases_[part];
  const Xapian::docid last = Xapian::Database(database.string()).get_lastdocid();
  for (Xapian::docid number = 1; number <= last; ++number) {
    if (!mayExist(database, number)) continue;
    const std::string key = keyOf(database, number);
    const auto data = readable(database, [&](Xapian::Database& opened) {
      return opened.get_document(number, Xapian::DOC_ASSUME_VALID).get_data();
    });
    const bool whole = keepsText && data && !key.empty();
    auto document = whole ? readDocument(key, *data) : std::nullopt;
    if (document)
      onDocument(std::move(*document));
    else
      onLoss(part, number, key);
  }
}

}  // namespace corvaned
