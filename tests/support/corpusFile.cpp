#include "tests/support/corpusFile.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tq::test {

namespace {

/// Null for a name that no kind has.
const NamedKind* kindNamed(std::string_view name) {
  const auto found = std::find_if(kNamedKinds.begin(), kNamedKinds.end(),
                                  [&](const NamedKind& kind) { return kind.name == name; });
  return found != kNamedKinds.end() ? &*found : nullptr;
}

// STREAM_SEARCH becomes StreamSearch, since test names have letters and digits only.
std::string inCamelCase(const std::string& kind) {
  std::string out;
  bool first = true;
  for (const char letter : kind) {
    if (letter == '_') {
      first = true;
      continue;
    }
    out += first ? letter : static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    first = false;
  }
  return out;
}

struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

int hexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  throw Refused("a byte is two hexadecimal digits in capitals");
}

/// The words of one line, read from left to right.
class Words {
 public:
  explicit Words(const std::string& line) : line_(line) { skipBlanks(); }

  bool done() const { return at_ == line_.size(); }

  std::string word() {
    if (done()) throw Refused("a word is missing");
    const auto end = std::min(line_.find(' ', at_), line_.size());
    auto out = line_.substr(at_, end - at_);
    at_ = end;
    skipBlanks();
    return out;
  }

  bool take(const std::string& expected) {
    const auto before = at_;
    if (!done() && word() == expected) return true;
    at_ = before;
    return false;
  }

  void mustTake(const std::string& expected) {
    if (!take(expected)) throw Refused("expected \"" + expected + "\"");
  }

  template <typename Number>
  Number number() {
    const auto text = word();
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) {
      throw Refused("\"" + text + "\" is not a number in range");
    }
    return value;
  }

  bool atText() const { return !done() && line_[at_] == '"'; }

  std::string text() {
    if (!atText()) throw Refused("a text in quotes is missing");
    ++at_;
    std::string out;
    while (next() != '"') out += line_[at_] == '\\' ? escaped() : line_[at_++];
    ++at_;
    out = repeated(out);
    skipBlanks();
    return out;
  }

  bool takeMark(char mark) {
    if (done() || line_[at_] != mark) return false;
    ++at_;
    return true;
  }

  char byte() {
    const auto digits = word();
    if (digits.size() != 2) throw Refused("a byte is two hexadecimal digits in capitals");
    return static_cast<char>(hexDigit(digits[0]) * 16 + hexDigit(digits[1]));
  }

  void mustBeDone() const {
    if (!done()) throw Refused("nothing is expected from \"" + line_.substr(at_) + "\" on");
  }

 private:
  void skipBlanks() { at_ = std::min(line_.find_first_not_of(' ', at_), line_.size()); }

  char next() const {
    if (done()) throw Refused("a text has no closing quote");
    return line_[at_];
  }

  char escaped() {
    ++at_;
    switch (const char letter = next(); ++at_, letter) {
      case 'r':
        return '\r';
      case 'n':
        return '\n';
      case '"':
      case '\\':
        return letter;
      case 'x': {
        const int high = hexDigit(next());
        ++at_;
        const int low = hexDigit(next());
        ++at_;
        return static_cast<char>(high * 16 + low);
      }
      default:
        throw Refused("an escape is one of \\r \\n \\\" \\\\ \\xHH");
    }
  }

  std::string repeated(const std::string& once) {
    if (!takeMark('*')) return once;
    std::string out;
    for (auto left = number<std::size_t>(); left > 0; --left) out += once;
    return out;
  }

  const std::string& line_;
  std::size_t at_ = 0;
};

/// Reads one reply after the other; a reply of several kinds becomes as many entries.
class Parser {
 public:
  void line(const std::string& text) {
    Words words(text);
    if (words.done() || words.takeMark('#')) return;
    if (words.take("reply")) {
      finishReply();
      entry_.name = words.word();
    } else if (entry_.name.empty()) {
      throw Refused("a line stands outside of a reply");
    } else {
      lineOfReply(words);
    }
    words.mustBeDone();
  }

  std::vector<CorpusEntry> entries() {
    finishReply();
    return std::move(entries_);
  }

 private:
  void lineOfReply(Words& words) {
    const auto what = words.word();
    if (what == "kind") return kinds(words);
    if (what == "status") {
      entry_.status = words.number<int>();
    } else if (what == "before") {
      entry_.before += texts(words);
    } else if (what == "header") {
      entry_.headerLines += texts(words) + "\r\n";
    } else if (what == "in") {
      portions(words);
    } else if (what == "gives") {
      words.mustTake("up");
      entry_.keepsConnection = false;
    } else if (what == "sees") {
      sees(words);
    } else {
      body(what, words);
    }
  }

  void kinds(Words& words) {
    while (!words.done()) {
      const auto name = words.word();
      if (kindNamed(name) == nullptr) throw Refused("no request kind is named " + name);
      kinds_.push_back(name);
    }
  }

  static std::string texts(Words& words) {
    std::string out = words.text();
    while (!words.done()) out += words.text();
    return out;
  }

  void portions(Words& words) {
    if (words.take("portions")) {
      entry_.inPortions = true;
    } else {
      words.mustTake("records");
      entry_.inWholeRecords = true;
    }
  }

  void body(const std::string& what, Words& words) {
    if (what == "record" || what == "envelope") {
      entry_.starts.push_back(entry_.body.size());
    } else if (what != "body" && what != "field") {
      throw Refused("no line begins with \"" + what + "\"");
    }
    while (!words.done()) {
      if (words.takeMark('^')) entry_.lengths.push_back(entry_.body.size());
      if (words.atText()) {
        entry_.body += words.text();
      } else {
        entry_.body += words.byte();
      }
    }
  }

  void sees(Words& words) {
    auto& seen = entry_.expected;
    const auto what = words.word();
    if (what == "return") {
      seen.returnCode = words.number<int>();
    } else if (what == "status") {
      seen.statusCode = words.number<unsigned int>();
    } else if (what == "hit") {
      auto id = words.text();
      seen.hits.push_back({std::move(id), words.number<double>()});
    } else if (what == "row") {
      row(words);
    } else if (what == "estimate") {
      for (auto& value : seen.selectivity) value = words.number<std::uint64_t>();
    } else if (what == "content") {
      entry_.content = words.text();
    } else if (what == "message") {
      entry_.statusMessageId = words.text();
      entry_.statusMessageText = words.text();
    } else if (what == "error") {
      error(words);
    } else if (what == "end") {
      seen.endOfStream = true;
    } else {
      throw Refused("nothing that a caller sees is named \"" + what + "\"");
    }
  }

  void row(Words& words) {
    Parsed row{words.text(), {}, {}, 0};
    if (!words.done()) {
      row.messageId = words.text();
      row.messageText = words.text();
      row.level = words.number<int>();
    }
    entry_.expected.parsed.push_back(std::move(row));
  }

  void error(Words& words) {
    auto& seen = entry_.expected;
    seen.errorId = words.word();
    seen.errorText = words.text();
    words.mustTake("from");
    seen.errorFile = words.text();
    words.mustTake("level");
    seen.errorLevel = words.number<int>();
    if (words.take("line")) entry_.errorLine = words.number<unsigned long>();
    while (words.take("argument")) seen.errorArguments.push_back(words.text());
  }

  void finishReply() {
    if (entry_.name.empty()) return;
    if (kinds_.empty()) throw Refused(entry_.name + " has no kind");
    const auto star = entry_.name.find('*');
    if ((star == std::string::npos) != (kinds_.size() == 1)) {
      throw Refused(entry_.name + ": a * in the name stands for one of several kinds");
    }
    if (!entry_.starts.empty()) entry_.starts.push_back(entry_.body.size());
    for (const auto& kind : kinds_) {
      entries_.push_back(entry_);
      entries_.back().kind = kindNamed(kind)->kind;
      if (star != std::string::npos) entries_.back().name.replace(star, 1, inCamelCase(kind));
    }
    entry_ = {};
    kinds_.clear();
  }

  CorpusEntry entry_;
  std::vector<std::string> kinds_;
  std::vector<CorpusEntry> entries_;
};

}  // namespace

std::vector<CorpusEntry> parseCorpus(const std::string& text, const std::string& name) {
  std::istringstream lines(text);
  std::string line;
  int number = 0;
  Parser parser;
  try {
    while (std::getline(lines, line)) {
      ++number;
      parser.line(line);
    }
    return parser.entries();
  } catch (const Refused& refused) {
    throw std::runtime_error(name + ":" + std::to_string(number) + ": " + refused.what());
  }
}

std::vector<CorpusEntry> corpusFile(const std::string& name) {
  const auto path = std::string(KRUCOMM_CORPORA "/") + name;
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  if (!(text << in.rdbuf())) throw std::runtime_error("cannot read " + path);
  return parseCorpus(text.str(), path);
}

}  // namespace tq::test
