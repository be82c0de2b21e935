#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/cli/childProcess.h"
#include "tests/support/corvanedProcess.h"
#include "tests/support/temporaryDirectory.h"

using namespace corvane::test;
using ::testing::HasSubstr;

namespace {

// The program itself against the server itself, over each protocol.
class Program : public ::testing::TestWithParam<const char*> {
 protected:
  Finished run(std::vector<std::string> arguments, const std::string& input = {}) const {
    return runOver(GetParam(), std::move(arguments), input);
  }

  Finished runOver(const std::string& protocol, std::vector<std::string> arguments,
                   const std::string& input = {}) const {
    arguments.insert(arguments.begin(),
                     {CORVANE_PROGRAM, "--protocol", protocol, "--port", serverPort(protocol)});
    return runToEnd(arguments, input);
  }

  // What the program prints when all is well.
  std::string output(std::vector<std::string> arguments, const std::string& input = {}) const {
    const Finished finished = run(std::move(arguments), input);
    EXPECT_EQ(finished.code, 0) << finished.err;
    EXPECT_EQ(finished.err, "");
    return finished.out;
  }

  void loadAll(const std::string& lines) const {
    output({"create", "c"});
    output({"load", "c", "-", "--update"}, lines);
  }

  std::string serverPort(const std::string& protocol) const {
    return std::to_string(protocol == "http" ? server_.httpPort() : server_.binaryPort());
  }

  tq::test::CorvanedProcess server_;
};

std::string manyDocuments(int count) {
  std::string lines;
  for (int i = 0; i < count; ++i) {
    lines += "{\"key\":\"k" + std::to_string(i) + "\",\"text\":\"common word" + std::to_string(i) +
             "\",\"n\":" + std::to_string(i) + "}\n";
  }
  return lines;
}

std::size_t lineCount(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST_P(Program, TakesACollectionThroughItsWholeLife) {
  EXPECT_EQ(output({"create", "books"}), "created books\n");
  EXPECT_EQ(output({"add", "books", "k1", "the lighthouse keeper", "--meta", "author=W"}),
            "added k1 to books\n");
  EXPECT_EQ(output({"update", "books"}), "updated books\n");
  EXPECT_THAT(output({"search", "books", "lighthouse"}), HasSubstr("  k1\n"));
  EXPECT_EQ(output({"delete", "books", "k1"}), "deleted k1\n");
  output({"update", "books"});
  const Finished none = run({"search", "books", "lighthouse"});
  EXPECT_EQ(none.code, 0);
  EXPECT_EQ(none.out, "");
  EXPECT_EQ(none.err, "no document matches\n");
  EXPECT_EQ(output({"drop", "books"}), "dropped books\n");
  EXPECT_EQ(run({"search", "books", "lighthouse"}).code, 1);
}

TEST_P(Program, ConfiguresHowDocumentsAreRead) {
  output({"create", "pages"});
  EXPECT_EQ(output({"configure", "pages", "--type", "html", "--charset", "ISO-8859-1", "--language",
                    "de"}),
            "configured pages\n");
  output({"add", "pages", "k1", "<p>die Leuchtt\xfcrme</p><script>hidden</script>"});
  EXPECT_EQ(output({"configure", "pages"}), "configured pages\n");
  output({"add", "pages", "k2", "<script>shown</script>"});
  output({"update", "pages"});
  EXPECT_THAT(output({"search", "pages", "leuchtt\xc3\xbcrme"}), HasSubstr("  k1\n"));
  EXPECT_EQ(run({"search", "pages", "hidden"}).out, "");
  EXPECT_THAT(output({"search", "pages", "shown"}), HasSubstr("  k2\n"));
  EXPECT_THAT(run({"configure", "pages", "--type", "pdf"}).err, HasSubstr("(ZVK0006E)"));
  EXPECT_THAT(run({"configure", "none"}).err, HasSubstr("(ZVK0007E)"));
}

TEST_P(Program, CreatesACollectionWithOptionsOfItsOwn) {
  EXPECT_EQ(output({"create", "notes", "--refresh", "immediate", "--language", "de", "--stop-words",
                    "der, die", "--without-positions"}),
            "created notes\n");
  output({"add", "notes", "k1", "die Leuchtt\xc3\xbcrme"});
  EXPECT_THAT(output({"search", "notes", "der leuchtturm"}), HasSubstr("  k1\n"));
  EXPECT_THAT(run({"search", "notes", "\"die Leuchtt\xc3\xbcrme\""}).err, HasSubstr("(ZVK0010E)"));
  output({"create", "plain", "--without-stemming", "--marked-metadata"});
  output({"add", "plain", "k1", "lighthouses", "--meta", "author=Woolf", "--meta",
          "Indexable:year=1927"});
  output({"update", "plain"});
  EXPECT_EQ(run({"search", "plain", "lighthouse"}).out, "");
  EXPECT_EQ(run({"search", "plain", "author:Woolf"}).out, "");
  EXPECT_THAT(output({"search", "plain", "year:1927"}), HasSubstr("  k1\n"));
  EXPECT_THAT(run({"create", "other", "--refresh", "soon"}).err, HasSubstr("(ZVK0006E)"));
}

TEST_P(Program, LoadsMoreThanOneWindowOfDocuments) {
  output({"create", "c"});
  EXPECT_EQ(output({"load", "c", "-", "--update"}, manyDocuments(4500)),
            "loaded 4500 documents into c, 0 refused\nupdated c\n");
  EXPECT_EQ(lineCount(output({"search", "c", "common"})), 4500U);
}

TEST_P(Program, LoadsAFileAndTheLastOfTwoDocumentsWithOneKey) {
  const std::string path =
      (std::filesystem::temp_directory_path() / ("corvane-load-" + serverPort(GetParam())))
          .string();
  std::ofstream(path)
      << "{\"key\":\"k\",\"text\":\"former\"}\n{\"key\":\"k\",\"text\":\"latter\"}\n";
  output({"create", "c"});
  EXPECT_EQ(output({"load", "c", path, "--update"}),
            "loaded 2 documents into c, 0 refused\nupdated c\n");
  std::filesystem::remove(path);
  EXPECT_THAT(output({"search", "c", "latter"}), HasSubstr("  k\n"));
  EXPECT_EQ(run({"search", "c", "former"}).out, "");
}

TEST_P(Program, LosesNothingToBadLines) {
  output({"create", "c"});
  const Finished finished = run({"load", "c", "-"},
                                "{\"key\":\"a\",\"text\":\"x\"}\nnot json\n{\"text\":\"y\"}\n"
                                "{\"key\":\"b\",\"text\":\"x\"}\n");
  EXPECT_EQ(finished.code, 4);
  EXPECT_EQ(finished.out, "loaded 2 documents into c, 2 refused\n");
  EXPECT_THAT(finished.err, HasSubstr("corvane: line 2: not JSON"));
  EXPECT_THAT(finished.err, HasSubstr("corvane: line 3: the object has no \"key\"\n"));
  EXPECT_THAT(finished.err, HasSubstr("\nsearches find the documents after 'corvane update c'\n"));
  EXPECT_EQ(lineCount(finished.err), 3U);
}

TEST_P(Program, LoadsKeysAndTextsOfEveryKind) {
  const std::string longest(128, 'k');
  loadAll(
      "{\"key\":\"caf\\u00e9 \\ud83d\\ude00\",\"text\":\"apple\"}\n"
      "{\"key\":\"tab\\tkey\",\"text\":\"apple \\u0000 \\r\\n pear\"}\n"
      "{\"key\":\"base64:eA==\",\"text\":\"apple\"}\n"
      "{\"key\":\"nul\\u0000key\",\"text\":\"apple\"}\n"
      "{\"key\":\"" +
      longest +
      "\",\"text\":\"apple\"}\n"
      "{\"key\":7,\"text\":\"apple\",\"rowId\":\"r\",\"data\":\"d\",\"key2\":null}\n");
  const std::string found = output({"search", "c", "apple"});
  EXPECT_EQ(lineCount(found), 6U) << found;
  EXPECT_THAT(found, HasSubstr("  caf\xc3\xa9 \xf0\x9f\x98\x80\n"));
  EXPECT_THAT(found, HasSubstr("  base64:eA==\n"));
  EXPECT_THAT(found, HasSubstr("  base64:dGFiCWtleQ==\n"));
  EXPECT_THAT(found, HasSubstr("  " + longest + "\n"));
  EXPECT_THAT(found, HasSubstr("  7\n"));
  EXPECT_THAT(output({"search", "c", "apple", "--json"}), HasSubstr("\"key\":\"nul\\u0000key\""));
}

TEST_P(Program, DeletesByTheFormThatSearchShows) {
  loadAll("{\"key\":\"tab\\tkey\",\"text\":\"apple\"}\n");
  output({"delete", "c", "--base64", "base64:dGFiCWtleQ=="});
  output({"update", "c"});
  EXPECT_EQ(run({"search", "c", "apple"}).out, "");
}

TEST_P(Program, PrintsPagesOfOneResult) {
  loadAll(manyDocuments(30));
  const std::string all = output({"search", "c", "common"});
  EXPECT_EQ(lineCount(all), 30U);
  EXPECT_EQ(output({"search", "c", "common", "--limit", "12"}) +
                output({"search", "c", "common", "--start", "12", "--limit", "12"}) +
                output({"search", "c", "common", "--start", "24"}),
            all);
}

TEST_P(Program, PrintsPagesOfOneState) {
  loadAll(manyDocuments(30));
  const std::string all = output({"search", "c", "common"});
  std::string printed;
  std::vector<std::string> arguments{"search", "c", "common", "--limit", "12", "--pages"};
  for (int page = 0; page < 3; ++page) {
    std::string out = output(arguments);
    output({"delete", "c", "k1"});
    const std::string mark = "the next page: --after ";
    const std::size_t told = out.find(mark);
    ASSERT_EQ(told == std::string::npos, page == 2) << out;
    if (page == 0) arguments.insert(arguments.end(), {"--after", ""});
    if (page < 2)
      arguments.back() = out.substr(told + mark.size(), out.size() - told - mark.size() - 1);
    printed += out.substr(0, told);
  }
  EXPECT_EQ(printed, all);
  output({"update", "c"});
  EXPECT_THAT(run(arguments).err, HasSubstr("ZVK0035E"));
}

TEST_P(Program, PrintsTheHitsOfSeveralCollectionsInOneRanking) {
  output({"create", "my notes"});
  output({"add", "my notes", "k", "apple"});
  output({"update", "my notes"});
  loadAll("{\"key\":\"k\",\"text\":\"an apple among many pears\"}\n");
  const std::string found = output({"search", "c", "apple", "--limit", "10", "--also", "my notes"});
  EXPECT_THAT(found, ::testing::StartsWith("    1    1.000  k  (my notes)\n    2    0."));
  EXPECT_THAT(found, ::testing::EndsWith("  k  (c)\n"));
  output({"drop", "my notes"});
}

TEST_P(Program, PrintsTheSameResultOverBothProtocols) {
  loadAll(manyDocuments(3000));
  const Finished http = runOver("http", {"search", "c", "common", "--json"});
  const Finished binary = runOver("binary", {"search", "c", "common", "--json"});
  EXPECT_EQ(http.code, 0) << http.err;
  EXPECT_EQ(lineCount(http.out), 3000U);
  EXPECT_EQ(http.out, binary.out);
}

TEST_P(Program, ReportsWhatTheServerRefusesInItsWords) {
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"search", "nowhere", "x"},
        {"update", "nowhere"},
        {"drop", "nowhere"},
        {"load", "nowhere", "-"},
        {"estimate", "nowhere", "x"},
        {"add", "nowhere", "k", "t"},
        {"delete", "nowhere", "k"}}) {
    // The other protocol carries none and is refused before the server is asked.
    if (command[0] == "estimate" && std::string(GetParam()) == "http") continue;
    const Finished finished = run(command, "{\"key\":\"a\",\"text\":\"x\"}\n");
    EXPECT_EQ(finished.code, 1) << command[0];
    EXPECT_EQ(lineCount(finished.err), 1U) << finished.err;
    EXPECT_THAT(finished.err, HasSubstr("(ZVK0007E)")) << command[0];
    EXPECT_THAT(finished.err, HasSubstr("127.0.0.1:" + serverPort(GetParam())));
  }
}

TEST_P(Program, SaysThatACollectionIsNotAvailable) {
  const Finished finished = run({"status", "nowhere"});
  EXPECT_EQ(finished.code, 1);
  EXPECT_THAT(finished.out, HasSubstr("not available (2)"));
  // Only the binary protocol's reply carries the reason.
  if (std::string(GetParam()) == "binary") {
    EXPECT_THAT(finished.out, HasSubstr("(ZVK0007E)"));
  }
}

TEST_P(Program, ListsCollectionsWithWhatTheyAre) {
  EXPECT_EQ(run({"list"}).err, "there are no collections\n");
  output({"create", "my notes", "--refresh", "1000", "--language", "de", "--without-text",
          "--stop-words", "der die"});
  loadAll(manyDocuments(30));
  output({"delete", "c", "k1"});
  const std::string bytes = " [0-9]* bytes, ";
  const std::string c = "c: 30 documents, 1 pending," + bytes + "language en_us, refresh manual\n";
  const std::string notes = "my notes: 0 documents, 0 pending," + bytes +
                            "language de, storeText false, stopWords 2, refresh 1000\n";
  EXPECT_THAT(output({"list"}), ::testing::MatchesRegex(c + notes));
  EXPECT_THAT(output({"list", "my notes"}), ::testing::MatchesRegex(notes));
  const std::string json = output({"list", "c", "--json"});
  EXPECT_THAT(json, HasSubstr(R"({"collection":"c","documents":30,"pending":1,"bytes":)"));
  EXPECT_THAT(json, HasSubstr(R"(,"language":"en_us","refresh":"manual"})"));
  EXPECT_THAT(run({"list", "nowhere"}).err, HasSubstr("(ZVK0007E)"));
}

TEST_P(Program, ListsMoreCollectionsThanAPageHas) {
  std::string names;
  for (int i = 100; i < 250; ++i) {
    const std::string name = "c" + std::to_string(i);
    output({"create", name});
    names += name + '\n';
  }
  std::string listed;
  std::istringstream lines(output({"list"}));
  for (std::string line; std::getline(lines, line);)
    listed += line.substr(0, line.find(':')) + '\n';
  EXPECT_EQ(listed, names);
}

TEST_P(Program, PrintsTheKeysOfARangeInTheirOrder) {
  loadAll(
      "{\"key\":\"b\",\"text\":\"x\"}\n{\"key\":\"tab\\tkey\",\"text\":\"x\"}\n"
      "{\"key\":\"a\",\"text\":\"x\"}\n{\"key\":\"c\",\"text\":\"x\"}\n");
  EXPECT_EQ(output({"keys", "c"}), "a\nb\nc\nbase64:dGFiCWtleQ==\n");
  EXPECT_EQ(output({"keys", "c", "--after", "a", "--upto", "c"}), "b\nc\n");
  EXPECT_EQ(output({"keys", "c", "--limit", "2"}), "a\nb\n");
  EXPECT_EQ(output({"keys", "c", "--base64", "--after", "Yw==", "--upto", "base64:dGFiCWtleQ=="}),
            "base64:dGFiCWtleQ==\n");
  EXPECT_EQ(output({"keys", "c", "--upto", "a", "--json"}),
            "{\"key\":\"a\",\"docId\":\"base64:YQ==\"}\n");
  EXPECT_EQ(run({"keys", "c", "--after", "z"}).err, "searches find no document in this range\n");
  EXPECT_THAT(run({"keys", "nowhere"}).err, HasSubstr("(ZVK0007E)"));
}

TEST_P(Program, PrintsMoreKeysThanAPageHas) {
  constexpr int kDocuments = 10500;
  loadAll(manyDocuments(kDocuments));
  std::vector<std::string> keys;
  for (int i = 0; i < kDocuments; ++i) keys.push_back("k" + std::to_string(i) + '\n');
  std::sort(keys.begin(), keys.end());
  std::string all;
  for (const std::string& key : keys) all += key;
  EXPECT_EQ(output({"keys", "c"}), all);
  EXPECT_EQ(lineCount(output({"keys", "c", "--limit", "10001"})), 10001U);
}

TEST_P(Program, PrintsDigestsThatTellWhichDocumentsDiffer) {
  loadAll(manyDocuments(2500));
  const std::string whole = output({"digest", "c"});
  EXPECT_THAT(whole, ::testing::MatchesRegex("[0-9a-f]+    2500  k999\n"));
  const std::string ones = output({"digest", "c", "--every", "1"});
  EXPECT_EQ(lineCount(ones), 2500U);
  EXPECT_EQ(lineCount(output({"digest", "c", "--every", "1000"})), 3U);
  output({"add", "c", "k7", "other", "--meta", "n=7"});
  output({"update", "c"});
  EXPECT_NE(output({"digest", "c"}), whole);
  std::istringstream before(ones), after(output({"digest", "c", "--every", "1"}));
  std::vector<std::string> changed;
  for (std::string one, other; std::getline(before, one) && std::getline(after, other);) {
    if (one != other) changed.push_back(one.substr(one.rfind(' ') + 1));
  }
  EXPECT_THAT(changed, ::testing::ElementsAre("k7"));
  EXPECT_EQ(output({"digest", "c", "--after", "k6999", "--upto", "k7", "--json"})
                .rfind("{\"sha256\":\"", 0),
            0U);
  EXPECT_EQ(run({"digest", "c", "--after", "z"}).err, "searches find no document in this range\n");
}

TEST_P(Program, PrintsNoDigestOfACollectionWithoutTexts) {
  output({"create", "c", "--without-text"});
  output({"add", "c", "k", "t"});
  output({"update", "c"});
  EXPECT_THAT(run({"digest", "c"}).err, HasSubstr("(ZVK0004E)"));
}

TEST_P(Program, AnswersStatusAndVersion) {
  EXPECT_EQ(output({"status"}), "ready, every change is searchable (0)\n");
  output({"create", "c"});
  output({"add", "c", "k", "t"});
  EXPECT_EQ(output({"status", "c"}), "ready, changes wait for an update of the index (1)\n");
  const std::string version = output({"version"});
  if (std::string(GetParam()) == "binary") {
    EXPECT_THAT(version, HasSubstr(CORVANE_VERSION));
  } else {
    EXPECT_THAT(version, HasSubstr("carries no version text"));
  }
}

TEST_P(Program, EstimatesOverTheBinaryProtocolOnly) {
  loadAll(manyDocuments(40));
  const Finished finished = run({"estimate", "c", "common"});
  if (std::string(GetParam()) == "binary") {
    EXPECT_EQ(finished.out, "about 40 hits, at most 40, of 40 documents\n");
  } else {
    EXPECT_EQ(finished.code, 2);
    EXPECT_EQ(finished.out, "");
  }
}

// Each takes results of the other's documents; none may report a document that is there as refused,
// and the one document that is refused belongs to the second.
TEST_P(Program, LoadsBesideAnotherLoadIntoTheSameCollection) {
  const tq::test::CorvanedProcess server({"--max-document", "1000"});
  const auto port = std::string(GetParam()) == "http" ? server.httpPort() : server.binaryPort();
  const std::vector<std::string> general{CORVANE_PROGRAM, "--protocol", GetParam(), "--port",
                                         std::to_string(port)};
  const auto command = [&](std::vector<std::string> words) {
    words.insert(words.begin(), general.begin(), general.end());
    return words;
  };
  ASSERT_EQ(runToEnd(command({"create", "c"})).code, 0);
  std::string first, second;
  for (int i = 0; i < 4000; ++i) {
    const std::string number = std::to_string(i);
    first += R"({"key":"first)" + number + R"(","text":"common"})" + "\n";
    second += R"({"key":"second)" + number + R"(","text":"common"})" + "\n";
  }
  second += R"({"key":"huge","text":")" + std::string(2000, 'x') + "\"}\n";
  Child one(command({"load", "c", "-"}), first), other(command({"load", "c", "-"}), second);
  const Finished oneEnded = one.finish(), otherEnded = other.finish();
  EXPECT_EQ(oneEnded.code, 0) << oneEnded.err;
  EXPECT_EQ(oneEnded.out, "loaded 4000 documents into c, 0 refused\n");
  EXPECT_EQ(otherEnded.code, 4);
  EXPECT_EQ(otherEnded.out, "loaded 4000 documents into c, 1 refused\n");
  EXPECT_THAT(otherEnded.err, HasSubstr("corvane: line 4001, key \"huge\": the document has "));
  EXPECT_EQ(runToEnd(command({"update", "c"})).code, 0);
  EXPECT_EQ(lineCount(runToEnd(command({"search", "c", "common"})).out), 8000U);
}

/// A server that has too little memory to index a document of many different words.
class ProgramInLittleMemory : public Program {
 protected:
  static std::string lines() {
    std::string words;
    for (int i = 0; i < 40000; ++i) words += "word" + std::to_string(i) + ' ';
    return R"({"key":"large","text":")" + words + R"("})" + "\n" +
           R"({"key":"small","text":"apple"})" + "\n";
  }

  Finished ask(std::vector<std::string> words, const std::string& input = {}) const {
    const auto port = std::string(GetParam()) == "http" ? little_.httpPort() : little_.binaryPort();
    words.insert(words.begin(),
                 {CORVANE_PROGRAM, "--protocol", GetParam(), "--port", std::to_string(port)});
    return runToEnd(words, input);
  }

  const std::string leftOut_ = "says: 1 document left out, all others are searchable: \"large\" (";
  const std::string listed_ = "corvane: key \"large\": the document cannot be indexed: ";
  tq::test::CorvanedProcess little_{{"--max-memory", "16777216"}};
};

TEST_P(ProgramInLittleMemory, ListsWhatTheUpdateOfALoadLeavesOut) {
  ASSERT_EQ(ask({"create", "c"}).code, 0);
  const Finished loaded = ask({"load", "c", "-", "--update"}, lines());
  EXPECT_EQ(loaded.code, 4);
  EXPECT_EQ(loaded.out, "loaded 2 documents into c, 0 refused\n");
  EXPECT_THAT(loaded.err, HasSubstr(leftOut_));
  EXPECT_THAT(loaded.err, HasSubstr(listed_));
  EXPECT_EQ(ask({"update", "c"}).out, "updated c\n") << "somebody has been told";
  EXPECT_THAT(ask({"search", "c", "apple"}).out, HasSubstr("  small\n"));
}

TEST_P(ProgramInLittleMemory, SaysWhatAnUpdateAfterALoadLeavesOut) {
  ASSERT_EQ(ask({"create", "c"}).code, 0);
  ASSERT_EQ(ask({"load", "c", "-"}, lines()).code, 0);
  for (int i = 0; i < 2; ++i) {
    const Finished updated = ask({"update", "c"});
    EXPECT_EQ(updated.code, 4);
    EXPECT_THAT(updated.err, HasSubstr(leftOut_));
    EXPECT_EQ(lineCount(updated.err), 1U) << updated.err;
  }
}

// The index may refuse the document before the load has ended, or later.
TEST_P(ProgramInLittleMemory, SaysOnceWhatAnIndexThatIsUpdatedByItselfLeavesOut) {
  ASSERT_EQ(ask({"create", "c", "--refresh", "1"}).code, 0);
  const Finished loaded = ask({"load", "c", "-"}, lines());
  const Finished updated = ask({"update", "c"});
  if (loaded.code == 0) {
    EXPECT_EQ(updated.code, 4);
    EXPECT_THAT(updated.err, HasSubstr(leftOut_));
  } else {
    EXPECT_EQ(loaded.out, "loaded 1 document into c, 1 refused\n");
    EXPECT_THAT(loaded.err, HasSubstr(listed_));
    EXPECT_EQ(updated.out, "updated c\n") << updated.err;
  }
}

INSTANTIATE_TEST_SUITE_P(Protocols, ProgramInLittleMemory, ::testing::Values("http", "binary"),
                         [](const auto& test) { return std::string(test.param); });

TEST_P(Program, BacksUpAndRestores) {
  const tq::test::TemporaryDirectory backups;
  const tq::test::CorvanedProcess server({"--backup-directory", backups.path()});
  const auto port = std::string(GetParam()) == "http" ? server.httpPort() : server.binaryPort();
  const auto runThere = [&](std::vector<std::string> words) {
    words.insert(words.begin(),
                 {CORVANE_PROGRAM, "--protocol", GetParam(), "--port", std::to_string(port)});
    return runToEnd(words);
  };
  for (const std::string name : {"c", "e"}) {
    ASSERT_EQ(runThere({"create", name}).code, 0);
    ASSERT_EQ(runThere({"add", name, "k1", "a fox of " + name}).code, 0);
  }
  EXPECT_EQ(runThere({"backup", "one", "c"}).out, "made the backup one\n");
  EXPECT_EQ(runThere({"backup", "all", "--json"}).out, "{\"backup\":\"all\",\"done\":\"made\"}\n");
  EXPECT_THAT(runThere({"backup", "all"}).err, HasSubstr("(ZVK0006E)"));
  EXPECT_EQ(runThere({"restore", "all", "d", "--from", "e"}).out,
            "restored d from the backup all\n");
  EXPECT_EQ(runThere({"update", "d"}).code, 0);
  EXPECT_THAT(runThere({"search", "d", "fox e"}).out, HasSubstr("k1"));
  EXPECT_THAT(runThere({"restore", "all"}).err, HasSubstr("(ZVK0008E)"));
  EXPECT_EQ(runThere({"restore", "one", "c", "--replace", "--json"}).out,
            "{\"backup\":\"one\",\"collection\":\"c\",\"done\":\"restored\"}\n");
  EXPECT_EQ(runThere({"restore", "all", "--replace"}).out,
            "restored all collections from the backup all\n");
  const Finished list = runThere({"backups"});
  EXPECT_EQ(list.code, 0) << list.err;
  EXPECT_THAT(list.out, ::testing::MatchesRegex("all: made [^\n]*, 2 collections, [0-9]* bytes\n"
                                                "one: made [^\n]*, 1 collection, [0-9]* bytes\n"));
  EXPECT_EQ(lineCount(runThere({"backups", "--json"}).out), 2U);
  // Most likely a variable that is not set: all collections are not what it stands for.
  EXPECT_EQ(runThere({"restore", "all", "", "--replace"}).code, 2);
  EXPECT_EQ(runThere({"backup", "more", ""}).code, 2);
}

/// A server that wants to know who asks, a user who may do everything, and a token that may read.
class ProgramWithAccount : public Program {
 protected:
  static constexpr const char* kPassword = "correct: horse";
  static constexpr auto kPrivate =
      std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;

  ProgramWithAccount() {
    EXPECT_EQ(runToEnd({CORVANED_PROGRAM, "user", "ada", "--users", users_, "--allow", "admin:*"},
                       std::string(kPassword) + "\n")
                  .code,
              0);
    const Finished token =
        runToEnd({CORVANED_PROGRAM, "token", "reader", "--users", users_, "--allow", "read:books"});
    EXPECT_EQ(token.code, 0) << token.err;
    write("token", token.out);
    write("user", std::string("ada:") + kPassword + "\r\nmore");
    server_.emplace(std::vector<std::string>{"--users", users_});
  }

  std::string path(const std::string& name) const { return directory_.path() / name; }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    std::filesystem::permissions(path(name), kPrivate);
  }

  Finished ask(std::vector<std::string> words, const std::string& input = {},
               const std::vector<std::string>& front = {"/usr/bin/env", "-u",
                                                        "CORVANE_CREDENTIALS"}) const {
    const auto port =
        std::string(GetParam()) == "http" ? server_->httpPort() : server_->binaryPort();
    words.insert(words.begin(),
                 {CORVANE_PROGRAM, "--protocol", GetParam(), "--port", std::to_string(port)});
    words.insert(words.begin(), front.begin(), front.end());
    return runToEnd(words, input);
  }

  tq::test::TemporaryDirectory directory_;
  const std::string users_ = path("users");
  std::optional<tq::test::CorvanedProcess> server_;
};

TEST_P(ProgramWithAccount, IsWhoeverTheFileSays) {
  const std::string user = path("user");
  const Finished nobody = ask({"create", "books"});
  EXPECT_EQ(nobody.code, 1);
  EXPECT_THAT(nobody.err, HasSubstr("--credentials"));
  EXPECT_EQ(ask({"--credentials", user, "create", "books"}).err, "");
  const Finished loaded =
      ask({"--credentials", user, "load", "books", "-", "--update"}, manyDocuments(30));
  EXPECT_EQ(loaded.out, "loaded 30 documents into books, 0 refused\nupdated books\n") << loaded.err;
  const Finished found = ask({"search", "books", "common", "--credentials", path("token")});
  EXPECT_EQ(lineCount(found.out), 30U) << found.err;
  EXPECT_THAT(ask({"drop", "books", "--credentials", path("token")}).err, HasSubstr("ZVK0023E"));
}

TEST_P(ProgramWithAccount, IsWhoeverTheEnvironmentSaysUnlessThereIsAFile) {
  const std::vector<std::string> wrong{"/usr/bin/env", "CORVANE_CREDENTIALS=ada:wrong"};
  const Finished refused = ask({"create", "books"}, {}, wrong);
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr("refused the credentials"));
  EXPECT_EQ(refused.err.find("wrong"), std::string::npos);
  EXPECT_EQ(ask({"create", "books", "--credentials", path("user")}, {}, wrong).err, "");
  const std::vector<std::string> right{"/usr/bin/env",
                                       std::string("CORVANE_CREDENTIALS=ada:") + kPassword};
  EXPECT_EQ(ask({"drop", "books"}, {}, right).err, "");
}

TEST_P(ProgramWithAccount, SendsNothingWithoutCredentialsThatCanBeRead) {
  write("empty", "\n");
  write("bad", std::string("to\0ken", 6));
  write("long", std::string(4097, 'x'));
  const std::vector<std::pair<std::string, std::string>> cases{
      {"empty", " holds no credentials: "},
      {"bad", " holds a line break or a NUL"},
      {"long", " holds more than 4096 bytes in its first line\n"}};
  for (const auto& [name, reason] : cases) {
    const Finished finished = ask({"status", "--credentials", path(name)});
    EXPECT_EQ(finished.code, 2) << name;
    EXPECT_THAT(finished.err, HasSubstr(path(name) + reason));
    EXPECT_EQ(lineCount(finished.err), 1U);
  }
  for (const std::string& name : {path("none"), directory_.path().string()}) {
    const Finished finished = ask({"status", "--credentials", name});
    EXPECT_EQ(finished.code, 1) << name;
    EXPECT_THAT(finished.err, HasSubstr("cannot read " + name));
  }
  EXPECT_EQ(ask({"status"}, {}, {"/usr/bin/env", "CORVANE_CREDENTIALS="}).code, 2);
  const std::string tooLong = "CORVANE_CREDENTIALS=" + std::string(4097, 'x');
  EXPECT_THAT(ask({"status"}, {}, {"/usr/bin/env", tooLong}).err,
              HasSubstr("CORVANE_CREDENTIALS holds more than 4096 bytes"));
}

TEST_P(ProgramWithAccount, SendsNothingOfAFileThatOthersCanUse) {
  using std::filesystem::perms;
  for (const perms others : {perms::group_read, perms::group_write, perms::others_read}) {
    std::filesystem::permissions(path("user"), kPrivate | others);
    const Finished finished = ask({"create", "books", "--credentials", path("user")});
    EXPECT_EQ(finished.code, 1) << finished.out;
    EXPECT_THAT(finished.err, HasSubstr("change " + path("user") + "; \"chmod 600\" it\n"));
  }
  // A pipe has the mode of whoever made it, and no other reader.
  const std::vector<std::string> shell{"/bin/sh", "-c", "file=$1; shift; cat \"$file\" | \"$@\"",
                                       "sh", path("user")};
  const Finished piped = ask({"create", "books", "--credentials", "/dev/stdin"}, {}, shell);
  EXPECT_EQ(piped.code, 0) << piped.err;
}

INSTANTIATE_TEST_SUITE_P(Protocols, ProgramWithAccount, ::testing::Values("http", "binary"),
                         [](const auto& test) { return std::string(test.param); });

TEST_P(Program, SaysHowTheServerCanMakeBackups) {
  for (const char* command : {"backup", "restore"}) {
    const Finished finished = run({command, "b"});
    EXPECT_EQ(finished.code, 1);
    EXPECT_THAT(finished.err, HasSubstr("--backup-directory"));
  }
}

TEST_P(Program, FailsCleanlyOnThePortOfTheOtherProtocol) {
  const std::string other = std::string(GetParam()) == "http" ? "binary" : "http";
  const Finished finished =
      runToEnd({CORVANE_PROGRAM, "--protocol", GetParam(), "--port", serverPort(other), "status"});
  EXPECT_EQ(finished.code, 1);
  EXPECT_EQ(finished.out, "");
  EXPECT_EQ(lineCount(finished.err), 1U) << finished.err;
  EXPECT_THAT(finished.err,
              HasSubstr("127.0.0.1:" + serverPort(other) + " speaks the " + other + " protocol"));
}

INSTANTIATE_TEST_SUITE_P(Protocols, Program, ::testing::Values("http", "binary"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
