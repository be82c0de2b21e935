#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server/access/accessControl.h"
#include "server/base/base64.h"
#include "tests/support/temporaryDirectory.h"

namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

std::string basic(const std::string& name, const std::string& password) {
  return "Basic " + base64(name + ":" + password);
}

class AccessControlTest : public ::testing::Test {
 protected:
  void write(const std::string& text) const {
    std::ofstream(file_) << text;
    std::filesystem::permissions(
        file_, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }

  std::string read() const {
    std::ifstream stream(file_);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  /// Whose words these are; "nobody" if nobody's.
  static std::string who(AccessControl& access, const std::string& authorization) {
    if (!access.remembered(authorization)) access.check(authorization);
    const auto answer = access.remembered(authorization);
    if (!answer) return "not remembered";
    return *answer ? (*answer)->name() : "nobody";
  }

  std::string refusal() const {
    try {
      AccessControl access(file_);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "taken";
  }

  tq::test::TemporaryDirectory directory_;
  std::filesystem::path file_ = directory_.path() / "users";
};

TEST_F(AccessControlTest, PasswordAndTokenProveWhoSomebodyIs) {
  putAccount(file_, false, "ada", "pass:word", {{Right::Admin, "*"}});
  putAccount(file_, true, "loader", "s3cret", {{Right::Write, "books-*"}});
  AccessControl access(file_);
  EXPECT_EQ(who(access, basic("ada", "pass:word")), "ada");
  EXPECT_EQ(who(access, "Bearer loader.s3cret"), "loader");
  for (const std::string& wrong :
       {basic("ada", "pass:wor"), basic("ada", ""), basic("bob", "pass:word"),
        basic("loader", "s3cret"), std::string("Bearer ada.pass:word"),
        std::string("Bearer loader.s3cret "), std::string("Bearer loader"), std::string("Bearer "),
        std::string("Basic ada:pass:word"), std::string("Basic "), std::string("basic YQ=="),
        std::string("Digest x"), std::string(), "Bearer loader." + std::string(5000, 'x')}) {
    EXPECT_EQ(who(access, wrong), "nobody") << wrong;
  }
}

TEST_F(AccessControlTest, AnswerIsRememberedUntilTheFileIsReadAgain) {
  putAccount(file_, true, "t", "one", {});
  AccessControl access(file_);
  EXPECT_FALSE(access.remembered("Bearer t.one").has_value());
  EXPECT_EQ(who(access, "Bearer t.one"), "t");
  putAccount(file_, true, "t", "two", {});
  EXPECT_EQ(who(access, "Bearer t.one"), "t");
  access.reload();
  EXPECT_FALSE(access.remembered("Bearer t.one").has_value());
  EXPECT_EQ(who(access, "Bearer t.one"), "nobody");
  EXPECT_EQ(who(access, "Bearer t.two"), "t");
}

// Of the account "slip" every secret is wrong, and is found to be so at once.
TEST_F(AccessControlTest, WrongAnswersAreForgottenBeforeARightOneIs) {
  putAccount(file_, true, "t", "one", {});
  write(read() + "token slip x\n");
  AccessControl access(file_);
  EXPECT_EQ(who(access, "Bearer t.one"), "t");
  const auto wrong = [](int i) { return "Bearer slip." + std::to_string(i); };
  for (int i = 0; i < 20000; ++i) access.check(wrong(i));
  EXPECT_TRUE(access.remembered("Bearer t.one").has_value());
  EXPECT_TRUE(access.remembered(wrong(19999)).has_value());
  int remembered = 0;
  for (int i = 0; i < 20000; ++i) remembered += access.remembered(wrong(i)) ? 1 : 0;
  EXPECT_EQ(remembered, 10000);
}

TEST_F(AccessControlTest, LateWrongAnswersAreRememberedAsWellAsEarlyOnes) {
  write("token slip x\n");
  AccessControl access(file_);
  const auto wrong = [](int i) { return "Bearer slip." + std::to_string(i); };
  for (int i = 0; i < 100000; ++i) access.check(wrong(i));
  int late = 0;
  for (int i = 90000; i < 100000; ++i) late += access.remembered(wrong(i)) ? 1 : 0;
  EXPECT_GT(late, 5000);
}

TEST_F(AccessControlTest, WhatNoAccountCouldSayIsRefusedWithoutACheck) {
  putAccount(file_, true, "t", "one", {});
  const AccessControl access(file_);
  for (const std::string& said :
       {std::string("rubbish"), std::string("Basic x"), std::string("Basic YQ=="),
        std::string("Bearer t"), "Bearer t." + std::string(5000, 'x'), std::string()}) {
    const auto answer = access.remembered(said);
    ASSERT_TRUE(answer.has_value()) << said;
    EXPECT_EQ(*answer, nullptr) << said;
  }
  EXPECT_FALSE(access.remembered("Bearer t.two").has_value());
  EXPECT_FALSE(access.remembered("Bearer u.one").has_value());
}

TEST_F(AccessControlTest, FileThatCannotBeReadAgainChangesNothing) {
  putAccount(file_, true, "t", "one", {});
  AccessControl access(file_);
  write("nonsense\n");
  EXPECT_THROW(access.reload(), std::runtime_error);
  EXPECT_EQ(who(access, "Bearer t.one"), "t");
}

TEST_F(AccessControlTest, SecretsAreNotInTheFileAndEqualOnesLookDifferent) {
  putAccount(file_, false, "ada", "swordfish", {});
  putAccount(file_, false, "bob", "swordfish", {});
  const std::string text = read();
  EXPECT_THAT(text, Not(HasSubstr("swordfish")));
  const std::string hash = text.substr(text.find('$'), text.find('\n') - text.find('$'));
  EXPECT_EQ(text.find(hash, text.find(hash) + 1), std::string::npos);
  const auto mode = std::filesystem::status(file_).permissions();
  EXPECT_EQ(mode, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(AccessControlTest, AccountThatIsPutAgainKeepsEverybodyElse) {
  write("# mine\nuser ada x  # first\nallow ada read *\ntoken t y\nallow t write a-*\n");
  putAccount(file_, false, "ada", "new", {});
  EXPECT_THAT(read(), AllOf(HasSubstr("# mine\n"), HasSubstr("allow ada read *\n"),
                            HasSubstr("token t y\n"), HasSubstr("allow t write a-*\n"),
                            Not(HasSubstr("user ada x"))));
  putAccount(file_, false, "ada", "newer", {{Right::Admin, "b"}});
  EXPECT_THAT(read(), AllOf(HasSubstr("allow ada admin b\n"), Not(HasSubstr("allow ada read *")),
                            HasSubstr("allow t write a-*\n")));
  EXPECT_THROW(putAccount(file_, false, "a b", "x", {}), std::runtime_error);
  EXPECT_THROW(putAccount(file_, false, "", "x", {}), std::runtime_error);
}

TEST_F(AccessControlTest, AccountsThatArePutAtTheSameTimeAreAllThere) {
  std::vector<std::thread> programs;
  for (int program = 0; program < 4; ++program) {
    programs.emplace_back([&, program] {
      for (int i = 0; i < 3; ++i) {
        putAccount(file_, true, fmt::format("t{}-{}", program, i), "secret", {});
      }
    });
  }
  for (std::thread& program : programs) program.join();
  const std::string text = read();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 12);
  for (int program = 0; program < 4; ++program) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_THAT(text, HasSubstr(fmt::format("token t{}-{} ", program, i)));
    }
  }
  EXPECT_FALSE(std::filesystem::exists(file_.string() + ".new"));
}

TEST_F(AccessControlTest, AccountThatCannotBePutLeavesNothingBehind) {
  write("nonsense\n");
  std::filesystem::permissions(file_, std::filesystem::perms::all);
  EXPECT_THROW(putAccount(file_, true, "t", "secret", {}), std::runtime_error);
  EXPECT_FALSE(std::filesystem::exists(file_.string() + ".new"));
}

TEST_F(AccessControlTest, RightsIncludeEachOtherAndHoldForAPattern) {
  const Identity identity("x", {{Right::Write, "books-*"}, {Right::Read, "*-2024*"}});
  EXPECT_TRUE(identity.may(Right::Write, "books-"));
  EXPECT_TRUE(identity.may(Right::Read, "books-old"));
  EXPECT_FALSE(identity.may(Right::Admin, "books-old"));
  EXPECT_TRUE(identity.may(Right::Read, "films-2024-may"));
  EXPECT_FALSE(identity.may(Right::Write, "films-2024-may"));
  EXPECT_FALSE(identity.may(Right::Read, "films"));
  EXPECT_FALSE(identity.may(Right::Read, "mybooks-a"));
  EXPECT_FALSE(identity.may(Right::Read, std::nullopt));
  EXPECT_TRUE(Identity("y", {{Right::Admin, "*"}}).may(Right::Write, std::nullopt));
  EXPECT_FALSE(Identity("z", {}).may(Right::Read, "a"));
}

TEST_F(AccessControlTest, StarsOfAPatternStandForAnyTexts) {
  const auto matches = [](const std::string& pattern, const std::string& name) {
    return Identity("x", {{Right::Read, pattern}}).may(Right::Read, name);
  };
  const std::vector<std::pair<std::string, std::string>> matching{
      {"a", "a"},         {"*", ""},          {"**", "a"},        {"a*", "a"},
      {"*a", "aa"},       {"a*a", "aa"},      {"a*b*c", "abc"},   {"a*b*c", "a-b-c-b-c"},
      {"*ab*ab", "abab"}, {"*ab", "abaab"},   {"*-*-x", "a-b-x"}, {"*aab*", "aaab"},
      {"a**b", "ab"},     {"*ab*c", "aabac"}, {"a*bc", "abcbc"}};
  for (const auto& [pattern, name] : matching) {
    EXPECT_TRUE(matches(pattern, name)) << pattern << " " << name;
  }
  const std::vector<std::pair<std::string, std::string>> others{
      {"a", "aa"},     {"a*a", "a"},     {"*ab*ab", "ab"},  {"*ab*ab", "abb"},
      {"a*b*c", "ac"}, {"a*b*c", "acb"}, {"*-*-x", "a-x"},  {"a*", "ba"},
      {"*a", "ab"},    {"a*bc", "abcb"}, {"*aab*", "abab"}, {"a*b", "cab"}};
  for (const auto& [pattern, name] : others) {
    EXPECT_FALSE(matches(pattern, name)) << pattern << " " << name;
  }
}

// Whoever tries each place for each star is busy with this for ever.
TEST_F(AccessControlTest, NameIsReadOnceHoweverManyStarsThereAre) {
  const Identity identity("x", {{Right::Write, "*a*a*a*a*b"}, {Right::Write, "*-*-*-*-x"}});
  EXPECT_FALSE(identity.may(Right::Write, std::string(60000, 'a')));
  EXPECT_FALSE(identity.may(Right::Write, std::string(60000, '-')));
  EXPECT_TRUE(identity.may(Right::Write, std::string(60000, 'a') + "b"));
}

TEST_F(AccessControlTest, WrongLinesAreNamed) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"user ada\n", "line 1"},
      {"\n# x\nuser ada x y\n", "line 3"},
      {"user ada x\nallow ada own *\n", "read"},
      {"user ada x\nallow ada read\n", "line 2"},
      {"user ada x\ntoken ada y\n", "twice"},
      {"user a/b x\n", "letters"},
      {"owner ada x\n", "expected"},
      {"allow ada read *\n", "names no account"}};
  for (const auto& [text, expected] : cases) {
    write(text);
    EXPECT_THAT(refusal(), AllOf(HasSubstr(file_.string()), HasSubstr(expected))) << text;
  }
}

TEST_F(AccessControlTest, FileThatOthersCanReadIsRefused) {
  EXPECT_THAT(refusal(), HasSubstr(file_.string()));
  write("user ada x\n");
  EXPECT_EQ(refusal(), "taken");
  for (const auto mode : {std::filesystem::perms::group_read, std::filesystem::perms::others_read,
                          std::filesystem::perms::group_write}) {
    std::filesystem::permissions(file_, std::filesystem::perms::owner_all | mode);
    EXPECT_THAT(refusal(), HasSubstr("chmod 600"));
  }
}

TEST_F(AccessControlTest, FreshSecretsDiffer) {
  EXPECT_NE(freshSecret(), freshSecret());
  EXPECT_EQ(freshSecret().size(), 43U);
}

}  // namespace
}  // namespace corvaned
