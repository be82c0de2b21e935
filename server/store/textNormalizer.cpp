#include "server/store/textNormalizer.h"

#include <fmt/format.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/uscript.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <array>
#include <vector>

#include "server/base/errors.h"

namespace corvaned {
namespace {

constexpr char16_t kMinus = u'-';

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isOperator(std::string_view word) {
  constexpr std::array<std::string_view, 6> kOperators{"AND", "OR", "NOT", "XOR", "NEAR", "ADJ"};
  return std::find(kOperators.begin(), kOperators.end(), word) != kOperators.end() ||
         word.starts_with("NEAR/") || word.starts_with("ADJ/");
}

void appendLower(std::string& out, std::string_view word) {
  icu::UnicodeString::fromUTF8(
      icu::StringPiece(word.data(), static_cast<std::int32_t>(word.size())))
      .toLower(icu::Locale::getRoot())
      .toUTF8String(out);
}

bool isQuotationMark(UChar32 c) { return c == u'"'; }

[[noreturn]] void unbalanced(std::string_view what, std::int32_t position, const char* lack) {
  throw ServerError(ErrorKind::BadQuery,
                    fmt::format("the query cannot be understood: the {} at character {} {}", what,
                                position, lack));
}

/// A bracket, an operator, or something that is searched for.
struct QueryPiece {
  enum class Kind { Open, Close, Operator, Operand };
  Kind kind = Kind::Operand;
  icu::UnicodeString text;
  /// Of its first character, counted from 1.
  std::int32_t position = 0;

  bool isNot() const { return kind == Kind::Operator && text == u"NOT"; }
};

std::string utf8(const QueryPiece& piece) {
  std::string text;
  return piece.text.toUTF8String(text);
}

std::string placeOf(const QueryPiece& piece) {
  return fmt::format("the \"{}\" at character {}", utf8(piece), piece.position);
}

bool joinsTwoSides(const icu::UnicodeString& word) {
  return word == u"AND" || word == u"OR" || word == u"XOR" || word == u"NOT";
}

std::vector<QueryPiece> piecesOf(const icu::UnicodeString& query) {
  using Kind = QueryPiece::Kind;
  std::vector<QueryPiece> pieces;
  bool quoted = false;
  bool inWord = false;
  std::int32_t position = 0;
  for (std::int32_t i = 0; i < query.length(); i = query.moveIndex32(i, 1)) {
    const UChar32 c = query.char32At(i);
    ++position;
    const bool mark = isQuotationMark(c);
    if (mark) quoted = !quoted;
    if (quoted ? !mark : mark || u_isUWhiteSpace(c)) {
      inWord = inWord && quoted;
      continue;
    }
    const bool bracket = c == u'(' || c == u')';
    if (!inWord || bracket || mark) pieces.push_back({Kind::Operand, {}, position});
    if (bracket) pieces.back().kind = c == u'(' ? Kind::Open : Kind::Close;
    pieces.back().text.append(c);
    inWord = !bracket && !mark;
  }
  for (QueryPiece& piece : pieces) {
    if (joinsTwoSides(piece.text)) piece.kind = Kind::Operator;
  }
  return pieces;
}

// Where the first phrase of several words begins, counted from 1; 0 if there is none.
std::int32_t firstPhrase(const icu::UnicodeString& query) {
  std::int32_t opened = 0;
  std::int32_t position = 0;
  bool inWord = false;
  int words = 0;
  for (std::int32_t i = 0; i < query.length(); i = query.moveIndex32(i, 1)) {
    const UChar32 c = query.char32At(i);
    ++position;
    if (isQuotationMark(c)) {
      opened = opened == 0 ? position : 0;
      inWord = false;
      words = 0;
      continue;
    }
    const bool isWord = opened != 0 && !u_isUWhiteSpace(c);
    if (isWord && !inWord && ++words > 1) return opened;
    inWord = isWord;
  }
  return 0;
}

bool isAboutPlaces(const icu::UnicodeString& piece) {
  const icu::UnicodeString name(piece, 0,
                                piece.indexOf(u'/') < 0 ? piece.length() : piece.indexOf(u'/'));
  return name == u"NEAR" || name == u"ADJ";
}

// "NEAR/FAR" is a text in capitals.
bool joinsTwoWords(const icu::UnicodeString& piece) {
  if (!isAboutPlaces(piece)) return false;
  const std::int32_t slash = piece.indexOf(u'/');
  if (slash < 0) return true;
  for (std::int32_t i = slash + 1; i < piece.length(); ++i) {
    if (piece[i] < u'0' || piece[i] > u'9') return false;
  }
  return slash + 1 < piece.length();
}

// Of an operator that joins two words. It may leave the distance to the parser.
bool hasDistance(const icu::UnicodeString& piece) {
  constexpr std::int32_t kMostDigits = 4;
  const std::int32_t slash = piece.indexOf(u'/');
  if (slash < 0) return true;
  const icu::UnicodeString digits(piece, slash + 1);
  return digits.length() <= kMostDigits && digits.charAt(0) != u'0';
}

bool isOneWord(const QueryPiece& piece) {
  const icu::UnicodeString& text = piece.text;
  return piece.kind == QueryPiece::Kind::Operand && !joinsTwoWords(text) &&
         !isQuotationMark(text.char32At(0)) && !text.endsWith(u"*", 1);
}

// Of a text in these scripts the query parser makes several words.
bool isCjk(UChar32 c) {
  constexpr std::array kScripts{USCRIPT_HAN, USCRIPT_HIRAGANA, USCRIPT_KATAKANA, USCRIPT_HANGUL,
                                USCRIPT_BOPOMOFO};
  return std::any_of(kScripts.begin(), kScripts.end(),
                     [c](UScriptCode script) { return uscript_hasScript(c, script) != 0; });
}

bool hasCjk(const icu::UnicodeString& text) {
  for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    if (isCjk(text.char32At(i))) return true;
  }
  return false;
}

// Of a piece, counted as its position is.
std::int32_t endOf(const QueryPiece& piece) { return piece.position + piece.text.countChar32(); }

std::int32_t signsOf(const QueryPiece& piece) {
  std::int32_t count = 0;
  while (piece.text.charAt(count) == u'+' || piece.text.charAt(count) == kMinus) ++count;
  return count;
}

enum class Side { Before, Behind };

std::string noWordAt(const QueryPiece& nearness, Side side) {
  return fmt::format("{} has no word {} it", placeOf(nearness),
                     side == Side::Before ? "before" : "behind");
}

std::string withoutMinus(const QueryPiece& piece) {
  const std::string text = utf8(piece);
  return text.substr(text.starts_with('-') ? 1 : 0);
}

[[noreturn]] void failed(UErrorCode code) {
  throw ServerError(ErrorKind::Internal,
                    std::string("text cannot be normalised: ") + u_errorName(code));
}

using Instance = const icu::Normalizer2* (*)(UErrorCode& code);

const icu::Normalizer2& formOf(Instance instance) {
  UErrorCode code = U_ZERO_ERROR;
  const icu::Normalizer2* form = instance(code);
  if (U_FAILURE(code)) failed(code);
  return *form;
}

class CountingSink final : public icu::ByteSink {
 public:
  void Append(const char* /*bytes*/, std::int32_t length) override {
    count_ += static_cast<std::size_t>(length);
  }
  std::size_t count() const { return count_; }

 private:
  std::size_t count_ = 0;
};

std::string normalized(std::string_view text, Instance instance) {
  UErrorCode code = U_ZERO_ERROR;
  const icu::Normalizer2& form = formOf(instance);
  const auto source = icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
  const icu::UnicodeString normal = form.normalize(source, code);
  if (U_FAILURE(code)) failed(code);
  std::string result;
  return normal.toUTF8String(result);
}

}  // namespace

std::string normalizeText(std::string_view text) {
  if (isAscii(text)) return std::string(text);
  return normalized(text, icu::Normalizer2::getNFKCInstance);
}

std::size_t normalizedBytes(std::string_view text) {
  if (isAscii(text)) return text.size();
  UErrorCode code = U_ZERO_ERROR;
  const icu::Normalizer2& form = formOf(icu::Normalizer2::getNFKCInstance);
  const icu::StringPiece source(text.data(), static_cast<std::int32_t>(text.size()));
  // Most texts are normal, and looking writes nothing.
  if (form.isNormalizedUTF8(source, code) && U_SUCCESS(code)) return text.size();
  CountingSink sink;
  code = U_ZERO_ERROR;
  form.normalizeUTF8(0, source, sink, nullptr, code);
  if (U_FAILURE(code)) failed(code);
  return sink.count();
}

std::string foldedText(std::string_view text) {
  return normalized(text, icu::Normalizer2::getNFKCCasefoldInstance);
}

std::string lowerText(std::string_view text) {
  std::string result;
  appendLower(result, normalizeText(text));
  return result;
}

std::string normalizeQuery(std::string_view text) {
  auto query = icu::UnicodeString::fromUTF8(normalizeText(text));
  for (const char16_t* mark : {u"\u201c", u"\u201d"}) query.findAndReplace(mark, u"\"");
  std::string result;
  return query.toUTF8String(result);
}

std::string lowerQueryWords(const std::string& query) {
  constexpr std::string_view kAroundOperators = " \t\r\n()\"";
  constexpr std::string_view kSeparators = " \t\r\n()\"+-";
  std::string result;
  std::string_view rest = query;
  char before = ' ';
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find_first_of(kSeparators), rest.size());
    const std::string_view word = rest.substr(0, end);
    const std::string_view behind = rest.substr(end, 1);
    // The parser would take the "NOT" of "NOT-word" for one.
    const bool isAlone =
        kAroundOperators.find(before) != std::string_view::npos &&
        (behind.empty() || kAroundOperators.find(behind) != std::string_view::npos);
    const bool joins = isAlone && isOperator(word);
    const std::size_t field = joins ? word.size() : word.rfind(':') + 1;
    result += word.substr(0, field);
    appendLower(result, word.substr(field));
    // The parser wants a blank or a bracket behind an operator.
    if (joins && behind == "\"") result += ' ';
    result += behind;
    if (!behind.empty()) before = behind.front();
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return result;
}

void requireBalanced(const std::string& query) {
  const auto text = icu::UnicodeString::fromUTF8(query);
  std::vector<std::int32_t> brackets;
  std::int32_t quotation = 0;
  std::int32_t position = 0;
  for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    const UChar32 c = text.char32At(i);
    ++position;
    if (isQuotationMark(c)) {
      quotation = quotation == 0 ? position : 0;
    } else if (quotation == 0 && c == u'(') {
      brackets.push_back(position);
    } else if (quotation == 0 && c == u')') {
      if (brackets.empty()) unbalanced("\")\"", position, "closes nothing");
      brackets.pop_back();
    }
  }
  if (quotation != 0) unbalanced("quotation mark", quotation, "is not closed");
  if (!brackets.empty()) unbalanced("\"(\"", brackets.back(), "is not closed");
}

std::string lonelyOperatorIn(const std::string& query) {
  using Kind = QueryPiece::Kind;
  const std::vector<QueryPiece> pieces = piecesOf(icu::UnicodeString::fromUTF8(query));
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    const QueryPiece& piece = pieces[i];
    if (piece.kind != Kind::Operator) continue;
    const QueryPiece* before = i == 0 ? nullptr : &pieces[i - 1];
    const QueryPiece* behind = i + 1 == pieces.size() ? nullptr : &pieces[i + 1];
    const bool begins = !before || before->kind == Kind::Open || before->kind == Kind::Operator;
    const bool ends = !behind || behind->kind == Kind::Close ||
                      (behind->kind == Kind::Operator && !behind->isNot());
    if (!ends && (piece.isNot() || !begins)) continue;
    return fmt::format("{} has nothing {} it", placeOf(piece), ends ? "behind" : "before");
  }
  return {};
}

std::string wrongNearnessIn(const std::string& query, const IsUnderstood& isUnderstood) {
  const std::vector<QueryPiece> pieces = piecesOf(icu::UnicodeString::fromUTF8(query));
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (!joinsTwoWords(pieces[i].text)) continue;
    if (!hasDistance(pieces[i].text)) {
      return placeOf(pieces[i]) + " needs a number from 1 to 9999 behind the \"/\"";
    }
    if (i == 0 || !isOneWord(pieces[i - 1]) ||
        !isUnderstood(withoutMinus(pieces[i - 1]) + " NEAR x")) {
      return noWordAt(pieces[i], Side::Before);
    }
    if (i + 1 == pieces.size() || !isOneWord(pieces[i + 1]) ||
        !isUnderstood("x NEAR " + utf8(pieces[i + 1]))) {
      return noWordAt(pieces[i], Side::Behind);
    }
  }
  return {};
}

std::string withBrackets(const std::string& query) {
  const auto text = icu::UnicodeString::fromUTF8(query);
  const std::vector<QueryPiece> pieces = piecesOf(text);
  icu::UnicodeString out;
  std::int32_t index = 0;
  std::int32_t position = 1;
  const auto copyTo = [&](std::int32_t end) {
    const std::int32_t begin = index;
    index = text.moveIndex32(index, end - position);
    position = end;
    out.append(text, begin, index - begin);
  };
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (pieces[i].kind != QueryPiece::Kind::Operand) continue;
    const std::size_t first = i;
    while (i + 2 < pieces.size() && joinsTwoWords(pieces[i + 1].text)) i += 2;
    if (i == first && !hasCjk(pieces[i].text)) continue;
    copyTo(pieces[first].position + signsOf(pieces[first]));
    out.append(u'(');
    copyTo(endOf(pieces[i]));
    out.append(u')');
  }
  out.append(text, index, text.length() - index);
  std::string result;
  return out.toUTF8String(result);
}

bool mayHaveOperators(const std::string& query) {
  const auto text = icu::UnicodeString::fromUTF8(query);
  if (text.indexOf(kMinus) >= 0) return true;
  const std::vector<QueryPiece> pieces = piecesOf(text);
  return std::any_of(pieces.begin(), pieces.end(), [](const QueryPiece& piece) {
    return piece.kind == QueryPiece::Kind::Operator || joinsTwoWords(piece.text);
  });
}

std::string withoutDistances(const std::string& query) {
  std::string result;
  for (std::size_t i = 0; i < query.size();) {
    const bool hasDistance =
        query[i] == '/' && (result.ends_with("NEAR") || result.ends_with("ADJ"));
    const std::size_t end = query.find_first_not_of("0123456789", i + 1);
    if (hasDistance && end != i + 1) {
      i = std::min(end, query.size());
    } else {
      result += query[i++];
    }
  }
  return result;
}

std::string misunderstoodIn(const std::string& query, const IsUnderstood& isUnderstood) {
  using Kind = QueryPiece::Kind;
  const std::vector<QueryPiece> pieces = piecesOf(icu::UnicodeString::fromUTF8(query));
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (!pieces[i].text.startsWith(kMinus)) continue;
    const bool begins =
        i == 0 || pieces[i - 1].kind == Kind::Open || pieces[i - 1].kind == Kind::Operator;
    const bool isBeforeGroup = pieces[i].text.length() == 1 && i + 1 < pieces.size() &&
                               pieces[i + 1].position == pieces[i].position + 1;
    if (begins && (isBeforeGroup || isUnderstood("x " + utf8(pieces[i])))) {
      return placeOf(pieces[i]) +
             " leaves something out only beside a word that must occur; for "
             "all other documents write NOT";
    }
  }
  const auto joining = std::find_if(pieces.begin(), pieces.end(), [](const QueryPiece& piece) {
    return piece.kind == Kind::Operator || joinsTwoWords(piece.text);
  });
  return joining == pieces.end() ? std::string() : placeOf(*joining) + " cannot be read there";
}

std::string positionsNeededIn(const std::string& query) {
  const auto text = icu::UnicodeString::fromUTF8(query);
  const std::int32_t phrase = firstPhrase(text);
  if (phrase != 0) return fmt::format("the phrase at character {}", phrase);
  for (const QueryPiece& piece : piecesOf(text)) {
    if (isAboutPlaces(piece.text)) return placeOf(piece);
  }
  return {};
}

bool isUtf8(std::string_view bytes) {
  if (isAscii(bytes)) return true;
  std::int32_t length = 0;
  UErrorCode code = U_ZERO_ERROR;
  u_strFromUTF8(nullptr, 0, &length, bytes.data(), static_cast<std::int32_t>(bytes.size()), &code);
  return code == U_BUFFER_OVERFLOW_ERROR;
}

}  // namespace corvaned
