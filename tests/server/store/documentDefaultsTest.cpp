#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/collectionOptions.h"
#include "server/store/localStore.h"
#include "server/store/maintenance.h"
#include "tests/server/store/failingSync.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {

// Found by GoogleTest.
static void PrintTo(const DocumentReading& reading, std::ostream* out) {
  *out << static_cast<int>(reading.form.type) << " " << reading.form.language << " "
       << reading.charset;
}

namespace {

using ::testing::HasSubstr;

const DocumentReading kNone{};
const DocumentReading kGerman{{TextType::Html, "de"}, "windows-1252"};
const std::vector<DocumentReading> kSome{kGerman,
                                         {{TextType::Xml, ""}, ""},
                                         {{TextType::Plain, "fr"}, ""},
                                         {{TextType::Plain, ""}, "UTF-16BE"}};

std::string bytesOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

template <typename Work>
std::string refusal(const Work& work) {
  try {
    work();
  } catch (const ServerError& error) {
    return std::string(messageId(error.kind())) + " " + error.what();
  }
  return "none";
}

TEST(DocumentDefaults, WhatIsWrittenIsReadAndDamageIsNamed) {
  for (const DocumentReading& defaults : kSome) {
    const tq::test::TemporaryDirectory directory;
    const std::filesystem::path path = documentDefaultsPath(directory.path());
    EXPECT_EQ(readDocumentDefaults(directory.path()), kNone) << "there is no file";
    writeDocumentDefaults(directory.path(), defaults);
    EXPECT_EQ(readDocumentDefaults(directory.path()), defaults);
    const std::string bytes = bytesOf(path);
    for (std::size_t place = 0; place < bytes.size(); ++place) {
      std::string damaged = bytes;
      damaged[place] = static_cast<char>(damaged[place] ^ 1);
      for (const std::string& content : {damaged, bytes.substr(0, place)}) {
        std::ofstream(path, std::ios::trunc) << content;
        EXPECT_THAT(refusal([&] { readDocumentDefaults(directory.path()); }),
                    HasSubstr(path.string()))
            << content;
      }
    }
  }
}

TEST(DocumentDefaults, FileHasALineForEachThatSomebodyHasSet) {
  const tq::test::TemporaryDirectory directory;
  const std::filesystem::path path = documentDefaultsPath(directory.path());
  writeDocumentDefaults(directory.path(), kGerman);
  EXPECT_EQ(path.filename(), "document-defaults");
  EXPECT_EQ(bytesOf(path),
            "docType = html\ncharset = windows-1252\ndocLang = de\nchecksum = 5b5de540\n");
  writeDocumentDefaults(directory.path(), kNone);
  EXPECT_FALSE(std::filesystem::exists(path));
}

class DocumentDefaultsTest : public ::testing::Test {
 protected:
  DocumentDefaultsTest() {
    spdlog::set_level(spdlog::level::off);
    restart();
    store_->createCollection("c", "en");
  }

  std::filesystem::path collection() const { return directory_.path() / "data/collections/c"; }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(directory_.path() / "data", StoreLimits{},
                                          directory_.path() / "backups");
  }

  tq::test::TemporaryDirectory directory_;
  std::unique_ptr<LocalStore> store_;
};

TEST_F(DocumentDefaultsTest, EachSettingReplacesAllOfTheOneBeforeAndOutlivesARestart) {
  EXPECT_EQ(store_->documentDefaults("c"), kNone);
  for (const DocumentReading& defaults : kSome) {
    store_->setDocumentDefaults("c", defaults);
    EXPECT_EQ(store_->documentDefaults("c"), defaults);
    EXPECT_EQ(store_->summary("c").documentDefaults, defaults);
    restart();
    EXPECT_EQ(store_->documentDefaults("c"), defaults);
  }
  store_->setDocumentDefaults("c", kNone);
  restart();
  EXPECT_EQ(store_->documentDefaults("c"), kNone);
}

TEST_F(DocumentDefaultsTest, OneCollectionHasThemAndItsSuccessorHasNot) {
  store_->createCollection("d", "en");
  store_->setDocumentDefaults("c", kGerman);
  EXPECT_EQ(store_->documentDefaults("d"), kNone);
  store_->deleteCollection("c");
  EXPECT_THAT(refusal([&] { store_->documentDefaults("c"); }), HasSubstr("ZVK0007E"));
  EXPECT_THAT(refusal([&] { store_->setDocumentDefaults("c", kNone); }), HasSubstr("ZVK0007E"));
  store_->createCollection("c", "en");
  EXPECT_EQ(store_->documentDefaults("c"), kNone);
}

TEST_F(DocumentDefaultsTest, BackupHasThoseOfItsTime) {
  store_->setDocumentDefaults("c", kGerman);
  store_->backup("b", "c");
  store_->setDocumentDefaults("c", kNone);
  store_->restore({"b", "c", "d", false});
  EXPECT_EQ(store_->documentDefaults("d"), kGerman);
  store_->backup("none", "c");
  store_->setDocumentDefaults("c", kGerman);
  store_->restore({"none", "c", "c", true});
  EXPECT_EQ(store_->documentDefaults("c"), kNone);
}

TEST_F(DocumentDefaultsTest, RefusedSettingChangesNothingNowOrLater) {
  store_->setDocumentDefaults("c", kGerman);
  const DocumentReading other{{TextType::Xml, ""}, ""};
  const auto tryBoth = [&] {
    for (const DocumentReading& each : {other, kNone}) {
      EXPECT_THAT(refusal([&] { store_->setDocumentDefaults("c", each); }), HasSubstr("ZVK0014E"));
      EXPECT_EQ(store_->documentDefaults("c"), kGerman);
      EXPECT_EQ(readDocumentDefaults(collection()), kGerman);
    }
  };
  {
    const test::FailingDirectorySync failing;
    tryBoth();
  }
  {
    const test::FailingSync failing;
    EXPECT_THAT(refusal([&] { store_->setDocumentDefaults("c", other); }), HasSubstr("ZVK0014E"));
  }
  EXPECT_EQ(store_->documentDefaults("c"), kGerman);
  restart();
  EXPECT_EQ(store_->documentDefaults("c"), kGerman);
}

TEST_F(DocumentDefaultsTest, DamagedFileIsFoundAndOnlyARepairThatLosesItSaysSo) {
  store_->addDocument("c", {"k", {}, "fox"});
  store_->setDocumentDefaults("c", kGerman);
  store_.reset();
  const std::filesystem::path data = directory_.path() / "data";
  // Of something else, at first.
  std::filesystem::remove(collection() / "batches");
  std::ofstream(collection() / "options") << "refresh = often\n";
  EXPECT_FALSE(Maintenance(data).repair("c").found.isSound());
  EXPECT_EQ(readDocumentDefaults(collection()), kGerman);
  std::ofstream(documentDefaultsPath(collection())) << "docType = html\n";
  {
    const Maintenance maintenance(data);
    const CollectionCheck check = maintenance.check("c");
    ASSERT_EQ(check.journal.size(), 1U);
    EXPECT_EQ(check.journal[0].damage.file, documentDefaultsPath(collection()));
  }
  restart();
  EXPECT_THAT(refusal([&] { store_->openCollection("c"); }),
              HasSubstr(documentDefaultsPath(collection()).string()));
  store_.reset();
  EXPECT_FALSE(Maintenance(data).repair("c").losesNothing());
  restart();
  EXPECT_EQ(store_->documentDefaults("c"), kNone);
  store_->updateIndex("c");
  EXPECT_EQ(store_->estimate("c", "fox").hits, 1U);
}

TEST_F(DocumentDefaultsTest, CompactedCollectionKeepsThem) {
  store_->setDocumentDefaults("c", kGerman);
  store_.reset();
  Maintenance(directory_.path() / "data").compact("c");
  restart();
  EXPECT_EQ(store_->documentDefaults("c"), kGerman);
}

// It comes again with the same bytes, as its client knows nothing of what others have set since.
TEST_F(DocumentDefaultsTest, RepeatedBatchIsKnownByWhatWasSent) {
  Batch batch;
  batch.name = "b1";
  batch.changes.documents = {{"k", {}, "caf\xC3\xA9"}};
  batch.digest = digestOf({{{"k", {}, "caf\xE9"}}, {}, {}});
  store_->apply("c", batch);
  Batch again = batch;
  again.changes.documents[0].content = "caf\xD0\xB9";
  EXPECT_EQ(store_->apply("c", again).documents, 1U);
  again.refused.add({"k", "ZVK0012E", "no text in its charset"});
  EXPECT_EQ(store_->apply("c", again).documents, 1U);
  restart();
  EXPECT_EQ(store_->apply("c", again).documents, 1U);
  again.digest = digestOf({{{"k", {}, "tea"}}, {}, {}});
  EXPECT_THAT(refusal([&] { store_->apply("c", again); }), HasSubstr("ZVK0031E"));
}

// That of a version which knew them by what was stored.
TEST_F(DocumentDefaultsTest, RepeatedBatchOfAnEarlierVersionIsKnownByItsChanges) {
  Batch batch;
  batch.name = "b1";
  batch.changes.documents = {{"k", {}, "caf\xC3\xA9"}};
  store_->apply("c", batch);
  batch.digest = digestOf({{{"k", {}, "caf\xE9"}}, {}, {}});
  EXPECT_EQ(store_->apply("c", batch).documents, 1U);
  batch.refused.add({"k2", "ZVK0012E", "it has no key"});
  EXPECT_THAT(refusal([&] { store_->apply("c", batch); }), HasSubstr("ZVK0031E"));
}

}  // namespace
}  // namespace corvaned
