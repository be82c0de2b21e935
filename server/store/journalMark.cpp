#include "server/store/journalMark.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>

#include "server/base/bytes.h"
#include "server/store/checksum.h"
#include "server/store/damage.h"

namespace corvaned {
namespace {

constexpr std::string_view kText =
    "The journal of this collection has format 2. Programs that know only format 1 cannot read\n"
    "it and say that this file is damaged. Use the corvaned that wrote it, and leave this file\n"
    "where it is: it says which changes the journal must hold.\n";
constexpr std::string_view kTextWithBatches =
    "The journal of this collection has format 3, which came with batches. Programs that know\n"
    "only format 1 or 2 cannot read it and say that this file is damaged. Use the corvaned that\n"
    "wrote it, and leave this file where it is: it says which changes the journal must hold.\n";
constexpr std::string_view kMagic = "KRM2";
constexpr std::string_view kMagicWithBatches = "KRM3";
constexpr std::size_t kSlotBytes = 24;
// Disks write at least 512 bytes, so a failed write cannot touch both.
constexpr std::array<std::size_t, 2> kPlaces{512, 1024};

}  // namespace

std::string JournalMark::encoded(const Slot& slot) {
  std::string bytes(slot.batches ? kMagicWithBatches : kMagic);
  appendU64(bytes, slot.range.first);
  appendU64(bytes, slot.range.durable);
  appendU32(bytes, checksumOf(bytes));
  return bytes;
}

std::optional<JournalMark::Slot> JournalMark::decoded(std::string_view bytes) {
  if (bytes.size() != kSlotBytes) return std::nullopt;
  const Slot slot{{loadU64(bytes.substr(4)), loadU64(bytes.substr(12))},
                  bytes.starts_with(kMagicWithBatches)};
  if (bytes != encoded(slot)) return std::nullopt;
  return slot;
}

std::optional<JournalMark::Slot> JournalMark::readSlot(const FileHandle& file, std::size_t slot,
                                                       const std::filesystem::path& path) {
  std::array<char, kSlotBytes> bytes{};
  const ssize_t got =
      ::pread(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(kPlaces[slot]));
  if (got < 0) throwSystemError("cannot read", path);
  return decoded({bytes.data(), static_cast<std::size_t>(got)});
}

std::filesystem::path JournalMark::pathIn(const std::filesystem::path& directory) {
  return directory / "journal-0000000000";
}

std::unique_ptr<JournalMark> JournalMark::open(const std::filesystem::path& directory) {
  const std::filesystem::path path = pathIn(directory);
  if (!std::filesystem::exists(path)) return nullptr;
  const FileHandle file = openFile(path, O_RDONLY);
  const auto a = readSlot(file, 0, path);
  const auto b = readSlot(file, 1, path);
  if (!a && !b) throwDamaged({path, kPlaces[0], "the numbers of the changes cannot be read"});
  const bool firstIsLater = !b || (a && a->range > b->range);
  return std::unique_ptr<JournalMark>(
      new JournalMark(path, firstIsLater ? *a : *b, firstIsLater ? 1U : 0U));
}

std::unique_ptr<JournalMark> JournalMark::create(const std::filesystem::path& directory,
                                                 MarkedRange range) {
  const Slot slot{range, false};
  makeFile(pathIn(directory), slot);
  return std::unique_ptr<JournalMark>(new JournalMark(pathIn(directory), slot, 0));
}

void JournalMark::makeFile(const std::filesystem::path& path, const Slot& slot) {
  const std::filesystem::path passing = path.parent_path() / "journal-mark.new";
  std::string bytes(slot.batches ? kTextWithBatches : kText);
  for (const std::size_t place : kPlaces) {
    bytes.resize(place);
    bytes += encoded(slot);
  }
  const FileHandle file = openFile(passing, O_WRONLY | O_CREAT | O_TRUNC);
  writeAll(file, bytes, passing);
  syncFile(file, passing);
  // Renamed when it is complete: half a mark would be taken for a damaged one.
  std::filesystem::rename(passing, path);
  syncDirectory(path.parent_path());
}

bool JournalMark::allowsBatches() const {
  const std::lock_guard lock(mutex_);
  return batches_;
}

void JournalMark::allowBatches() {
  const std::lock_guard lock(mutex_);
  if (batches_) return;
  makeFile(path_, {range_, true});
  batches_ = true;
}

MarkedRange JournalMark::range() const {
  const std::lock_guard lock(mutex_);
  return range_;
}

void JournalMark::setDurable(std::uint64_t sequence) {
  const std::lock_guard lock(mutex_);
  if (sequence <= range_.durable) return;
  write(openFile(path_, O_WRONLY), {range_.first, sequence});
}

void JournalMark::setFirst(std::uint64_t sequence) {
  const std::lock_guard lock(mutex_);
  if (sequence <= range_.first) return;
  const FileHandle file = openFile(path_, O_WRONLY);
  const MarkedRange range{sequence, range_.durable};
  write(file, range);
  write(file, range);
  syncFile(file, path_);
}

void JournalMark::write(const FileHandle& file, MarkedRange range) {
  writeAt(file, encoded({range, batches_}), kPlaces[nextSlot_], path_);
  nextSlot_ = 1 - nextSlot_;
  range_ = range;
}

}  // namespace corvaned
