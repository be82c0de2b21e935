#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruRESTMessage.h"
#include "server/front/actions.h"

using tq::comm::ClientRequest;
using tq::comm::RESTMessage;

namespace {

// The lines of a kind's header block, by name.
std::map<std::string, std::string> linesOf(int kind) {
  ClientRequest request;
  request.buildRequest(u"c", static_cast<ClientRequest::REQUEST>(kind), {});
  RESTMessage message(u"h", request);
  const std::string header = message.getSerializedHeader();
  std::map<std::string, std::string> lines;
  const std::regex line("(\\w+): (.*)\n");
  for (std::sregex_iterator at(header.begin(), header.end(), line), end; at != end; ++at) {
    lines[(*at)[1]] = (*at)[2];
  }
  return lines;
}

struct Row {
  int kind;
  std::string action, actionType, mode, parameters;
};

std::vector<Row> rowsOf(const std::string& document) {
  std::ifstream text(std::string(KRUCOMM_DOCUMENTS) + "/" + document);
  const std::regex row(R"(\| (\d+) `[A-Z_]+` \| `(\w+)` \| `(\w+)` \| (?:`(\w+)` )?\|(.*)\|)");
  std::vector<Row> rows;
  for (std::string line; std::getline(text, line);) {
    std::smatch cells;
    if (!std::regex_match(line, cells, row)) continue;
    rows.push_back({std::stoi(cells[1]), cells[2], cells[3], cells[4], cells[5]});
  }
  return rows;
}

std::set<std::string> namesIn(const std::string& cell) {
  std::set<std::string> names;
  const std::regex name("`([^`]+)`");
  for (std::sregex_iterator at(cell.begin(), cell.end(), name), end; at != end; ++at) {
    names.insert((*at)[1]);
  }
  return names;
}

// What a client may want to say with the action. One that can have a single value says what the
// server does in any case, the mode has a column of its own, and the others name the collection
// a second time.
std::set<std::string> parametersOf(const corvaned::Action& action) {
  const corvaned::Words& words = corvaned::words();
  std::set<std::string> names;
  for (const corvaned::Parameters group : action.parameters) {
    for (const corvaned::Parameter& parameter : group) {
      if (parameter.only.size() != 1) names.insert(words.*parameter.name);
    }
  }
  for (const std::string& name : {words.mode, words.collectionName, words.scope}) names.erase(name);
  return names;
}

class RequestTable : public ::testing::TestWithParam<const char*> {};

TEST_P(RequestTable, SaysWhatTheLibrarySends) {
  const std::vector<Row> rows = rowsOf(GetParam());
  for (const Row& row : rows) {
    auto lines = linesOf(row.kind);
    EXPECT_EQ(lines["action"], row.action) << row.kind;
    EXPECT_EQ(lines["actionType"], row.actionType) << row.kind;
    EXPECT_EQ(lines["mode"], row.mode) << row.kind;
  }
  // 6 and 7 are not assigned.
  EXPECT_EQ(rows.size(), 22U);
}

// Kinds that have an action in common share its parameters: together they name all of them.
TEST_P(RequestTable, NamesTheParametersThatTheServerTakes) {
  std::map<std::string, std::set<std::string>> named;
  for (const Row& row : rowsOf(GetParam())) named[row.action].merge(namesIn(row.parameters));
  ASSERT_FALSE(named.empty());
  for (const auto& [action, parameters] : named) {
    const corvaned::Action* const known = corvaned::findAction(action);
    ASSERT_NE(known, nullptr) << action;
    EXPECT_EQ(parameters, parametersOf(*known)) << action;
  }
}

INSTANTIATE_TEST_SUITE_P(Of, RequestTable,
                         ::testing::Values("http-protocol.md", "binary-protocol.md"),
                         [](const auto& test) {
                           return std::string(test.param[0] == 'h' ? "Http" : "Binary");
                         });

}  // namespace
