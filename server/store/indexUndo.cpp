#include "server/store/indexUndo.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "server/base/bytes.h"
#include "server/base/errors.h"
#include "server/store/checksum.h"
#include "server/store/damage.h"
#include "server/store/files.h"
#include "server/store/indexParts.h"
#include "server/store/indexSums.h"

namespace corvaned {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMagic = "KRU1";
constexpr const char* kVersionFile = "iamglass";

/// A database's directory in the index, and the content of its version file.
using Version = std::pair<std::string, std::string>;

std::string readWhole(const fs::path& path) {
  return readAt(openFile(path, O_RDONLY), 0, fs::file_size(path), path);
}

void writeDurably(const fs::path& path, const std::string& bytes) {
  const fs::path passing = path.string() + ".new";
  {
    const FileHandle file = openFile(passing, O_WRONLY | O_CREAT | O_TRUNC);
    writeAll(file, bytes, passing);
    syncFile(file, passing);
  }
  fs::rename(passing, path);
  syncDirectory(path.parent_path());
}

void removeDurably(const fs::path& path) {
  fs::remove(path);
  syncDirectory(path.parent_path());
}

std::optional<std::vector<Version>> decoded(std::string_view bytes) {
  if (bytes.size() < kMagic.size() + 4 || !bytes.starts_with(kMagic)) return std::nullopt;
  const std::string_view content = bytes.substr(0, bytes.size() - 4);
  if (checksumOf(content) != loadU32(bytes.substr(content.size()))) return std::nullopt;
  ByteReader reader(content.substr(kMagic.size()));
  std::vector<Version> versions;
  for (std::uint32_t left = reader.u32().value_or(0); left > 0; --left) {
    auto& [directory, version] = versions.emplace_back();
    if (!takeText(reader, directory) || !takeText(reader, version)) return std::nullopt;
  }
  if (!reader.empty()) return std::nullopt;
  return versions;
}

fs::path indexIn(const fs::path& collection) { return collection / IndexSums::kIndexDirectory; }

// The next transaction but one may have written over what the earlier version has.
bool leavesWhole(std::string_view present, std::string_view earlier) {
  const auto from = revisionInVersion(earlier);
  const auto to = revisionInVersion(present);
  return from && to && *from <= *to && *to - *from <= kRevisionsOfATransaction &&
         present.substr(0, kVersionIdentityBytes) == earlier.substr(0, kVersionIdentityBytes);
}

std::optional<std::string> faultOf(const fs::path& index,
                                   const std::optional<std::vector<Version>>& versions) {
  if (!versions) return "how the index was before its last change is unreadable";
  const std::vector<fs::path> databases = IndexParts::in(index).paths();
  for (const auto& [directory, version] : *versions) {
    const fs::path database = index / directory;
    const bool known = std::find(databases.begin(), databases.end(), database) != databases.end();
    if (!known || !fs::exists(database / kVersionFile)) {
      return fmt::format("it names {}, which is no database of the index", shown(directory));
    }
    if (!leavesWhole(readWhole(database / kVersionFile), version)) {
      return fmt::format("it is not what {} was before its last change", database.string());
    }
  }
  return std::nullopt;
}

std::optional<std::vector<Version>> versionsIn(const fs::path& collection) {
  return decoded(readWhole(IndexUndo::pathIn(collection)));
}

}  // namespace

fs::path IndexUndo::pathIn(const fs::path& collection) { return collection / "index-undo"; }

bool IndexUndo::isPending(const fs::path& collection) { return fs::exists(pathIn(collection)); }

std::optional<std::string> IndexUndo::faultIn(const fs::path& collection) {
  if (!isPending(collection)) return std::nullopt;
  return faultOf(indexIn(collection), versionsIn(collection));
}

void IndexUndo::begin(const fs::path& collection, const std::vector<fs::path>& databases) {
  std::string bytes(kMagic);
  appendU32(bytes, static_cast<std::uint32_t>(databases.size()));
  for (const fs::path& database : databases) {
    appendText(bytes, database.filename().string());
    appendText(bytes, readWhole(database / kVersionFile));
  }
  appendU32(bytes, checksumOf(bytes));
  writeDurably(pathIn(collection), bytes);
}

void IndexUndo::complete(const fs::path& collection) { removeDurably(pathIn(collection)); }

void IndexUndo::carryOut(const fs::path& collection) {
  const auto versions = versionsIn(collection);
  const auto fault = faultOf(indexIn(collection), versions);
  if (fault) throwDamaged({pathIn(collection), 0, *fault});
  for (const auto& [directory, version] : *versions) {
    const fs::path file = indexIn(collection) / directory / kVersionFile;
    if (readWhole(file) != version) writeDurably(file, version);
  }
  removeDurably(pathIn(collection));
}

}  // namespace corvaned
