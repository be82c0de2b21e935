#include "tests/support/binaryReplies.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

#include "comm/kruDrestoPerfClient.h"
#include "comm/kruRESTException.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "tests/support/corpusFile.h"

namespace tq::test {

using tq::comm::ClientResponse;
using tq::comm::DrestoPerfClient;
using tq::comm::RESTException;

namespace {

constexpr unsigned int kSuccess = 1;

BinaryOutcome success() {
  BinaryOutcome outcome;
  outcome.seen.returnCode = 0;
  outcome.seen.endOfStream = true;
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

void addScoredHit(BinaryReply& reply, unsigned int thousandths, const std::string& key) {
  add(reply, 5, word16(thousandths) + key);
  reply.expected.seen.hits.push_back({idOfKey(key), thousandths / 1000.0});
}

BinaryReply replyOf(CorpusEntry entry) {
  BinaryReply reply{std::move(entry.name), entry.kind, std::move(entry.body)};
  reply.expected = {std::move(entry.expected), entry.errorLine, std::move(entry.content),
                    std::move(entry.statusMessageId), std::move(entry.statusMessageText)};
  reply.envelopes = std::move(entry.starts);
  reply.lengths = std::move(entry.lengths);
  reply.keepsConnection = entry.keepsConnection;
  return reply;
}

const Corpus<BinaryReply>& file() {
  static const Corpus<BinaryReply> file("binaryReplies.txt", replyOf);
  return file;
}

// What a caller takes.

void takeAll(ClientResponse& response, BinaryOutcome& outcome) {
  takeHits(response.getSearchResponse(), outcome.seen);
  takeParsed(response.getParseResponse(), outcome.seen);
}

void pullLooping(DrestoPerfClient& client, ClientResponse& response, int kind,
                 BinaryOutcome& outcome) {
  for (;;) {
    if (kind == kParseResult) {
      auto& rows = response.getParseResponse(client);
      if (!rows.hasMore()) return;
      takeParsed(rows, outcome.seen);
    } else {
      auto& hits = response.getSearchResponse(client, true);
      if (!hits.hasMore()) return;
      takeHits(hits, outcome.seen);
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

void noteAll(ClientResponse& response, BinaryOutcome& outcome) {
  noteResponse(response, outcome.seen);
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

const std::vector<BinaryReply>& binaryReplies() { return file().replies; }

const BinaryReply& binaryReplyNamed(const std::string& name) {
  for (const auto& reply : binaryReplies()) {
    if (reply.name == name) return reply;
  }
  throw std::out_of_range("no reply named " + name);
}

const BinaryReply& nextBinaryReply() { return file().next; }

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
  noteAll(response, outcome);
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
