#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <xapian.h>

#include <memory>
#include <string>
#include <vector>

#include "server/base/documentForm.h"
#include "server/base/errors.h"
#include "server/store/indexForm.h"
#include "server/store/localStore.h"
#include "tests/server/store/refusal.h"
#include "tests/support/temporaryDirectory.h"

// What is chosen when a collection is created, and what its documents say of themselves.
namespace corvaned {
namespace {

using test::refusal;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Keys = std::vector<std::string>;

TEST(IndexForm, OptionsAreReadAsTheyAreWritten) {
  for (unsigned bits = 0; bits < 32; ++bits) {
    TextOptions options;
    options.keepsText = (bits & 1U) != 0;
    options.keepsPositions = (bits & 2U) != 0;
    options.stems = (bits & 4U) != 0;
    options.onlyMarkedMetadata = (bits & 8U) != 0;
    if ((bits & 16U) != 0) options.stopWords = {"the", "\u00fcber", "a=b"};
    EXPECT_EQ(optionsFrom(linesOf(options)), options) << linesOf(options);
  }
  EXPECT_EQ(linesOf({}), "");
  EXPECT_EQ(optionsFrom(""), TextOptions{});
}

// Collections hold these.
TEST(IndexForm, OptionsAreWrittenInTheseWords) {
  EXPECT_EQ(linesOf({false, false, false, true, {"the", "a"}}),
            "text = no\npositions = no\nstemming = no\nmetadata = marked\nstop words = the a\n");
}

TEST(IndexForm, StopWordThatWouldBeReadAsSomethingElseIsRefused) {
  for (const char* word : {"x\ntext = no", "x y", "x\ty", "x\r", " ", ""}) {
    TextOptions options;
    options.stopWords = {word};
    EXPECT_THROW(linesOf(options), ServerError) << word;
  }
}

TEST(IndexForm, UnknownOptionsAreNotPassedOver) {
  for (const char* lines : {"text = maybe\n", "colour = red\n", "\n", "text = no\nx\n"}) {
    EXPECT_EQ(optionsFrom(lines), std::nullopt) << lines;
  }
}

class TextOptionsTest : public ::testing::Test {
 protected:
  void create(const TextOptions& options, const std::string& language = "en") {
    store_->createCollection("c", language, {}, options);
  }

  void add(const std::string& key, const std::string& text, const DocumentForm& form = {},
           Metadata metadata = {}) {
    noteForm(metadata, form);
    store_->addDocument("c", {key, std::move(metadata), text});
  }

  void restart() {
    store_.reset();
    store_ = std::make_unique<LocalStore>(directory_.path() / "data", StoreLimits{});
  }

  Keys keys(const std::string& text) {
    SearchQuery query;
    query.text = text;
    query.order = HitOrder::Key;
    const auto hits = store_->search("c", query);
    Keys list;
    for (Hit hit; hits->next(hit);) list.push_back(hit.key);
    EXPECT_EQ(store_->count("c", query), list.size());
    EXPECT_EQ(store_->estimate("c", text).hits, list.size());
    return list;
  }

  std::string index() const { return (directory_.path() / "data/collections/c/index").string(); }

  tq::test::TemporaryDirectory directory_;
  std::unique_ptr<LocalStore> store_ =
      std::make_unique<LocalStore>(directory_.path() / "data", StoreLimits{});
};

TEST_F(TextOptionsTest, AreKeptWithTheCollection) {
  TextOptions options;
  options.keepsPositions = false;
  options.stopWords = {"the"};
  create(options);
  EXPECT_EQ(store_->summary("c").options, options);
  restart();
  EXPECT_EQ(store_->summary("c").options, options);
}

TEST_F(TextOptionsTest, OfALaterVersionAreRefused) {
  create({});
  store_.reset();
  Xapian::WritableDatabase(index()).set_metadata("options", "colour = red\n");
  for (const char* file : {"index-sums", "journal-0000000000"}) {
    std::filesystem::remove(directory_.path() / "data/collections/c" / file);
  }
  restart();
  EXPECT_THAT(refusal(ErrorKind::StorageFailed, [&] { keys("fox"); }), HasSubstr("colour = red"));
}

TEST_F(TextOptionsTest, WithoutTextsDocumentsAreFoundAndCannotBeRead) {
  TextOptions options;
  options.keepsText = false;
  create(options);
  add("a", "quick brown foxes", {}, {{"colour", "red"}});
  store_->updateIndex("c");
  EXPECT_THAT(keys("\"brown foxes\" colour:red"), ElementsAre("a"));
  EXPECT_THAT(refusal(ErrorKind::UnsupportedAction,
                      [&] {
                        SearchQuery all;
                        all.everything = true;
                        all.order = HitOrder::Key;
                        store_->visit("c", all, [](const Document&) {});
                      }),
              HasSubstr("without the texts"));
  const std::string data = Xapian::Database(index()).get_document(1).get_data();
  EXPECT_THAT(data, AllOf(HasSubstr("colour"), ::testing::Not(HasSubstr("quick"))));
}

TEST_F(TextOptionsTest, WithoutPositionsPhrasesAreRefusedWithTheirPlace) {
  TextOptions options;
  options.keepsPositions = false;
  create(options);
  add("a", "brown fox");
  add("b", "fox, brown; wi-fi");
  store_->updateIndex("c");
  EXPECT_THAT(keys("brown foxes"), ElementsAre("a", "b"));
  EXPECT_THAT(keys("\"fox\" wi-fi"), ElementsAre("b"));
  EXPECT_THAT(keys("near adj"), IsEmpty());
  const std::vector<std::pair<std::string, std::string>> cases{
      {"\"brown fox\"", "the phrase at character 1"},
      {"fox \u201cbrown fox\u201d", "the phrase at character 5"},
      {"\"fox\" \"brown fox\"", "the phrase at character 7"},
      {"brown NEAR fox", "the \"NEAR\" at character 7"},
      {"(brown NEAR/3 fox)", "the \"NEAR/3\" at character 8"},
      {"brown ADJ fox", "the \"ADJ\" at character 7"},
  };
  for (const auto& [query, place] : cases) {
    EXPECT_THAT(refusal(ErrorKind::BadQuery, [&, text = query] { keys(text); }),
                AllOf(HasSubstr(place), HasSubstr("positions")))
        << query;
  }
  const Xapian::Database database(index());
  EXPECT_EQ(database.positionlist_begin(1, "fox"), database.positionlist_end(1, "fox"));
}

TEST_F(TextOptionsTest, WithoutStemmingOnlyTheSameWordIsFound) {
  TextOptions options;
  options.stems = false;
  create(options);
  add("a", "foxes");
  add("b", "fox", {TextType::Plain, "de"});
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), ElementsAre("b"));
  EXPECT_THAT(keys("Foxes"), ElementsAre("a"));
}

TEST_F(TextOptionsTest, StopWordsAreLeftOutOfQueries) {
  TextOptions options;
  options.stopWords = {"The", "to", "be", "\u00dcber"};
  create(options);
  add("a", "fox");
  add("b", "the fox");
  add("c", "to be or not to be");
  store_->updateIndex("c");
  EXPECT_THAT(keys("the fox"), ElementsAre("a", "b"));
  EXPECT_THAT(keys("THE \u00fcber fox"), ElementsAre("a", "b"));
  EXPECT_THAT(keys("\"the fox\""), ElementsAre("b"));
  EXPECT_THAT(keys("+the fox"), ElementsAre("b"));
  EXPECT_THAT(keys("the"), ElementsAre("b")) << "there is nothing else";
  EXPECT_THAT(keys("to be"), ElementsAre("c"));
  EXPECT_THAT(keys("fox NOT the"), ElementsAre("a"));
  EXPECT_THAT(keys("fox -the"), ElementsAre("a"));
  EXPECT_THAT(keys("the -fox"), IsEmpty()) << "there is nothing else to take from";
  EXPECT_THAT(keys("to -fox"), ElementsAre("c"));
  for (const char* query :
       {"(the) fox", "fox ((the))", "fox (+the)", "fox AND the", "(the the) fox"})
    EXPECT_THAT(keys(query), ElementsAre("b")) << query;
  EXPECT_THAT(keys("the \"fox\""), ElementsAre("a", "b"));
  EXPECT_THAT(keys("to the +fox"), ElementsAre("a", "b"));
}

TEST_F(TextOptionsTest, ApostropheOfAStopWordIsOneOfAnyKind) {
  TextOptions options;
  options.stopWords = {"don't"};
  create(options);
  add("a", "I don\u2019t go");
  add("b", "go");
  store_->updateIndex("c");
  for (const char* query : {"don't go", "don\u2019t go", "don\u201bt go"})
    EXPECT_THAT(keys(query), ElementsAre("a", "b")) << query;
}

TEST_F(TextOptionsTest, PhraseThatCannotBeSoughtIsNamedWhereItIs) {
  TextOptions options;
  options.keepsPositions = false;
  create(options);
  EXPECT_THAT(refusal(ErrorKind::BadQuery, [&] { keys("a ((\"b c\"))"); }),
              HasSubstr("the phrase at character 5"));
}

TEST_F(TextOptionsTest, OnlyMarkedMetadataIsSearchedIfThatIsChosen) {
  TextOptions options;
  options.onlyMarkedMetadata = true;
  create(options);
  add("a", "fox", {}, {{"Indexable:colour", "red"}, {"size", "small"}, {"[sortable]year", "1851"}});
  store_->updateIndex("c");
  EXPECT_THAT(keys("colour:red"), ElementsAre("a"));
  EXPECT_THAT(keys("size:small"), IsEmpty());
  EXPECT_THAT(keys("year:1851"), IsEmpty());
  EXPECT_EQ(Xapian::Database(index()).get_metadata("fields"), "colour\n");
}

// Languages of documents.

TEST_F(TextOptionsTest, EachDocumentIsFoundAsItsLanguageHasIt) {
  create({});
  add("de", "die H\u00e4user der F\u00fcchse", {TextType::Plain, "de_AT"});
  add("en", "the houses of foxes");
  add("fr", "les maisons", {TextType::Plain, "fr"});
  add("xx", "houses maisons", {TextType::Plain, "xx"});
  store_->updateIndex("c");
  EXPECT_THAT(keys("house"), ElementsAre("en"));
  EXPECT_THAT(keys("houses"), ElementsAre("en", "xx"));
  EXPECT_THAT(keys("Haus"), ElementsAre("de"));
  EXPECT_THAT(keys("maison"), ElementsAre("fr"));
  EXPECT_THAT(keys("fox NOT house"), IsEmpty());
  EXPECT_THAT(keys("NOT Haus"), ElementsAre("en", "fr", "xx"));
  EXPECT_THAT(keys("Haus OR house OR maison"), ElementsAre("de", "en", "fr"));
  EXPECT_THAT(keys("hous*"), ElementsAre("en", "xx"));
}

TEST_F(TextOptionsTest, SpellingsOfTheCollectionsLanguageAreNoOther) {
  create({}, "en_us");
  for (const char* language : {"en", "EN-gb", "english"}) {
    add(language, "foxes", {TextType::Plain, language});
  }
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), ElementsAre("EN-gb", "en", "english"));
  EXPECT_EQ(Xapian::Database(index()).get_metadata("languages"), "");
}

TEST_F(TextOptionsTest, LanguageOfAReplacedDocumentIsTheNewOne) {
  create({});
  add("a", "H\u00e4user ponies", {TextType::Plain, "de"});
  store_->updateIndex("c");
  EXPECT_THAT(keys("Haus"), ElementsAre("a"));
  EXPECT_THAT(keys("pony"), IsEmpty());
  add("a", "H\u00e4user ponies");
  store_->updateIndex("c");
  EXPECT_THAT(keys("Haus"), IsEmpty());
  EXPECT_THAT(keys("pony"), ElementsAre("a"));
}

// Documents with tags.

TEST_F(TextOptionsTest, TagsAreNotFoundAndTextsAre) {
  create({});
  add("h", "<p class=cat>red</p><script>dog</script>f&ouml;xes<b>es</b>", {TextType::Html, {}});
  add("t", "<p class=cat>red", {});
  add("x", "<red cat='1'><dog/>f\u00f6x</red>", {TextType::Xml, {}});
  store_->updateIndex("c");
  EXPECT_THAT(keys("class"), ElementsAre("t"));
  EXPECT_THAT(keys("cat"), ElementsAre("t"));
  EXPECT_THAT(keys("dog"), IsEmpty());
  EXPECT_THAT(keys("red"), ElementsAre("h", "t"));
  EXPECT_THAT(keys("f\u00f6x"), ElementsAre("x"));
  EXPECT_THAT(keys("\"red f\u00f6xeses\""), ElementsAre("h"));
}

TEST_F(TextOptionsTest, WhatIsReadIsTheDocumentAsItCame) {
  create({});
  add("h", "<p>fox", {TextType::Html, "de"}, {{"a", "b"}});
  store_->updateIndex("c");
  SearchQuery all;
  all.everything = true;
  all.order = HitOrder::Key;
  store_->visit("c", all, [](const Document& document) {
    EXPECT_EQ(document.content, "<p>fox");
    EXPECT_EQ(document.metadata, (Metadata{{"a", "b"}}));
  });
}

// It is refused before it comes here, unless what reads it was another one then.
TEST_F(TextOptionsTest, XmlThatCannotBeReadHoldsUpNoOtherDocument) {
  create({});
  add("a", "<red>fox<dog>", {TextType::Xml, {}});
  add("b", "fox");
  store_->updateIndex("c");
  EXPECT_THAT(keys("fox"), ElementsAre("a", "b"));
  EXPECT_THAT(keys("dog"), IsEmpty());
}

TEST_F(TextOptionsTest, FormOfADocumentSurvivesARestartBeforeItIsIndexed) {
  create({});
  add("h", "<b>H\u00e4user", {TextType::Html, "de"});
  restart();
  store_->updateIndex("c");
  EXPECT_THAT(keys("Haus"), ElementsAre("h"));
  EXPECT_THAT(keys("b"), IsEmpty());
}

}  // namespace
}  // namespace corvaned
