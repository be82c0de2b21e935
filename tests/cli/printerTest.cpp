#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/printer.h"

using namespace corvane;

namespace {

struct Output {
  std::ostringstream out, err;
};

TEST(Printer, PrintsALineForAPersonAndAnObjectForAProgram) {
  Output person, program;
  Printer(person.out, person.err, {false, false}).result("two hits", {{"hits", 2}});
  Printer(program.out, program.err, {true, false}).result("two hits", {{"hits", 2}});
  EXPECT_EQ(person.out.str(), "two hits\n");
  EXPECT_EQ(program.out.str(), "{\"hits\":2}\n");
}

TEST(Printer, ReportsErrorsAsideFromResults) {
  Output person, program;
  Printer(person.out, person.err, {false, false}).error("no luck", "ERR_X");
  Printer(program.out, program.err, {true, false}).error("no luck", "ERR_X");
  EXPECT_EQ(person.err.str(), "corvane: no luck\n");
  EXPECT_EQ(program.err.str(), "{\"error\":\"no luck\",\"id\":\"ERR_X\"}\n");
  EXPECT_EQ(person.out.str() + program.out.str(), "");
}

TEST(Printer, ShowsProgressAtATerminalOnly) {
  Output terminal, pipe, json;
  Printer atTerminal(terminal.out, terminal.err, {false, true});
  Printer inPipe(pipe.out, pipe.err, {false, false});
  Printer asJson(json.out, json.err, {true, true});
  for (Printer* printer : {&atTerminal, &inPipe, &asJson}) printer->progress("half way");
  EXPECT_EQ(terminal.err.str(), "\rhalf way\x1b[K");
  EXPECT_EQ(pipe.err.str() + json.err.str(), "");
}

TEST(Printer, WipesProgressBeforeTheNextLine) {
  Output terminal;
  Printer printer(terminal.out, terminal.err, {false, true});
  printer.progress("half way");
  printer.error("no luck");
  printer.error("again");
  EXPECT_EQ(terminal.err.str(), "\rhalf way\x1b[K\r\x1b[Kcorvane: no luck\ncorvane: again\n");
}

TEST(Printer, KeepsNotesOutOfJson) {
  Output json;
  Printer(json.out, json.err, {true, false}).note("by the way");
  EXPECT_EQ(json.out.str() + json.err.str(), "");
}

TEST(Printer, WritesIllFormedTextAsReplacementCharacters) {
  Output json;
  Printer(json.out, json.err, {true, false}).object({{"text", "a\xff"}});
  EXPECT_EQ(json.out.str(), "{\"text\":\"a\xef\xbf\xbd\"}\n");
}

TEST(Printer, TellsWhenOutputWasLost) {
  Output full;
  full.out.setstate(std::ios::badbit);
  Printer printer(full.out, full.err, {false, false});
  printer.line("lost");
  EXPECT_FALSE(printer.flush());
}

}  // namespace
