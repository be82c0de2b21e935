#include "server/store/indexingMemory.h"

#include <algorithm>
#include <cmath>

#include "server/base/documentForm.h"
#include "server/store/indexLimits.h"
#include "server/store/searchableText.h"
#include "server/store/textNormalizer.h"
#include "server/store/xapianSchema.h"

namespace corvaned {
namespace {

// Measured with words that are stemmed and have positions, which take the most: what the engine
// keeps for a word and its stem, for both in one document, and for both while a document is made;
// and for each byte of a word, which several of these hold.
constexpr std::size_t kWordCost = 400;
constexpr std::size_t kEntryCost = 200;
constexpr std::size_t kMakingCost = 330;
constexpr std::size_t kLetterCost = 8;

// Measured as the growth of the process with texts of 4 MB: what each byte of a text takes, of
// which there are several copies while a document is made, and each place where a word stands.
constexpr std::size_t kTextCost = 5;
constexpr std::size_t kPlaceCost = 4;

constexpr std::uint64_t kFirst = 0xCBF29CE484222325U;

std::uint64_t hashed(std::uint64_t before, std::string_view text) {
  for (const char c : text) before = (before ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
  return before;
}

enum class Sign { Letter, Digit, Wide, Other };

// Chinese, Japanese and Korean, of which each character makes a word, and each two; and Thai, Lao,
// Burmese and Khmer, whose words have no blanks between them.
bool isWide(unsigned char first, unsigned char second) {
  if (first == 0xE0) return second >= 0xB8 && second <= 0xBB;
  if (first == 0xE1) return second <= 0x82 || second == 0x9E || second == 0x9F;
  return (first >= 0xE3 && first <= 0xED) || first == 0xEF || first >= 0xF0;
}

// Dashes, quotation marks and the like.
bool isPunctuation(unsigned char first) { return first == 0xE2; }

std::string_view characterAt(std::string_view text, std::size_t place) {
  const auto first = static_cast<unsigned char>(text[place]);
  if (first < 0xC0) return text.substr(place, 1);
  if (first < 0xE0) return text.substr(place, 2);
  return text.substr(place, first < 0xF0 ? 3 : 4);
}

Sign signOf(std::string_view character) {
  const auto first = static_cast<unsigned char>(character.front());
  if (first >= 0x80) {
    if (isPunctuation(first)) return Sign::Other;
    const bool wide =
        character.size() > 1 && isWide(first, static_cast<unsigned char>(character[1]));
    return wide ? Sign::Wide : Sign::Letter;
  }
  const unsigned char lower = first | 0x20U;
  if (first >= '0' && first <= '9') return Sign::Digit;
  return (lower >= 'a' && lower <= 'z') || first == '_' ? Sign::Letter : Sign::Other;
}

bool isOneOf(std::string_view signs, std::string_view character) {
  return character.size() == 1 && signs.find(character.front()) != std::string_view::npos;
}

/// Calls `take(word, bytes)` for the words of texts.
template <typename Take>
class WordScan {
 public:
  /// `seed` tells the words of one name of metadata from those of another.
  WordScan(std::uint64_t seed, const Take& take) : seed_(seed), take_(take), word_(seed) {}

  void read(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
      const std::string_view character = characterAt(text, i);
      i += character.size();
      pass(character, i < text.size() ? signOf(characterAt(text, i)) : Sign::Other);
    }
    end();
  }

 private:
  void pass(std::string_view character, Sign next) {
    const Sign sign = signOf(character);
    if (sign == Sign::Letter || sign == Sign::Digit || joins(character, next)) {
      extend(character);
    } else {
      end();
    }
    if (sign == Sign::Wide) passWide(character);
    wide_ = sign == Sign::Wide ? character : std::string_view();
    before_ = sign;
  }

  // As the engine reads names and numbers.
  bool joins(std::string_view character, Sign next) const {
    if (length_ == 0) return false;
    if (isOneOf("&'", character)) return next == Sign::Letter || next == Sign::Digit;
    return isOneOf(",.;", character) && before_ == Sign::Digit && next == Sign::Digit;
  }

  void passWide(std::string_view character) {
    take_(hashed(seed_, character), character.size());
    if (!wide_.empty()) {
      take_(hashed(hashed(seed_, wide_), character), wide_.size() + character.size());
    }
  }

  // Capitals make no other words.
  void extend(std::string_view character) {
    if (character.size() > 1) {
      word_ = hashed(word_, character);
    } else {
      const char small = static_cast<char>(character.front() | 0x20);
      word_ = hashed(word_, {&small, 1});
    }
    length_ += character.size();
  }

  void end() {
    if (length_ > 0) take_(word_, std::min<std::size_t>(length_, kMaxWordBytes));
    word_ = seed_;
    length_ = 0;
  }

  const std::uint64_t seed_;
  const Take& take_;
  std::uint64_t word_;
  std::size_t length_ = 0;
  Sign before_ = Sign::Other;
  // The character before, if it is a wide one.
  std::string_view wide_;
};

// What is read of a document in HTML or XML, and what the reader takes meanwhile.
constexpr std::size_t kMarkupForms = 10;

bool isMarkup(const Change& change) {
  return formNotedIn(change.document.metadata).type != TextType::Plain;
}

}  // namespace

bool DistinctCount::add(std::uint64_t number) {
  const std::uint64_t place = (number * 0x9E3779B97F4A7C15U) >> (64U - kBits);
  std::uint64_t& bits = bits_[place / 64];
  const std::uint64_t bit = std::uint64_t{1} << (place % 64);
  if ((bits & bit) != 0) return false;
  if (bits == 0) used_.push_back(static_cast<std::uint32_t>(place / 64));
  bits |= bit;
  ++set_;
  return true;
}

// The part of the bits that so many different numbers leave clear tells how many they were.
std::size_t DistinctCount::count() const {
  const double all = std::size_t{1} << kBits;
  const double clear = std::max(all - static_cast<double>(set_), 1.0);
  return static_cast<std::size_t>(std::lround(all * std::log(all / clear)));
}

void DistinctCount::clear() {
  for (const std::uint32_t place : used_) bits_[place] = 0;
  used_.clear();
  set_ = 0;
}

// Markup has no words, divides some and joins others.
void IndexingMemory::add(const Change& change) {
  if (!isMarkup(change)) return addAsSent(change);
  addWith(readableText(change.document), change);
}

std::size_t IndexingMemory::bytesToAdd(const Change& change) {
  return isMarkup(change) ? kMarkupForms * change.document.content.size() : 0;
}

void IndexingMemory::addAsSent(const Change& change) { addWith(change.document.content, change); }

void IndexingMemory::addWith(const std::string& content, const Change& change) {
  textBytes_ += bytesOf(change);
  addText(content, {});
  for (const auto& [name, value] : change.document.metadata) addText(value, name);
  const std::size_t words = ofDocument_.count();
  entries_ += words;
  largestDocument_ =
      std::max(largestDocument_, words * kMakingCost + documentWordBytes_ * kLetterCost);
  documentWordBytes_ = 0;
  ofDocument_.clear();
}

void IndexingMemory::addText(std::string_view text, std::string_view name) {
  const std::size_t normal = normalizedBytes(text);
  if (normal > text.size()) textBytes_ += normal - text.size();
  const auto take = [this](std::uint64_t word, std::size_t length) { addWord(word, length); };
  WordScan(hashed(kFirst, name), take).read(text);
}

void IndexingMemory::addWord(std::uint64_t word, std::size_t length) {
  ++places_;
  if (words_.add(word)) wordBytes_ += length;
  if (ofDocument_.add(word)) documentWordBytes_ += length;
}

std::size_t IndexingMemory::bytes() const {
  return std::max(textBytes_ * kIndexingCost, ofWords());
}

std::size_t IndexingMemory::leastBytes() const {
  return textBytes_ * kTextCost + places_ * kPlaceCost + ofWords();
}

std::size_t IndexingMemory::ofWords() const {
  return words_.count() * kWordCost + wordBytes_ * kLetterCost + entries_ * kEntryCost +
         largestDocument_;
}

void IndexingMemory::clear() {
  words_.clear();
  ofDocument_.clear();
  textBytes_ = places_ = wordBytes_ = entries_ = documentWordBytes_ = largestDocument_ = 0;
}

}  // namespace corvaned
