#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "infra/oss/kruNLSException.h"
#include "infra/util/kruExtendedProperties.h"
#include "tests/support/scarceTexts.h"

namespace {

using tq::oss::NLSException;
using tq::test::liveTexts;
using tq::test::ScarceTexts;
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

/// Units of a caller's, and a text that only refers to them.
struct Borrowed {
  explicit Borrowed(const char16_t* text) : units(text), length(static_cast<int>(units.size())) {}
  icu::UnicodeString text(bool writable) {
    return writable ? icu::UnicodeString(units.data(), length, length)
                    : icu::UnicodeString(false, units.data(), length);
  }
  void overwrite() { units.assign(units.size(), u'?'); }

  std::u16string units;
  int length;
};

TEST(ExtendedProperties, KeepNoUnitsOfTheirCallers) {
  // In the form for few and in the one for many.
  for (const int others : {2, 17}) {
    for (const bool writable : {false, true}) {
      for (const bool present : {false, true}) {
        ExtendedProperties properties;
        for (int i = 0; i < others; ++i) {
          properties.putProperty(icu::UnicodeString(static_cast<char16_t>(u'a' + i)), u"other");
        }
        if (present) properties.putProperty(u"name", u"old");
        Borrowed name(u"name");
        Borrowed value(u"a value that is too long for the room inside of a text");
        properties.putProperty(name.text(writable), value.text(writable));
        const icu::UnicodeString expected(value.units.data(), value.length);
        name.overwrite();
        value.overwrite();
        EXPECT_TRUE(properties.contains(u"name")) << others << writable << present;
        EXPECT_EQ(properties.getProperty(u"name", u""), expected) << others << writable << present;
      }
    }
  }
}

TEST(ExtendedProperties, TakesLiteralsAsItTakesTexts) {
  ExtendedProperties literals;
  ExtendedProperties texts;
  for (const auto& [name, value] : {std::pair{u"name", u"value"},
                                    {u"", u"of the empty name"},
                                    {u"name", u"another value"},
                                    {u"empty", u""},
                                    {u"\u00E9\U0001F98A", u"beyond ASCII \U0001F98A"}}) {
    literals.putProperty(name, value);
    texts.putProperty(icu::UnicodeString(name), icu::UnicodeString(value));
  }
  ASSERT_EQ(literals.size(), texts.size());
  EXPECT_TRUE(std::equal(literals.begin(), literals.end(), texts.begin()));
}

TEST(ExtendedProperties, ANullLiteralIsAnEmptyText) {
  const char16_t* const null = nullptr;
  ExtendedProperties properties;
  properties.putProperty(null, u"value");
  properties.putProperty(u"name", null);
  EXPECT_EQ(properties.size(), 2U);
  EXPECT_EQ(properties.requireProperty(u""), u"value");
  EXPECT_EQ(properties.requireProperty(u"name"), u"");
}

TEST(ExtendedProperties, ALiteralThatReplacesAValueLeavesTheCopysAlone) {
  const ExtendedProperties before = two();
  ExtendedProperties changed = before;
  changed.putProperty(u"name", u"changed");
  EXPECT_EQ(before.requireProperty(u"name"), u"value");
  EXPECT_EQ(changed.requireProperty(u"name"), u"changed");
}

TEST(ExtendedProperties, ALiteralMayBeATextOfTheSetItself) {
  ExtendedProperties properties = two();
  auto* value = const_cast<icu::UnicodeString*>(properties.findProperty(u"name"));
  properties.putProperty(u"name", value->getTerminatedBuffer());
  EXPECT_EQ(properties.requireProperty(u"name"), u"value");
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
    EXPECT_EQ(message.getMessageText(), u"The property \"absent\" is missing.");
    EXPECT_STREQ(message.getFileName(), "kruExtendedProperties");
    EXPECT_GT(message.getLineNumber(), 0U);
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
  for (const char16_t* text : {u"", u" 1", u"1 ", u"-1", u"+1", u"1a", u"1A", u"1/", u"1:", u"0x1",
                               u"4294967296", u"99999999999999999999999", u"\u0661"}) {
    properties.putProperty(u"n", text);
    try {
      properties.requirePropertyAsUInt32(u"n");
      FAIL() << "nothing was thrown";
    } catch (const NLSException& caught) {
      const tq::oss::Message& message = caught.getMessageList().front();
      EXPECT_EQ(message.getMessageId(), u"TQ_ERR_PROPERTY_NUMBER");
      EXPECT_EQ(message.getMessageText(),
                u"The value of the property \"n\" is not a number from 0 to 4294967295.");
      EXPECT_STREQ(message.getFileName(), "kruExtendedProperties");
      EXPECT_GT(message.getLineNumber(), 0U);
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

TEST(ExtendedProperties, AssignedToThemselvesStayAsTheyWere) {
  ExtendedProperties properties = two();
  ExtendedProperties& same = properties;
  properties = same;
  EXPECT_EQ(properties.size(), 2U);
  properties = std::move(same);
  EXPECT_EQ(properties.size(), 2U);
}

// Too long to lie within its object, so that the blocks of texts count the properties.
icu::UnicodeString longText(char16_t unit) { return icu::UnicodeString(60, unit, 60); }

TEST(ExtendedProperties, GiveBackAPropertyWithItsLastHolder) {
  for (const int count : {1, 16, 40}) {
    const long before = liveTexts();
    ExtendedProperties properties;
    for (int i = 0; i < count; ++i) {
      properties.putProperty(icu::UnicodeString::fromUTF8(std::to_string(i)), longText(u'v'));
    }
    EXPECT_EQ(liveTexts(), before + count);
    ExtendedProperties assigned;
    assigned.putProperty(u"name", longText(u'a'));
    assigned = properties;
    EXPECT_EQ(liveTexts(), before + count) << "what the copy shares takes no memory";
    assigned.putProperty(u"0", longText(u'b'));
    EXPECT_EQ(liveTexts(), before + count + 1);
    properties.putProperty(u"0", longText(u'c'));
    EXPECT_EQ(liveTexts(), before + count + 1);
    properties = std::move(assigned);
    EXPECT_EQ(liveTexts(), before + count);
    properties.clear();
    EXPECT_EQ(liveTexts(), before);
    std::make_unique<ExtendedProperties>()->putProperty(u"name", longText(u'e'));
    EXPECT_EQ(liveTexts(), before);
  }
}

TEST(ExtendedProperties, WithoutMemoryForATextStayAsTheyWere) {
  ExtendedProperties properties = two();
  const ExtendedProperties copy = properties;
  const std::u16string literal(60, u'l');
  for (const char16_t* name : {u"name", u"new"}) {
    const ScarceTexts none;
    EXPECT_THROW(properties.putProperty(name, literal.c_str()), NLSException);
    EXPECT_THROW(properties.putProperty(literal.c_str(), name), NLSException);
  }
  EXPECT_TRUE(properties.sharesAllWith(copy));
}

// Such a value is changed in its place.
TEST(ExtendedProperties, WithoutMemoryForATextKeepTheValueThatTheyAloneHold) {
  ExtendedProperties properties = two();
  const std::u16string literal(60, u'l');
  {
    const ScarceTexts none;
    EXPECT_THROW(properties.putProperty(u"name", literal.c_str()), NLSException);
  }
  EXPECT_EQ(properties.requireProperty(u"name"), u"value");
}

TEST(ExtendedProperties, MovesWhole) {
  ExtendedProperties properties = two();
  ExtendedProperties moved = std::move(properties);
  EXPECT_EQ(moved.size(), 2U);
  ExtendedProperties assigned;
  assigned = std::move(moved);
  EXPECT_EQ(assigned.requireProperty(u"name"), u"value");
}

// Names that begin alike, differ late, are empty, hold a zero or half of a surrogate pair.
icu::UnicodeString drawText(std::mt19937& random) {
  static constexpr char16_t kUnits[] = {u'a', u'a', u'a', u'B', u'\0', u'\u00e4', 0xD83D, 0xDE00};
  icu::UnicodeString text;
  for (auto length = random() % 12; length != 0; --length) {
    text.append(kUnits[random() % std::size(kUnits)]);
  }
  return text;
}

using Model = std::map<icu::UnicodeString, icu::UnicodeString>;

struct Modelled {
  ExtendedProperties set;
  Model model;
};

void expectSame(const Modelled& m) {
  ASSERT_EQ(m.set.size(), m.model.size());
  auto expected = m.model.begin();
  for (const auto& [name, value] : m.set) {
    ASSERT_EQ(name, expected->first);
    ASSERT_EQ(value, expected->second);
    ASSERT_EQ(m.set.findProperty(name), &value);
    ++expected;
  }
  auto at = m.set.end();
  for (auto back = m.model.rbegin(); back != m.model.rend(); ++back) {
    ASSERT_EQ((--at)->first, back->first);
  }
  ASSERT_TRUE(at == m.set.begin());
}

void change(Modelled& m, std::mt19937& random) {
  const icu::UnicodeString name = drawText(random);
  const icu::UnicodeString value = drawText(random);
  if (random() % 2 == 0) {
    m.set.putProperty(name, value);
  } else {
    m.set.putProperty(icu::UnicodeString(name), icu::UnicodeString(value));
  }
  m.model[name] = value;
}

TEST(ExtendedProperties, AreWhatAMapOfTheirOwnWouldBeWhateverCopiesThereAre) {
  for (unsigned int seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    std::vector<Modelled> sets(4);
    for (int step = 0; step < 400; ++step) {
      Modelled& one = sets[random() % sets.size()];
      Modelled& other = sets[random() % sets.size()];
      switch (random() % 16) {
        case 0:
          one = Modelled(other);
          break;
        case 1:
          one.set = other.set;
          one.model = other.model;
          break;
        case 2:
          one = Modelled();
          break;
        case 3:
          one.set.clear();
          one.model.clear();
          break;
        default:
          change(one, random);
      }
      const icu::UnicodeString looked = drawText(random);
      ASSERT_EQ(one.set.contains(looked), one.model.count(looked) == 1);
    }
    for (const Modelled& m : sets) expectSame(m);
    if (HasFatalFailure()) FAIL() << "seed " << seed;
  }
}

TEST(ExtendedProperties, HoldAnyNumberInTheirOrder) {
  for (const unsigned int count : {1U, 15U, 16U, 17U, 18U, 100U, 3000U}) {
    Modelled m;
    for (unsigned int i = 0; i < count; ++i) {
      const std::string name = std::to_string((i * 7919U) % count);
      const icu::UnicodeString text = icu::UnicodeString::fromUTF8(name);
      m.set.putProperty(text, u"value");
      m.model[text] = u"value";
    }
    expectSame(m);
    expectSame(Modelled(m));
    const ExtendedProperties moved = std::move(m.set);
    EXPECT_EQ(moved.size(), m.model.size());
    EXPECT_EQ(m.set.size(), 0U);
    m.set.putProperty(u"again", u"usable");
    EXPECT_EQ(m.set.size(), 1U);
  }
}

// What find and require return is valid until that very property is put again.
TEST(ExtendedProperties, AValueStaysWhereItIsWhileOthersAreAddedAndCopiesComeAndGo) {
  ExtendedProperties properties = two();
  const icu::UnicodeString* const value = properties.findProperty(u"name");
  const auto copy = std::make_unique<ExtendedProperties>(properties);
  EXPECT_EQ(copy->findProperty(u"name"), value);
  for (int i = 0; i < 40; ++i) {
    const icu::UnicodeString name = icu::UnicodeString::fromUTF8(std::to_string(i));
    properties.putProperty(name, u"added");
    const ExtendedProperties another = properties;
    properties.putProperty(name, u"changed");
  }
  copy->putProperty(u"name", u"of the copy");
  EXPECT_EQ(properties.findProperty(u"name"), value);
  EXPECT_EQ(*value, u"value");
}

TEST(ExtendedProperties, AValueCanBePutFromTheSetItself) {
  ExtendedProperties properties = two();
  properties.putProperty(u"other", properties.requireProperty(u"name"));
  properties.putProperty(u"name", properties.requireProperty(u"name"));
  const ExtendedProperties copy = properties;
  properties.putProperty(u"name", properties.requireProperty(u"name"));
  properties.putProperty(properties.begin()->first, properties.begin()->first);
  EXPECT_EQ(properties.requireProperty(u"name"), u"name");
  EXPECT_EQ(properties.requireProperty(u"other"), u"value");
  EXPECT_EQ(copy.requireProperty(u"name"), u"value");
}

TEST(ExtendedProperties, ABogusNameIsNoneOfThem) {
  ExtendedProperties properties;
  properties.putProperty(u"", u"of the empty name");
  icu::UnicodeString bogus;
  bogus.setToBogus();
  EXPECT_FALSE(properties.contains(bogus));
  EXPECT_TRUE(properties.contains(u""));
}

TEST(ExtendedProperties, ShareAllWithACopyUntilEitherChanges) {
  for (const int count : {0, 1, 16, 17, 50}) {
    ExtendedProperties properties;
    for (int i = 0; i < count; ++i) {
      properties.putProperty(icu::UnicodeString::fromUTF8(std::to_string(i)), u"value");
    }
    ExtendedProperties copy = properties;
    EXPECT_TRUE(copy.sharesAllWith(properties));
    EXPECT_TRUE(properties.sharesAllWith(properties));
    copy.putProperty(u"0", u"other");
    EXPECT_FALSE(copy.sharesAllWith(properties));
    EXPECT_FALSE(properties.sharesAllWith(copy));
    copy = properties;
    EXPECT_TRUE(copy.sharesAllWith(properties));
    properties.putProperty(u"new", u"value");
    EXPECT_FALSE(copy.sharesAllWith(properties));
    EXPECT_FALSE(properties.sharesAllWith(ExtendedProperties()));
    EXPECT_FALSE(ExtendedProperties().sharesAllWith(properties));
  }
}

}  // namespace
