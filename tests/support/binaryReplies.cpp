#include "tests/support/binaryReplies.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"

namespace tq::test {

using tq::comm::ClientResponse;
using tq::comm::DrestoPerfClient;
using tq::comm::RESTException;

namespace {

constexpr unsigned int kSuccess = 1;
constexpr unsigned int kStatusOnly = 5;
constexpr unsigned int kServerError = 6;
constexpr unsigned int kInvalidAuth = 401;

constexpr auto kParser = "kruDrestoPerfResponse";

// What is expected.

BinaryOutcome success() {
  BinaryOutcome outcome;
  outcome.seen.returnCode = 0;
  outcome.seen.endOfStream = true;
  return outcome;
}

BinaryOutcome serverMessage(const std::string& id, const std::string& text, int level) {
  auto outcome = binaryFailure(id, "(null)", 0);
  outcome.seen.errorText = text;
  outcome.seen.errorLevel = level;
  return outcome;
}

// Appends envelopes to a reply and remembers where each begins.

void add(BinaryReply& reply, unsigned int status, const std::string& payload) {
  reply.envelopes.push_back(reply.text.size());
  reply.lengths.push_back(reply.text.size() + 2);
  reply.text += envelope(status, payload);
}

BinaryReply& finish(BinaryReply& reply) {
  add(reply, 1, "");
  reply.envelopes.push_back(reply.text.size());
  return reply;
}

BinaryReply results(const std::string& name, int kind) {
  BinaryReply reply{name, kind, word16(kSuccess), success()};
  return reply;
}

void addHit(BinaryReply& reply, const std::string& key) {
  add(reply, 1, key);
  reply.expected.seen.hits.push_back({idOfKey(key), 0.0});
}

void addScoredHit(BinaryReply& reply, unsigned int thousandths, const std::string& key) {
  add(reply, 5, word16(thousandths) + key);
  reply.expected.seen.hits.push_back({idOfKey(key), thousandths / 1000.0});
}

void addSearches(std::vector<BinaryReply>& all) {
  for (const auto& [prefix, kind] :
       {std::pair{"Stream", kStreamSearch}, {"Scalar", kScalarSearch}}) {
    const std::string name = std::string(prefix) + "Search";
    auto none = results(name + "WithoutHits", kind);
    all.push_back(finish(none));

    auto one = results(name + "WithOneHit", kind);
    addHit(one, "k");
    all.push_back(finish(one));

    auto three = results(name + "WithThreeHits", kind);
    for (const auto* key : {"first", "2", "the third of them"}) addHit(three, key);
    all.push_back(finish(three));

    auto scored = results(name + "WithScores", kind);
    addScoredHit(scored, 65535, "best");
    addScoredHit(scored, 1500, std::string("\x00\xFF\x01", 3));
    addScoredHit(scored, 0, "");
    addScoredHit(scored, 1, "worst");
    all.push_back(finish(scored));

    auto odd = results(name + "WithAnErrorAmongTheHits", kind);
    addHit(odd, "before");
    const auto error = errorRecord({{"MsgId", "ZVK0001E"}, {"MsgText", "too late"}});
    add(odd, 6, error);
    odd.expected.seen.hits.push_back({idOfKey(error), 0.0});
    addHit(odd, "behind");
    all.push_back(finish(odd));

    auto empty = results(name + "WithEmptyKeys", kind);
    for (const unsigned int status : {0U, 2U, 6U, 401U}) {
      add(empty, status, "");
      empty.expected.seen.hits.push_back({idOfKey(""), 0.0});
    }
    all.push_back(finish(empty));
  }
  auto many = results("StreamSearchWithFortyHits", kStreamSearch);
  for (unsigned int i = 0; i < 40; ++i) addScoredHit(many, i * 100, std::string(i % 7, 'k'));
  all.push_back(finish(many));
}

void addRow(BinaryReply& reply, const Parsed& row, unsigned int status = 1) {
  std::vector<std::pair<std::string, std::string>> fields{{"Doc", row.document}};
  if (!row.messageId.empty()) {
    fields.emplace_back("MsgId", row.messageId);
    fields.emplace_back("MsgText", row.messageText);
  }
  std::size_t at = reply.text.size() + 4;
  add(reply, status, record16(fields));
  for (const auto& [name, value] : fields) {
    reply.lengths.push_back(at);
    reply.lengths.push_back(at + 2 + name.size());
    at += 4 + name.size() + value.size();
  }
  reply.expected.seen.parsed.push_back(row);
}

void addParseResults(std::vector<BinaryReply>& all) {
  auto none = results("ParseResultWithoutRows", kParseResult);
  all.push_back(finish(none));
  auto one = results("ParseResultWithOneRow", kParseResult);
  addRow(one, {"doc1", "", "", 0});
  all.push_back(finish(one));
  auto three = results("ParseResultWithThreeRows", kParseResult);
  addRow(three, {"doc1", "ZVK0017W", "Sprache unbekannt \xE2\x80\xA6", 4});
  addRow(three, {"d\xC3\xB6 2", "", "", 0});
  addRow(three, {"doc3", "ABC0018S", "", 2}, 6);
  all.push_back(finish(three));
}

void addEstimates(std::vector<BinaryReply>& all) {
  auto none = results("SelectivityWithoutRecord", kSelectivity);
  all.push_back(finish(none));
  auto one = results("Selectivity", kSelectivity);
  add(one, 1, estimate(5, 7, 9));
  one.expected.seen.selectivity = {5, 9, 7};
  all.push_back(finish(one));
  auto three = results("SelectivityWithThreeRecords", kSelectivity);
  add(three, 1, estimate(1, 2, 3));
  add(three, 6, estimate(4, 5, 6));
  add(three, 1, estimate(0xFFFFFFFF, 0, 0x80000000) + "and more");
  three.expected.seen.selectivity = {0xFFFFFFFF, 0x80000000, 0};
  all.push_back(finish(three));
}

BinaryReply content(const std::string& name, unsigned int status, const std::string& payload) {
  auto reply = results(name, kGetServerVersion);
  add(reply, status, payload);
  reply.envelopes.push_back(reply.text.size());
  return reply;
}

void addContents(std::vector<BinaryReply>& all) {
  for (const auto& [name, text] :
       {std::pair<std::string, std::string>{"GetServerVersion", "Corvane 12.1-77 \xE2\x82\xAC"},
        {"GetServerVersionEmpty", ""},
        {"GetServerVersionWithAZeroByte", std::string("a\0b", 3)}}) {
    all.push_back(content(name, 1, text));
    all.back().expected.content = text;
  }
  auto refused = content("GetServerVersionErrorInTheEnvelope", 6,
                         errorRecord({{"MsgId", "ZVK0009S"}, {"MsgText", "no version"}}));
  refused.expected = serverMessage("ZVK0009S", "no version", 1);
  refused.expected.seen.returnCode = 0;  // the header has said so
  all.push_back(refused);
  // Nothing says what it would mean, and the parser is not armed again for what may follow.
  auto unknown = content("GetServerVersionInAnUnknownEnvelope", 2, "what is this");
  unknown.expected = finishedTooEarly();
  unknown.expected.seen.returnCode = 0;
  unknown.keepsConnection = false;
  all.push_back(unknown);
}

std::string ofKind(const std::string& name, int kind) {
  return name + "OnKind" + std::to_string(kind);
}

BinaryReply headerOnly(const std::string& name, int kind, unsigned int code,
                       const BinaryOutcome& expected) {
  return {name, kind, word16(code), expected};
}

void addHeadersAlone(std::vector<BinaryReply>& all) {
  for (const int kind : {1, 2, 3, 4, 5, 12, 13, 15, 16, 17, 18, 19, 21, 23, 24}) {
    all.push_back(headerOnly(ofKind("Success", kind), kind, kSuccess, success()));
  }
  auto up = success();
  up.seen.statusCode = 1;
  all.push_back(headerOnly("StatusOnly", kGetStatus, kStatusOnly, up));
  for (const int kind : {1, 4, 8, 11, 14, 20, 22}) {
    auto statusOnly = binaryFailure("ERR_SERVER_PROTOCOL", kParser, 240,
                                    {"Unpexpected StatCode 5 in response header"});
    statusOnly.seen.returnCode = 0;
    all.push_back(headerOnly(ofKind("StatusOnly", kind), kind, kStatusOnly, statusOnly));
  }
  for (const int kind : {1, 8, 11, 14, 15, 20, 22}) {
    all.push_back(headerOnly(ofKind("Unauthorized", kind), kind, kInvalidAuth,
                             binaryFailure("ERR_SERVER_INVALID_AUTH", kParser, 266)));
  }
  for (const int kind : {1, 8, 15}) {
    for (const unsigned int code : {0U, 3U, 9U, 65535U}) {
      auto unknown = headerOnly(ofKind("Code" + std::to_string(code), kind), kind, code,
                                binaryFailure("ERR_SERVER_PROTOCOL", kParser, 272));
      unknown.keepsConnection = false;
      all.push_back(unknown);
    }
  }
}

BinaryReply refusal(const std::string& name, int kind,
                    const std::vector<std::pair<std::string, std::string>>& fields,
                    const BinaryOutcome& expected) {
  BinaryReply reply{name, kind, word16(kServerError) + errorRecord(fields), expected};
  reply.lengths = {2};
  std::size_t at = 4;
  for (const auto& [key, value] : fields) {
    reply.lengths.push_back(at);
    reply.lengths.push_back(at + 2 + key.size());
    at += 4 + key.size() + value.size();
  }
  return reply;
}

BinaryOutcome troubledStatus(const std::string& id, const std::string& text) {
  auto outcome = success();
  outcome.seen.statusCode = 2;
  outcome.statusMessageId = id;
  outcome.statusMessageText = text;
  return outcome;
}

void addRefusals(std::vector<BinaryReply>& all) {
  const std::vector<std::pair<std::string, std::string>> error{
      {"MsgId", "ZVK0404E"}, {"MsgText", "no collection \xC3\xBC"}};
  for (const int kind : {1, 4, 8, 11, 14, 20, 22}) {
    all.push_back(refusal(ofKind("Refused", kind), kind, error,
                          serverMessage("ZVK0404E", "no collection \xC3\xBC", 2)));
  }
  all.push_back(refusal("RefusedWithoutId", kStreamSearch, {{"MsgText", "who knows"}},
                        serverMessage("ERR_SERVER_APP", "", 2)));
  all.push_back(refusal("RefusedWithEmptyId", kStreamSearch, {{"MsgId", ""}, {"MsgText", "x"}},
                        serverMessage("ERR_SERVER_APP", "", 2)));
  all.push_back(
      refusal("RefusedWithoutFields", kStreamSearch, {}, serverMessage("ERR_SERVER_APP", "", 2)));
  all.push_back(refusal("RefusedAtLength", 4,
                        {{"MsgId", "ZVK0001W"}, {"MsgText", std::string(5000, 'x')}},
                        serverMessage("ZVK0001W", std::string(5000, 'x'), 4)));
  all.push_back(refusal("TroubledStatus", kGetStatus, error,
                        troubledStatus("ZVK0404E", "no collection \xC3\xBC")));
  all.push_back(refusal("TroubledStatusWithoutId", kGetStatus, {{"MsgText", "who knows"}},
                        troubledStatus("ERR_SERVER_APP", "")));
}

std::vector<BinaryReply> makeAll() {
  std::vector<BinaryReply> all;
  addSearches(all);
  addParseResults(all);
  addEstimates(all);
  addContents(all);
  addHeadersAlone(all);
  addRefusals(all);
  return all;
}

// What a caller takes.

void take(tq::comm::SearchResponse& response, BinaryOutcome& outcome) {
  while (response.hasMore()) {
    auto& hit = response.getNext();
    outcome.seen.hits.push_back({utf8(hit.getDocId()), hit.getScore()});
  }
}

void take(tq::comm::ParseResponse& response, BinaryOutcome& outcome) {
  while (response.hasMore()) {
    auto& row = response.getNext();
    Parsed parsed{utf8(row.getDocument()), {}, {}, 0};
    if (row.hasMessage()) {
      parsed.messageId = utf8(row.getMessage().getMessageId());
      parsed.messageText = utf8(row.getMessage().getMessageText());
      parsed.level = static_cast<int>(row.getMessage().getLevel());
    }
    outcome.seen.parsed.push_back(std::move(parsed));
  }
}

void takeAll(ClientResponse& response, BinaryOutcome& outcome) {
  take(response.getSearchResponse(), outcome);
  take(response.getParseResponse(), outcome);
}

void pullLooping(DrestoPerfClient& client, ClientResponse& response, int kind,
                 BinaryOutcome& outcome) {
  for (;;) {
    if (kind == kParseResult) {
      auto& rows = response.getParseResponse(client);
      if (!rows.hasMore()) return;
      take(rows, outcome);
    } else {
      auto& hits = response.getSearchResponse(client, true);
      if (!hits.hasMore()) return;
      take(hits, outcome);
    }
  }
}

// The list of a scalar search grows from portion to portion, so its hits are taken once, at the
// end; the lists of the others are replaced.
void pullSingly(DrestoPerfClient& client, ClientResponse& response, int kind,
                BinaryOutcome& outcome) {
  const bool grows = kind == kScalarSearch;
  if (!grows) takeAll(response, outcome);
  while (!client.isEndOfStream()) {
    client.recv(response);
    if (!grows) takeAll(response, outcome);
  }
  if (grows) takeAll(response, outcome);
}

void noteResponse(ClientResponse& response, BinaryOutcome& outcome) {
  outcome.seen.returnCode = response.getReturnCode();
  outcome.seen.statusCode = response.getStatusCode();
  const auto& selectivity = response.getSelectivityInfo();
  outcome.seen.selectivity = {static_cast<std::uint64_t>(selectivity.getFirst()),
                              static_cast<std::uint64_t>(selectivity.getSecond()),
                              static_cast<std::uint64_t>(selectivity.getThird())};
  outcome.content = utf8(response.getContent());
  outcome.statusMessageId = utf8(response.getStatusMessage().getMessageId());
  outcome.statusMessageText = utf8(response.getStatusMessage().getMessageText());
}

}  // namespace

std::string word16(unsigned int value) {
  return {static_cast<char>((value >> 8) & 0xFF), static_cast<char>(value & 0xFF)};
}

std::string envelope(unsigned int status, const std::string& payload) {
  return word16(status) + word16(static_cast<unsigned int>(payload.size())) + payload;
}

std::string scoredHit(unsigned int thousandths, const std::string& key) {
  return envelope(5, word16(thousandths) + key);
}

std::string plainHit(const std::string& key) { return envelope(1, key); }

std::string endOfResults() { return envelope(1, ""); }

std::string record16(const std::vector<std::pair<std::string, std::string>>& fields) {
  std::string out;
  for (const auto& [key, value] : fields) {
    out += word16(static_cast<unsigned int>(key.size())) + key;
    out += word16(static_cast<unsigned int>(value.size())) + value;
  }
  return out;
}

std::string errorRecord(const std::vector<std::pair<std::string, std::string>>& fields) {
  const auto record = record16(fields);
  return word16(static_cast<unsigned int>(record.size())) + record;
}

std::string estimate(std::uint32_t first, std::uint32_t third, std::uint32_t second) {
  return bigEndian(first) + bigEndian(third) + bigEndian(second);
}

std::string idOfKey(const std::string& key) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out = "base64:";
  for (std::size_t at = 0; at < key.size(); at += 3) {
    const std::size_t count = std::min<std::size_t>(3, key.size() - at);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      bits = bits * 256 + (i < count ? static_cast<unsigned char>(key[at + i]) : 0U);
    }
    for (std::size_t i = 0; i < 4; ++i) {
      out += i <= count ? kAlphabet[(bits >> (18 - 6 * i)) & 63] : '=';
    }
  }
  return out;
}

unsigned int BinaryReply::code() const {
  return static_cast<unsigned char>(text[0]) * 256U + static_cast<unsigned char>(text[1]);
}

bool BinaryReply::refusesVersion() const {
  return kind == kGetServerVersion && code() == 1 && text.compare(2, 2, word16(6)) == 0;
}

const std::vector<BinaryReply>& binaryReplies() {
  static const std::vector<BinaryReply> replies = makeAll();
  return replies;
}

const BinaryReply& binaryReplyNamed(const std::string& name) {
  for (const auto& reply : binaryReplies()) {
    if (reply.name == name) return reply;
  }
  throw std::out_of_range("no reply named " + name);
}

const BinaryReply& nextBinaryReply() {
  static const BinaryReply reply =
      refusal("Next", kGetStatus, {{"MsgId", "ZVK4242I"}, {"MsgText", "the next one"}},
              troubledStatus("ZVK4242I", "the next one"));
  return reply;
}

BinaryReply longSearch(int kind, std::size_t hits) {
  auto reply = results("LongSearch", kind);
  for (std::size_t i = 0; i < hits; ++i) {
    addScoredHit(reply, static_cast<unsigned int>(i % 60000), "key " + std::to_string(i));
  }
  return finish(reply);
}

BinaryOutcome runBinary(DrestoPerfClient& client, int kind, Pull pull) {
  BinaryOutcome outcome;
  ClientResponse response;
  auto request = requestFor(kind);
  try {
    client.sendAndRecvMesg(request, response);
    const bool streams = kind == kStreamSearch || kind == kScalarSearch || kind == kParseResult;
    if (streams && pull == Pull::Looping) pullLooping(client, response, kind, outcome);
    if (streams && pull == Pull::Single) pullSingly(client, response, kind, outcome);
    outcome.seen.endOfStream = client.isEndOfStream();
    outcome.seen.truncated = client.isTruncated();
  } catch (const RESTException& error) {
    outcome.seen = [&] {
      auto seen = errorOf([&] { throw RESTException(error); });
      seen.hits = std::move(outcome.seen.hits);
      seen.parsed = std::move(outcome.seen.parsed);
      return seen;
    }();
    if (!error.getMessageList().empty()) {
      outcome.errorLine = error.getMessageList().front().getLineNumber();
    }
  }
  // What came before an error, and nobody has taken yet.
  takeAll(response, outcome);
  noteResponse(response, outcome);
  return outcome;
}

BinaryOutcome binaryFailure(const std::string& id, const std::string& file, unsigned long line,
                            const std::vector<std::string>& arguments) {
  BinaryOutcome outcome;
  outcome.seen.errorId = id;
  outcome.seen.errorFile = file;
  outcome.seen.errorLevel = 2;
  outcome.seen.errorArguments = arguments;
  outcome.errorLine = line;
  return outcome;
}

BinaryOutcome finishedTooEarly() {
  auto outcome = binaryFailure("ERR_CLIENT_RESP_PARSING", "(null)", 0);
  outcome.seen.errorText = "the reply is finished until a further block is announced";
  return outcome;
}

std::ostream& operator<<(std::ostream& out, const BinaryReply& reply) { return out << reply.name; }

std::ostream& operator<<(std::ostream& out, const BinaryOutcome& outcome) {
  out << outcome.seen;
  if (outcome.errorLine != 0) out << " line " << outcome.errorLine;
  if (!outcome.content.empty()) out << " content \"" << outcome.content << "\"";
  if (!outcome.statusMessageId.empty()) {
    out << " status message " << outcome.statusMessageId << " \"" << outcome.statusMessageText
        << "\"";
  }
  return out;
}

}  // namespace tq::test
