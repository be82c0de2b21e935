#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "infra/oss/kruNLSException.h"
#include "infra/util/kruExtendedProperties.h"

namespace {

using tq::oss::NLSException;
using tq::util::ExtendedProperties;

static_assert(std::has_virtual_destructor_v<ExtendedProperties>);

ExtendedProperties two() {
  ExtendedProperties properties;
  properties.putProperty(u"name", u"value");
  properties.putProperty(u"other", u"");
  return properties;
}

TEST(ExtendedProperties, StartsEmpty) {
  const ExtendedProperties properties;
  EXPECT_EQ(properties.size(), 0U);
  EXPECT_TRUE(properties.begin() == properties.end());
  EXPECT_FALSE(properties.contains(u"name"));
  EXPECT_EQ(properties.findProperty(u"name"), nullptr);
}

TEST(ExtendedProperties, GivesBackWhatWasPut) {
  const ExtendedProperties properties = two();
  EXPECT_EQ(properties.size(), 2U);
  EXPECT_EQ(properties.getProperty(u"name", u"default"), u"value");
  EXPECT_EQ(properties.requireProperty(u"name"), u"value");
  ASSERT_NE(properties.findProperty(u"name"), nullptr);
  EXPECT_EQ(*properties.findProperty(u"name"), u"value");
}

TEST(ExtendedProperties, AnEmptyValueIsAValue) {
  const ExtendedProperties properties = two();
  EXPECT_TRUE(properties.contains(u"other"));
  EXPECT_EQ(properties.getProperty(u"other", u"default"), u"");
  EXPECT_EQ(properties.requireProperty(u"other"), u"");
}

TEST(ExtendedProperties, AnAbsentOneGivesTheDefault) {
  EXPECT_EQ(two().getProperty(u"absent", u"default"), u"default");
}

TEST(ExtendedProperties, NamesAreComparedExactly) {
  EXPECT_FALSE(two().contains(u"Name"));
  EXPECT_FALSE(two().contains(u"name "));
}

TEST(ExtendedProperties, APutOfAPresentNameReplacesTheValue) {
  ExtendedProperties properties = two();
  properties.putProperty(u"name", u"new");
  EXPECT_EQ(properties.size(), 2U);
  EXPECT_EQ(properties.requireProperty(u"name"), u"new");
}

TEST(ExtendedProperties, TakesTextsByMoveToo) {
  ExtendedProperties properties;
  icu::UnicodeString name(u"name");
  icu::UnicodeString value(u"value");
  properties.putProperty(std::move(name), std::move(value));
  properties.putProperty(icu::UnicodeString(u"name"), icu::UnicodeString(u"new"));
  EXPECT_EQ(properties.size(), 1U);
  EXPECT_EQ(properties.requireProperty(u"name"), u"new");
}

TEST(ExtendedProperties, IsOrderedByCodeUnitsWithCapitalsFirst) {
  ExtendedProperties properties;
  for (const char16_t* name : {u"b", u"a", u"B", u"Content-Length  ", u"\uFF21", u"\U0001F600"}) {
    properties.putProperty(name, u"");
  }
  std::vector<icu::UnicodeString> names;
  for (const auto& [name, value] : properties) names.push_back(name);
  // A character beyond the basic plane begins with a surrogate unit and so comes before U+FF21.
  const std::vector<icu::UnicodeString> expected{u"B", u"Content-Length  ", u"a",
                                                 u"b", u"\U0001F600",       u"\uFF21"};
  EXPECT_EQ(names, expected);
}

TEST(ExtendedProperties, RequireOfAnAbsentOneNamesIt) {
  try {
    two().requireProperty(u"absent");
    FAIL() << "nothing was thrown";
  } catch (const NLSException& caught) {
    const tq::oss::Message& message = caught.getMessageList().front();
    EXPECT_EQ(message.getMessageId(), u"TQ_ERR_PROPERTY_MISSING");
    EXPECT_GE(message.getMessageText().indexOf(u"\"absent\""), 0);
    ASSERT_EQ(message.getArguments().size(), 1U);
    EXPECT_EQ(message.getArguments()[0], u"absent");
  }
}

TEST(ExtendedProperties, RequireAsNumberOfAnAbsentOneNamesIt) {
  EXPECT_THROW(two().requirePropertyAsUInt32(u"absent"), NLSException);
}

TEST(ExtendedProperties, ReadsDecimalNumbers) {
  ExtendedProperties properties;
  const std::vector<std::pair<const char16_t*, std::uint32_t>> cases{
      {u"0", 0}, {u"7", 7}, {u"0010", 10}, {u"4294967295", 4294967295U}};
  for (const auto& [text, number] : cases) {
    properties.putProperty(u"n", text);
    EXPECT_EQ(properties.requirePropertyAsUInt32(u"n"), number);
  }
}

TEST(ExtendedProperties, RefusesWhatIsNoNumberAndNamesTheProperty) {
  ExtendedProperties properties;
  for (const char16_t* text : {u"", u" 1", u"1 ", u"-1", u"+1", u"1a", u"0x1", u"4294967296",
                               u"99999999999999999999999", u"\u0661"}) {
    properties.putProperty(u"n", text);
    try {
      properties.requirePropertyAsUInt32(u"n");
      FAIL() << "nothing was thrown";
    } catch (const NLSException& caught) {
      const tq::oss::Message& message = caught.getMessageList().front();
      EXPECT_EQ(message.getMessageId(), u"TQ_ERR_PROPERTY_NUMBER");
      ASSERT_EQ(message.getArguments().size(), 2U);
      EXPECT_EQ(message.getArguments()[0], u"n");
      EXPECT_EQ(message.getArguments()[1], text);
    }
  }
}

TEST(ExtendedProperties, ClearLeavesNothing) {
  ExtendedProperties properties = two();
  properties.clear();
  EXPECT_EQ(properties.size(), 0U);
  EXPECT_FALSE(properties.contains(u"name"));
}

TEST(ExtendedProperties, CopiesShareNothing) {
  ExtendedProperties properties = two();
  const ExtendedProperties copy = properties;
  ExtendedProperties assigned;
  assigned = properties;
  properties.putProperty(u"name", u"changed");
  EXPECT_EQ(copy.requireProperty(u"name"), u"value");
  EXPECT_EQ(assigned.requireProperty(u"name"), u"value");
}

TEST(ExtendedProperties, MovesWhole) {
  ExtendedProperties properties = two();
  ExtendedProperties moved = std::move(properties);
  EXPECT_EQ(moved.size(), 2U);
  ExtendedProperties assigned;
  assigned = std::move(moved);
  EXPECT_EQ(assigned.requireProperty(u"name"), u"value");
}

}  // namespace
