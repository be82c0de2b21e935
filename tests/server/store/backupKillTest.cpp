#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "server/base/errors.h"
#include "server/store/localStore.h"
#include "tests/server/store/killPoint.h"
#include "tests/support/sanitized.h"
#include "tests/support/temporaryDirectory.h"

// A backup and its restoring, killed in front of every single call that changes a file, and in the
// middle of every write.
namespace corvaned {
namespace {

using test::KillPoint;
using ::testing::AnyOf;
using ::testing::Each;
using ::testing::Not;
using ::testing::StartsWith;

using Texts = std::map<std::string, std::string>;
const Texts kEarlier{{"k1", "fox"}, {"k2", "hen"}};
const Texts kNow{{"k2", "wolf"}, {"k3", "owl"}};

class BackupKillTest : public ::testing::Test {
 protected:
  // What a kill leaves is logged when it is cleared away.
  BackupKillTest() { spdlog::set_level(spdlog::level::off); }

  std::filesystem::path root() const { return directory_.path() / "copy"; }
  std::filesystem::path data() const { return root() / "data"; }
  std::filesystem::path backups() const { return root() / "backups"; }

  // A collection, and a backup of what it was earlier.
  void prepare() const {
    const std::filesystem::path place = directory_.path() / "original";
    LocalStore store(place / "data", {}, place / "backups");
    store.createCollection("c", "en");
    for (const auto& [key, text] : kEarlier) store.addDocument("c", {key, {}, text});
    store.updateIndex("c");
    store.backup("earlier", "c");
    store.addDocument("c", {"k3", {}, "owl"});
    store.updateIndex("c");
    store.deleteDocument("c", "k1");
    store.addDocument("c", {"k2", {}, "wolf"});
  }

  void copyOriginal() const {
    std::filesystem::remove_all(root());
    std::filesystem::copy(directory_.path() / "original", root(),
                          std::filesystem::copy_options::recursive);
  }

  using Work = void (*)(LocalStore& store);

  /// Whether it was killed.
  bool run(Work work, KillPoint point) const {
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork");
    if (child == 0) runChild(work, point);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return true;
    if (status != 0) throw std::runtime_error("it was refused");
    return false;
  }

  [[noreturn]] void runChild(Work work, KillPoint point) const {
    try {
      LocalStore store(data(), {}, backups());
      store.openCollection("c");
      test::dieAt(point);
      work(store);
      test::dieAt({});
      ::_exit(0);
    } catch (const std::exception& error) {
      std::cerr << error.what() << std::endl;
      ::_exit(1);
    }
  }

  // Nothing if there is no such collection.
  static Texts texts(LocalStore& store, const std::string& name) {
    try {
      store.updateIndex(name);
    } catch (const ServerError& error) {
      if (error.kind() == ErrorKind::UnknownCollection) return {};
      throw;
    }
    SearchQuery all;
    all.everything = true;
    all.order = HitOrder::Key;
    Texts found;
    store.visit(name, all,
                [&](const Document& document) { found[document.key] = document.content; });
    return found;
  }

  static std::vector<std::string> namesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(directory, missing)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  // Whatever was copied and moved aside is whole.
  void expectWhole(LocalStore& store, const std::filesystem::path& directory) const {
    for (const std::string& name : namesIn(directory)) {
      const std::filesystem::path seen = data() / "collections" / "seen";
      std::filesystem::rename(directory / name, seen);
      EXPECT_THAT(texts(store, "seen"), AnyOf(kEarlier, kNow)) << name;
      store.deleteCollection("seen");
    }
  }

  // Kills the work at each call in turn, under a sanitizer at one of some, and lets `look` look at
  // what it has left.
  template <typename Look>
  void killEverywhere(Work work, const Look& look) {
    prepare();
    for (std::uint64_t call = 1;; call += kStep) {
      bool killed = false;
      for (const bool halfWritten : {false, true}) {
        SCOPED_TRACE("call " + std::to_string(call) + (halfWritten ? ", half a write" : ""));
        copyOriginal();
        ASSERT_NO_THROW({
          killed = run(work, {call, halfWritten});
          LocalStore store(data(), {}, backups());
          EXPECT_THAT(namesIn(backups()), Each(Not(StartsWith("."))));
          EXPECT_THAT(namesIn(data() / "collections"), Each(Not(StartsWith("."))));
          look(store, killed);
          expectWhole(store, data() / "before-restore");
        });
        if (HasFailure()) return;
      }
      if (!killed) {
        EXPECT_GT(call, 20U) << "the calls are not counted";
        return;
      }
    }
  }

  static constexpr std::uint64_t kStep = tq::test::kSanitized ? 19 : 1;

  tq::test::TemporaryDirectory directory_;
};

TEST_F(BackupKillTest, BackupIsWholeOrNotThere) {
  killEverywhere([](LocalStore& store) { store.backup("now", ""); },
                 [&](LocalStore& store, bool killed) {
                   const bool there = std::filesystem::exists(backups() / "now");
                   EXPECT_TRUE(killed || there);
                   if (there) {
                     store.restore({"now", "c", "d", false});
                     EXPECT_EQ(texts(store, "d"), kNow);
                   } else {
                     store.backup("now", "c");
                   }
                   EXPECT_EQ(texts(store, "c"), kNow);
                 });
}

TEST_F(BackupKillTest, RestoredCollectionIsWholeOrNotThere) {
  killEverywhere(
      [](LocalStore& store) {
        store.restore({"earlier", "c", "d", false});
      },
      [&](LocalStore& store, bool killed) {
        const Texts found = texts(store, "d");
        if (!killed || !found.empty()) {
          EXPECT_EQ(found, kEarlier);
        }
        EXPECT_EQ(texts(store, "c"), kNow);
      });
}

TEST_F(BackupKillTest, ReplacedCollectionIsTheOldOrTheNewOne) {
  killEverywhere(
      [](LocalStore& store) {
        store.restore({"earlier", {}, "c", true});
      },
      [&](LocalStore& store, bool killed) {
        const Texts found = texts(store, "c");
        const bool restored = found == kEarlier;
        EXPECT_TRUE(restored || (killed && found == kNow));
        if (restored) {
          EXPECT_EQ(namesIn(data() / "before-restore").size(), 1U);
        }
      });
}

}  // namespace
}  // namespace corvaned
