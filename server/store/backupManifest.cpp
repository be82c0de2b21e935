#include "server/store/backupManifest.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/store/checksum.h"
#include "server/store/dataDirectory.h"
#include "server/store/directory.h"
#include "server/store/files.h"

namespace corvaned {
namespace {

constexpr std::size_t kPiece = std::size_t{64} << 10U;
constexpr std::string_view kHead = "corvaned backup 1\n";
constexpr std::string_view kMade = "made = ";
constexpr std::string_view kFile = "file = ";
constexpr std::string_view kChecksum = "checksum = ";
constexpr std::string_view kNoPieces = "-";
constexpr char kBetweenPieces = ',';

std::string now() {
  const auto seconds =
      std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(seconds));
}

/// Takes the text up to `end` from the beginning of `text`, and `end` as well. Nothing if it is not
/// there.
std::optional<std::string_view> takeUpTo(std::string_view& text, char end) {
  const std::size_t place = text.find(end);
  if (place == std::string_view::npos) return std::nullopt;
  const std::string_view taken = text.substr(0, place);
  text.remove_prefix(place + 1);
  return taken;
}

template <typename Number>
std::optional<Number> numberFrom(std::string_view text, int base) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<std::vector<std::uint32_t>> piecesFrom(std::string_view text) {
  std::vector<std::uint32_t> pieces;
  if (text == kNoPieces) return pieces;
  for (;;) {
    const auto before = takeUpTo(text, kBetweenPieces);
    const auto piece = numberFrom<std::uint32_t>(before.value_or(text), 16);
    if (!piece) return std::nullopt;
    pieces.push_back(*piece);
    if (!before) return pieces;
  }
}

/// Whether the name leads to a file of a collection, and nowhere else.
bool staysInside(const std::string& name) {
  const std::filesystem::path path(name);
  if (path.empty() || path.is_absolute() || *path.begin() != collectionsIn({})) return false;
  return std::distance(path.begin(), path.end()) > 2 &&
         std::none_of(path.begin(), path.end(), [](const std::filesystem::path& part) {
           return part.empty() || part == "." || part == "..";
         });
}

std::string prefixOf(const std::string& collection) {
  return (collectionsIn({}) / directoryNameFor(collection)).string() + "/";
}

}  // namespace

void throwBadBackup(const Damage& damage) {
  throw ServerError(ErrorKind::StorageFailed, describe(damage) + "; use another backup");
}

std::filesystem::path BackupManifest::pathIn(const std::filesystem::path& backup) {
  return backup / "BACKUP";
}

bool BackupManifest::existsIn(const std::filesystem::path& directory) {
  return std::filesystem::exists(pathIn(directory));
}

BackupManifest BackupManifest::make(const std::filesystem::path& backup, const StopCheck& stop) {
  BackupManifest manifest(backup);
  manifest.made_ = now();
  TreeReader reader(backup);
  while (const auto entry = reader.next()) {
    if (entry->isDirectory) continue;
    const std::string name = entry->path.lexically_relative(backup).string();
    if (name.find('\n') != std::string::npos) {
      throw ServerError(ErrorKind::StorageFailed,
                        "the file " + shown(name) +
                            " cannot be in a backup because of the line break in its name; if it "
                            "is none of the server's, remove it");
    }
    manifest.files_[name] = manifest.scanned(entry->path, stop);
  }
  return manifest;
}

BackupManifest::File BackupManifest::scanned(const std::filesystem::path& path,
                                             const StopCheck& stop) const {
  File result;
  const FileHandle file = openFile(path, O_RDONLY);
  for (;;) {
    stop();
    const std::string piece = readAt(file, result.bytes, kPiece, path);
    if (!piece.empty()) result.pieces.push_back(checksumOf(piece));
    result.bytes += piece.size();
    if (piece.size() < kPiece) return result;
  }
}

BackupManifest BackupManifest::read(const std::filesystem::path& backup) {
  const std::filesystem::path path = pathIn(backup);
  BackupManifest manifest(backup);
  const FileHandle file = openFile(path, O_RDONLY);
  const std::string text = readAt(file, 0, std::filesystem::file_size(path), path);
  if (!manifest.decode(text)) throwBadBackup({path, 0, "the list of the files cannot be read"});
  return manifest;
}

void BackupManifest::write() const {
  const std::filesystem::path path = pathIn(backup_);
  const FileHandle file = openFile(path, O_WRONLY | O_CREAT | O_EXCL);
  writeAll(file, encoded(), path);
  syncFile(file, path);
}

std::string BackupManifest::encoded() const {
  std::string text = fmt::format("{}{}{}\n", kHead, kMade, made_);
  for (const auto& [name, file] : files_) {
    const std::string pieces =
        file.pieces.empty()
            ? std::string(kNoPieces)
            : fmt::format("{:08x}", fmt::join(file.pieces, std::string(1, kBetweenPieces)));
    text += fmt::format("{}{} {} {}\n", kFile, file.bytes, pieces, name);
  }
  return text + fmt::format("{}{:08x}\n", kChecksum, checksumOf(text));
}

bool BackupManifest::decode(std::string_view text) {
  const std::size_t end = text.rfind(kChecksum);
  if (!text.starts_with(kHead) || end == std::string_view::npos ||
      text.substr(end) != fmt::format("{}{:08x}\n", kChecksum, checksumOf(text.substr(0, end)))) {
    return false;
  }
  std::string_view lines = text.substr(kHead.size(), end - kHead.size());
  while (const auto line = takeUpTo(lines, '\n')) {
    if (line->starts_with(kMade)) {
      made_ = line->substr(kMade.size());
    } else if (!line->starts_with(kFile) || !decodeFile(line->substr(kFile.size()))) {
      return false;
    }
  }
  return true;
}

bool BackupManifest::decodeFile(std::string_view fields) {
  const auto size = takeUpTo(fields, ' ');
  const auto sums = takeUpTo(fields, ' ');
  const std::string name(fields);
  if (!size || !sums || !staysInside(name)) return false;
  const auto bytes = numberFrom<std::uint64_t>(*size, 10);
  auto pieces = piecesFrom(*sums);
  if (!bytes || !pieces) return false;
  if (pieces->size() != *bytes / kPiece + (*bytes % kPiece == 0 ? 0 : 1)) return false;
  files_[name] = {*bytes, std::move(*pieces)};
  return true;
}

std::uint64_t BackupManifest::bytes() const {
  std::uint64_t bytes = 0;
  for (const auto& [name, file] : files_) bytes += file.bytes;
  return bytes;
}

std::vector<std::string> BackupManifest::collections() const {
  std::set<std::string> names;
  for (const auto& [name, file] : files_) {
    names.insert(collectionNameFor(std::next(std::filesystem::path(name).begin())->string()));
  }
  return {names.begin(), names.end()};
}

std::vector<std::string> BackupManifest::filesOf(const std::string& collection) const {
  const std::string prefix = prefixOf(collection);
  std::vector<std::string> names;
  for (auto place = files_.lower_bound(prefix);
       place != files_.end() && place->first.starts_with(prefix); ++place) {
    names.push_back(place->first);
  }
  return names;
}

void BackupManifest::verify(const std::string& collection, const Visitor& onDamage,
                            const StopCheck& stop) const {
  for (const std::string& name : filesOf(collection)) {
    readFile(
        name, [](std::uint64_t, std::string_view) {}, onDamage, stop);
  }
}

void BackupManifest::copy(const std::string& collection, const std::filesystem::path& target,
                          const StopCheck& stop) const {
  makeDirectory(target);
  const std::filesystem::path root(prefixOf(collection));
  for (const std::string& name : filesOf(collection)) {
    const std::filesystem::path file =
        target / std::filesystem::path(name).lexically_relative(root);
    std::filesystem::path parent = target;
    for (const std::filesystem::path& part : file.parent_path().lexically_relative(target)) {
      if (part == ".") continue;
      parent /= part;
      if (!std::filesystem::exists(parent)) makeDirectory(parent);
    }
    copyFile(name, file, stop);
  }
}

void BackupManifest::copyFile(const std::string& name, const std::filesystem::path& target,
                              const StopCheck& stop) const {
  const FileHandle file = openFile(target, O_WRONLY | O_CREAT | O_EXCL);
  readFile(
      name,
      [&](std::uint64_t place, std::string_view bytes) { writeAt(file, bytes, place, target); },
      throwBadBackup, stop);
}

void BackupManifest::readFile(const std::string& name, const Taker& take, const Visitor& onDamage,
                              const StopCheck& stop) const {
  const std::filesystem::path path = backup_ / name;
  const File& wanted = files_.at(name);
  if (!std::filesystem::exists(path)) return onDamage({path, 0, "the file is missing"});
  const FileHandle file = openFile(path, O_RDONLY);
  std::uint64_t place = 0;
  for (const std::uint32_t checksum : wanted.pieces) {
    stop();
    const std::size_t size =
        static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, wanted.bytes - place));
    const std::string piece = readAt(file, place, size, path);
    if (piece.size() < size) return onDamage({path, place + piece.size(), "the file is cut off"});
    if (checksumOf(piece) == checksum) {
      take(place, piece);
    } else {
      onDamage({path, place, fmt::format("these {} bytes differ from their checksum", size)});
    }
    place += size;
  }
  const std::uint64_t size = std::filesystem::file_size(path);
  if (size > wanted.bytes) {
    onDamage(
        {path, wanted.bytes, fmt::format("the file has {} bytes too many", size - wanted.bytes)});
  }
}

}  // namespace corvaned
