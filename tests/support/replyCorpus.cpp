#include "tests/support/replyCorpus.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <stdexcept>

namespace tq::test {

namespace {

constexpr auto kUninterpreted = "\x7F\x01\xFE\x02";  // no length, no text, no zero

std::string chunkSizeLine(std::size_t size) {
  char text[32];
  std::snprintf(text, sizeof text, "%zx\r\n", size);
  return text;
}

const char* reason(int status) { return status == 200 ? "OK" : "Refused"; }

std::string statusLine(int status) {
  return "HTTP/1.1 " + std::to_string(status) + " " + reason(status) + "\r\n";
}

Outcome success() {
  Outcome outcome;
  outcome.returnCode = 0;
  outcome.endOfStream = true;
  return outcome;
}

Outcome failure(const std::string& id, const std::string& text, const std::string& file) {
  Outcome outcome;
  outcome.errorId = id;
  outcome.errorText = text;
  outcome.errorFile = file;
  outcome.errorLevel = 2;
  return outcome;
}

// Appends records to a reply's body and remembers where each begins.
void addRecord(Reply& reply, const std::string& bytes) {
  reply.recordStarts.push_back(reply.body.size());
  reply.body += enveloped(bytes);
}

void finish(Reply& reply, bool endMark) {
  reply.endMark = endMark;
  if (endMark) {
    reply.recordStarts.push_back(reply.body.size());
    reply.body += bigEndian(0);
  }
  reply.recordStarts.push_back(reply.body.size());
}

struct HitText {
  std::string id;
  std::string score;
  double value;
};

Reply search(const std::string& name, int kind, const std::vector<HitText>& hits,
             bool endMark = true) {
  Reply reply{name, kind};
  reply.body = kUninterpreted;
  reply.streamed = true;
  reply.expected = success();
  for (const auto& hit : hits) {
    addRecord(reply, hitRecord(hit.id, hit.score));
    reply.expected.hits.push_back({hit.id, hit.value});
  }
  finish(reply, endMark);
  return reply;
}

Reply parseResults(const std::string& name, const std::vector<Parsed>& rows, bool endMark = true) {
  Reply reply{name, kParseResult};
  reply.body = kUninterpreted;
  reply.recordsMustBeWhole = true;
  reply.expected = success();
  for (const auto& row : rows) {
    std::vector<std::pair<std::string, std::string>> fields{{"Doc", row.document}};
    if (!row.messageId.empty()) {
      fields.emplace_back("MsgId", row.messageId);
      fields.emplace_back("MsgText", row.messageText);
    }
    addRecord(reply, record(fields));
    reply.expected.parsed.push_back(row);
  }
  finish(reply, endMark);
  return reply;
}

Reply single(const std::string& name, int kind, int status, const std::string& bytes,
             Outcome expected) {
  Reply reply{name, kind, status};
  reply.body = kUninterpreted;
  reply.expected = std::move(expected);
  addRecord(reply, bytes);
  finish(reply, false);
  return reply;
}

Reply withoutBody(const std::string& name, int kind, int status) {
  Reply reply{name, kind, status};
  reply.expected = success();
  if (status != 200) reply.expected.returnCode = -1;
  return reply;
}

Reply unread(const std::string& name, int kind, int status, const std::string& body,
             Outcome expected) {
  Reply reply{name, kind, status, body};
  reply.expected = std::move(expected);
  return reply;
}

Outcome status(unsigned int code) {
  auto outcome = success();
  outcome.statusCode = code;
  return outcome;
}

Outcome serverMessage(const std::string& id, const std::string& text, int level) {
  auto outcome = failure(id, text, "(null)");
  outcome.errorLevel = level;
  return outcome;
}

const std::vector<HitText> kThreeHits{
    {"base64:AAECAw==", "0.5", 0.5}, {"base64:a2V5", "", 0.0}, {"base64:/+8=", "12.25", 12.25}};

std::vector<HitText> manyHits(std::size_t count) {
  std::vector<HitText> hits;
  for (std::size_t i = 0; i < count; ++i) {
    hits.push_back(
        {"base64:" + std::string((i % 7 + 1) * 4, static_cast<char>('A' + i % 26)), "0.25", 0.25});
  }
  return hits;
}

void addSearches(std::vector<Reply>& all) {
  const std::vector<HitText> one{{"base64:QQ==", "1", 1.0}};
  for (const auto& [prefix, kind] :
       {std::pair{"Stream", kStreamSearch}, {"Scalar", kScalarSearch}}) {
    const std::string name = std::string(prefix) + "Search";
    all.push_back(search(name + "WithoutHits", kind, {}));
    all.push_back(search(name + "WithOneHit", kind, one));
    all.push_back(search(name + "WithThreeHits", kind, kThreeHits));
    all.push_back(withoutBody(name + "WithoutBody", kind, 200));
  }
  all.push_back(search("StreamSearchWithTenHits", kStreamSearch, manyHits(10)));
  all.push_back(search("ScalarSearchWithTenHits", kScalarSearch, manyHits(10)));
}

void addParseResults(std::vector<Reply>& all) {
  all.push_back(parseResults("ParseResultWithoutRows", {}));
  all.push_back(parseResults("ParseResultWithOneRow", {{"doc1", "", "", 0}}));
  all.push_back(
      parseResults("ParseResultWithThreeRows", {{"doc1", "", "", 0},
                                                {"d\xC3\xB6"
                                                 "c2",
                                                 "ZVK0017W", "Sprache unbekannt \xE2\x80\xA6", 4},
                                                {"doc3", "ZVK0018I", "two pages", 8}}));
  all.push_back(withoutBody("ParseResultWithoutBody", kParseResult, 200));
}

void addSingles(std::vector<Reply>& all) {
  all.push_back(single("Selectivity", kSelectivity, 200,
                       record({{"first", "5"}, {"second", "7"}, {"third", "9"}}), success()));
  all.push_back(single("GetStatus", kGetStatus, 200, record({{"STATUS_CODE", "17"}}), status(17)));
  all.push_back(single("GetStatusAmongOthers", kGetStatus, 200,
                       record({{"a", ""}, {"STATUS_CODE", "4294967295"}, {"z", "1"}}),
                       status(4294967295U)));
  all.push_back(withoutBody("GetStatusWithoutBody", kGetStatus, 200));
  all.push_back(
      unread("GetServerVersion", kGetServerVersion, 200, "Corvane 12.1-77 (any text)", success()));
  all.push_back(unread("GetServerVersionLikeAHeader", kGetServerVersion, 200,
                       "HTTP/1.1 500 no\r\nContent-Length: 5\r\n\r\nabcde", success()));
}

void addKindsWithoutResults(std::vector<Reply>& all) {
  for (const int kind : {1, 2, 3, 4, 5, 12, 13, 16, 17, 18, 19, 21, 22, 23, 24}) {
    all.push_back(withoutBody("Kind" + std::to_string(kind) + "WithoutBody", kind, 200));
  }
  all.push_back(unread("UpdateIndexWithAnUnreadBody", 4, 200, "ignored", success()));
}

void addRefusals(std::vector<Reply>& all) {
  const auto error = record({{"MsgId", "ZVK0404E"}, {"MsgText", "no collection \xC3\xBC"}});
  const auto severe = record({{"MsgId", "ZVK0500S"}, {"MsgText", ""}});
  const auto foreign = record({{"MsgId", "ABC0001W"}, {"MsgText", "of another maker"}});
  for (const int kind : {4, 8, 11, 14, 15, 20}) {
    all.push_back(single("ServerErrorOnKind" + std::to_string(kind), kind, 500, error,
                         serverMessage("ZVK0404E", "no collection \xC3\xBC", 2)));
  }
  all.push_back(single("SevereServerError", 1, 500, severe, serverMessage("ZVK0500S", "", 1)));
  all.push_back(single("ForeignServerError", 1, 500, foreign,
                       serverMessage("ABC0001W", "of another maker", 2)));
  all.push_back(single("ServerErrorWithoutId", 4, 500, record({{"MsgText", "who knows"}}),
                       failure("ERR_SERVER_APP", "", "kruRESTResponse")));
  all.push_back(single("ServerErrorWithEmptyId", 4, 500, record({{"MsgId", ""}, {"MsgText", "x"}}),
                       failure("ERR_SERVER_APP", "", "kruRESTResponse")));
  for (const int kind : {4, 8, 11, 15}) {
    const auto suffix = "OnKind" + std::to_string(kind);
    all.push_back(unread("BadRequest" + suffix, kind, 400, "?",
                         failure("ERR_SERVER_PROTOCOL", "", "(null)")));
    all.push_back(unread("Unauthorized" + suffix, kind, 401, "who are you",
                         failure("ERR_SERVER_INVALID_AUTH", "", "(null)")));
    all.push_back(unread("NotFound" + suffix, kind, 404, "not here",
                         failure("ERR_SERVER_PROTOCOL", "", "(null)")));
  }
  all.push_back(unread("Moved", 1, 302, "elsewhere", failure("ERR_SERVER_PROTOCOL", "", "(null)")));
  all.push_back(
      unread("Unavailable", 20, 503, "later", failure("ERR_SERVER_PROTOCOL", "", "(null)")));
  for (const int code : {400, 401, 404, 500, 503}) {
    all.push_back(withoutBody("Status" + std::to_string(code) + "WithoutBody", 8, code));
  }
  all.push_back(withoutBody("Status404WithoutBodyOnKind1", 1, 404));
}

void addFramings(std::vector<Reply>& all) {
  auto reply = search("SearchBehindStrayLineEnds", kStreamSearch, kThreeHits);
  reply.inFront = "\r\n\r\n\n";
  all.push_back(reply);
  reply.name = "SearchBehindAnInterimReply";
  reply.inFront = "HTTP/1.1 100 Continue\r\n\r\n";
  all.push_back(reply);
  reply.name = "SearchWithFurtherHeaderLines";
  reply.inFront.clear();
  reply.headerLines = "Server: corvaned\r\nX-Empty:\r\nDate: Thu, 01 Jan 1970 00:00:00 GMT\r\n";
  all.push_back(reply);
  reply.name = "SearchWithALongHeaderLine";
  reply.headerLines = "X-Long: " + std::string(1000, 'x') + "\r\n";
  all.push_back(reply);
}

std::vector<Reply> makeAll() {
  std::vector<Reply> all;
  addSearches(all);
  addParseResults(all);
  addSingles(all);
  addKindsWithoutResults(all);
  addRefusals(all);
  addFramings(all);
  return all;
}

std::vector<Reply> makeLong() {
  std::vector<Reply> all;
  all.push_back(search("StreamSearchWithFortyHits", kStreamSearch, manyHits(40)));
  all.push_back(search("ScalarSearchWithFortyHits", kScalarSearch, manyHits(40)));
  std::vector<HitText> hits;
  for (int i = 0; i < 4000; ++i) {
    hits.push_back({"base64:" + std::to_string(100000 + i) + "==", "0.75", 0.75});
  }
  all.push_back(search("FourThousandStreamedHits", kStreamSearch, hits));
  all.push_back(search("FourThousandScalarHits", kScalarSearch, hits));
  // One hit that is longer than any buffer on its way.
  all.push_back(
      search("OneVeryLongHit", kStreamSearch,
             {{"base64:" + std::string(100000, 'Q'), "2", 2.0}, {"base64:eg==", "", 0.0}}));
  std::vector<Parsed> rows;
  for (int i = 0; i < 1500; ++i) {
    rows.push_back({"document " + std::to_string(10000 + i), "ZVK0001E", "why not", 2});
  }
  all.push_back(parseResults("FifteenHundredParseResults", rows));
  auto reply = search("ShortBodyBehindALongHeader", kStreamSearch, kThreeHits);
  for (int i = 0; i < 2000; ++i) reply.headerLines += "X-Line: " + std::to_string(i) + "\r\n";
  all.push_back(reply);
  return all;
}

}  // namespace

std::string bigEndian(std::uint32_t value) {
  std::string out;
  for (const unsigned int shift : {24U, 16U, 8U, 0U}) {
    out.push_back(static_cast<char>((value >> shift) & 0xFF));
  }
  return out;
}

std::string enveloped(const std::string& bytes) {
  return bigEndian(static_cast<std::uint32_t>(bytes.size())) + bytes;
}

std::string record(const std::vector<std::pair<std::string, std::string>>& fields) {
  std::string out;
  // The value's top bits are a tag that says "text".
  constexpr std::uint32_t textTag = 0x40000000;
  for (const auto& [key, value] : fields) {
    out += enveloped(key);
    out += bigEndian(static_cast<std::uint32_t>(value.size()) | textTag) + value;
  }
  return out;
}

std::string hitRecord(const std::string& id, const std::string& score) {
  if (score.empty()) return record({{"URI", id}});
  return record({{"URI", id}, {"SCORE", score}});
}

std::string plain(const Reply& reply) {
  return reply.inFront + statusLine(reply.status) + reply.headerLines +
         "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n" + reply.body;
}

Chunked chunkedAt(const Reply& reply, const std::vector<std::size_t>& ends, bool lastChunk) {
  Chunked out;
  out.text = reply.inFront + statusLine(reply.status) + reply.headerLines +
             "Transfer-Encoding: chunked\r\n\r\n";
  std::size_t at = 0;
  for (const auto end : ends) {
    out.text += chunkSizeLine(end - at);
    out.chunks.push_back({out.text.size(), out.text.size() + (end - at), end});
    out.text += reply.body.substr(at, end - at) + "\r\n";
    at = end;
  }
  // A reply without a body has nothing but its last chunk.
  if (lastChunk || reply.body.empty()) out.text += "0\r\n\r\n";
  return out;
}

Chunked chunked(const Reply& reply, std::size_t size, bool lastChunk) {
  std::vector<std::size_t> ends;
  if (size != 0) {
    for (std::size_t end = size; end < reply.body.size(); end += size) ends.push_back(end);
  }
  if (!reply.body.empty()) ends.push_back(reply.body.size());
  return chunkedAt(reply, ends, lastChunk);
}

bool chunksKeepRecordsWhole(const Reply& reply, std::size_t size) {
  if (size == 0) return true;
  const auto& starts = reply.recordStarts;
  for (std::size_t at = size; at < reply.body.size(); at += size) {
    if (std::find(starts.begin(), starts.end(), at) == starts.end()) return false;
  }
  return true;
}

Outcome expectedInChunks(const Reply& reply, std::size_t size) {
  // What is too short to hold a record's start is joined first: a reply of eight bytes, the end
  // mark alone, survives any cut.
  const bool nothingToCut = reply.body.size() <= 8;
  if (!reply.recordsMustBeWhole || reply.status != 200 || nothingToCut ||
      chunksKeepRecordsWhole(reply, size)) {
    return reply.expected;
  }
  auto refused =
      failure("ERR_CLIENT_RESP_PARSING", "a parse result is longer than its data", "(null)");
  refused.returnCode = 0;  // the status line has said so before the body was looked at
  return refused;
}

const std::vector<Reply>& allReplies() {
  static const std::vector<Reply> replies = makeAll();
  return replies;
}

const std::vector<Reply>& longReplies() {
  static const std::vector<Reply> replies = makeLong();
  return replies;
}

const Reply& replyNamed(const std::string& name) {
  for (const auto* replies : {&allReplies(), &longReplies()}) {
    for (const auto& reply : *replies) {
      if (reply.name == name) return reply;
    }
  }
  throw std::out_of_range("no reply named " + name);
}

const Reply& nextReply() {
  static const Reply reply =
      single("Next", kGetStatus, 200, record({{"STATUS_CODE", "4242"}}), status(4242));
  return reply;
}

std::ostream& operator<<(std::ostream& out, const Reply& reply) { return out << reply.name; }

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  out << "{return code " << outcome.returnCode << ", status " << outcome.statusCode;
  if (!outcome.errorId.empty()) {
    out << ", error " << outcome.errorId << " \"" << outcome.errorText << "\" from "
        << outcome.errorFile << " level " << outcome.errorLevel << " (";
    for (const auto& argument : outcome.errorArguments) out << argument << ", ";
    out << ")";
  }
  out << ", " << outcome.hits.size() << " hits";
  for (std::size_t i = 0; i < std::min<std::size_t>(outcome.hits.size(), 5); ++i) {
    out << " " << outcome.hits[i].id.substr(0, 40) << "=" << outcome.hits[i].score;
  }
  out << ", " << outcome.parsed.size() << " parsed";
  for (std::size_t i = 0; i < std::min<std::size_t>(outcome.parsed.size(), 5); ++i) {
    const auto& row = outcome.parsed[i];
    out << " " << row.document << "/" << row.messageId << "/" << row.messageText << "/"
        << row.level;
  }
  out << ", selectivity";
  for (const auto value : outcome.selectivity) out << " " << value;
  return out << (outcome.endOfStream ? ", ended" : ", not ended")
             << (outcome.truncated ? ", truncated}" : ", whole}");
}

}  // namespace tq::test
