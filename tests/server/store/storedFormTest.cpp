#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <xapian.h>

#include <fstream>
#include <string>
#include <vector>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/batchMemory.h"
#include "server/store/localStore.h"
#include "server/store/xapianSchema.h"
#include "tests/support/temporaryDirectory.h"

// What is on disk, spelled out. Collections outlive the program that wrote them: whoever has to
// change a line here needs a new schema version, or a new kind of journal entry, as well.
namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

const std::string kZeroKey("a\0b", 3);
const std::string kZeroTerm = "Rbase64:YQBi";

/// What earlier versions wrote: "k2" is put with the metadata a=b and c=NUL x and the content
/// "text"; then the key a NUL b is removed.
const std::string kJournal(
    "KRJ1\0\0\0\x28\xE0\x2B\x10\x4C\1\0\0\0\2k2\0\0\0\2\0\0\0\1a\0\0\0\1b\0\0\0\1c\0\0\0\2\0x"
    "\0\0\0\4text"
    "KRJ1\0\0\0\x10\xFF\x4A\x5C\x1C\2\0\0\0\3a\0b\0\0\0\0\0\0\0\0",
    80);

Xapian::Document storedDocument(const std::string& identity, const std::string& key,
                                const std::vector<std::string>& words, const std::string& data) {
  Xapian::Document document;
  document.set_data(data);
  document.add_boolean_term(identity);
  document.add_value(0, key);
  Xapian::termpos position = 0;
  for (const std::string& word : words) {
    document.add_posting(word, ++position);
    document.add_term("Z" + word);
  }
  return document;
}

/// The metadata title=about and [sortable]year=1851, and the content "fox".
const std::string kFirstData(
    "\0\0\0\2"
    "\0\0\0\5title\0\0\0\5about"
    "\0\0\0\16[sortable]year\0\0\0\4\61851"
    "\0\0\0\3fox",
    4 + 18 + 26 + 7);

/// The same two changes as they are written now.
const std::string kNumberedJournal(
    "KRJ2\0\0\0(\xE0+\20L\0\0\0\0\0\0\0\1"
    "\0\0\0\0\0\0\0\0\xB4m\x93\xE2"
    "\1\0\0\0\2k2\0\0\0\2\0\0\0\1a\0\0\0\1b\0\0\0\1c\0\0\0\2\0x\0\0\0\4text"
    "KRJ2\0\0\0\20\xFFJ\134\34\0\0\0\0\0\0\0\2"
    "\0\0\0\0\0\0\0\1\xCFm\x95p"
    "\2\0\0\0\3a\0b\0\0\0\0\0\0\0\0",
    120);
const std::string kMark("KRM2\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\2\177<\x80\x94", 24);

class StoredFormTest : public ::testing::Test {
 protected:
  std::filesystem::path collection() const { return directory_.path() / "collections" / "c"; }
  std::string index() const { return (collection() / "index").string(); }

  /// A collection as an earlier program left it, with an index of the schema 1.
  void write(const std::string& schema) const {
    std::filesystem::create_directories(collection());
    Xapian::WritableDatabase database(index(), Xapian::DB_CREATE);
    database.set_metadata("language", "en");
    database.set_metadata("schema", schema);
    database.set_metadata("fields", "title\nyear\n");
    Xapian::Document plain = storedDocument("Qk1", "k1", {"fox"}, kFirstData);
    plain.add_posting("XAAabout", 1);
    plain.add_term("ZXAAabout");
    plain.add_posting("XAB1851", 1);
    database.add_document(plain);
    database.add_document(storedDocument(kZeroTerm, kZeroKey, {"fox", "zero"},
                                         std::string("\0\0\0\0\0\0\0\10fox zero", 16)));
    database.commit();
    std::ofstream(collection() / "journal-0000000002", std::ios::binary) << kJournal;
  }

  static std::vector<std::string> keys(Store& store, const std::string& text) {
    SearchQuery query;
    query.text = text;
    const auto hits = store.search("c", query);
    std::vector<std::string> list;
    for (Hit hit; hits->next(hit);) list.push_back(hit.key);
    return list;
  }

  tq::test::TemporaryDirectory directory_;
};

TEST_F(StoredFormTest, CollectionOnDiskIsServed) {
  write("1");
  LocalStore store(directory_.path(), {});
  EXPECT_THAT(keys(store, "fox"), ElementsAre("k1")) << "the journal removes the other one";
  EXPECT_THAT(keys(store, "title:about"), ElementsAre("k1"));
  EXPECT_THAT(keys(store, "year:1851"), ElementsAre("k1"));
  EXPECT_EQ(store.state("c"), CollectionState::ChangesPending);
  store.updateIndex("c");
  EXPECT_THAT(keys(store, "text"), ElementsAre("k2"));
  EXPECT_THAT(keys(store, "zero"), IsEmpty());
}

TEST_F(StoredFormTest, IndexOfTheFirstSchemaIsMadeAnewByTheNextUpdate) {
  write("1");
  LocalStore store(directory_.path(), {});
  EXPECT_THAT(keys(store, "fox"), ElementsAre("k1"));
  EXPECT_EQ(Xapian::Database(index()).get_metadata("schema"), "1");
  store.updateIndex("c");
  const Xapian::Database database(index());
  EXPECT_EQ(database.get_metadata("schema"), "2");
  EXPECT_EQ(database.get_metadata("language"), "en");
  EXPECT_EQ(database.get_document(*database.postlist_begin("Qk1")).get_data(), kFirstData);
  EXPECT_THAT(keys(store, "fox title:about year:1851"), ElementsAre("k1"));
  SearchQuery query;
  query.text = "fox";
  query.order = HitOrder::Value;
  query.sortBy = "year";
  Hit hit;
  ASSERT_TRUE(store.search("c", query)->next(hit));
  EXPECT_EQ(hit.key, "k1");
}

TEST_F(StoredFormTest, DocumentsOnDiskAreReplacedAndNotDoubled) {
  write("1");
  std::filesystem::remove(collection() / "journal-0000000002");
  LocalStore store(directory_.path(), {});
  EXPECT_THAT(keys(store, "fox"), UnorderedElementsAre("k1", kZeroKey));
  store.addDocument("c", {"k1", {}, "hound"});
  store.addDocument("c", {kZeroKey, {}, "hound"});
  store.updateIndex("c");
  EXPECT_THAT(keys(store, "fox"), IsEmpty());
  EXPECT_THAT(keys(store, "hound"), UnorderedElementsAre("k1", kZeroKey));
}

TEST_F(StoredFormTest, DocumentsAreWrittenUnderTheSameNames) {
  {
    LocalStore store(directory_.path(), {});
    store.createCollection("c", "de_DE");
    store.addDocument("c", {"k1", {{"title", "About"}}, "fox"});
    store.addDocument("c", {kZeroKey, {{"Indexable:[sortable]year", "1851"}}, ""});
    store.addDocument("c", {"k3", {{"[sortable]rank", "?"}}, ""});
    store.updateIndex("c");
  }
  const Xapian::Database database(index());
  EXPECT_EQ(database.get_metadata("schema"), "2");
  EXPECT_EQ(database.get_metadata("language"), "de_DE");
  EXPECT_EQ(database.get_metadata("fields"), "title\nyear\nrank\n");
  EXPECT_EQ(database.get_metadata("sortable"), "year\nrank\n");
  for (const char* term : {"Qk1", "fox", "Zfox", "XAAabout", "ZXAAabout"}) {
    EXPECT_EQ(*database.postlist_begin(term), 1U) << term;
  }
  for (const std::string& term : {kZeroTerm, std::string("XAB1851")}) {
    EXPECT_EQ(*database.postlist_begin(term), 2U) << term;
  }
  EXPECT_EQ(*database.postlist_begin("N"), 3U) << "the only one without a word";
  EXPECT_EQ(*database.positionlist_begin(3, "N"), 1U);
  EXPECT_EQ(database.get_document(2).get_value(0), kZeroKey);
  EXPECT_EQ(database.get_document(2).get_value(1), "1" + Xapian::sortable_serialise(1851));
  EXPECT_EQ(database.get_document(2).get_value(2), "");
  EXPECT_EQ(database.get_document(3).get_value(2), "2?");
  EXPECT_EQ(database.get_document(1).get_data(),
            std::string("\0\0\0\1\0\0\0\5title\0\0\0\5About\0\0\0\3fox", 29));
}

TEST_F(StoredFormTest, OptionsAndLanguagesAreWrittenUnderTheSameNames) {
  {
    LocalStore store(directory_.path(), {});
    TextOptions options;
    options.keepsPositions = false;
    options.keepsText = false;
    store.createCollection("c", "en", {}, options);
    Document document{"k1", {{"a", "b"}}, "foxes"};
    noteForm(document.metadata, {TextType::Plain, "de_AT"});
    store.addDocument("c", document);
    store.addDocument("c", {"k2", {}, ""});
    store.updateIndex("c");
  }
  const Xapian::Database database(index());
  EXPECT_EQ(database.get_metadata("options"), "text = no\npositions = no\n");
  EXPECT_EQ(database.get_metadata("languages"), "german\n");
  EXPECT_EQ(*database.postlist_begin("Lgerman"), 1U);
  EXPECT_FALSE(database.term_exists("N"));
  EXPECT_FALSE(database.has_positions());
  EXPECT_EQ(database.get_document(1).get_data(),
            std::string("\0\0\0\2\0\0\0\1a\0\0\0\1b"
                        "\0\0\0\10\0docLang\0\0\0\5de_AT\0\0\0\0",
                        39));
}

TEST_F(StoredFormTest, ChangesAreWrittenToTheJournalInTheSameForm) {
  LocalStore store(directory_.path(), {});
  store.createCollection("c", "en");
  store.addDocument("c", {"k2", {{"a", "b"}, {"c", std::string("\0x", 2)}}, "text"});
  store.deleteDocument("c", kZeroKey);
  std::ifstream journal(collection() / "journal-0000000001", std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(journal), {}), kNumberedJournal);
  std::ifstream file(collection() / "journal-0000000000", std::ios::binary);
  const std::string mark(std::istreambuf_iterator<char>(file), {});
  EXPECT_EQ(mark.size(), 1048U);
  EXPECT_THAT(mark, HasSubstr(kMark));
}

TEST_F(StoredFormTest, BatchesAreWrittenAndRememberedInTheSameForm) {
  const Batch batch{"n", {{{"k", {{"a", "b"}}, "text"}}, {"d"}, "m"}, {}, false, {}};
  LocalStore store(directory_.path(), {});
  store.createCollection("c", "en");
  store.apply("c", batch);
  const auto bytesOf = [&](const char* name) {
    std::ifstream file(collection() / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::string digest = digestOf(batch.changes);
  ASSERT_EQ(digest.size(), 16U);
  EXPECT_THAT(bytesOf("journal-0000000001"),
              EndsWith(std::string("\3\0\0\0\1n\0\0\0\20", 10) + digest +
                       std::string("\0\0\0\1\0\0\0\1m\0\0\0\1"
                                   "\0\0\0\1k\0\0\0\1\0\0\0\1a\0\0\0\1b\0\0\0\4text"
                                   "\0\0\0\1\0\0\0\1d",
                                   49)));
  EXPECT_THAT(bytesOf("journal-0000000000"),
              HasSubstr(std::string("KRM3\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\1", 20)));
  store.updateIndex("c");
  const std::string remembered = bytesOf("batches");
  EXPECT_EQ(remembered.substr(0, remembered.size() - 4),
            std::string("KRB1\0\0\0\1m\0\0\0\1\0\0\0\1n\0\0\0\20", 22) + digest +
                std::string("\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\1\0\0\0\0", 28));
}

TEST(BatchDigest, IsThatOfEarlierVersions) {
  // The sum was made with another program of the bytes that batchMemory.cpp prescribes.
  const BatchChanges changes{{{"k", {{"a", "b"}}, "text"}}, {"d"}, "m"};
  EXPECT_EQ(digestOf(changes),
            std::string("\274\364\312\311\022\301\264\154\045\237\103\131\277\353\277\366", 16));
}

TEST_F(StoredFormTest, CollectionOfAnotherSchemaIsRefused) {
  write("3");
  LocalStore store(directory_.path(), {});
  try {
    store.openCollection("c");
    FAIL() << "it was opened";
  } catch (const ServerError& error) {
    EXPECT_EQ(error.kind(), ErrorKind::StorageFailed);
    EXPECT_THAT(error.what(), HasSubstr("schema \"3\""));
  }
}

}  // namespace
}  // namespace corvaned
