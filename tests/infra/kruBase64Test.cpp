#include <gtest/gtest.h>

#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "infra/util/kruBase64.h"

namespace {

using tq::util::Base64;

static_assert(!std::is_default_constructible_v<Base64>);

std::string encode(const std::string& bytes) {
  std::string out(Base64::encodeSize(bytes.size()), '?');
  EXPECT_EQ(Base64::encode(bytes.data(), bytes.size(), out.data()), out.size());
  return out;
}

const struct {
  std::string bytes, text;
} kCases[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
    {"\xFB\xEF\xBE", "++++"},
    {"\xFF\xFF\xFF", "////"},
    {std::string(3, '\0'), "AAAA"},
    {std::string("\0\x10\x83\x10Q\x87 \x92\x8B", 9), "ABCDEFGHIJKL"},
};

TEST(Base64, EncodesWithTheStandardAlphabetAndPadding) {
  for (const auto& c : kCases) EXPECT_EQ(encode(c.bytes), c.text);
}

TEST(Base64, EncodesIntoUtf16Units) {
  for (const auto& c : kCases) {
    std::vector<char16_t> out(Base64::encodeSize(c.bytes.size()) + 1, u'?');
    const std::size_t units = Base64::encode(c.bytes.data(), c.bytes.size(), out.data());
    EXPECT_EQ(std::string(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(units)), c.text);
    EXPECT_EQ(out[units], u'?') << "wrote behind its end";
  }
}

/// Digit by digit, as the definition says.
std::string encodedByDefinition(const std::string& bytes) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto bitAt = [&](std::size_t at) {
    return at / 8 < bytes.size() ? (static_cast<unsigned char>(bytes[at / 8]) >> (7 - at % 8)) & 1
                                 : 0;
  };
  std::string text;
  for (std::size_t bit = 0; bit < bytes.size() * 8; bit += 6) {
    int digit = 0;
    for (std::size_t i = 0; i < 6; ++i) digit = digit * 2 + bitAt(bit + i);
    text += kDigits[digit];
  }
  return text.append((4 - text.size() % 4) % 4, '=');
}

TEST(Base64, EncodesAnyBytesAsItsDefinitionSays) {
  std::mt19937 random(3);
  for (std::size_t length = 0; length < 200; ++length) {
    for (int i = 0; i < 20; ++i) {
      std::string bytes(length, '\0');
      for (char& byte : bytes) byte = static_cast<char>(random() & 0xFF);
      ASSERT_EQ(encodedByDefinition(bytes), encode(bytes));
      std::u16string units(Base64::encodeSize(length), u'?');
      ASSERT_EQ(units.size(), Base64::encode(bytes.data(), length, units.data()));
      ASSERT_EQ(encode(bytes), std::string(units.begin(), units.end()));
    }
  }
}

TEST(Base64, TellsTheSizeBeforehand) {
  const struct {
    std::size_t bytes, units;
  } cases[] = {{0, 0}, {1, 4}, {2, 4}, {3, 4}, {4, 8}, {384, 512}, {385, 516}};
  for (const auto& c : cases) EXPECT_EQ(Base64::encodeSize(c.bytes), c.units);
  EXPECT_EQ(Base64::encodeSize(0xFFFFFFFFU), std::size_t{5726623060U});
}

TEST(Base64, DecodesWhatItEncodes) {
  std::string bytes;
  for (int i = 0; i < 600; ++i) {
    std::string out = "before";
    const std::string text = encode(bytes);
    ASSERT_TRUE(Base64::decode(text.data(), text.size(), out));
    ASSERT_EQ(out, bytes);
    bytes.push_back(static_cast<char>(i * 7));
  }
}

TEST(Base64, DecodesUtf16Text) {
  std::string out;
  EXPECT_TRUE(Base64::decode(icu::UnicodeString(u"Zm9vYg=="), out));
  EXPECT_EQ(out, "foob");
  EXPECT_FALSE(Base64::decode(icu::UnicodeString(u"Zm9\u0176"), out));
  EXPECT_EQ(out, "foob");
}

TEST(Base64, RefusesWhatNoEncoderWrites) {
  for (const std::string text : {"Z",    "Zg",    "Zg=",      "Zg===",   "=",    "==",    "====",
                                 "Z===", "Zm9vY", "Zg==Zg==", "Z=g=",    "Zm=v", " Zm9v", "Zm9v\n",
                                 "Zm 9", "Zm-_",  "Zm9\xFF",  "Zm9\x80", "Zh==", "Zm9="}) {
    std::string out = "before";
    EXPECT_FALSE(Base64::decode(text.data(), text.size(), out)) << text;
    EXPECT_EQ(out, "before") << text;
  }
}

TEST(Base64, TakesNoCharacterBesideItsDigits) {
  const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int c = 0; c <= 0xFF; ++c) {
    const std::string text = std::string("Zm9") + static_cast<char>(c);
    std::string out;
    const bool isDigit = digits.find(static_cast<char>(c)) != std::string::npos;
    EXPECT_EQ(Base64::decode(text.data(), text.size(), out), isDigit) << c;
  }
}

TEST(Base64, OfNoCharactersLooksAtNone) {
  const std::string padding = "==";
  std::string out = "before";
  EXPECT_TRUE(Base64::decode(padding.data() + padding.size(), 0, out));
  EXPECT_EQ(out, "");
}

}  // namespace
