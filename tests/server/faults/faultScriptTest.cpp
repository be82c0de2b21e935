#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "server/faults/faultPlan.h"
#include "server/faults/faultScript.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

FaultRule onlyRule(const std::string& text) {
  const FaultScript script = parseFaultScript(text);
  EXPECT_EQ(script.rules.size(), 1U) << text;
  return script.rules.at(0);
}

TEST(FaultScript, EachConditionPicksWhatItSays) {
  EXPECT_FALSE(onlyRule("all: drop 1").protocol.has_value());
  EXPECT_EQ(onlyRule("http: drop 1").protocol, Framing::Http);
  EXPECT_EQ(onlyRule("binary: drop 1").protocol, Framing::Binary);
  EXPECT_EQ(onlyRule("action search: drop 1").action, "search");
  EXPECT_EQ(onlyRule("every 3: drop 1").every, 3U);
  EXPECT_EQ(onlyRule("chance 0.25: drop 1").chance, 0.25);
  const FaultRule one = onlyRule("reply 3: drop 1");
  EXPECT_EQ(one.first, 3U);
  EXPECT_EQ(one.last, 3U);
  const FaultRule range = onlyRule("reply 3-5: drop 1");
  EXPECT_EQ(range.first, 3U);
  EXPECT_EQ(range.last, 5U);
}

TEST(FaultScript, EachFaultIsTakenWithItsNumbers) {
  const Faults timed = onlyRule("all: delay 20, drip 3 40, reset 7").faults;
  EXPECT_EQ(timed.delay.count(), 20);
  EXPECT_EQ(timed.piece, 3U);
  EXPECT_EQ(timed.pause.count(), 40);
  EXPECT_EQ(timed.resetAfter, 7U);
  EXPECT_FALSE(timed.dropAfter.has_value());
  EXPECT_FALSE(timed.lies());
  const Faults plain = onlyRule("all: split 5, drop 0").faults;
  EXPECT_EQ(plain.piece, 5U);
  EXPECT_EQ(plain.pause.count(), 0);
  EXPECT_EQ(plain.dropAfter, 0U);
  const Faults lying = onlyRule("all:length -9,record extra,end missing").faults;
  EXPECT_EQ(lying.lengthError, -9);
  EXPECT_EQ(lying.record, Tamper::Extra);
  EXPECT_EQ(lying.end, Tamper::Missing);
  EXPECT_TRUE(lying.lies());
  EXPECT_EQ(onlyRule("all: length +4").faults.lengthError, 4);
}

TEST(FaultScript, CommentsBlankLinesAndSeveralRulesOfALine) {
  const FaultScript script = parseFaultScript(
      "# nothing\n\n  seed 42 ; reply 1 http action addDocument : drop 5  # why\r\n"
      "\tevery 2: split 1;;all: delay 1\n");
  EXPECT_EQ(script.seed, 42U);
  ASSERT_EQ(script.rules.size(), 3U);
  EXPECT_EQ(script.rules[0].action, "addDocument");
  EXPECT_EQ(script.rules[0].protocol, Framing::Http);
  EXPECT_EQ(script.rules[1].every, 2U);
  EXPECT_EQ(script.rules[2].faults.delay.count(), 1);
}

struct BadScript {
  std::string text;
  std::string message;
};
void PrintTo(const BadScript& script, std::ostream* out) { *out << script.text; }

class BadFaultScript : public ::testing::TestWithParam<BadScript> {};

TEST_P(BadFaultScript, IsRefusedWithItsLineAndWhatIsWrong) {
  try {
    parseFaultScript(GetParam().text);
    FAIL() << "accepted";
  } catch (const FaultScriptError& error) {
    EXPECT_THAT(error.what(), HasSubstr(GetParam().message));
    EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, BadFaultScript,
    ::testing::Values(
        BadScript{"", "no rule"}, BadScript{"# all: drop 1\nseed 3", "no rule"},
        BadScript{"all: drop 1\nall: dorp 1", "line 2: there is no fault \"dorp\""},
        BadScript{"\n\nsometimes: drop 1", "line 3: \"sometimes\" does not say which replies"},
        BadScript{"all", "line 1: expected \":\""}, BadScript{": drop 1", "line 1: expected which"},
        BadScript{"all:", "line 1: expected a fault"},
        BadScript{"all: drop 1,", "line 1: expected a fault"},
        BadScript{"all: , drop 1", "line 1: expected a fault in front of \",\""},
        BadScript{"all: drop", "line 1: expected a count of bytes"},
        BadScript{"all: drop 1 2", "in front of \"2\""}, BadScript{"all: drop -1", "\"-1\" is not"},
        BadScript{"all: drop 1x", "\"1x\" is not a count of bytes"},
        BadScript{"all: drop 99999999999999999999", "is not a count of bytes"},
        BadScript{"all: delay 3600001", "from 0 to 3600000"},
        BadScript{"all: split 0", "from 1 to"}, BadScript{"all: drip 5", "time in milliseconds"},
        BadScript{"all: length 5", "\"5\" is not +BYTES or -BYTES"},
        BadScript{"all: length +", "\"\" is not a count"}, BadScript{"all: length +0", "from 1 to"},
        BadScript{"all: record twice", "neither \"missing\" nor \"extra\""},
        BadScript{"all: end", "expected \"missing\" or \"extra\""},
        BadScript{"all: drop 1, reset 1", "end of the connection is given twice"},
        BadScript{"all: split 1, drip 1 1", "size of the pieces is given twice"},
        BadScript{"all: delay 1, delay 2", "the delay is given twice"},
        BadScript{"reply 0: drop 1", "the number of a reply"},
        BadScript{"reply 5-4: drop 1", "\"4\" is not the number of a reply"},
        BadScript{"reply: drop 1", "expected the number of a reply in front of \":\""},
        BadScript{"every 0: drop 1", "from 1 to"},
        BadScript{"chance 1.5: drop 1", "not a probability"},
        BadScript{"chance nan: drop 1", "not a probability"},
        BadScript{"chance -0.5: drop 1", "not a probability"},
        BadScript{"action serch: drop 1", "no action is called \"serch\""},
        BadScript{"seed x; all: drop 1", "\"x\" is not a seed"},
        BadScript{"seed 1 2; all: drop 1", "nothing behind the seed"}));

TEST(FaultScript, IsReadFromAFileAndErrorsNameIt) {
  tq::test::TemporaryDirectory directory;
  const std::string path = (directory.path() / "script").string();
  std::ofstream(path) << "all: drop 1\n";
  EXPECT_EQ(loadFaultScript(path).rules.size(), 1U);
  std::ofstream(path) << "all: drop 1\nall drop 1\n";
  try {
    loadFaultScript(path);
    FAIL() << "accepted";
  } catch (const FaultScriptError& error) {
    EXPECT_THAT(error.what(), StartsWith("\"" + path + "\" line 2: "));
  }
}

TEST(FaultScript, TextInPlaceOfAFile) {
  EXPECT_EQ(loadFaultScript("reply 2: drop 1").rules.at(0).first, 2U);
  EXPECT_THROW(loadFaultScript("/nowhere/script"), FaultScriptError);
  EXPECT_THROW(loadFaultScript("/tmp"), FaultScriptError);
}

std::string picked(FaultPlan& plan, int replies, Framing framing = Framing::Http,
                   const std::string& action = "search") {
  std::string result;
  for (int i = 0; i < replies; ++i) {
    const Faults faults = plan.next(framing, action);
    result += faults.dropAfter ? static_cast<char>('0' + *faults.dropAfter) : '-';
  }
  return result;
}

TEST(FaultPlan, CountsTheRepliesThatARuleIsAbout) {
  FaultPlan numbered(parseFaultScript("reply 2-3: drop 1; every 4: drop 2"));
  EXPECT_EQ(picked(numbered, 9), "-112---2-");
  FaultPlan byAction(parseFaultScript("reply 2 action search: drop 1"));
  EXPECT_EQ(picked(byAction, 1), "-");
  EXPECT_EQ(picked(byAction, 3, Framing::Http, "addDocument"), "---");
  EXPECT_EQ(picked(byAction, 2), "1-");
  FaultPlan byProtocol(parseFaultScript("every 2 binary: drop 1"));
  EXPECT_EQ(picked(byProtocol, 4, Framing::Http), "----");
  EXPECT_EQ(picked(byProtocol, 4, Framing::Binary), "-1-1");
}

TEST(FaultPlan, TheFirstRuleThatPicksAReplyCounts) {
  FaultPlan plan(parseFaultScript("reply 2: drop 1\nall: drop 2\nall: drop 3"));
  EXPECT_EQ(picked(plan, 4), "2122");
}

TEST(FaultPlan, ChanceFollowsTheSeed) {
  const auto draw = [](const std::string& script) {
    FaultPlan plan(parseFaultScript(script));
    return picked(plan, 1000);
  };
  const std::string one = draw("seed 1; chance 0.3: drop 1");
  EXPECT_EQ(draw("seed 1; chance 0.3: drop 1"), one);
  EXPECT_NE(draw("seed 2; chance 0.3: drop 1"), one);
  EXPECT_NEAR(static_cast<double>(std::count(one.begin(), one.end(), '1')), 300, 60);
  EXPECT_EQ(draw("chance 0: drop 1"), std::string(1000, '-'));
  EXPECT_EQ(draw("chance 1: drop 1"), std::string(1000, '1'));
}

}  // namespace
}  // namespace corvaned
