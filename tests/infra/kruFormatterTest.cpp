#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

#include "infra/oss/kruFormatter.h"
#include "tests/support/guardedBytes.h"

namespace {

using tq::oss::Formatter;

static_assert(!std::is_default_constructible_v<Formatter>);

constexpr double kMax = std::numeric_limits<double>::max();

TEST(Formatter, ReadsDecimalNumbers) {
  const struct {
    const char16_t* text;
    double value;
  } cases[] = {{u"0", 0.0},         {u"0.75", 0.75},   {u"1.5e2", 150.0}, {u"2E-1", 0.2},
               {u"-3.25", -3.25},   {u"+4", 4.0},      {u".5", 0.5},      {u"5.", 5.0},
               {u"65.535", 65.535}, {u"  7", 7.0},     {u"\t\n8", 8.0},   {u"12abc", 12.0},
               {u"\v\f\r8", 8.0},   {u"1.5 2.5", 1.5}, {u"0x10", 0.0},    {u"1,5", 1.0},
               {u"1e", 1.0},        {u"0.1", 0.1},     {u"1e308", 1e308}};
  for (const auto& c : cases) EXPECT_DOUBLE_EQ(Formatter::stringToDouble(c.text), c.value);
}

/// The bits of a double, so that a comparison tells zeros apart.
std::uint64_t bitsOf(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

// The C library's reader, in its own locale, knows no short way.
TEST(Formatter, ReadsNumbersOfASimpleFormToTheLastBit) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 200000; ++i) {
    std::string text = std::to_string(random() >> (random() % 64));
    if (random() % 8 != 0)
      text.insert(text.begin() + 1 + static_cast<int>(random() % text.size()), '.');
    const double value = Formatter::stringToDouble(text.data(), text.size());
    ASSERT_EQ(bitsOf(std::strtod(text.c_str(), nullptr)), bitsOf(value)) << text;
    ASSERT_EQ(bitsOf(value), bitsOf(Formatter::stringToDouble(icu::UnicodeString(text.c_str()))));
  }
}

TEST(Formatter, ReadsNumbersAtTheEdgeOfTheSimpleFormToTheLastBit) {
  for (const std::string text : {"9007199254740992",
                                 "9007199254740993",
                                 "9007199254740991",
                                 "900719925474099.3",
                                 "90071992547409.93",
                                 "9.007199254740993",
                                 "9999999999999999",
                                 "999999999999999.9",
                                 "0.00000000000001",
                                 "0.000000000000001",
                                 "0000000000000001",
                                 "000000000000000.1",
                                 "99999999999999999",
                                 "1.",
                                 "0.",
                                 "0",
                                 "00",
                                 "1..",
                                 "1.2.",
                                 "1.2.3",
                                 "16777217.0"}) {
    const double value = Formatter::stringToDouble(text.data(), text.size());
    EXPECT_EQ(bitsOf(std::strtod(text.c_str(), nullptr)), bitsOf(value)) << text;
  }
}

TEST(Formatter, ReadsAsManyBytesAsItIsGiven) {
  EXPECT_EQ(12.0, Formatter::stringToDouble("12.345", 2));
  EXPECT_EQ(-12.0, Formatter::stringToDouble("-12.345", 3));
  EXPECT_EQ(12.0, Formatter::stringToDouble("12\0.5", 5));
  EXPECT_EQ(0.0, Formatter::stringToDouble("1", 0));
}

TEST(Formatter, ReadsNoByteBehindTheEnd) {
  tq::test::GuardedBytes guarded(16);
  for (const std::string text : {"", "12", "1.5", "1.", "-1", "+", "-", " ", "1e", "1e5", "."}) {
    EXPECT_EQ(std::strtod(text.c_str(), nullptr),
              Formatter::stringToDouble(guarded.hold(text), text.size()))
        << text;
  }
}

TEST(Formatter, ReadsWhatTheCLibraryReadsWhateverCharacterStandsBetweenDigits) {
  for (int c = 1; c <= 0xFF; ++c) {
    const std::string text{'1', static_cast<char>(c), '5'};
    EXPECT_EQ(std::strtod(text.c_str(), nullptr),
              Formatter::stringToDouble(text.data(), text.size()))
        << c;
  }
}

TEST(Formatter, GivesZeroForWhatStartsWithNoNumber) {
  for (const char16_t* text :
       {u"", u" ", u"abc", u"-", u"+", u".", u"+-1", u"--1", u"-.", u"e5", u"\u0661", u"\u20ac1"}) {
    EXPECT_EQ(Formatter::stringToDouble(text), 0.0);
  }
}

TEST(Formatter, NeverGivesAnInfinityOrNotANumber) {
  for (const char16_t* text : {u"inf", u"-inf", u"infinity", u"nan", u"-nan", u"NAN(1)"}) {
    EXPECT_EQ(Formatter::stringToDouble(text), 0.0);
  }
}

TEST(Formatter, ClampsWhatIsOutOfRange) {
  const struct {
    icu::UnicodeString text;
    double value;
  } cases[] = {
      {u"1e999", kMax},
      {u"-1e999", -kMax},
      {u"1e-999", 0.0},
      {u"-1e-999", 0.0},
      {u"0.001e999", kMax},
      {u"1e99999999999999999999", kMax},
      {u"1e-99999999999999999999", 0.0},
      {u"123456e-999", 0.0},
      {icu::UnicodeString(400, u'9', 400), kMax},
      {icu::UnicodeString(u"0.").append(icu::UnicodeString(400, u'0', 400)).append(u'1'), 0.0},
  };
  for (const auto& c : cases) EXPECT_DOUBLE_EQ(Formatter::stringToDouble(c.text), c.value);
}

TEST(Formatter, ReadsAFullStopInEveryLocale) {
  const std::string before = std::setlocale(LC_ALL, nullptr);
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "C"}) {
    std::setlocale(LC_ALL, name);
    EXPECT_DOUBLE_EQ(Formatter::stringToDouble(u"0.75"), 0.75) << name;
  }
  std::setlocale(LC_ALL, before.c_str());
}

TEST(Formatter, DoesNotAskForTheLocaleOfTheEnvironment) {
  const char* const present = std::getenv("LC_ALL");
  const std::string before = present != nullptr ? present : "";
  ::setenv("LC_ALL", "no_SUCH.locale", 1);
  EXPECT_EQ(Formatter::stringToDouble(u"1e999"), kMax);
  if (present != nullptr) {
    ::setenv("LC_ALL", before.c_str(), 1);
  } else {
    ::unsetenv("LC_ALL");
  }
}

}  // namespace
