#include "server/store/backupKeeper.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "server/base/errors.h"
#include "server/base/requestContext.h"
#include "server/base/ticket.h"
#include "server/store/collection.h"
#include "server/store/collectionCopy.h"
#include "server/store/dataDirectory.h"
#include "server/store/directory.h"
#include "server/store/files.h"
#include "server/store/indexReplacement.h"
#include "server/store/maintenance.h"

namespace corvaned {
namespace {

using Clock = std::chrono::steady_clock;

// The two files of a copy, directories that are walked through, and what the engine opens.
constexpr std::size_t kDescriptors = 16;
// What is copied at a time, and small things.
constexpr std::size_t kBufferBytes = std::size_t{4} << 20U;
// What the checksums of so many bytes take: those of the index, and the list of the files.
constexpr std::uint64_t kBytesPerByteOfSums = 512;
// A collection holds still for what is left, if it is this little or does not get less.
constexpr std::uint64_t kLittle = std::uint64_t{8} << 20U;
constexpr int kMaxPasses = 6;

template <typename Work>
std::optional<ServerError> failureOf(const Work& work) {
  try {
    work();
    return std::nullopt;
  } catch (const ServerError& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return ServerError(ErrorKind::OutOfMemory, "the server has not enough memory for the backup");
  } catch (const std::system_error& error) {
    return ServerError(ErrorKind::StorageFailed, error.what());
  } catch (const std::exception& error) {
    return ServerError(ErrorKind::Internal, std::string("internal failure: ") + error.what());
  }
}

/// The first place of the copy of a collection that is not as it should be, as a place of what it
/// was copied from: that is damaged there, too.
std::optional<Damage> damageOf(const std::string& name, const std::filesystem::path& copy,
                               const std::filesystem::path& source, const StopCheck& stop) {
  const CollectionCheck check = checkCollection(name, copy, stop);
  std::vector<Damage> found = check.index;
  for (const JournalFault& fault : check.journal) found.push_back(fault.damage);
  if (found.empty()) return std::nullopt;
  found.front().file = source / found.front().file.lexically_relative(copy);
  return found.front();
}

[[noreturn]] void throwExists(const std::string& name) {
  throw ServerError(ErrorKind::CollectionExists,
                    "the collection " + shown(name) +
                        " exists already; restore under another name, or have it replaced");
}

[[noreturn]] void throwUnknown(const std::string& name) {
  throw ServerError(ErrorKind::UnknownCollection, "there is no collection " + shown(name));
}

bool isWithin(const std::filesystem::path& path, const std::filesystem::path& other) {
  const std::filesystem::path relative = std::filesystem::weakly_canonical(path).lexically_relative(
      std::filesystem::weakly_canonical(other));
  return !relative.empty() && *relative.begin() != "..";
}

// A backup must not pass for a collection, nor for one that is kept aside.
std::filesystem::path outside(const std::filesystem::path& directory,
                              const std::filesystem::path& root) {
  const bool same = isWithin(directory, root) && isWithin(root, directory);
  const bool among = isWithin(directory, collectionsIn(root)) ||
                     isWithin(directory, beforeRestoreIn(root)) ||
                     isWithin(directory, beforeRepairIn(root));
  if (!same && !among) return directory;
  throw ServerError(ErrorKind::StorageFailed,
                    "the directory of backups " + directory.string() +
                        " is where the server keeps collections; choose another one");
}

/// Removes a directory when it goes.
class Temporary {
 public:
  explicit Temporary(std::filesystem::path path) : path_(std::move(path)) {}
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;
  ~Temporary() { tryToRemoveTree(path_); }

  const std::filesystem::path& path() const { return path_; }

 private:
  const std::filesystem::path path_;
};

// The index's revisions are asked for first: what changes after that has a higher one.
void copyAhead(CollectionCopy& copy, const Collection& collection) {
  for (int passes = 0; passes < kMaxPasses;) {
    const IndexRevisions revisions = collection.indexRevisions();
    const auto copied = copy.copyAhead(revisions, collection.journalExtent());
    passes = copied ? passes + 1 : 0;
    if (passes > 1 && *copied <= kLittle) return;
  }
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

BackupKeeper::BackupKeeper(const std::filesystem::path& directory, House house)
    : house_(std::move(house)),
      backups_(outside(directory, house_.root)),
      thread_(std::make_unique<asio::thread_pool>(1)) {}

BackupKeeper::~BackupKeeper() { thread_->join(); }

void BackupKeeper::backup(const std::string& backup, const std::string& collection) {
  carryOut(
      [this, backup, collection](const StopCheck& stop) { makeBackup(backup, collection, stop); });
}

void BackupKeeper::restore(const Restoration& restoration) {
  carryOut([this, restoration](const StopCheck& stop) { restoreFrom(restoration, stop); });
}

// On the thread that asks: nothing is changed, and nobody wants to wait for a backup here.
std::vector<BackupSummary> BackupKeeper::list(const std::string& after, std::uint64_t most) const {
  std::vector<BackupSummary> summaries;
  for (const std::string& name : backups_.names(after, most)) {
    // A list of files may be large.
    if (RequestContext* const request = RequestContext::current()) request->check();
    BackupSummary summary;
    summary.name = name;
    try {
      const BackupManifest manifest = BackupManifest::read(backups_.find(name));
      summary.made = manifest.made();
      summary.collections = manifest.collections().size();
      summary.bytes = manifest.bytes();
    } catch (const ServerError& error) {
      summary.damage = error.what();
    }
    summaries.push_back(std::move(summary));
  }
  return summaries;
}

void BackupKeeper::carryOut(std::function<void(const StopCheck& stop)> work) {
  auto ticket = std::make_shared<Ticket>();
  RequestContext* const current = RequestContext::current();
  std::weak_ptr<RequestContext> request;
  if (current) request = current->weak_from_this();
  asio::post(*thread_, [this, ticket, request, work = std::move(work)] {
    const StopCheck stop = [&] {
      if (house_.stopping) throw ServerError(ErrorKind::TryAgain, "the server is stopping");
      if (const auto served = request.lock()) served->check();
    };
    ticket->finish(failureOf([&] {
      stop();
      work(stop);
    }));
  });
  RequestContext::await(std::move(ticket));
}

BackupKeeper::Resources BackupKeeper::resources(std::uint64_t bytes) const {
  Resources taken{house_.memory ? MemoryBudget::Share(*house_.memory) : MemoryBudget::Share(),
                  DescriptorBudget::Share(house_.descriptors.get())};
  const std::size_t wanted = kBufferBytes + static_cast<std::size_t>(bytes / kBytesPerByteOfSums);
  if (!taken.memory.resize(wanted, MemoryBudget::Use::Large)) {
    const bool mayPass = house_.memory->canEverFit(wanted, MemoryBudget::Use::Large);
    throw ServerError(mayPass ? ErrorKind::TryAgain : ErrorKind::OutOfMemory,
                      fmt::format("this needs {} MiB of memory that are not free; {}raise "
                                  "--max-memory",
                                  (wanted >> 20U) + 1, mayPass ? "try again, or " : ""));
  }
  taken.descriptors.add(kDescriptors);
  return taken;
}

void BackupKeeper::makeBackup(const std::string& backup, const std::string& collection,
                              const StopCheck& stop) {
  const Clock::time_point start = Clock::now();
  Backups::Draft draft = backups_.begin(backup);
  if (collection.empty()) {
    copyAll(draft, stop);
  } else {
    copy(draft, collection, stop);
  }
  const BackupManifest manifest = BackupManifest::make(draft.path(), stop);
  manifest.write();
  syncTree(draft.path(), stop);
  stop();
  draft.complete();
  spdlog::info("backup {}: {} collections, {} bytes, {:.3f} s", shown(backup),
               manifest.collections().size(), manifest.bytes(), secondsSince(start));
}

// One that is deleted meanwhile is none of all collections any more.
void BackupKeeper::copyAll(Backups::Draft& draft, const StopCheck& stop) {
  for (const std::string& name : house_.names()) {
    stop();
    try {
      copy(draft, name, stop);
    } catch (const ServerError& error) {
      if (error.kind() != ErrorKind::UnknownCollection) {
        throw ServerError(error.kind(), "the collection " + shown(name) + ": " + error.what());
      }
      removeTree(draft.pathOf(name));
    }
  }
}

void BackupKeeper::copy(Backups::Draft& draft, const std::string& collection,
                        const StopCheck& stop) {
  const std::filesystem::path source = pathOf(collection);
  const std::filesystem::path target = draft.pathOf(collection);
  const Registry::Use used = house_.registry.use(collection);
  const Resources taken = resources(bytesInTree(source));
  try {
    CollectionCopy copy(source, target, stop);
    copyAhead(copy, *used);
    const Clock::time_point start = Clock::now();
    const std::uint64_t before = copy.copied();
    used->holdStill([&] { copy.copyIndex(); },
                    [&](const JournalExtent& journal) { copy.copyRest(journal); }, stop);
    spdlog::debug("collection {}: held still for {:.6f} s to copy {} bytes", shown(collection),
                  secondsSince(start), copy.copied() - before);
  } catch (const std::exception&) {
    // Its files are going, one after the other.
    if (used->isRetired()) throwUnknown(collection);
    throw;
  }
  IndexReplacement::finish(target);
  IndexReplacement::clear(target);
  if (const auto damage = damageOf(collection, target, source, stop)) throwDamaged(*damage);
  const std::vector<Damage> damage = checkByEngine(target, stop);
  if (!damage.empty()) throwDamaged(damage.front());
}

void BackupKeeper::restoreFrom(const Restoration& restoration, const StopCheck& stop) {
  const Clock::time_point start = Clock::now();
  const std::filesystem::path backup = backups_.find(restoration.backup);
  const BackupManifest manifest = BackupManifest::read(backup);
  const Resources taken = resources(manifest.bytes());
  const std::vector<Move> moves = movesOf(restoration, manifest);
  const Temporary temporary(house_.freshTemporary());
  const auto fresh = [&](const Move& move) { return temporary.path() / directoryNameFor(move.to); };
  for (const Move& move : moves) {
    manifest.copy(move.from, fresh(move), stop);
    const auto damage =
        damageOf(move.from, fresh(move), collectionsIn(backup) / directoryNameFor(move.from), stop);
    if (damage) throwBadBackup(*damage);
  }
  syncTree(temporary.path(), stop);
  stop();
  placeAll(moves, temporary.path(), restoration.replace);
  spdlog::info("backup {}: {} collections restored, {:.3f} s", shown(restoration.backup),
               moves.size(), secondsSince(start));
}

std::vector<BackupKeeper::Move> BackupKeeper::movesOf(const Restoration& restoration,
                                                      const BackupManifest& manifest) const {
  const std::vector<std::string> names = manifest.collections();
  std::vector<Move> moves;
  if (restoration.collection.empty()) {
    for (const std::string& name : names) moves.push_back({name, name});
  } else {
    const std::string& from = restoration.from.empty() ? restoration.collection : restoration.from;
    if (std::find(names.begin(), names.end(), from) == names.end()) {
      throw ServerError(ErrorKind::UnknownCollection, "the backup " + shown(restoration.backup) +
                                                          " has no collection " + shown(from));
    }
    moves.push_back({from, restoration.collection});
  }
  for (const Move& move : moves) {
    if (!restoration.replace && std::filesystem::exists(pathOf(move.to))) throwExists(move.to);
  }
  return moves;
}

// To try again would replace what is restored already, and the changes that have come to it since.
void BackupKeeper::placeAll(const std::vector<Move>& moves, const std::filesystem::path& fresh,
                            bool replacing) {
  std::size_t placed = 0;
  for (const Move& move : moves) {
    const std::size_t before = placed;
    try {
      place(move.to, fresh / directoryNameFor(move.to), replacing, placed);
    } catch (const std::exception& error) {
      if (placed == 0) throw;
      throw ServerError(ErrorKind::StorageFailed,
                        fmt::format("{} of {} collections have been restored, in the order of "
                                    "their names, {} {}: {}",
                                    placed, moves.size(), placed == before ? "before" : "up to",
                                    shown(move.to), error.what()));
    }
  }
}

void BackupKeeper::place(const std::string& name, const std::filesystem::path& fresh,
                         bool replacing, std::size_t& placed) {
  Registry::Reservation reserved = house_.registry.reserve(name);
  if (!std::filesystem::exists(pathOf(name))) {
    std::filesystem::rename(fresh, pathOf(name));
    ++placed;
    return syncDirectory(house_.collections);
  }
  if (!replacing) throwExists(name);
  // If a later step fails, the next request opens the collection anew.
  if (reserved.collection()) reserved.collection()->retire(Collection::Fate::Replaced);
  reserved.forget();
  // They would read files of the one by what others of the other say of them.
  if (!reserved.awaitUnused(house_.unusedWithin)) {
    throw ServerError(ErrorKind::TryAgain, "searches in the collection " + shown(name) +
                                               " take too long for it to be replaced; try again");
  }
  const std::filesystem::path aside = replace(name, fresh);
  ++placed;
  syncDirectory(aside.parent_path());
  syncDirectory(house_.collections);
  house_.replaced(name);
}

// Whenever a crash comes, a whole collection has the name, and the old one is not removed by the
// next start. A crash in the middle leaves the restored one aside.
std::filesystem::path BackupKeeper::replace(const std::string& name,
                                            const std::filesystem::path& fresh) {
  std::filesystem::path aside = freshAside(name);
  std::filesystem::rename(fresh, aside);
  try {
    exchange(aside, pathOf(name));
  } catch (...) {
    std::error_code ignored;
    std::filesystem::rename(aside, fresh, ignored);
    throw;
  }
  return aside;
}

std::filesystem::path BackupKeeper::freshAside(const std::string& name) const {
  const std::filesystem::path parent = beforeRestoreIn(house_.root);
  if (!std::filesystem::exists(parent)) {
    makeDirectory(parent);
    syncDirectory(house_.root);
  }
  for (int number = 1;; ++number) {
    std::filesystem::path path = parent / fmt::format("{}.{}", directoryNameFor(name), number);
    if (!std::filesystem::exists(path)) return path;
  }
}

std::filesystem::path BackupKeeper::pathOf(const std::string& name) const {
  return house_.collections / directoryNameFor(name);
}

}  // namespace corvaned
