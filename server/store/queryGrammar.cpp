#include "server/store/queryGrammar.h"

#include <fmt/format.h>
#include <unicode/uchar.h>
#include <xapian.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>
#include <utility>

#include "server/base/errors.h"
#include "server/store/searchableText.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

// No stack is too small for so many.
constexpr int kMostDepth = 100;

std::string utf8(std::u32string_view text) {
  std::string result;
  for (const char32_t c : text) Xapian::Unicode::append_utf8(result, c);
  return result;
}

bool isAnyOf(std::u32string_view set, char32_t c) {
  return set.find(c) != std::u32string_view::npos;
}

bool isBlank(char32_t c) { return u_isUWhiteSpace(static_cast<UChar32>(c)) != 0; }
bool isDigit(char32_t c) { return u_isdigit(static_cast<UChar32>(c)) != 0; }
bool isOfWord(char32_t c) { return Xapian::Unicode::is_wordchar(c) || isEmoji(c); }
bool isOfName(char32_t c) {
  return (c >= U'a' && c <= U'z') || (c >= U'A' && c <= U'Z') || c == U'_' ||
         (c < 0x80 && isDigit(c));
}

// As the engine has them: between the characters of a word these are part of it,
bool joinsLetters(char32_t c) {
  return isAnyOf(U"'&\u00b7\u05f4\u2019\u201b\u2027\u200b\u200c\u200d\u2060\ufeff", c);
}
// between digits these,
bool joinsDigits(char32_t c) {
  return isAnyOf(U",.;\u037e\u0589\u060d\u07f8\u2044\ufe10\ufe13\ufe14", c);
}
// and behind one these.
bool endsWord(char32_t c) { return c == U'+' || c == U'#'; }
// Words with these between them stand next to each other.
bool joinsWords(char32_t c) { return isAnyOf(U".-/:\\@", c); }

struct Token {
  enum class Kind { Open, Close, And, Or, Xor, Not, Near, Adjacent, Words };

  Kind kind = Kind::Words;
  QueryPlace place;
  char32_t sign = 0;
  std::string prefix;
  std::string text;
  bool isPhrase = false;
  std::uint32_t distance = 0;

  bool joinsWords() const { return kind == Kind::Near || kind == Kind::Adjacent; }
  bool joinsSides() const { return kind >= Kind::And && kind <= Kind::Not; }
  bool isOneWord() const { return kind == Kind::Words && !isPhrase && !text.ends_with('*'); }
};

class Lexer {
 public:
  Lexer(const std::string& normal, const IndexNames& names) : names_(names) {
    for (Xapian::Utf8Iterator c(normal); c != Xapian::Utf8Iterator(); ++c) {
      text_ += static_cast<char32_t>(*c);
    }
  }

  std::vector<Token> tokens() {
    while (at_ < text_.size()) {
      const std::size_t begin = at_;
      if (text_[at_] == U')') {
        close();
      } else if (startsItem(at_)) {
        item(begin);
      } else if (isSign(at_)) {
        ++at_;
        item(begin);
      } else {
        ++at_;
      }
    }
    if (!open_.empty()) refuseQuery(described(open_.back()) + " is not closed");
    return std::move(tokens_);
  }

 private:
  char32_t charAt(std::size_t at) const { return at < text_.size() ? text_[at] : U' '; }
  char32_t charBefore(std::size_t at) const { return at == 0 ? U' ' : text_[at - 1]; }

  std::string textOf(std::size_t begin, std::size_t end) const {
    return utf8(std::u32string_view(text_).substr(begin, end - begin));
  }

  QueryPlace placeOf(std::size_t begin, std::size_t end) const {
    return {textOf(begin, end), static_cast<std::int32_t>(begin + 1)};
  }

  bool startsItem(std::size_t at) const {
    return charAt(at) == U'(' || charAt(at) == kQuotation || isOfWord(charAt(at));
  }

  bool isSign(std::size_t at) const {
    return isAnyOf(U"+-", text_[at]) && (isBlank(charBefore(at)) || charBefore(at) == U'(') &&
           startsItem(at + 1);
  }

  // A word, a phrase or an opening bracket, whose sign, if it has one, is at `begin`.
  void item(std::size_t begin) {
    Token token;
    if (begin != at_) token.sign = text_[begin];
    token.prefix = prefix();
    if (charAt(at_) == U'(') {
      open(token, begin);
    } else if (charAt(at_) == kQuotation) {
      phrase(token, begin);
    } else {
      word(token, begin);
    }
  }

  std::string prefix() {
    std::size_t end = at_;
    while (isOfName(charAt(end))) ++end;
    if (charAt(end) != U':' || !startsItem(end + 1)) return {};
    const auto known = names_.knownPrefixOf(textOf(at_, end));
    if (!known) return {};
    at_ = end + 1;
    return *known;
  }

  void open(Token& token, std::size_t begin) {
    open_.push_back(placeOf(at_, at_ + 1));
    ++at_;
    token.kind = Token::Kind::Open;
    token.place = placeOf(begin, at_);
    tokens_.push_back(std::move(token));
  }

  // Brackets with nothing within are nothing.
  void close() {
    const QueryPlace place = placeOf(at_, at_ + 1);
    if (open_.empty()) refuseQuery(described(place) + " closes nothing");
    open_.pop_back();
    ++at_;
    if (tokens_.back().kind == Token::Kind::Open) {
      tokens_.pop_back();
    } else {
      tokens_.emplace_back();
      tokens_.back().kind = Token::Kind::Close;
      tokens_.back().place = place;
    }
  }

  void phrase(Token& token, std::size_t begin) {
    const std::size_t end = text_.find(kQuotation, at_ + 1);
    if (end == std::u32string::npos) {
      refuseQuery(fmt::format("the quotation mark at character {} is not closed", at_ + 1));
    }
    token.isPhrase = true;
    token.text = textOf(at_ + 1, end);
    token.place = placeOf(begin, end + 1);
    const bool hasWords = std::any_of(text_.begin() + static_cast<std::ptrdiff_t>(at_),
                                      text_.begin() + static_cast<std::ptrdiff_t>(end), isOfWord);
    at_ = end + 1;
    if (hasWords) tokens_.push_back(std::move(token));
  }

  void word(Token& token, std::size_t begin) {
    const std::size_t first = at_;
    const bool isOne = skipWords();
    if (charAt(at_) == U'*' && !isOfWord(charAt(at_ + 1))) {
      if (!isOne) {
        refuseQuery(described(placeOf(at_, at_ + 1)) +
                    " stands behind words with a sign between them");
      }
      ++at_;
    }
    token.text = textOf(first, at_);
    token.place = placeOf(begin, at_);
    if (first == begin && isAlone(begin, at_)) readOperator(token);
    tokens_.push_back(std::move(token));
  }

  // False if there are several words.
  bool skipWords() {
    bool isOne = true;
    while (true) {
      while (isOfWord(charAt(at_))) ++at_;
      std::size_t end = at_;
      while (endsWord(charAt(end))) ++end;
      // An emoji stands apart from what it follows, except for "+" and "-".
      const bool standsApart = isEmoji(charAt(end)) && charAt(end - 1) == U'#';
      if (standsApart || !isOfWord(charAt(end))) at_ = end;
      if (standsApart) continue;
      const char32_t c = charAt(at_);
      const char32_t next = charAt(at_ + 1);
      const bool withinNumber = joinsDigits(c) && isDigit(text_[at_ - 1]) && isDigit(next);
      if (withinNumber || (joinsLetters(c) && isOfWord(next))) {
        ++at_;
        continue;
      }
      end = at_;
      while (joinsWords(charAt(end))) ++end;
      if (end == at_ || !isOfWord(charAt(end))) return isOne;
      at_ = end;
      isOne = false;
    }
  }

  // "NOT-word" is a word, and one behind another.
  bool isAlone(std::size_t begin, std::size_t end) const {
    const auto parts = [](char32_t c) { return isBlank(c) || isAnyOf(U"()\"", c); };
    return parts(charBefore(begin)) && parts(charAt(end));
  }

  static void readOperator(Token& token) {
    using Kind = Token::Kind;
    constexpr std::array<std::pair<std::string_view, Kind>, 6> kOperators{
        {{"AND", Kind::And},
         {"OR", Kind::Or},
         {"XOR", Kind::Xor},
         {"NOT", Kind::Not},
         {"NEAR", Kind::Near},
         {"ADJ", Kind::Adjacent}}};
    const std::size_t slash = std::min(token.text.find('/'), token.text.size());
    const std::string name = token.text.substr(0, slash);
    const std::string distance = token.text.substr(std::min(slash + 1, token.text.size()));
    const auto known = std::find_if(kOperators.begin(), kOperators.end(),
                                    [&](const auto& each) { return each.first == name; });
    if (known == kOperators.end()) return;
    Token joining;
    joining.kind = known->second;
    joining.place = token.place;
    if (slash == token.text.size()) {
      if (joining.joinsWords()) joining.distance = kDistance;
    } else if (!joining.joinsWords() ||
               distance.find_first_not_of("0123456789") != std::string::npos) {
      return;  // "NEAR/FAR" is a text in capitals.
    } else if (distance.size() > kMostDigits || distance.front() == '0') {
      refuseQuery(described(joining.place) + " needs a number from 1 to 9999 behind the \"/\"");
    } else {
      joining.distance = static_cast<std::uint32_t>(std::stoul(distance));
    }
    token = std::move(joining);
  }

  static constexpr char32_t kQuotation = U'"';
  static constexpr std::uint32_t kDistance = 10;
  static constexpr std::size_t kMostDigits = 4;

  const IndexNames& names_;
  std::u32string text_;
  std::size_t at_ = 0;
  std::vector<Token> tokens_;
  std::vector<QueryPlace> open_;
};

void requireSides(const std::vector<Token>& tokens) {
  using Kind = Token::Kind;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    if (!tokens[i].joinsSides()) continue;
    const Token* before = i == 0 ? nullptr : &tokens[i - 1];
    const Token* behind = i + 1 == tokens.size() ? nullptr : &tokens[i + 1];
    const bool begins = !before || before->kind == Kind::Open || before->joinsSides();
    const bool ends = !behind || behind->kind == Kind::Close ||
                      (behind->joinsSides() && behind->kind != Kind::Not);
    if (!ends && (tokens[i].kind == Kind::Not || !begins)) continue;
    refuseQuery(fmt::format("{} has nothing {} it", described(tokens[i].place),
                            ends ? "behind" : "before"));
  }
}

class Parser {
 public:
  explicit Parser(std::vector<Token> tokens) : tokens_(std::move(tokens)) {}

  QueryNode query() {
    if (tokens_.empty()) return {};
    return joined(Token::Kind::Or);
  }

 private:
  using TokenKind = Token::Kind;
  using Kind = QueryNode::Kind;

  bool isAt(TokenKind kind) const { return at_ < tokens_.size() && tokens_[at_].kind == kind; }

  // OR binds least, then XOR, then AND and NOT.
  QueryNode joined(TokenKind by) {
    if (by == TokenKind::And) return withAndAndNot();
    const bool isOr = by == TokenKind::Or;
    const TokenKind tighter = isOr ? TokenKind::Xor : TokenKind::And;
    QueryNode first = joined(tighter);
    if (!isAt(by)) return first;
    QueryNode node;
    node.kind = isOr ? Kind::Or : Kind::Xor;
    node.parts.push_back(std::move(first));
    while (isAt(by)) {
      ++at_;
      node.parts.push_back(joined(tighter));
    }
    return node;
  }

  // However many there are, they are one level: "a NOT b AND c" is "a AND c NOT b".
  QueryNode withAndAndNot() {
    QueryNode first = side();
    if (!isAt(TokenKind::And) && !isAt(TokenKind::Not)) return first;
    QueryNode node;
    node.kind = Kind::And;
    node.parts.push_back(std::move(first));
    while (isAt(TokenKind::And) || isAt(TokenKind::Not)) {
      if (isAt(TokenKind::And)) ++at_;
      if (isAt(TokenKind::Not)) {
        ++at_;
        node.without.push_back(side());
        continue;
      }
      QueryNode right = sequence();
      if (onlyLeavesOut(right)) {
        std::move(right.without.begin(), right.without.end(), std::back_inserter(node.without));
      } else {
        node.parts.push_back(std::move(right));
      }
    }
    return node;
  }

  QueryNode side() {
    if (!isAt(TokenKind::Not)) {
      QueryNode node = sequence();
      if (onlyLeavesOut(node)) {
        refuseQuery(described(node.place) +
                    " leaves something out only beside a word that must occur; for all other "
                    "documents write NOT");
      }
      return node;
    }
    const Depth depth(*this);
    ++at_;
    QueryNode node;
    node.kind = Kind::Not;
    node.parts.push_back(side());
    return node;
  }

  // "-hen", which is refused alone and may stand behind AND.
  static bool onlyLeavesOut(const QueryNode& sequence) {
    return sequence.kind == Kind::All && sequence.parts.empty();
  }

  QueryNode sequence() {
    QueryNode node;
    while (at_ < tokens_.size() && !tokens_[at_].joinsSides() && !isAt(TokenKind::Close)) {
      const char32_t sign = tokens_[at_].sign;
      if (sign == U'-' && node.without.empty()) node.place = tokens_[at_].place;
      QueryNode part = item();
      if (sign == U'+') part.isKept = true;
      (sign == U'-' ? node.without : node.parts).push_back(std::move(part));
    }
    if (node.parts.size() > 1 || !node.without.empty()) return node;
    QueryNode only = std::move(node.parts.front());
    return only;
  }

  QueryNode item() {
    const Token& token = tokens_[at_];
    if (token.joinsWords()) refuseQuery(noWord(token, "before"));
    ++at_;
    if (token.kind == TokenKind::Open) return group(token);
    if (at_ < tokens_.size() && tokens_[at_].joinsWords()) return nearness(token);
    return words(token);
  }

  QueryNode group(const Token& open) {
    const Depth depth(*this);
    const std::string outer = prefix_;
    if (!open.prefix.empty()) prefix_ = open.prefix;
    QueryNode node = joined(TokenKind::Or);
    ++at_;
    prefix_ = outer;
    node.isKept = true;
    return node;
  }

  QueryNode words(const Token& token) const {
    QueryNode node;
    node.kind = Kind::Words;
    node.place = token.place;
    node.text = token.text;
    node.prefix = token.prefix.empty() ? prefix_ : token.prefix;
    node.isPhrase = token.isPhrase;
    return node;
  }

  QueryNode nearness(const Token& first) {
    QueryNode node;
    const TokenKind kind = tokens_[at_].kind;
    node.kind = kind == TokenKind::Near ? Kind::Near : Kind::Adjacent;
    node.place = first.place;
    const Token* before = &first;
    for (; at_ < tokens_.size() && tokens_[at_].joinsWords(); ++at_) {
      const Token& joint = tokens_[at_];
      if (!before->isOneWord() || joint.kind != kind) refuseQuery(noWord(joint, "before"));
      const Token* behind = at_ + 1 == tokens_.size() ? nullptr : &tokens_[at_ + 1];
      if (!behind || !behind->isOneWord() || behind->sign != 0)
        refuseQuery(noWord(joint, "behind"));
      node.parts.push_back(words(*before));
      node.joints.push_back(joint.place);
      node.distance = std::max(node.distance, joint.distance);
      before = behind;
      ++at_;
    }
    node.parts.push_back(words(*before));
    return node;
  }

  static std::string noWord(const Token& joint, const char* side) {
    return fmt::format("{} has no word {} it", described(joint.place), side);
  }

  class Depth {
   public:
    explicit Depth(Parser& parser) : depth_(parser.depth_) {
      if (++depth_ <= kMostDepth) return;
      refuseQuery(
          fmt::format("its brackets and NOTs are more than {} deep within each other", kMostDepth));
    }
    ~Depth() { --depth_; }
    Depth(const Depth&) = delete;
    Depth& operator=(const Depth&) = delete;

   private:
    int& depth_;
  };

  const std::vector<Token> tokens_;
  std::size_t at_ = 0;
  std::string prefix_;
  int depth_ = 0;
};

}  // namespace

std::string described(const QueryPlace& place) {
  constexpr std::size_t kShown = 60;
  return fmt::format("the {} at character {}", shown(place.text, kShown), place.position);
}

void refuseQuery(const std::string& reason) {
  throw ServerError(ErrorKind::BadQuery, "the query cannot be understood: " + reason);
}

std::string normalizeQuery(std::string_view text) {
  const std::string normal = normalizeText(text);
  std::string result;
  for (Xapian::Utf8Iterator c(normal); c != Xapian::Utf8Iterator(); ++c) {
    Xapian::Unicode::append_utf8(result, isAnyOf(U"\u201c\u201d\u201e", *c) ? U'"' : *c);
  }
  return result;
}

QueryNode parseQuery(const std::string& normal, const IndexNames& names) {
  std::vector<Token> tokens = Lexer(normal, names).tokens();
  requireSides(tokens);
  return Parser(std::move(tokens)).query();
}

}  // namespace corvaned
