#include <gtest/gtest.h>

#include <clocale>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>

#include "infra/oss/kruAsciiUnits.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruNLSException.h"
#include "tests/support/failingMemory.h"
#include "tests/support/guardedBytes.h"
#include "tests/support/scarceTexts.h"

namespace {

using tq::oss::Converter;
using tq::oss::NLSException;
using tq::oss::SizeableBuffer;
using tq::test::GuardedBytes;

static_assert(!std::is_default_constructible_v<Converter>);

const struct {
  const char* name;
  icu::UnicodeString text;
  std::string bytes;
} kBothWays[] = {
    {"empty", u"", ""},
    {"ascii", u"plain text", "plain text"},
    {"two bytes", u"\u0080\u07FF", "\xC2\x80\xDF\xBF"},
    {"three bytes", u"\u0800\uD7FF\uE000\uFFFF",
     "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"},
    {"four bytes", u"\U00010000\U0010FFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
    {"byte order mark", u"\uFEFFx", "\xEF\xBB\xBFx"},
    {"non-ascii behind nine ascii", u"123456789\u00e4z", "123456789\xC3\xA4z"},
    {"non-ascii at the start",
     u"\u00e4"
     u"123456789",
     "\xC3\xA4"
     "123456789"},
    {"zero", icu::UnicodeString(u"a\0b", 3), std::string("a\0b", 3)},
};

TEST(Converter, ConvertsBothWays) {
  for (const auto& c : kBothWays) {
    EXPECT_EQ(Converter::toUTF8(c.text), c.bytes) << c.name;
    EXPECT_EQ(Converter::utf8Length(c.text), c.bytes.size()) << c.name;
    EXPECT_EQ(Converter::fromUTF8(c.bytes.data(), c.bytes.size()), c.text) << c.name;
  }
}

TEST(Converter, AgreesWithTheLibraryOnEveryLengthOfAscii) {
  for (int length = 0; length < 70; ++length) {
    const std::string bytes(static_cast<std::size_t>(length), 'q');
    const icu::UnicodeString text(length, u'q', length);
    EXPECT_EQ(Converter::fromUTF8(bytes.data(), bytes.size()), text);
    EXPECT_EQ(Converter::toUTF8(text), bytes);
  }
}

icu::UnicodeString asTheLibraryReads(const std::string& bytes) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(bytes.data(), static_cast<std::int32_t>(bytes.size())));
}

TEST(Converter, AgreesWithTheLibraryWhereverTextCeasesToBeAscii) {
  GuardedBytes guarded(64);
  for (const std::string part :
       {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xFF", "\xC3", "\x7F"}) {
    for (std::size_t length = 0; length < 52; ++length) {
      for (std::size_t at = 0; at <= length; ++at) {
        std::string bytes(length, 'a');
        bytes.insert(at, part);
        ASSERT_EQ(asTheLibraryReads(bytes), Converter::fromUTF8(guarded.hold(bytes), bytes.size()))
            << length << ' ' << at;
      }
    }
  }
}

TEST(Converter, AssignsIntoTheMemoryOfTheTextBefore) {
  icu::UnicodeString text;
  Converter::assignUTF8(text, "a text that is too long to stand inside", 39);
  const char16_t* const memory = text.getBuffer();
  Converter::assignUTF8(text, "another text of more than 27 units", 34);
  EXPECT_EQ(u"another text of more than 27 units", text);
  EXPECT_EQ(memory, text.getBuffer());
  Converter::assignUTF8(text, "", 0);
  EXPECT_TRUE(text.isEmpty());
}

TEST(Converter, AssigningLeavesCopiesAloneAndMakesABogusTextValid) {
  icu::UnicodeString text = Converter::fromUTF8("a text that is too long to stand inside", 39);
  const icu::UnicodeString copy = text;
  Converter::assignUTF8(text, "something else", 14);
  EXPECT_EQ(u"a text that is too long to stand inside", copy);
  text.setToBogus();
  Converter::assignUTF8(text, "valid", 5);
  EXPECT_EQ(u"valid", text);
  text.setToBogus();
  Converter::assignUTF8(text, nullptr, 0);
  EXPECT_FALSE(text.isBogus());
}

// The slow way: one code point after the other, by the rules of the encoding.
std::string encodedOneByOne(const std::u16string& units) {
  std::string out;
  for (std::size_t i = 0; i < units.size(); ++i) {
    char32_t c = units[i];
    if (c >= 0xD800 && c < 0xE000) {
      const bool pair =
          c < 0xDC00 && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000;
      c = pair ? 0x10000 + ((c - 0xD800) << 10) + (units[++i] - 0xDC00U) : 0xFFFD;
    }
    const auto tail = [&](int shift) { out += static_cast<char>(0x80U | ((c >> shift) & 0x3FU)); };
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0U | (c >> 6));
      tail(0);
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0U | (c >> 12));
      tail(6);
      tail(0);
    } else {
      out += static_cast<char>(0xF0U | (c >> 18));
      tail(12);
      tail(6);
      tail(0);
    }
  }
  return out;
}

char16_t drawUnit(std::mt19937& random, unsigned int wildness) {
  static constexpr char16_t kWild[] = {0,      0x7F,   0x80,   0xFF,   0x100,  0x7FF,
                                       0x800,  0xD7FF, 0xD800, 0xDBFF, 0xDC00, 0xDFFF,
                                       0xE000, 0xFEFF, 0xFF80, 0xFFFF};
  if (random() % 100 >= wildness) return static_cast<char16_t>(u' ' + random() % 95);
  return kWild[random() % std::size(kWild)];
}

void expectWrittenAs(const std::string& expected, const icu::UnicodeString& text) {
  ASSERT_EQ(Converter::utf8Length(text), expected.size());
  // Not a byte beyond what was measured: the room is often exactly that.
  std::string out(expected.size() + 64, '#');
  ASSERT_EQ(Converter::writeUTF8(text, out.data()), expected.size());
  ASSERT_EQ(out, expected + std::string(64, '#'));
}

TEST(Converter, WritesWhatTheSlowWayWritesOfAnyUnits) {
  std::mt19937 random(20260101);
  for (const unsigned int wildness : {0U, 1U, 5U, 50U, 100U}) {
    for (int run = 0; run < 4000; ++run) {
      std::u16string units(random() % 90, u'\0');
      for (char16_t& unit : units) unit = drawUnit(random, wildness);
      const auto length = static_cast<std::int32_t>(units.size());
      expectWrittenAs(encodedOneByOne(units), icu::UnicodeString(units.data(), length));
      if (HasFatalFailure()) FAIL() << "wildness " << wildness << " run " << run;
    }
  }
}

TEST(Converter, WritesWhatTheSlowWayWritesOfVeryLongTexts) {
  std::mt19937 random(7);
  for (const unsigned int wildness : {0U, 1U, 30U}) {
    std::u16string units(1000003, u'\0');
    for (char16_t& unit : units) unit = drawUnit(random, wildness);
    const auto length = static_cast<std::int32_t>(units.size());
    expectWrittenAs(encodedOneByOne(units), icu::UnicodeString(units.data(), length));
  }
}

// Every place of the one unit that is not ASCII, in every length around the steps; and the room
// after the text stays as it was.
template <typename Steps>
void expectNarrowedUpToTheFirstOther() {
  for (std::int32_t length = 0; length <= 40; ++length) {
    for (std::int32_t other = 0; other <= length; ++other) {
      for (const char16_t unit : {u'\x80', u'\xFF', u'\x100', u'\x7F80', u'\xFF41', u'\xDC00'}) {
        std::u16string units(static_cast<std::size_t>(length), u'q');
        if (other < length) units[static_cast<std::size_t>(other)] = unit;
        std::string out(static_cast<std::size_t>(length) + 16, '#');
        ASSERT_EQ(tq::oss::countAsciiUnits<Steps>(units.data(), length), other);
        ASSERT_EQ(tq::oss::narrowAsciiUnits<Steps>(units.data(), length, out.data()), other);
        const auto plain = static_cast<std::size_t>(other);
        ASSERT_EQ(out.substr(0, plain), std::string(plain, 'q'));
        ASSERT_EQ(out.substr(static_cast<std::size_t>(length)), std::string(16, '#'));
      }
    }
  }
}

TEST(AsciiUnits, AreNarrowedUpToTheFirstOtherUnit) {
  expectNarrowedUpToTheFirstOther<tq::oss::AsciiSteps>();
}

TEST(AsciiUnits, AreNarrowedAlikeWithoutVectorInstructions) {
  expectNarrowedUpToTheFirstOther<tq::oss::PlainSteps>();
}

TEST(Converter, RoundTripsEveryCodePoint) {
  for (UChar32 c = 0; c <= 0x10FFFF; ++c) {
    if (c == 0xD800) c = 0xE000;
    const icu::UnicodeString text(c);
    const std::string bytes = Converter::toUTF8(text);
    std::string expected;
    text.toUTF8String(expected);
    ASSERT_EQ(bytes, expected) << c;
    ASSERT_EQ(Converter::fromUTF8(bytes.data(), bytes.size()), text) << c;
  }
}

TEST(Converter, WritesUnpairedSurrogatesAsTheReplacementCharacter) {
  const std::string replacement = "\xEF\xBF\xBD";
  const struct {
    icu::UnicodeString text;
    std::string bytes;
  } cases[] = {
      {icu::UnicodeString(char16_t{0xD800}), replacement},
      {icu::UnicodeString(char16_t{0xDC00}), replacement},
      {icu::UnicodeString(char16_t{0xD800}).append(u'x'), replacement + "x"},
      {icu::UnicodeString(char16_t{0xDC00}).append(char16_t{0xD800}), replacement + replacement},
      {icu::UnicodeString(char16_t{0xD83D}).append(u"\U0001F600"),
       replacement + "\xF0\x9F\x98\x80"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Converter::toUTF8(c.text), c.bytes);
    EXPECT_EQ(Converter::utf8Length(c.text), c.bytes.size());
  }
}

TEST(Converter, ReadsWhatIsNotUtf8AsReplacementCharacters) {
  const struct {
    std::string bytes;
    icu::UnicodeString text;
  } cases[] = {
      {"\xFF", u"\uFFFD"},
      {"a\x80z", u"a\uFFFDz"},
      {"\xC3", u"\uFFFD"},
      {"\xE2\x82", u"\uFFFD"},
      {"\xF0\x9F\x98", u"\uFFFD"},
      {"\xE2\x82z", u"\uFFFDz"},
      {"\xC0\xAF", u"\uFFFD\uFFFD"},
      {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Converter::fromUTF8(c.bytes.data(), c.bytes.size()), c.text);
  }
}

TEST(Converter, DoesNotDependOnTheLocale) {
  const std::string before = std::setlocale(LC_ALL, nullptr);
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ(Converter::toUTF8(icu::UnicodeString(u"\u20ac")), "\xE2\x82\xAC");
  EXPECT_EQ(Converter::fromUTF8("\xE2\x82\xAC", 3), u"\u20ac");
  std::setlocale(LC_ALL, before.c_str());
}

TEST(Converter, FillsABufferAndTerminatesIt) {
  SizeableBuffer<char, 16> buffer;
  EXPECT_EQ(Converter::toUTF8(icu::UnicodeString(u"h\u00e9llo"), buffer), 6U);
  EXPECT_STREQ(buffer.data(), "h\xC3\xA9llo");
  EXPECT_EQ(buffer.capacity(), 16U);
}

TEST(Converter, GrowsABufferOnlyWhenTextAndTerminatorDoNotFit) {
  SizeableBuffer<char, 16> buffer;
  const icu::UnicodeString fits(15, u'x', 15);
  EXPECT_EQ(Converter::toUTF8(fits, buffer), 15U);
  EXPECT_EQ(buffer.capacity(), 16U);
  const icu::UnicodeString tooLong(16, u'x', 16);
  EXPECT_EQ(Converter::toUTF8(tooLong, buffer), 16U);
  EXPECT_EQ(buffer.capacity(), 32U);
  EXPECT_EQ(std::string(buffer.data()), std::string(16, 'x'));
}

TEST(Converter, AppendsBehindWhatIsKept) {
  SizeableBuffer<char, 4> buffer;
  std::size_t used = 0;
  std::string expected;
  for (int i = 0; i < 200; ++i) {
    used = Converter::appendUTF8(icu::UnicodeString(i % 3 == 0 ? u"\u20ac" : u"ab"), buffer, used);
    expected += i % 3 == 0 ? "\xE2\x82\xAC" : "ab";
    ASSERT_EQ(std::string_view(buffer.data(), used), expected);
    ASSERT_LE(used, buffer.capacity());
  }
}

TEST(Converter, AppendUsesRoomThatIsJustEnough) {
  SizeableBuffer<char, 4> buffer;
  EXPECT_EQ(Converter::appendUTF8(icu::UnicodeString(u"abcd"), buffer, 0), 4U);
  EXPECT_EQ(buffer.capacity(), 4U);
  EXPECT_EQ(Converter::appendUTF8(icu::UnicodeString(), buffer, 4), 4U);
  EXPECT_EQ(buffer.capacity(), 4U);
}

template <typename Operation>
void expectOutOfMemory(Operation operation) {
  try {
    operation();
    FAIL() << "nothing was thrown";
  } catch (const NLSException& caught) {
    ASSERT_EQ(caught.getMessageList().size(), 1U);
    const tq::oss::Message& message = caught.getMessageList().front();
    EXPECT_EQ(message.getMessageId(), u"TQ_ERR_OUT_OF_MEMORY");
    EXPECT_STREQ(message.getFileName(), "kruConverter");
    EXPECT_NE(message.getLineNumber(), 0U);
    ASSERT_EQ(message.getArguments().size(), 1U);
    EXPECT_EQ(message.getArguments()[0], u"Converter::convert()");
  }
}

TEST(Converter, SaysSoWhenABufferCannotGrow) {
  SizeableBuffer<char, 4> buffer;
  const tq::test::OutOfMemory out;
  expectOutOfMemory([&] { Converter::toUTF8(icu::UnicodeString(u"abcd"), buffer); });
  EXPECT_EQ(buffer.capacity(), 0U);
}

TEST(Converter, AnAppendWithoutMemoryLeavesTheBufferAsItWas) {
  SizeableBuffer<char, 4> buffer;
  const std::size_t used = Converter::appendUTF8(icu::UnicodeString(u"ab"), buffer, 0);
  const tq::test::OutOfMemory out;
  expectOutOfMemory([&] { Converter::appendUTF8(icu::UnicodeString(u"cde"), buffer, used); });
  EXPECT_EQ(std::string_view(buffer.data(), used), "ab");
}

TEST(Converter, RefusesNullWithALength) {
  const auto idOf = [](auto&& convert) -> icu::UnicodeString {
    try {
      convert();
    } catch (const tq::oss::NLSException& e) {
      return e.getMessageList().front().getMessageId();
    }
    return u"taken";
  };
  EXPECT_EQ(idOf([] { Converter::fromUTF8(nullptr, 3); }), u"TQ_ERR_NULL_BYTES");
  icu::UnicodeString text(u"former");
  EXPECT_EQ(idOf([&] { Converter::assignUTF8(text, nullptr, 1); }), u"TQ_ERR_NULL_BYTES");
  EXPECT_EQ(text, u"");
  EXPECT_EQ(Converter::fromUTF8(nullptr, 0), u"");
}

TEST(Converter, RefusesMoreBytesThanATextCanHold) {
  // Read as a length of 32 bits the second one is 1: then all of these bytes would be taken.
  const std::string bytes(std::size_t{1} << 24, 'x');
  for (const std::size_t length : {std::size_t{1} << 31, (std::size_t{1} << 32) + 1}) {
    expectOutOfMemory([&] { Converter::fromUTF8(bytes.data(), length); });
  }
}

TEST(Converter, SaysSoWhenATextGetsNoMemory) {
  const std::string bytes(60, 'x');
  const tq::test::ScarceTexts none;
  expectOutOfMemory([&] { Converter::fromUTF8(bytes.data(), bytes.size()); });
}

}  // namespace
