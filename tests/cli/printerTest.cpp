#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/printer.h"

using namespace corvane;

namespace {

struct Output {
  std::ostringstream out, err;
};

unsigned int wide() { return 80; }
unsigned int narrow() { return 8; }
unsigned int none() { return 0; }

TEST(Printer, PrintsALineForAPersonAndAnObjectForAProgram) {
  Output person, program;
  Printer(person.out, person.err, {}).result("two hits", {{"hits", 2}});
  Printer(program.out, program.err, {true}).result("two hits", {{"hits", 2}});
  EXPECT_EQ(person.out.str(), "two hits\n");
  EXPECT_EQ(program.out.str(), "{\"hits\":2}\n");
}

TEST(Printer, ReportsErrorsAsideFromResults) {
  Output person, program;
  Printer(person.out, person.err, {}).error("no luck", "ERR_X");
  Printer(program.out, program.err, {true}).error("no luck", "ERR_X");
  EXPECT_EQ(person.err.str(), "corvane: no luck\n");
  EXPECT_EQ(program.err.str(), "{\"error\":\"no luck\",\"id\":\"ERR_X\"}\n");
  EXPECT_EQ(person.out.str() + program.out.str(), "");
}

TEST(Printer, ShowsProgressAtATerminalOnly) {
  Output terminal, pipe, json;
  Printer atTerminal(terminal.out, terminal.err, {false, wide});
  Printer inPipe(pipe.out, pipe.err, {});
  Printer asJson(json.out, json.err, {true, wide});
  for (Printer* printer : {&atTerminal, &inPipe, &asJson}) printer->progress("half way");
  EXPECT_EQ(terminal.err.str(), "\rhalf way\x1b[K");
  EXPECT_EQ(pipe.err.str() + json.err.str(), "");
}

TEST(Printer, WipesProgressBeforeTheNextLine) {
  Output terminal;
  Printer printer(terminal.out, terminal.err, {false, wide});
  printer.progress("half way");
  printer.error("no luck");
  printer.error("again");
  EXPECT_EQ(terminal.err.str(), "\rhalf way\x1b[K\r\x1b[Kcorvane: no luck\ncorvane: again\n");
}

TEST(Printer, ShowsOfProgressWhatFitsTheTerminal) {
  Output terminal, unknown;
  Printer(terminal.out, terminal.err, {false, narrow}).progress("half way through");
  Printer(unknown.out, unknown.err, {false, none}).progress("half way through");
  EXPECT_EQ(terminal.err.str(), "\rhalf wa\x1b[K");
  EXPECT_EQ(unknown.err.str(), "");
}

TEST(Printer, NeverPrintsACharacterThatSteersATerminal) {
  // An escape sequence, a change of direction, a line separator, a control character of two bytes
  // and DEL; tag characters need a surrogate pair.
  const std::string text = "a\x1b[2J\xe2\x80\xae\xe2\x80\xa8\xc2\x9b\x7f\xf3\xa0\x80\xa1z";
  const std::string shown = R"(a\u{1b}[2J\u{202e}\u{2028}\u{9b}\u{7f}\u{e0021}z)";
  Output person, program;
  Printer printer(person.out, person.err, {});
  printer.result(text, {});
  printer.note(text);
  printer.error(text);
  EXPECT_EQ(person.out.str(), shown + "\n");
  EXPECT_EQ(person.err.str(), shown + "\ncorvane: " + shown + "\n");
  Printer json(program.out, program.err, {true});
  json.object({{"text", text}});
  EXPECT_EQ(program.out.str(),
            "{\"text\":\"a\\u001b[2J\\u202e\\u2028\\u009b\\u007f\\udb40\\udc21z\"}\n");
  EXPECT_EQ(nlohmann::json::parse(program.out.str())["text"], text);
}

TEST(Printer, KeepsNotesOutOfJson) {
  Output json;
  Printer(json.out, json.err, {true}).note("by the way");
  EXPECT_EQ(json.out.str() + json.err.str(), "");
}

TEST(Printer, WritesIllFormedTextAsReplacementCharacters) {
  Output json;
  Printer(json.out, json.err, {true}).object({{"text", "a\xff"}});
  EXPECT_EQ(json.out.str(), "{\"text\":\"a\xef\xbf\xbd\"}\n");
}

TEST(Printer, TellsWhenOutputWasLost) {
  Output full;
  full.out.setstate(std::ios::badbit);
  Printer printer(full.out, full.err, {});
  printer.line("lost");
  EXPECT_FALSE(printer.flush());
}

}  // namespace
