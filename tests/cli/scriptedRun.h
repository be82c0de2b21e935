#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "cli/run.h"
#include "tests/cli/httpServer.h"
#include "tests/support/script.h"
#include "tests/support/scriptedServer.h"

/// The whole program in this process, against a server that follows a script.
namespace corvane::test {

struct Result {
  ExitCode code;
  std::string out, err;
};

/// Arguments without the program's name.
ExitCode runOn(const Streams& streams, const std::vector<std::string>& arguments);
Result runProgram(const std::vector<std::string>& arguments, const std::string& input = {});

/// Over the HTTP-style protocol.
Result runAgainst(const HttpServer& server, std::vector<std::string> arguments,
                  const std::string& input = {});
Result runOverBinary(const tq::test::ScriptedServer& server, std::vector<std::string> arguments);
/// Over the binary protocol and the network in memory that there must be, whose clock moves only
/// during waits: what comes in time does so on any machine. (Over the HTTP-style protocol a thread
/// of the program's own would watch the time.)
Result runInMemory(std::vector<std::string> arguments, const std::string& input = {});

/// Loads these lines into "books".
Result load(const HttpServer& server, const std::string& lines,
            const std::vector<std::string>& options = {});
std::string documentLine(const std::string& key, const std::string& text);

// What the server says.

extern const std::string kUninterpreted;
extern const std::string kEndMark;

std::string answer(int status, const std::string& body);
std::string done();
std::string refusal(const std::string& id, const std::string& text);

using IdsAndScores = std::vector<std::pair<std::string, std::string>>;
/// The body of a search's answer, to which more hits or the end mark may be added.
std::string hits(const IdsAndScores& found);
/// The whole answer.
std::string found(const IdsAndScores& found);

/// Of each document its key and, when the server has something to say of it, id and text.
using Outcomes = std::vector<std::vector<std::string>>;
std::string outcomes(const Outcomes& rows);

// What the server does on one connection.

/// Gives these answers to as many requests, then closes unless more is added.
tq::test::Script answers(std::initializer_list<std::string> texts);
/// Takes this many documents, the announcement of their end, and the question for their outcomes.
tq::test::Script& takeWindow(tq::test::Script& script, std::size_t documents);
/// Tells what the index has refused since, which a load asks at its end.
tq::test::Script& tellAtTheEnd(tq::test::Script& script, const Outcomes& rows = {});
/// Opens the collection, takes a window and tells its outcomes.
tq::test::Script loadOf(std::size_t documents, const Outcomes& rows);

bool contains(const std::string& text, const std::string& part);
bool isOneLine(const std::string& text);

}  // namespace corvane::test
