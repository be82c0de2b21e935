#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "server/faults/falseReply.h"
#include "tests/server/requestBytes.h"

namespace corvaned {
namespace {

using test::bigEndian;
using test::lengthAnd;

std::string sized(const std::string& length, const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\n" + body;
}

std::string chunked(const std::string& chunks) {
  return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks + "0\r\n\r\n";
}

std::string envelope(const std::string& payload) {
  return bigEndian(1, 2) + bigEndian(payload.size(), 2) + payload;
}

const std::string kStart(4, '\0');
const std::string kA = lengthAnd("a");
const std::string kB = lengthAnd("b");
const std::string kEnd = bigEndian(0, 4);
const std::string kOk = bigEndian(1, 2);
const std::string kDone = bigEndian(1, 2) + bigEndian(0, 2);
const std::string kRefused = bigEndian(6, 2);

struct Case {
  std::string name;
  Framing framing;
  std::string faults;
  std::string whole;
  std::string expected;
};
void PrintTo(const Case& lie, std::ostream* out) { *out << lie.name; }

class FalseReply : public ::testing::TestWithParam<Case> {};

TEST_P(FalseReply, DiffersWhereItLies) {
  const Faults faults = parseFaultScript("all: " + GetParam().faults).rules.front().faults;
  EXPECT_EQ(falseReply(GetParam().framing, GetParam().whole, faults), GetParam().expected);
}

constexpr Framing kHttp = Framing::Http;
constexpr Framing kBinary = Framing::Binary;

INSTANTIATE_TEST_SUITE_P(
    Table, FalseReply,
    ::testing::Values(
        Case{"longer length", kHttp, "length +7", sized("14", kStart + kA + kB),
             sized("21", kStart + kA + kB)},
        Case{"shorter length", kHttp, "length -4", sized("14", kStart + kA + kB),
             sized("10", kStart + kA + kB)},
        Case{"length of an empty body", kHttp, "length +3", sized("0", ""), sized("3", "")},
        Case{"length below nothing", kHttp, "length -30", sized("14", kStart + kA + kB),
             sized("0", kStart + kA + kB)},
        Case{"first chunk only", kHttp, "length +1",
             chunked("9\r\n" + kStart + kA + "\r\n9\r\n" + kB + kEnd + "\r\n"),
             chunked("a\r\n" + kStart + kA + "\r\n9\r\n" + kB + kEnd + "\r\n")},
        Case{"missing record", kHttp, "record missing", sized("18", kStart + kA + kB + kEnd),
             sized("13", kStart + kA + kEnd)},
        Case{"extra record", kHttp, "record extra", sized("18", kStart + kA + kB + kEnd),
             sized("23", kStart + kA + kB + kB + kEnd)},
        Case{"missing end", kHttp, "end missing", sized("18", kStart + kA + kB + kEnd),
             sized("14", kStart + kA + kB)},
        Case{"extra end", kHttp, "end extra", sized("18", kStart + kA + kB + kEnd),
             sized("22", kStart + kA + kB + kEnd + kEnd)},
        Case{"all of it", kHttp, "record missing, end extra, length -2",
             sized("18", kStart + kA + kB + kEnd), sized("15", kStart + kA + kEnd + kEnd)},
        Case{"record in a chunk in front of the last", kHttp, "record missing",
             chunked("e\r\n" + kStart + kA + kB + "\r\n4\r\n" + kEnd + "\r\n"),
             chunked("9\r\n" + kStart + kA + "\r\n4\r\n" + kEnd + "\r\n")},
        Case{"chunk that would be empty", kHttp, "end missing",
             chunked("9\r\n" + kStart + kA + "\r\n4\r\n" + kEnd + "\r\n"),
             chunked("9\r\n" + kStart + kA + "\r\n")},
        Case{"no record there", kHttp, "record missing", sized("8", kStart + kEnd),
             sized("8", kStart + kEnd)},
        Case{"no end there", kHttp, "end extra", sized("9", kStart + kA), sized("9", kStart + kA)},
        Case{"nothing there", kHttp, "end extra, record extra", sized("0", ""), sized("0", "")},
        Case{"body of another form", kHttp, "end missing, record missing", sized("5", "1.2.3"),
             sized("5", "1.2.3")},
        Case{"longer envelope", kBinary, "length +2", kOk + envelope("a") + envelope("b") + kDone,
             kOk + bigEndian(1, 2) + bigEndian(3, 2) + "a" + envelope("b") + kDone},
        Case{"envelope below nothing", kBinary, "length -2", kOk + envelope("a") + kDone,
             kOk + bigEndian(1, 2) + bigEndian(0, 2) + "a" + kDone},
        Case{"envelope beyond its field", kBinary, "length +100000", kOk + envelope("a") + kDone,
             kOk + bigEndian(1, 2) + bigEndian(65535, 2) + "a" + kDone},
        Case{"error record", kBinary, "length +1", kRefused + bigEndian(3, 2) + "abc",
             kRefused + bigEndian(4, 2) + "abc"},
        Case{"code alone", kBinary, "length +1, record extra, end extra", kOk, kOk},
        Case{"missing envelope", kBinary, "record missing",
             kOk + envelope("a") + envelope("b") + kDone, kOk + envelope("a") + kDone},
        Case{"extra envelope", kBinary, "record extra", kOk + envelope("a") + kDone,
             kOk + envelope("a") + envelope("a") + kDone},
        Case{"missing end envelope", kBinary, "end missing", kOk + envelope("a") + kDone,
             kOk + envelope("a")},
        Case{"extra end envelope", kBinary, "end extra", kOk + envelope("a") + kDone,
             kOk + envelope("a") + kDone + kDone}));

}  // namespace
}  // namespace corvaned
