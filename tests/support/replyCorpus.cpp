#include "tests/support/replyCorpus.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <mutex>
#include <ostream>
#include <stdexcept>

#include "tests/support/corpusFile.h"

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

void finish(Reply& reply) {
  reply.endMark = true;
  reply.recordStarts.push_back(reply.body.size());
  reply.body += bigEndian(0);
  reply.recordStarts.push_back(reply.body.size());
}

struct HitText {
  std::string id;
  std::string score;
  double value;
};

Reply search(const std::string& name, int kind, const std::vector<HitText>& hits) {
  Reply reply{name, kind};
  reply.body = kUninterpreted;
  reply.streamed = true;
  reply.expected = success();
  for (const auto& hit : hits) {
    addRecord(reply, hitRecord(hit.id, hit.score));
    reply.expected.hits.push_back({hit.id, hit.value});
  }
  finish(reply);
  return reply;
}

Reply parseResults(const std::string& name, const std::vector<Parsed>& rows) {
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
  finish(reply);
  return reply;
}

std::vector<HitText> manyHits(std::size_t count) {
  std::vector<HitText> hits;
  for (std::size_t i = 0; i < count; ++i) {
    hits.push_back(
        {"base64:" + std::string((i % 7 + 1) * 4, static_cast<char>('A' + i % 26)), "0.25", 0.25});
  }
  return hits;
}

Reply replyOf(CorpusEntry entry) {
  Reply reply{std::move(entry.name), entry.kind, entry.status, std::move(entry.body),
              std::move(entry.expected)};
  reply.headerLines = std::move(entry.headerLines);
  reply.inFront = std::move(entry.before);
  reply.streamed = entry.inPortions;
  reply.recordsMustBeWhole = entry.inWholeRecords;
  reply.recordStarts = std::move(entry.starts);
  const auto records = reply.recordStarts.size();
  reply.endMark = records >= 2 && reply.recordStarts[records - 1] ==
                                      reply.recordStarts[records - 2] + bigEndian(0).size();
  return reply;
}

const Corpus<Reply>& file() {
  static const Corpus<Reply> file("httpReplies.txt", replyOf);
  return file;
}

const Reply* named(const std::string& name, const std::vector<Reply>& replies) {
  for (const auto& reply : replies) {
    if (reply.name == name) return &reply;
  }
  return nullptr;
}

Reply fortyHits(const std::string& name) {
  return search(name, name.rfind("Stream", 0) == 0 ? kStreamSearch : kScalarSearch, manyHits(40));
}

Reply fourThousandHits(const std::string& name) {
  const bool streamed = name == "FourThousandStreamedHits";
  std::vector<HitText> hits;
  for (int i = 0; i < 4000; ++i) {
    hits.push_back({"base64:" + std::to_string(100000 + i) + "==", "0.75", 0.75});
  }
  return search(name, streamed ? kStreamSearch : kScalarSearch, hits);
}

Reply oneVeryLongHit(const std::string& name) {
  return search(name, kStreamSearch,
                {{"base64:" + std::string(100000, 'Q'), "2", 2.0}, {"base64:eg==", "", 0.0}});
}

Reply manyParseResults(const std::string& name) {
  std::vector<Parsed> rows;
  for (int i = 0; i < 1500; ++i) {
    rows.push_back({"document " + std::to_string(10000 + i), "ZVK0001E", "why not", 2});
  }
  return parseResults(name, rows);
}

Reply behindALongHeader(const std::string& name) {
  Reply reply = *named("StreamSearchWithThreeHits", allReplies());
  reply.name = name;
  for (int i = 0; i < 2000; ++i) reply.headerLines += "X-Line: " + std::to_string(i) + "\r\n";
  return reply;
}

struct Recipe {
  const char* name;
  Reply (*make)(const std::string& name);
};

constexpr Recipe kLong[] = {{"StreamSearchWithFortyHits", fortyHits},
                            {"ScalarSearchWithFortyHits", fortyHits},
                            {"FourThousandStreamedHits", fourThousandHits},
                            {"FourThousandScalarHits", fourThousandHits},
                            {"OneVeryLongHit", oneVeryLongHit},
                            {"FifteenHundredParseResults", manyParseResults},
                            {"ShortBodyBehindALongHeader", behindALongHeader}};

// A test uses one or two of them, and each test is a process of its own.
const Reply* longNamed(const std::string& name) {
  static std::mutex mutex;
  static std::map<std::string, Reply> made;
  const std::lock_guard lock(mutex);
  const auto found = made.find(name);
  if (found != made.end()) return &found->second;
  for (const Recipe& recipe : kLong) {
    if (recipe.name == name) return &made.emplace(name, recipe.make(name)).first->second;
  }
  return nullptr;
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
  constexpr std::uint32_t kTextTag = 0x40000000;
  for (const auto& [key, value] : fields) {
    out += enveloped(key);
    out += bigEndian(static_cast<std::uint32_t>(value.size()) | kTextTag) + value;
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
  // A reply of eight bytes is the end mark alone, which is joined however it is cut.
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

const std::vector<Reply>& allReplies() { return file().replies; }

std::vector<std::string> longReplyNames() {
  std::vector<std::string> names;
  for (const Recipe& recipe : kLong) names.emplace_back(recipe.name);
  return names;
}

const Reply& replyNamed(const std::string& name) {
  if (const auto* reply = named(name, allReplies())) return *reply;
  if (const auto* reply = longNamed(name)) return *reply;
  throw std::out_of_range("no reply named " + name);
}

const Reply& nextReply() { return file().next; }

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
