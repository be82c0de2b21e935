#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>

#include "comm/kruClientRequest.h"
#include "comm/kruRESTMessage.h"

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

class RequestTable : public ::testing::TestWithParam<const char*> {};

TEST_P(RequestTable, SaysWhatTheLibrarySends) {
  std::ifstream document(std::string(KRUCOMM_DOCUMENTS) + "/" + GetParam());
  const std::regex row(R"(\| (\d+) `[A-Z_]+` \| `(\w+)` \| `(\w+)` \| (?:`(\w+)` )?\|.*)");
  int kinds = 0;
  for (std::string text; std::getline(document, text);) {
    std::smatch cells;
    if (!std::regex_match(text, cells, row)) continue;
    ++kinds;
    auto lines = linesOf(std::stoi(cells[1]));
    EXPECT_EQ(lines["action"], cells[2]) << text;
    EXPECT_EQ(lines["actionType"], cells[3]) << text;
    EXPECT_EQ(lines["mode"], cells[4]) << text;
  }
  // 6 and 7 are not assigned.
  EXPECT_EQ(kinds, 22);
}

INSTANTIATE_TEST_SUITE_P(Of, RequestTable,
                         ::testing::Values("http-protocol.md", "binary-protocol.md"),
                         [](const auto& test) {
                           return std::string(test.param[0] == 'h' ? "Http" : "Binary");
                         });

}  // namespace
