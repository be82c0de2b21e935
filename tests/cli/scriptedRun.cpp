#include "tests/cli/scriptedRun.h"

#include <sstream>

#include "tests/support/replyCorpus.h"

namespace corvane::test {

using namespace tq::test;

ExitCode runOn(const Streams& streams, const std::vector<std::string>& arguments) {
  std::vector<const char*> pointers{"corvane"};
  for (const auto& argument : arguments) pointers.push_back(argument.c_str());
  return run(static_cast<int>(pointers.size()), pointers.data(), streams);
}

Result runProgram(const std::vector<std::string>& arguments, const std::string& input) {
  std::istringstream in(input);
  std::ostringstream out, err;
  const ExitCode code = runOn({in, out, err}, arguments);
  return {code, out.str(), err.str()};
}

Result runAgainst(const HttpServer& server, std::vector<std::string> arguments,
                  const std::string& input) {
  arguments.insert(arguments.end(),
                   {"--protocol", "http", "--port", std::to_string(server.port())});
  return runProgram(arguments, input);
}

Result runOverBinary(const ScriptedServer& server, std::vector<std::string> arguments) {
  arguments.insert(arguments.end(), {"--port", std::to_string(server.port())});
  return runProgram(arguments);
}

Result runInMemory(std::vector<std::string> arguments, const std::string& input) {
  arguments.insert(arguments.end(), {"--port", "4481"});
  return runProgram(arguments, input);
}

Result load(const HttpServer& server, const std::string& lines,
            const std::vector<std::string>& options) {
  std::vector<std::string> arguments{"load", "books", "-"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  return runAgainst(server, arguments, lines);
}

std::string documentLine(const std::string& key, const std::string& text) {
  return R"({"key":")" + key + R"(","text":")" + text + "\"}\n";
}

const std::string kUninterpreted(4, '\0');
const std::string kEndMark(4, '\0');

std::string answer(int status, const std::string& body) {
  Reply reply{"x", kGetStatus, status, body};
  return plain(reply);
}

std::string done() { return answer(200, ""); }

std::string refusal(const std::string& id, const std::string& text) {
  return answer(500, kUninterpreted + enveloped(record({{"MsgId", id}, {"MsgText", text}})));
}

std::string hits(const IdsAndScores& found) {
  std::string body = kUninterpreted;
  for (const auto& [id, score] : found) body += enveloped(hitRecord(id, score));
  return body;
}

std::string found(const IdsAndScores& found) { return answer(200, hits(found) + kEndMark); }

std::string outcomes(const Outcomes& rows) {
  std::string body = kUninterpreted;
  for (const auto& row : rows) {
    std::vector<std::pair<std::string, std::string>> fields{{"Doc", row[0]}};
    if (row.size() > 1) fields.insert(fields.end(), {{"MsgId", row[1]}, {"MsgText", row[2]}});
    body += enveloped(record(fields));
  }
  return answer(200, body + kEndMark);
}

Script answers(std::initializer_list<std::string> texts) {
  Script script;
  for (const auto& text : texts) script.expectRequest().send(text);
  return script;
}

Script& takeWindow(Script& script, std::size_t documents) {
  constexpr std::size_t kAnnouncementAndQuestion = 2;
  for (std::size_t i = 0; i < documents + kAnnouncementAndQuestion; ++i) script.expectRequest();
  return script;
}

Script& tellAtTheEnd(Script& script, const Outcomes& rows) {
  return script.expectRequest().send(outcomes(rows));
}

Script loadOf(std::size_t documents, const Outcomes& rows) {
  Script script = answers({done()});
  return takeWindow(script, documents).send(outcomes(rows));
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

bool isOneLine(const std::string& text) {
  return !text.empty() && text.find('\n') == text.size() - 1;
}

}  // namespace corvane::test
