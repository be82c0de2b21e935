#include "server/store/journal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <utility>

#include "server/base/bytes.h"
#include "server/base/errors.h"

namespace corvaned {
namespace {

constexpr std::string_view kMagic = "KRJ1";
constexpr std::size_t kEntryHeader = 12;
constexpr std::string_view kFilePrefix = "journal-";

std::uint32_t checksumOf(std::string_view bytes) {
  const void* data = bytes.data();
  return static_cast<std::uint32_t>(
      ::crc32_z(0, static_cast<const unsigned char*>(data), bytes.size()));
}

void appendText(std::string& out, std::string_view text) {
  appendU32(out, static_cast<std::uint32_t>(text.size()));
  out += text;
}

std::string encodeEntry(const Change& change) {
  const Document& document = change.document;
  std::string entry(kEntryHeader, '\0');
  entry += static_cast<char>(change.kind);
  appendText(entry, document.key);
  appendU32(entry, static_cast<std::uint32_t>(document.metadata.size()));
  for (const auto& [name, value] : document.metadata) {
    appendText(entry, name);
    appendText(entry, value);
  }
  appendText(entry, document.content);
  const std::string_view payload = std::string_view(entry).substr(kEntryHeader);
  std::string header(kMagic);
  appendU32(header, static_cast<std::uint32_t>(payload.size()));
  appendU32(header, checksumOf(payload));
  return entry.replace(0, kEntryHeader, header);
}

bool takeText(ByteReader& reader, std::string& text) {
  const auto length = reader.u32();
  const auto bytes = length ? reader.take(*length) : std::nullopt;
  if (bytes) text = *bytes;
  return bytes.has_value();
}

std::optional<Change> decodePayload(std::string_view payload) {
  ByteReader reader(payload);
  const auto kind = reader.take(1);
  if (!kind) return std::nullopt;
  Change change;
  change.kind = static_cast<ChangeKind>(kind->front());
  if (change.kind != ChangeKind::Put && change.kind != ChangeKind::Remove) return std::nullopt;
  if (!takeText(reader, change.document.key)) return std::nullopt;
  const auto pairs = reader.u32();
  if (!pairs || *pairs > reader.remaining()) return std::nullopt;
  for (std::uint32_t i = 0; i < *pairs; ++i) {
    auto& [name, value] = change.document.metadata.emplace_back();
    if (!takeText(reader, name) || !takeText(reader, value)) return std::nullopt;
  }
  if (!takeText(reader, change.document.content) || !reader.empty()) return std::nullopt;
  return change;
}

/// Reads the entries of one segment.
class SegmentReader {
 public:
  explicit SegmentReader(const std::filesystem::path& path)
      : path_(path), file_(openFile(path, O_RDONLY)), size_(std::filesystem::file_size(path)) {}

  std::uint64_t goodBytes() const { return position_; }
  bool atEnd() const { return position_ == size_; }

  /// The next entry; nothing at the end of the file, or if the next bytes are not a whole entry.
  std::optional<Change> next() {
    const auto header = peek(kEntryHeader);
    if (!header || header->substr(0, kMagic.size()) != kMagic) return std::nullopt;
    const std::uint32_t length = loadU32(header->substr(4));
    const std::uint32_t checksum = loadU32(header->substr(8));
    const auto entry = peek(kEntryHeader + std::size_t{length});
    if (!entry) return std::nullopt;
    const std::string_view payload = entry->substr(kEntryHeader);
    if (checksumOf(payload) != checksum) return std::nullopt;
    auto change = decodePayload(payload);
    if (change) {
      position_ += entry->size();
      start_ += entry->size();
    }
    return change;
  }

 private:
  std::optional<std::string_view> peek(std::size_t count) {
    // Compared with the file's size first, so that a damaged length does not become an allocation.
    if (count > size_ - position_) return std::nullopt;
    if (buffer_.size() - start_ < count) fill(count);
    if (buffer_.size() - start_ < count) return std::nullopt;
    return std::string_view(buffer_).substr(start_, count);
  }

  void fill(std::size_t count) {
    constexpr std::size_t kSlice = std::size_t{1} << 18U;
    buffer_.erase(0, std::exchange(start_, 0));
    while (buffer_.size() < count) {
      const std::size_t held = buffer_.size();
      buffer_.resize(std::max(held + kSlice, count));
      const ssize_t got = ::read(file_.get(), buffer_.data() + held, buffer_.size() - held);
      const int error = errno;
      buffer_.resize(held + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
      errno = error;
      if (got < 0 && error != EINTR) throwSystemError("cannot read", path_);
      if (got == 0) return;
    }
  }

  std::filesystem::path path_;
  FileHandle file_;
  std::uint64_t size_;
  std::uint64_t position_ = 0;
  std::string buffer_;
  std::size_t start_ = 0;
};

std::uint64_t readSegment(const std::filesystem::path& path, std::uint64_t number, bool mayBeCut,
                          const Journal::Visitor& visitor) {
  SegmentReader reader(path);
  while (auto change = reader.next()) visitor(number, std::move(*change));
  if (!reader.atEnd() && !mayBeCut) {
    throw ServerError(ErrorKind::StorageFailed,
                      fmt::format("{} is damaged at byte {}; restore it, or move it away to go on "
                                  "without its changes",
                                  path.string(), reader.goodBytes()));
  }
  return reader.goodBytes();
}

}  // namespace

Journal::Journal(std::filesystem::path directory, const Visitor& visitor)
    : directory_(std::move(directory)) {
  const std::vector<std::uint64_t> numbers = segmentsOnDisk();
  for (const std::uint64_t number : numbers) {
    const bool last = number == numbers.back();
    segments_.push_back({number, readSegment(pathOf(number), number, last, visitor)});
  }
  if (numbers.empty()) {
    startSegment(1);
  } else {
    openLast(numbers.back(), segments_.back().bytes);
  }
}

Journal::Place Journal::append(const Change& change) {
  const std::string entry = encodeEntry(change);
  const std::lock_guard lock(mutex_);
  requireHealthy();
  try {
    writeAll(current_->handle, entry, current_->path);
  } catch (const ServerError& error) {
    takeBack(segments_.back().bytes, error.what());
    throw;
  }
  segments_.back().bytes += entry.size();
  return {++lastTicket_, segments_.back().number};
}

void Journal::sync(std::uint64_t ticket) {
  std::unique_lock lock(mutex_);
  while (durableTicket_ < ticket) {
    requireHealthy();
    if (syncing_) {
      synced_.wait(lock);
      continue;
    }
    syncing_ = true;
    const std::uint64_t reached = lastTicket_;
    const std::shared_ptr<CurrentFile> file = current_;
    lock.unlock();
    const bool good = ::fdatasync(file->handle.get()) == 0;
    const int error = errno;
    lock.lock();
    syncing_ = false;
    synced_.notify_all();
    if (good) {
      durableTicket_ = std::max(durableTicket_, reached);
    } else if (failure_.empty()) {
      failure_ = file->path.string() + ": " + std::generic_category().message(error);
    }
  }
}

std::uint64_t Journal::rotate() {
  std::unique_lock lock(mutex_);
  synced_.wait(lock, [&] { return !syncing_; });
  requireHealthy();
  const std::uint64_t closed = segments_.back().number;
  if (::fdatasync(current_->handle.get()) != 0) {
    failure_ = current_->path.string() + ": " + std::generic_category().message(errno);
    requireHealthy();
  }
  durableTicket_ = lastTicket_;
  startSegment(closed + 1);
  return closed;
}

void Journal::read(std::uint64_t last, const Visitor& visitor) const {
  std::vector<std::uint64_t> numbers;
  {
    const std::lock_guard lock(mutex_);
    for (const Segment& segment : segments_) {
      if (segment.number <= last) numbers.push_back(segment.number);
    }
  }
  for (const std::uint64_t number : numbers) readSegment(pathOf(number), number, false, visitor);
}

void Journal::remove(std::uint64_t last) {
  const std::lock_guard lock(mutex_);
  // Removed and synced one by one, oldest first. If a crash left an older segment without a newer
  // one, replaying it would undo the newer changes.
  while (segments_.front().number <= last) {
    std::filesystem::remove(pathOf(segments_.front().number));
    segments_.erase(segments_.begin());
    syncDirectory(directory_);
  }
}

bool Journal::empty() const {
  const std::lock_guard lock(mutex_);
  return std::all_of(segments_.begin(), segments_.end(),
                     [](const Segment& segment) { return segment.bytes == 0; });
}

std::filesystem::path Journal::pathOf(std::uint64_t number) const {
  return directory_ / fmt::format("{}{:010}", kFilePrefix, number);
}

std::vector<std::uint64_t> Journal::segmentsOnDisk() const {
  std::vector<std::uint64_t> numbers;
  for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(kFilePrefix)) continue;
    std::uint64_t number = 0;
    const char* end = name.data() + name.size();
    const auto parsed = std::from_chars(name.data() + kFilePrefix.size(), end, number);
    if (parsed.ec == std::errc{} && parsed.ptr == end) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

void Journal::startSegment(std::uint64_t number) {
  auto file = std::make_shared<CurrentFile>();
  file->path = pathOf(number);
  file->handle = openFile(file->path, O_WRONLY | O_APPEND | O_CREAT | O_EXCL);
  try {
    syncDirectory(directory_);
  } catch (...) {
    // The next attempt must find the name unused, and a restart must not find a segment after the
    // current one.
    std::error_code ignored;
    std::filesystem::remove(file->path, ignored);
    throw;
  }
  segments_.push_back({number, 0});
  current_ = std::move(file);
}

void Journal::openLast(std::uint64_t number, std::uint64_t goodBytes) {
  auto file = std::make_shared<CurrentFile>();
  file->path = pathOf(number);
  file->handle = openFile(file->path, O_WRONLY | O_APPEND);
  const std::uint64_t size = std::filesystem::file_size(file->path);
  if (size > goodBytes) {
    spdlog::warn("{}: dropped {} bytes of a change that was being written when the server stopped",
                 file->path.string(), size - goodBytes);
    if (::ftruncate(file->handle.get(), static_cast<off_t>(goodBytes)) != 0) {
      throwSystemError("cannot shorten", file->path);
    }
    syncFile(file->handle, file->path);
  }
  current_ = std::move(file);
}

void Journal::requireHealthy() const {
  if (failure_.empty()) return;
  throw ServerError(ErrorKind::StorageFailed,
                    "changes are refused since the disk failed, restart the server when it is "
                    "repaired: " +
                        failure_);
}

// The entries that follow would be unreadable after the remains of a failed write.
void Journal::takeBack(std::uint64_t bytes, const std::string& reason) {
  if (::ftruncate(current_->handle.get(), static_cast<off_t>(bytes)) != 0) failure_ = reason;
}

}  // namespace corvaned
