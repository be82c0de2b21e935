#include "server/store/batchMemory.h"

#include <fcntl.h>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include "server/store/checksum.h"
#include "server/store/damage.h"
#include "server/store/files.h"

namespace corvaned {
namespace {

constexpr std::string_view kMagic = "KRB1";
constexpr std::size_t kChecksumBytes = 4;
// What a batch or a series takes in memory beside its names.
constexpr std::size_t kCost = 250;
// What is said of what the index has left out of a batch.
constexpr std::size_t kLeftOutCost = 1000;

class Hash {
 public:
  Hash() { crypto_hash_sha256_init(&state_); }

  void add(std::string_view text) {
    addNumber(text.size());
    addBytes(text);
  }

  void addNumber(std::uint64_t number) {
    std::string bytes;
    appendU64(bytes, number);
    addBytes(bytes);
  }

  // Half of it is more than enough to tell two batches apart.
  std::string end() {
    constexpr std::size_t kKept = 16;
    std::array<unsigned char, crypto_hash_sha256_BYTES> hash{};
    crypto_hash_sha256_final(&state_, hash.data());
    return {reinterpret_cast<const char*>(hash.data()), kKept};
  }

 private:
  void addBytes(std::string_view bytes) {
    crypto_hash_sha256_update(&state_, reinterpret_cast<const unsigned char*>(bytes.data()),
                              bytes.size());
  }

  crypto_hash_sha256_state state_{};
};

struct NumberedName {
  std::string series;
  std::uint64_t number = 0;
};

// As many digits at the end as fit into a number for certain.
std::optional<NumberedName> numberedName(const std::string& name) {
  constexpr std::size_t kMaxDigits = 18;
  std::size_t begin = name.size();
  while (begin > 0 && name.size() - begin < kMaxDigits && name[begin - 1] >= '0' &&
         name[begin - 1] <= '9') {
    --begin;
  }
  if (begin == name.size()) return std::nullopt;
  NumberedName numbered{name.substr(0, begin), 0};
  std::from_chars(name.data() + begin, name.data() + name.size(), numbered.number);
  return numbered;
}

bool takeNumber(ByteReader& reader, std::uint64_t& number) {
  const auto bytes = reader.take(8);
  if (bytes) number = loadU64(*bytes);
  return bytes.has_value();
}

}  // namespace

std::string digestOf(const BatchChanges& changes, std::string_view reading) {
  Hash hash;
  hash.add(changes.newMark);
  hash.addNumber(changes.documents.size());
  for (const Document& document : changes.documents) {
    hash.add(document.key);
    hash.addNumber(document.metadata.size());
    for (const auto& [name, value] : document.metadata) {
      hash.add(name);
      hash.add(value);
    }
    hash.add(document.content);
  }
  hash.addNumber(changes.deletions.size());
  for (const std::string& key : changes.deletions) hash.add(key);
  if (!reading.empty()) hash.add(reading);
  return hash.end();
}

BatchOutcome outcomeOf(const BatchEntry& batch) {
  return {batch.changes.documents.size(), batch.changes.deletions.size(), batch.unknown};
}

BatchMemory::BatchMemory(const std::filesystem::path& collection, MemoryBudget::Share memory)
    : path_(pathIn(collection)), memory_(std::move(memory)) {
  if (!std::filesystem::exists(path_)) return;
  std::ifstream file(path_, std::ios::binary);
  if (!file) throwSystemError("cannot read", path_);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  if (!decode(bytes)) throwDamaged({path_, 0, "what is known of batches cannot be read"});
  hasFile_ = true;
  if (!now_.names.empty()) inFile_ = now_;
}

std::filesystem::path BatchMemory::pathIn(const std::filesystem::path& collection) {
  return collection / "batches";
}

std::optional<BatchMemory::Known> BatchMemory::find(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = now_.known.find(name);
  if (found == now_.known.end()) return std::nullopt;
  std::optional known = found->second;
  const auto leftOut = now_.leftOut.find(name);
  if (leftOut != now_.leftOut.end()) known->outcome.leftOut = leftOut->second;
  return known;
}

bool BatchMemory::isOld(const std::string& name) const {
  const auto numbered = numberedName(name);
  if (!numbered) return false;
  const std::lock_guard lock(mutex_);
  const auto found = now_.series.find(numbered->series);
  return found != now_.series.end() && numbered->number <= found->second.number;
}

std::string BatchMemory::mark() const {
  const std::lock_guard lock(mutex_);
  return now_.mark;
}

void BatchMemory::note(const BatchEntry& batch, std::uint64_t ticket) {
  const std::lock_guard lock(mutex_);
  remember(batch.name, {batch.digest, outcomeOf(batch), ticket});
  if (!batch.changes.newMark.empty()) now_.mark = batch.changes.newMark;
  ++notes_;
}

void BatchMemory::noteLeftOut(const std::string& name, std::string leftOut) {
  const std::lock_guard lock(mutex_);
  if (!now_.known.contains(name)) return;
  if (!now_.leftOut.try_emplace(name, std::move(leftOut)).second) return;
  chargeMemory();
  ++notes_;
}

// The journal may begin with batches from before the file was made. They push out others that the
// file has, which would then count as old; so with its last one begins what it holds.
void BatchMemory::replay(const BatchEntry& batch) {
  note(batch, 0);
  const std::lock_guard lock(mutex_);
  if (!inFile_ || !endsAsFile()) return;
  now_ = *inFile_;
  chargeMemory();
}

// A name alone does not tell: it may be used for another batch once it is forgotten, and what came
// in between must stay.
bool BatchMemory::endsAsFile() const {
  const std::deque<std::string>& inFile = inFile_->names;
  const auto count = static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(notes_, inFile.size()));
  return std::equal(inFile.rbegin(), inFile.rbegin() + count, now_.names.rbegin(),
                    [this](const std::string& its, const std::string& replayed) {
                      return its == replayed &&
                             inFile_->known.at(its).digest == now_.known.at(replayed).digest;
                    });
}

void BatchMemory::endReplay() {
  const std::lock_guard lock(mutex_);
  inFile_.reset();
}

void BatchMemory::remember(const std::string& name, Known known) {
  if (!now_.known.insert_or_assign(name, std::move(known)).second) std::erase(now_.names, name);
  now_.leftOut.erase(name);
  now_.names.push_back(name);
  use(name);
  if (now_.names.size() > kBatches) forgetOldest();
  chargeMemory();
}

void BatchMemory::chargeMemory() {
  memory_.force((now_.known.size() + now_.series.size()) * (kMaxBatchName + kCost) +
                now_.leftOut.size() * kLeftOutCost);
}

void BatchMemory::use(const std::string& name) {
  const auto numbered = numberedName(name);
  if (!numbered) return;
  const auto found = now_.series.find(numbered->series);
  if (found != now_.series.end()) found->second.lastUse = ++uses_;
}

void BatchMemory::forgetOldest() {
  now_.known.erase(now_.names.front());
  now_.leftOut.erase(now_.names.front());
  if (const auto numbered = numberedName(now_.names.front())) {
    forget(numbered->series, numbered->number);
  }
  now_.names.pop_front();
}

void BatchMemory::forget(const std::string& series, std::uint64_t number) {
  Series& known = now_.series[series];
  known.number = std::max(known.number, number);
  known.lastUse = ++uses_;
  if (now_.series.size() <= kSeries) return;
  now_.series.erase(std::min_element(now_.series.begin(), now_.series.end(),
                                     [](const auto& one, const auto& other) {
                                       return one.second.lastUse < other.second.lastUse;
                                     }));
}

std::optional<BatchMemory::Contents> BatchMemory::unsaved() const {
  const std::lock_guard lock(mutex_);
  if (notes_ == savedNotes_) return std::nullopt;
  return Contents{encoded(), notes_};
}

void BatchMemory::save(const Contents& contents) {
  replaceFile(path_, contents.bytes);
  const std::lock_guard lock(mutex_);
  savedNotes_ = contents.notes;
  hasFile_ = true;
}

void BatchMemory::makeFile() {
  Contents contents;
  {
    const std::lock_guard lock(mutex_);
    if (hasFile_) return;
    contents = {encoded(), notes_};
  }
  save(contents);
}

std::string BatchMemory::encoded() const {
  std::string bytes(kMagic);
  appendText(bytes, now_.mark);
  appendU32(bytes, static_cast<std::uint32_t>(now_.names.size()));
  for (const std::string& name : now_.names) {
    const Known& known = now_.known.at(name);
    appendText(bytes, name);
    appendText(bytes, known.digest);
    appendU64(bytes, known.outcome.documents);
    appendU64(bytes, known.outcome.deletions);
    appendU64(bytes, known.outcome.unknown);
  }
  std::vector<std::pair<std::string, Series>> series(now_.series.begin(), now_.series.end());
  std::sort(series.begin(), series.end(), [](const auto& one, const auto& other) {
    return one.second.lastUse < other.second.lastUse;
  });
  appendU32(bytes, static_cast<std::uint32_t>(series.size()));
  for (const auto& [name, known] : series) {
    appendText(bytes, name);
    appendU64(bytes, known.number);
  }
  if (!now_.leftOut.empty()) {
    appendU32(bytes, static_cast<std::uint32_t>(now_.leftOut.size()));
    for (const auto& [name, leftOut] : now_.leftOut) {
      appendText(bytes, name);
      appendText(bytes, leftOut);
    }
  }
  appendU32(bytes, checksumOf(bytes));
  return bytes;
}

bool BatchMemory::decode(std::string_view bytes) {
  if (!bytes.starts_with(kMagic) || bytes.size() < kMagic.size() + kChecksumBytes) return false;
  const std::string_view checksum = bytes.substr(bytes.size() - kChecksumBytes);
  bytes.remove_suffix(kChecksumBytes);
  if (loadU32(checksum) != checksumOf(bytes)) return false;
  ByteReader reader(bytes.substr(kMagic.size()));
  if (!takeText(reader, now_.mark)) return false;
  for (auto left = reader.u32().value_or(0); left > 0; --left) {
    std::string name;
    Known known;
    if (!takeText(reader, name) || !takeText(reader, known.digest) ||
        !takeNumber(reader, known.outcome.documents) ||
        !takeNumber(reader, known.outcome.deletions) ||
        !takeNumber(reader, known.outcome.unknown)) {
      return false;
    }
    remember(name, std::move(known));
  }
  for (auto left = reader.u32().value_or(0); left > 0; --left) {
    std::string name;
    std::uint64_t number = 0;
    if (!takeText(reader, name) || !takeNumber(reader, number)) return false;
    forget(name, number);
  }
  return reader.empty() || decodeLeftOut(reader);
}

// Earlier versions refuse a file that has this, and otherwise read what this one makes.
bool BatchMemory::decodeLeftOut(ByteReader& reader) {
  for (auto left = reader.u32().value_or(0); left > 0; --left) {
    std::string name;
    std::string leftOut;
    if (!takeText(reader, name) || !takeText(reader, leftOut)) return false;
    if (!now_.known.contains(name)) return false;
    now_.leftOut.insert_or_assign(name, std::move(leftOut));
  }
  chargeMemory();
  return reader.empty();
}

}  // namespace corvaned
