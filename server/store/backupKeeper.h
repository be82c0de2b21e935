#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "server/base/descriptorBudget.h"
#include "server/base/memoryBudget.h"
#include "server/store/backupManifest.h"
#include "server/store/backups.h"
#include "server/store/registry.h"
#include "server/store/stopCheck.h"
#include "server/store/store.h"

namespace asio {
class thread_pool;
}

namespace corvaned {

/// Makes backups of collections that are in use, and collections of backups. All this is done on a
/// thread of its own, one request after the other, so that only few resources are taken. A request
/// whose client has gone is given up. May be used from any thread.
class BackupKeeper {
 public:
  /// What it keeps, and what that takes its resources from.
  struct House {
    /// The data directory, and in it that of the collections.
    std::filesystem::path root;
    std::filesystem::path collections;
    Registry& registry;
    std::shared_ptr<MemoryBudget> memory;
    std::shared_ptr<DescriptorBudget> descriptors;
    const std::atomic<bool>& stopping;
    /// The names of all collections.
    std::function<std::vector<std::string>()> names;
    /// Makes an empty directory beside the collections that no crash leaves behind.
    std::function<std::filesystem::path()> freshTemporary;
    /// Called when another collection has taken the place of this one.
    std::function<void(const std::string& name)> replaced;
    /// How long requests to a collection wait because it is about to be replaced.
    std::chrono::milliseconds unusedWithin;
  };

  /// Throws ServerError(StorageFailed) if the directory cannot be that of the backups.
  BackupKeeper(const std::filesystem::path& directory, House house);
  /// Returns when nothing is under way any more.
  ~BackupKeeper();

  /// As Store says.
  void backup(const std::string& backup, const std::string& collection);
  void restore(const Restoration& restoration);
  std::vector<BackupSummary> list(const std::string& after, std::uint64_t most) const;

 private:
  /// What one request takes of the budgets.
  struct Resources {
    MemoryBudget::Share memory;
    DescriptorBudget::Share descriptors;
  };
  /// A collection of a backup, and the one that it becomes.
  struct Move {
    std::string from;
    std::string to;
  };

  void carryOut(std::function<void(const StopCheck& stop)> work);
  Resources resources(std::uint64_t bytes) const;
  void makeBackup(const std::string& backup, const std::string& collection, const StopCheck& stop);
  void copyAll(Backups::Draft& draft, const StopCheck& stop);
  void copy(Backups::Draft& draft, const std::string& collection, const StopCheck& stop);
  void restoreFrom(const Restoration& restoration, const StopCheck& stop);
  std::vector<Move> movesOf(const Restoration& restoration, const BackupManifest& manifest) const;
  void placeAll(const std::vector<Move>& moves, const std::filesystem::path& fresh, bool replace);
  /// Adds one to `placed` as soon as the collection has its place; what is left may still fail.
  void place(const std::string& name, const std::filesystem::path& fresh, bool replace,
             std::size_t& placed);
  /// Returns where the old one is.
  std::filesystem::path replace(const std::string& name, const std::filesystem::path& fresh);
  std::filesystem::path freshAside(const std::string& name) const;
  std::filesystem::path pathOf(const std::string& name) const;

  const House house_;
  Backups backups_;
  std::unique_ptr<asio::thread_pool> thread_;
};

}  // namespace corvaned
