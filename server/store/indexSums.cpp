#include "server/store/indexSums.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include "server/base/bytes.h"
#include "server/store/checksum.h"
#include "server/store/directory.h"

namespace corvaned {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kMagic = "KRS1";
constexpr std::string_view kMagicOfParts = "KRS2";
constexpr const char* kVersionFile = "iamglass";
constexpr std::size_t kRevisionBytes = 4;
constexpr std::size_t kSlice = 128 * kTableBlock;

std::string readWhole(const std::filesystem::path& path) {
  return readAt(openFile(path, O_RDONLY), 0, std::filesystem::file_size(path), path);
}

bool isVersionFile(const std::filesystem::path& name) { return name.filename() == kVersionFile; }

std::uint64_t blocksOf(std::uint64_t size) {
  return size / kTableBlock + (size % kTableBlock == 0 ? 0 : 1);
}

std::uint32_t revisionIn(std::string_view block) {
  return block.size() < kRevisionBytes ? 0 : loadU32(block);
}

std::string readVersion(const std::filesystem::path& path) {
  return std::filesystem::exists(path) ? readWhole(path) : std::string();
}

// Whole, as their checksum says, so nothing can be missing.
IndexRevisions takeRevisions(ByteReader& reader, bool inParts) {
  if (!inParts) return {{std::string(), loadU64(*reader.take(8))}};
  IndexRevisions revisions;
  for (std::uint32_t left = *reader.u32(); left > 0; --left) {
    const std::string directory(*reader.take(*reader.u32()));
    revisions[directory] = loadU64(*reader.take(8));
  }
  return revisions;
}

}  // namespace

std::uint64_t revisionOf(const IndexRevisions& revisions, const std::filesystem::path& table) {
  const auto found = revisions.find(table.parent_path().string());
  return found == revisions.end() ? 0 : found->second;
}

// After the identity, seven bits per byte, the lowest ones first.
std::optional<std::uint64_t> revisionInVersion(std::string_view content) {
  constexpr unsigned kBits = 7;
  std::uint64_t revision = 0;
  unsigned shift = 0;
  for (const char c : content.substr(std::min(content.size(), kVersionIdentityBytes))) {
    const auto byte = static_cast<unsigned char>(c);
    if (shift > 56) return std::nullopt;
    revision |= std::uint64_t{byte & 0x7FU} << shift;
    if (byte < 0x80U) return revision;
    shift += kBits;
  }
  return std::nullopt;
}

std::uint32_t blockRevisionAt(const FileHandle& file, std::uint64_t place,
                              const std::filesystem::path& path) {
  std::array<char, kRevisionBytes> bytes{};
  const ssize_t got = ::pread(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(place));
  if (got < 0) throwSystemError("cannot read", path);
  return revisionIn({bytes.data(), static_cast<std::size_t>(got)});
}

std::filesystem::path IndexSums::pathIn(const std::filesystem::path& collection) {
  return collection / "index-sums";
}

std::filesystem::path IndexSums::changingPathIn(const std::filesystem::path& collection) {
  return collection / "index-sums-changing";
}

bool IndexSums::existIn(const std::filesystem::path& collection) {
  return std::filesystem::exists(pathIn(collection)) ||
         std::filesystem::exists(changingPathIn(collection));
}

IndexSums::IndexSums(std::filesystem::path collection) : collection_(std::move(collection)) {
  changing_ = !std::filesystem::exists(pathIn(collection_));
  const std::filesystem::path path = changing_ ? changingPathIn(collection_) : pathIn(collection_);
  decode(readWhole(path), path);
}

IndexSums IndexSums::create(const std::filesystem::path& collection,
                            const IndexRevisions& revisions,
                            std::optional<std::uint64_t> lastChange) {
  IndexSums sums(collection, Fresh{});
  sums.changing_ = true;
  sums.endChange(revisions, lastChange);
  return sums;
}

void IndexSums::decode(std::string_view bytes, const std::filesystem::path& path) {
  const std::size_t end = bytes.size() < kMagic.size() + 4 ? 0 : bytes.size() - 4;
  const bool inParts = bytes.starts_with(kMagicOfParts);
  if (end == 0 || !(inParts || bytes.starts_with(kMagic)) ||
      checksumOf(bytes.substr(0, end)) != loadU32(bytes.substr(end))) {
    throwDamaged({path, 0, "the checksums of the index cannot be read"});
  }
  // Whole, as the checksum says, so nothing in it can be missing.
  ByteReader reader(bytes.substr(kMagic.size(), end - kMagic.size()));
  revisions_ = takeRevisions(reader, inParts);
  reader.u32();
  for (std::uint32_t left = *reader.u32(); left > 0; --left) {
    const std::string name(*reader.take(*reader.u32()));
    FileSums& sums = files_[name];
    sums.size = loadU64(*reader.take(8));
    if (isVersionFile(name)) {
      sums.content = *reader.take(*reader.u32());
    } else {
      sums.blocks.resize(blocksOf(sums.size));
      for (std::uint32_t& block : sums.blocks) block = *reader.u32();
    }
  }
  if (const auto number = reader.take(8)) lastChange_ = loadU64(*number);
}

std::string IndexSums::encoded() const {
  const bool inParts = !revisions_.contains({});
  std::string bytes(inParts ? kMagicOfParts : kMagic);
  if (inParts) appendU32(bytes, static_cast<std::uint32_t>(revisions_.size()));
  for (const auto& [directory, revision] : revisions_) {
    if (inParts) appendText(bytes, directory);
    appendU64(bytes, revision);
  }
  appendU32(bytes, kTableBlock);
  appendU32(bytes, static_cast<std::uint32_t>(files_.size()));
  for (const auto& [name, sums] : files_) {
    appendText(bytes, name);
    appendU64(bytes, sums.size);
    if (isVersionFile(name)) {
      appendText(bytes, sums.content);
    } else {
      for (const std::uint32_t block : sums.blocks) appendU32(bytes, block);
    }
  }
  if (lastChange_) appendU64(bytes, *lastChange_);
  appendU32(bytes, checksumOf(bytes));
  return bytes;
}

void IndexSums::verify(const Visitor& onDamage, const StopCheck& stop) {
  const Clock::time_point start = Clock::now();
  for (const auto& [name, sums] : files_) verifyFile(name, sums, onDamage, stop);
  verified_ = Clock::now();
  cost_ = verified_ - start;
}

void IndexSums::verify(const StopCheck& stop) { verify(throwDamaged, stop); }

std::optional<Damage> IndexSums::damageIn(const std::filesystem::path& collection,
                                          const StopCheck& stop) {
  const auto look = [&] {
    std::optional<Damage> first;
    const auto note = [&](const Damage& damage) {
      if (!first) first = damage;
    };
    IndexSums sums(collection);
    // A change may begin at any moment.
    sums.changing_ = true;
    sums.verify(note, stop);
    return first;
  };
  const auto once = look();
  if (!once) return std::nullopt;
  auto twice = look();
  const bool same = twice && twice->file == once->file && twice->place == once->place;
  return same ? std::move(twice) : std::nullopt;
}

void IndexSums::verifyIfDue(const StopCheck& stop) {
  constexpr std::uint64_t kSmall = std::uint64_t{4} << 20U;
  constexpr int kShareOfTime = 20;
  std::uint64_t bytes = 0;
  for (const auto& [name, sums] : files_) bytes += sums.size;
  if (bytes <= kSmall || Clock::now() - verified_ >= kShareOfTime * cost_) verify(stop);
}

void IndexSums::verifyFile(const std::string& name, const FileSums& sums, const Visitor& onDamage,
                           const StopCheck& stop) const {
  const std::filesystem::path path = indexPath() / name;
  if (!std::filesystem::exists(path)) return onDamage({path, 0, "the file is missing"});
  if (isVersionFile(name)) return verifyContent(path, sums, onDamage);
  verifyBlocks(name, sums, onDamage, stop);
}

void IndexSums::verifyContent(const std::filesystem::path& path, const FileSums& sums,
                              const Visitor& onDamage) const {
  const std::string found = readWhole(path);
  // A commit replaces this file; only the end of the whole update is noted.
  if (changing_ || found == sums.content) return;
  const auto difference =
      std::mismatch(found.begin(), found.end(), sums.content.begin(), sums.content.end());
  onDamage({path, static_cast<std::uint64_t>(difference.first - found.begin()),
            "it differs from its copy in the checksums"});
}

void IndexSums::verifyBlocks(const std::string& name, const FileSums& sums, const Visitor& onDamage,
                             const StopCheck& stop) const {
  const std::filesystem::path path = indexPath() / name;
  const std::uint64_t revision = revisionOf(revisions_, name);
  std::uint64_t newest = changing_ ? newestRevisionOf(name) : revision;
  const FileHandle file = openFile(path, O_RDONLY);
  std::string slice;
  for (std::size_t i = 0; i < sums.blocks.size(); ++i) {
    const std::uint64_t place = std::uint64_t{i} * kTableBlock;
    if (place % kSlice == 0) {
      stop();
      slice = readAt(file, place, kSlice, path);
    }
    const std::size_t start = std::min<std::size_t>(place % kSlice, slice.size());
    const std::uint64_t known = std::min<std::uint64_t>(kTableBlock, sums.size - place);
    const std::string_view block = std::string_view(slice).substr(start, known);
    if (checksumOf(block) == sums.blocks[i] && block.size() == known) continue;
    // Transactions may have been committed since it was asked.
    if (changing_ && revisionIn(block) > newest) newest = newestRevisionOf(name);
    if (revisionIn(block) > revision && revisionIn(block) <= newest) continue;
    onDamage(
        {path, place,
         block.size() < known ? "the file is cut off" : "the block differs from its checksum"});
  }
  const std::uint64_t size = std::filesystem::file_size(path);
  if (size > sums.size && !changing_) {
    onDamage({path, sums.size, fmt::format("the file has {} bytes too many", size - sums.size)});
  }
}

// That of blocks which the engine may have written by now. From the second transaction of a change
// on it writes over blocks that the index had before, so neither their places nor their number tell
// which are old: only what they begin with does. Damage that turns just that into one of the few
// revisions of the change remains unseen.
std::uint64_t IndexSums::newestRevisionOf(const std::string& table) const {
  const std::filesystem::path version = (indexPath() / table).parent_path() / kVersionFile;
  const auto committed = revisionInVersion(readVersion(version));
  // Without it nothing is known, and the engine opens nothing.
  if (!committed) return std::numeric_limits<std::uint64_t>::max();
  return *committed + kRevisionsOfATransaction;
}

void IndexSums::beginChange() {
  if (isChanging()) return;
  if (!changing_) std::filesystem::rename(pathIn(collection_), changingPathIn(collection_));
  changing_ = true;
  syncDirectory(collection_);
  changingOnDisk_ = true;
}

// If the index cannot be read to its end, everything stays as it was: another attempt has to find
// the same blocks new.
void IndexSums::endChange(const IndexRevisions& revisions,
                          std::optional<std::uint64_t> lastChange) {
  std::map<std::string, FileSums> files = files_;
  readIndex(files);
  files_.swap(files);
  revisions_ = revisions;
  if (lastChange) lastChange_ = lastChange;
  write();
}

void IndexSums::readIndex(std::map<std::string, FileSums>& files) const {
  TreeReader reader(indexPath());
  while (const auto entry = reader.next()) {
    const std::string name = entry->path.lexically_relative(indexPath()).string();
    if (!isVersionFile(name) && !name.ends_with(kTableSuffix)) continue;
    FileSums& sums = files[name];
    if (isVersionFile(name)) {
      sums.content = readWhole(entry->path);
      sums.size = sums.content.size();
    } else {
      readBlocks(name, sums);
    }
  }
}

// Only blocks that the engine has written since. The others keep their checksums, so that damage in
// them stays visible.
void IndexSums::readBlocks(const std::string& name, FileSums& sums) const {
  const std::filesystem::path path = indexPath() / name;
  const std::uint64_t revision = revisionOf(revisions_, name);
  const FileHandle file = openFile(path, O_RDONLY);
  const std::uint64_t newest = newestRevisionOf(name);
  const std::size_t known = sums.blocks.size();
  sums.size = std::filesystem::file_size(path);
  sums.blocks.resize(blocksOf(sums.size));
  for (std::size_t i = 0; i < sums.blocks.size(); ++i) {
    const std::uint64_t place = std::uint64_t{i} * kTableBlock;
    const std::uint32_t written = blockRevisionAt(file, place, path);
    if (i < known && written <= revision) continue;
    if (i < known && written > newest) throwDamaged({path, place, "the block is of no revision"});
    sums.blocks[i] = checksumOf(readAt(file, place, kTableBlock, path));
  }
}

void IndexSums::write() {
  const std::filesystem::path path = pathIn(collection_);
  const std::filesystem::path passing = path.string() + ".new";
  {
    const FileHandle file = openFile(passing, O_WRONLY | O_CREAT | O_TRUNC);
    writeAll(file, encoded(), passing);
    syncFile(file, passing);
  }
  std::filesystem::rename(passing, path);
  // From here on a restart takes the index for one that rests.
  changing_ = changingOnDisk_ = false;
  std::filesystem::remove(changingPathIn(collection_));
  syncDirectory(collection_);
}

std::size_t IndexSums::bytes() const {
  std::size_t bytes = 0;
  for (const auto& [name, sums] : files_) {
    bytes += sums.blocks.size() * sizeof(std::uint32_t) + sums.content.size();
  }
  return bytes;
}

std::optional<std::string> IndexSums::contentOf(const std::string& file) const {
  const auto found = files_.find(file);
  if (changing_ || found == files_.end() || found->second.content.empty()) return std::nullopt;
  return found->second.content;
}

}  // namespace corvaned
