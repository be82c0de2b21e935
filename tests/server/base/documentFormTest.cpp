#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "server/base/documentForm.h"

namespace corvaned {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

TEST(DocumentForm, GoesWithTheMetadata) {
  for (const TextType type : {TextType::Plain, TextType::Html, TextType::Xml}) {
    for (const char* language : {"", "de_DE"}) {
      Metadata metadata{{"docType", "text"}, {"docLang", "en"}};
      const DocumentForm form{type, language};
      noteForm(metadata, form);
      EXPECT_EQ(formNotedIn(metadata), form);
      dropNotes(metadata);
      EXPECT_THAT(metadata, ElementsAre(Pair("docType", "text"), Pair("docLang", "en")));
      EXPECT_EQ(formNotedIn(metadata), DocumentForm{});
    }
  }
}

TEST(DocumentForm, OfAnOrdinaryDocumentTakesNoNote) {
  Metadata metadata;
  noteForm(metadata, {});
  EXPECT_TRUE(metadata.empty());
}

// Collections hold these.
TEST(DocumentForm, IsNotedUnderTheseNames) {
  Metadata metadata;
  noteForm(metadata, {TextType::Xml, "de"});
  noteForm(metadata, {TextType::Html, {}});
  EXPECT_THAT(metadata, ElementsAre(Pair(std::string("\0docType", 8), "xml"),
                                    Pair(std::string("\0docLang", 8), "de"),
                                    Pair(std::string("\0docType", 8), "html")));
}

TEST(DocumentForm, DecidesWhatIsSeen) {
  EXPECT_EQ(textOf("<b>&amp;</b>", TextType::Plain), "<b>&amp;</b>");
  EXPECT_EQ(textOf("<b>&amp;</b>", TextType::Html), "&");
  EXPECT_EQ(textOf("<b>&amp;</b>", TextType::Xml), " & ");
}

}  // namespace
}  // namespace corvaned
