#include "server/faults/faultScript.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <utility>

#include "server/base/errors.h"
#include "server/front/actions.h"

namespace corvaned {
namespace {

constexpr std::uint64_t kLongestWait = 3600000;
constexpr std::uint64_t kMaxBytes = std::uint64_t{1} << 32U;

constexpr std::string_view kConditions =
    "\"all\", \"reply N\", \"reply N-M\", \"every N\", \"chance P\", \"action NAME\", \"http\" or "
    "\"binary\"";
constexpr std::string_view kFaultNames = "delay, split, drip, drop, reset, length, record or end";

/// One statement, split into words. ":" and "," count as words.
class Statement {
 public:
  Statement(std::string_view statement, std::size_t line) : line_(line) {
    while (!statement.empty()) {
      const std::size_t blank = statement.find_first_not_of(" \t\r");
      if (blank == std::string_view::npos) return;
      statement.remove_prefix(blank);
      std::size_t end = statement.find_first_of(" \t\r:,");
      if (end == 0) end = 1;
      words_.push_back(statement.substr(0, end));
      statement.remove_prefix(words_.back().size());
    }
  }

  bool empty() const { return position_ == words_.size(); }
  std::string_view peek() const { return empty() ? std::string_view{} : words_[position_]; }

  bool takeIf(std::string_view word) {
    if (peek() != word) return false;
    ++position_;
    return true;
  }

  std::string_view take(std::string_view wanted) {
    if (empty() || peek() == ":" || peek() == ",") {
      fail("expected " + std::string(wanted) + (empty() ? "" : " in front of " + shown(peek())));
    }
    return words_[position_++];
  }

  std::uint64_t number(std::string_view wanted, std::uint64_t least, std::uint64_t most) {
    return numberOf(take(wanted), wanted, least, most);
  }

  std::uint64_t numberOf(std::string_view word, std::string_view wanted, std::uint64_t least,
                         std::uint64_t most) const {
    std::uint64_t value = 0;
    const auto parsed = std::from_chars(word.data(), word.data() + word.size(), value);
    if (parsed.ec != std::errc{} || parsed.ptr != word.data() + word.size() || value < least ||
        value > most) {
      fail(fmt::format("{} is not {}, a number from {} to {}", shown(word), wanted, least, most));
    }
    return value;
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw FaultScriptError(fmt::format("line {}: {}", line_, what));
  }

 private:
  std::size_t line_;
  std::vector<std::string_view> words_;
  std::size_t position_ = 0;
};

void takeReplyNumbers(Statement& words, FaultRule& rule) {
  constexpr std::string_view kWanted = "the number of a reply";
  const std::string_view range = words.take(kWanted);
  const std::size_t dash = range.find('-');
  const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  rule.first = words.numberOf(range.substr(0, dash), kWanted, 1, most);
  rule.last = dash == std::string_view::npos
                  ? rule.first
                  : words.numberOf(range.substr(dash + 1), kWanted, rule.first, most);
}

void takeChance(Statement& words, FaultRule& rule) {
  const std::string_view word = words.take("a probability");
  const auto parsed = std::from_chars(word.data(), word.data() + word.size(), rule.chance);
  if (parsed.ec != std::errc{} || parsed.ptr != word.data() + word.size() || !(rule.chance >= 0) ||
      !(rule.chance <= 1)) {
    words.fail(shown(word) + " is not a probability, a number from 0 to 1");
  }
}

void takeAction(Statement& words, FaultRule& rule) {
  rule.action = words.take("the name of an action");
  if (!findAction(rule.action)) words.fail("no action is called " + shown(rule.action));
}

void takeCondition(Statement& words, FaultRule& rule) {
  const std::string_view word = words.take("which replies are meant");
  if (word == "reply") return takeReplyNumbers(words, rule);
  if (word == "chance") return takeChance(words, rule);
  if (word == "action") return takeAction(words, rule);
  if (word == "every") {
    rule.every = words.number("a count of replies", 1, std::numeric_limits<std::uint64_t>::max());
  } else if (word == "http") {
    rule.protocol = Framing::Http;
  } else if (word == "binary") {
    rule.protocol = Framing::Binary;
  } else if (word != "all") {
    words.fail(shown(word) + " does not say which replies; say " + std::string(kConditions));
  }
}

std::chrono::milliseconds takeWait(Statement& words) {
  return std::chrono::milliseconds(words.number("a time in milliseconds", 0, kLongestWait));
}

std::int64_t takeLengthError(Statement& words) {
  std::string_view word = words.take("+BYTES or -BYTES");
  const std::string_view whole = word;
  const bool signedWord = word.starts_with('+') || word.starts_with('-');
  if (!signedWord) words.fail(shown(whole) + " is not +BYTES or -BYTES");
  word.remove_prefix(1);
  const auto size =
      static_cast<std::int64_t>(words.numberOf(word, "a count of bytes", 1, kMaxBytes));
  return whole.front() == '-' ? -size : size;
}

Tamper takeTamper(Statement& words) {
  const std::string_view word = words.take("\"missing\" or \"extra\"");
  if (word == "missing") return Tamper::Missing;
  if (word != "extra") words.fail(shown(word) + " is neither \"missing\" nor \"extra\"");
  return Tamper::Extra;
}

// Returns what the fault determines; only one fault of a rule may determine it.
std::string_view takeFault(Statement& words, Faults& faults) {
  const std::string_view name = words.take("a fault");
  if (name == "delay") {
    faults.delay = takeWait(words);
  } else if (name == "split" || name == "drip") {
    faults.piece = words.number("a count of bytes", 1, kMaxBytes);
    if (name == "drip") faults.pause = takeWait(words);
    return "size of the pieces";
  } else if (name == "drop") {
    faults.dropAfter = words.number("a count of bytes", 0, kMaxBytes);
    return "end of the connection";
  } else if (name == "reset") {
    faults.resetAfter = words.number("a count of bytes", 0, kMaxBytes);
    return "end of the connection";
  } else if (name == "length") {
    faults.lengthError = takeLengthError(words);
  } else if (name == "record") {
    faults.record = takeTamper(words);
  } else if (name == "end") {
    faults.end = takeTamper(words);
  } else {
    words.fail("there is no fault " + shown(name) + "; there are " + std::string(kFaultNames));
  }
  return name;
}

FaultRule takeRule(Statement& words) {
  FaultRule rule;
  do takeCondition(words, rule);
  while (!words.empty() && words.peek() != ":" && words.peek() != ",");
  if (!words.takeIf(":")) words.fail("expected \":\" and the faults behind the replies");
  std::set<std::string_view> decided;
  do {
    const std::string_view what = takeFault(words, rule.faults);
    if (!decided.insert(what).second) {
      words.fail("the " + std::string(what) + " is given twice in one rule");
    }
  } while (words.takeIf(","));
  if (!words.empty()) words.fail("expected \",\" or the end in front of " + shown(words.peek()));
  return rule;
}

void takeStatement(Statement words, FaultScript& script) {
  if (words.empty()) return;
  if (!words.takeIf("seed")) {
    script.rules.push_back(takeRule(words));
    return;
  }
  script.seed = words.number("a seed", 0, std::numeric_limits<std::uint64_t>::max());
  if (!words.empty()) words.fail("expected nothing behind the seed");
}

std::string_view cutAt(std::string_view& rest, char mark) {
  const std::size_t end = rest.find(mark);
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return part;
}

}  // namespace

FaultScript parseFaultScript(std::string_view text) {
  FaultScript script;
  for (std::size_t number = 1; !text.empty(); ++number) {
    std::string_view line = cutAt(text, '\n');
    line = line.substr(0, line.find('#'));
    while (!line.empty()) takeStatement(Statement(cutAt(line, ';'), number), script);
  }
  if (script.rules.empty()) throw FaultScriptError("the script has no rule");
  return script;
}

FaultScript loadFaultScript(const std::string& fileOrText) {
  std::error_code ignored;
  if (!std::filesystem::exists(fileOrText, ignored)) {
    if (fileOrText.find(':') != std::string::npos) return parseFaultScript(fileOrText);
    throw FaultScriptError(shown(fileOrText) + " is neither a file nor a script");
  }
  if (std::filesystem::is_directory(fileOrText, ignored)) {
    throw FaultScriptError(shown(fileOrText) + " is a directory");
  }
  std::ifstream file(fileOrText, std::ios::binary);
  if (!file) throw FaultScriptError("cannot read " + shown(fileOrText));
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  try {
    return parseFaultScript(text);
  } catch (const FaultScriptError& error) {
    throw FaultScriptError(shown(fileOrText) + " " + error.what());
  }
}

}  // namespace corvaned
