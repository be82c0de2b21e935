// Writes the inputs that fuzzing starts from, one directory for each harness, made of valid replies
// and requests: make_seeds DIRECTORY

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/corpusFile.h"
#include "tests/support/replyCorpus.h"

namespace {

using tq::test::CorpusEntry;
using tq::test::Reply;

constexpr std::size_t kLargestSeed = 2000;

class Seeds {
 public:
  explicit Seeds(std::filesystem::path directory) : directory_(std::move(directory)) {}

  void add(const std::string& harness, const std::string& name, const std::string& bytes) {
    if (bytes.size() > kLargestSeed) return;
    const auto place = directory_ / harness;
    std::filesystem::create_directories(place);
    std::ofstream out(place / name, std::ios::binary);
    out << bytes;
    if (!out.flush()) throw std::filesystem::filesystem_error("cannot write", place / name, {});
  }

 private:
  std::filesystem::path directory_;
};

std::string bytesOf(const std::vector<unsigned int>& values) {
  std::string out;
  for (const unsigned int value : values) out.push_back(static_cast<char>(value));
  return out;
}

std::string bigEndianShort(std::size_t value) {
  return bytesOf(
      {static_cast<unsigned int>(value >> 8 & 0xFF), static_cast<unsigned int>(value & 0xFF)});
}

std::string shortText(const std::string& text) { return bigEndianShort(text.size()) + text; }

// The position of a kind among those that a harness chooses from.
unsigned int indexOf(const std::vector<int>& kinds, int kind) {
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    if (kinds[i] == kind) return static_cast<unsigned int>(i);
  }
  return static_cast<unsigned int>(kinds.size() - 1);
}

unsigned int replyKind(int kind) {
  return indexOf({8, 20, 11, 14, 15, 22, 6, 4, 9, 0, 64, -1}, kind);
}

unsigned int requestKind(int kind) {
  return indexOf({8, 20, 11, 14, 15, 22, 9, 10, 3, 5, 1, 4, 12, 6, 64}, kind);
}

/// The options of the client's harness: flags, kind, and the seed of the pieces.
std::string clientOptions(unsigned int flags, int kind, unsigned int counts, unsigned int pieces) {
  const unsigned int choice = requestKind(kind);
  return bytesOf({flags, choice, choice, choice, counts, 0, pieces, 0});
}

const std::string kNext = "\xFF\xFEN";
const std::string kClose =
    "\xFF\xFE"
    "C";

void addHttpReply(Seeds& seeds, const Reply& reply) {
  const std::vector<std::pair<std::string, std::string>> forms{
      {"plain", plain(reply)},
      {"one_chunk", chunked(reply, 0, true).text},
      {"chunks", chunked(reply, 16, true).text},
      {"open", chunked(reply, 16, false).text}};
  constexpr unsigned int kSingleBytes = 0;
  for (const auto& [form, text] : forms) {
    const std::string name = reply.name + "_" + form;
    seeds.add("http_reply", name, bytesOf({replyKind(reply.kind), 0, kSingleBytes}) + text);
    seeds.add("client", name, clientOptions(2 | 16, reply.kind, 0, kSingleBytes) + kNext + text);
    seeds.add("client", name + "_twice",
              clientOptions(2, reply.kind, 1, 45) + kNext + text + kNext + text);
    seeds.add("client", name + "_retried",
              clientOptions(0, reply.kind, 4, 45) + kNext + text.substr(0, text.size() / 2) +
                  kClose + kNext + text);
  }
}

std::string shortRecord(const std::vector<std::pair<std::string, std::string>>& fields) {
  std::string out;
  for (const auto& [key, value] : fields) out += shortText(key) + shortText(value);
  return out;
}

void addBinaryReply(Seeds& seeds, const CorpusEntry& reply) {
  seeds.add("binary_reply", reply.name, bytesOf({replyKind(reply.kind), 0}) + reply.body);
  seeds.add("client", "binary_" + reply.name,
            clientOptions(1 | 2 | 4 | 16, reply.kind, 0, 0) + kNext + reply.body);
  seeds.add("client", "binary_" + reply.name + "_twice",
            clientOptions(1 | 2, reply.kind, 1, 45) + kNext + reply.body + kNext + reply.body);
  seeds.add("client", "binary_" + reply.name + "_retried",
            clientOptions(1 | 4, reply.kind, 4, 45) + kNext + reply.body.substr(0, 1) + kClose +
                kNext + reply.body);
}

void addRecords(Seeds& seeds) {
  const std::vector<std::vector<std::pair<std::string, std::string>>> records{
      {},
      {{"URI", "base64:a2V5"}, {"SCORE", "0.75"}},
      {{"Doc", "d1"}},
      {{"Doc", "d\xC3\xB6"}, {"MsgId", "ZVK0017W"}, {"MsgText", "what \xE2\x80\xA6"}},
      {{"MsgId", "ZVK0404E"}, {"MsgText", "no collection"}},
      {{"MsgId", ""}, {"MsgText", "x"}},
      {{"port", "8080"}},
      {{"STATUS_CODE", "17"}},
      {{"a", std::string("b\0c", 3)}, {"\xFF\xC3", "\xED\xA0\x80"}}};
  int number = 0;
  for (const auto& fields : records) {
    const std::string name = "record" + std::to_string(number++);
    seeds.add("record", name + "_wide", bytesOf({0, 1, 200}) + tq::test::record(fields));
    seeds.add("record", name + "_narrow", bytesOf({1, 5, 200}) + shortRecord(fields));
  }
}

std::string documentBlock(const std::string& content) {
  std::string body = tq::test::enveloped("title") + tq::test::enveloped("one") +
                     tq::test::enveloped("rowId") + tq::test::enveloped("key1");
  if (!content.empty()) body += tq::test::enveloped("data") + tq::test::enveloped(content);
  return tq::test::bigEndian(0) + tq::test::enveloped(body);
}

struct ServerRequest {
  std::string name;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string content;
};

void addRequests(Seeds& seeds) {
  const std::string document = documentBlock("the text");
  const std::string end(8, '\0');
  const std::vector<ServerRequest> all{
      {"create", {{"action", "createCollection"}, {"language", "en"}}, ""},
      {"add", {{"action", "addDocument"}}, document},
      {"queue", {{"action", "asyncAddDocument"}}, document},
      {"last", {{"action", "asyncAddDocument"}}, end},
      {"delete", {{"action", "deleteDocument"}}, documentBlock("")},
      {"update", {{"action", "updateIndex"}}, ""},
      {"search",
       {{"action", "search"}, {"mode", "streaming"}, {"query", "x"}, {"scoreWanted", "true"}},
       ""},
      {"page",
       {{"action", "search"}, {"mode", "scalar"}, {"query", "x"}, {"start", "1"}, {"size", "2"}},
       ""},
      {"estimate", {{"action", "selectivity"}, {"query", "x"}}, ""},
      {"results", {{"action", "getParseResult"}}, ""},
      {"status", {{"action", "getStatus"}}, ""},
      {"version", {{"action", "getServerVersion"}}, ""},
      {"unknown", {{"action", "fly"}}, ""}};
  for (const ServerRequest& request : all) {
    std::string block = "Content-Length  : ";
    if (!request.content.empty()) block += std::to_string(request.content.size());
    block += "\nindex: c1\nver: 1.1\n";
    for (const auto& [name, value] : request.headers) block += name + ": " + value + "\n";
    block += "\r\n";
    seeds.add("request_decoder", request.name + "_http", bytesOf({0, 5}) + block + request.content);
    seeds.add("request_decoder", request.name + "_twice",
              bytesOf({0, 64}) + block + request.content + block + request.content);
    seeds.add("request_decoder", request.name + "_binary",
              bytesOf({1, 5}) + shortText(block) + request.content);
  }
}

/// A header block as long as it may be, whose end mark arrives in two pieces.
void addBlockAtTheLimit(Seeds& seeds) {
  const std::string block = "action: getServerVersion\nname: " + std::string(32, 'x') + "\n";
  seeds.add("request_decoder", "block_at_the_limit", bytesOf({2, 1}) + block + "\r\n");
}

void addDocuments(Seeds& seeds) {
  const std::vector<std::pair<std::string, std::string>> html{
      {"page",
       "<!DOCTYPE html><html><head><meta charset=latin1><title>T&amp;</title><style>p{}</style>"
       "<body class='a > b'><p>red <b>f</b>ox<br/>&eacute;&#233;&#xE9;&nosuch;</body></html>"},
      {"hidden", "<!-- a --><script>if (a<b) '</b>'</script>seen<![CDATA[no]]><?php no ?>"},
      {"broken", "a < b & c </ d <x a=\"'\">e</title><textarea>f</b></textareax>g<!--"}};
  const std::vector<std::pair<std::string, std::string>> xml{
      {"document",
       "<?xml version='1.0' encoding='latin1'?>\n<!DOCTYPE a SYSTEM 'x' [<!ELEMENT a (#PCDATA)>"
       "<!ATTLIST a b CDATA 'no'>]><a>caf&eacute;<b c='1'/><![CDATA[a < b]]>&#233;<!-- --></a>"},
      {"entity", "<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>"},
      {"nested", "<a><b><c>1</c> 2</b>3<?no no?></a>"},
      {"wide", std::string("\xFF\xFE<\0a\0/\0>\0", 10)}};
  constexpr unsigned int kHtml = 0;
  constexpr unsigned int kXml = 1;
  constexpr unsigned int kRepeated = 62;
  for (const auto& [name, text] : html) {
    seeds.add("document_text", "html_" + name, bytesOf({kHtml, 2, 9}) + text);
    seeds.add("document_text", "html_" + name + "_repeated",
              bytesOf({kHtml | kRepeated, 0, 3}) + text);
  }
  for (const auto& [name, text] : xml) {
    seeds.add("document_text", "xml_" + name, bytesOf({kXml, 0, 0}) + text);
    seeds.add("document_text", "xml_" + name + "_in_utf8", bytesOf({kXml, 1, 0}) + text);
  }
}

void makeSeeds(const char* directory) {
  Seeds seeds(directory);
  for (const Reply& reply : tq::test::allReplies()) addHttpReply(seeds, reply);
  for (const auto& reply : tq::test::corpusFile("binaryReplies.txt")) addBinaryReply(seeds, reply);
  addRecords(seeds);
  addRequests(seeds);
  addBlockAtTheLimit(seeds);
  addDocuments(seeds);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds DIRECTORY\n");
    return 2;
  }
  makeSeeds(argv[1]);
  return 0;
}
