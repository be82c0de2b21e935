// What corvaned does with the bytes of a connection: requests are cut from them, documents decoded,
// the requests served by a store that keeps nothing, and the replies encoded.
//
// Input: framing and limits, seed of the pieces, then the bytes of the connection.

#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/memoryMeter.h"
#include "server/base/bytes.h"
#include "server/front/dispatcher.h"
#include "server/front/documentBlock.h"
#include "server/front/replyEncoder.h"
#include "server/front/requestDecoder.h"

namespace tq::fuzz {

namespace {

using corvaned::Framing;

constexpr MemoryBounds kMemory{48 * 1024, 16, 128 * 1024, 256};
constexpr std::uint32_t kLengthMask = 0x3FFFFFFF;

constexpr std::array<corvaned::DecoderLimits, 4> kLimits{{
    {},
    {64, std::uint64_t{1} << 30},
    {std::size_t{1} << 20, 16},
    {0, 0},
}};

class FewHits : public corvaned::HitSource {
 public:
  bool next(corvaned::Hit& hit) override {
    if (left_ == 0) return false;
    hit.key.assign(left_, 'k');
    hit.milliScore = static_cast<std::uint16_t>(left_ * 1000);
    --left_;
    return true;
  }

 private:
  std::size_t left_ = 3;
};

/// Looks at what arrives in a store, and keeps nothing.
class EmptyStore : public corvaned::Store {
 public:
  bool isOpen(const std::string& name) override {
    named(name);
    return true;
  }
  void open(const std::string& name, Opened opened) override {
    named(name);
    opened(std::nullopt);
  }
  bool isSettled(const std::string& name) override {
    named(name);
    return true;
  }
  void awaitSettled(const std::string& name, Opened settled) override {
    named(name);
    settled(std::nullopt);
  }
  void stop() override {}
  void createCollection(const std::string& name, const std::string&, const corvaned::Refresh&,
                        const corvaned::TextOptions&) override {
    named(name);
  }
  corvaned::DocumentReading documentDefaults(const std::string& name) override {
    named(name);
    return {};
  }
  std::optional<corvaned::DocumentReading> documentDefaultsIfOpen(
      const std::string& name) override {
    named(name);
    return corvaned::DocumentReading{};
  }
  void setDocumentDefaults(const std::string& name, const corvaned::DocumentReading&) override {
    named(name);
  }
  void openCollection(const std::string& name) override { named(name); }
  void closeCollection(const std::string& name) override { named(name); }
  void deleteCollection(const std::string& name) override { named(name); }
  void addDocument(const std::string& name, const corvaned::Document& document) override {
    named(name);
    require(!document.key.empty() && document.key.size() <= corvaned::kMaxKeyBytes,
            "a document that reaches the store has a key");
  }
  void queueDocument(const std::string& name, const corvaned::Document& document,
                     const std::string&) override {
    addDocument(name, document);
  }
  void reportOutcome(const std::string& name, corvaned::ParseOutcome, const std::string&) override {
    named(name);
  }
  void deleteDocument(const std::string& name, const std::string& key, bool) override {
    named(name);
    hasKey(key);
  }
  corvaned::BatchOutcome apply(const std::string& name, corvaned::Batch batch) override {
    named(name);
    require(!batch.name.empty(), "a batch has a name");
    std::set<std::string> keys;
    for (const corvaned::Document& document : batch.changes.documents) {
      hasKey(document.key);
      require(keys.insert(document.key).second, "no key comes twice in a batch");
    }
    for (const std::string& key : batch.changes.deletions) {
      hasKey(key);
      require(keys.insert(key).second, "no key comes twice in a batch");
    }
    return {keys.size(), 0, 0, std::move(batch.refused)};
  }
  corvaned::BatchOutcome batchOutcome(const std::string& name, const std::string& batch) override {
    named(name);
    require(!batch.empty(), "a batch has a name");
    return {1, 2, 1};
  }
  void updateIndex(const std::string& name) override { named(name); }
  void backup(const std::string& backup, const std::string&) override { named(backup); }
  std::vector<corvaned::BackupSummary> backups(const std::string&, std::uint64_t) override {
    return {{"b", "2026-11-22T06:00:00Z", 1, 2, ""}};
  }
  void restore(const corvaned::Restoration& restoration) override {
    named(restoration.backup);
    require(restoration.from.empty() || !restoration.collection.empty(),
            "what is restored from another collection has a name");
  }
  std::vector<corvaned::ParseOutcome> takeParseOutcomes(const std::string& name,
                                                        const std::string&) override {
    named(name);
    return {{"key", "", ""}, {"other", "ZVK0001E", "not stored"}};
  }
  std::unique_ptr<corvaned::HitSource> search(const std::string& name,
                                              const corvaned::SearchQuery& query) override {
    named(name);
    hasQuery(query);
    return std::make_unique<FewHits>();
  }
  std::unique_ptr<corvaned::HitSource> match(
      const std::string& name, const corvaned::SearchQuery& query,
      const std::vector<corvaned::Document>& documents) override {
    named(name);
    hasQuery(query);
    std::set<std::string> keys;
    for (const corvaned::Document& document : documents) {
      require(keys.insert(document.key).second, "documents to match have different keys");
    }
    return std::make_unique<FewHits>();
  }
  corvaned::Estimate estimate(const std::string& name, const std::string&, std::uint64_t) override {
    named(name);
    return {3, 7, 11};
  }
  std::uint64_t count(const std::string& name, const corvaned::SearchQuery& query) override {
    named(name);
    hasQuery(query);
    return 3;
  }
  void visit(const std::string& name, const corvaned::SearchQuery& query,
             const DocumentVisitor& take) override {
    named(name);
    hasQuery(query);
    take({"key", {{"name", "value"}}, "text"});
  }
  corvaned::CollectionSummary summary(const std::string& name) override {
    named(name);
    return {3, 1, 4096, "en_us"};
  }
  std::vector<std::string> collections(const std::string&, std::uint64_t most) override {
    return most == 0 ? std::vector<std::string>() : std::vector<std::string>{"c1"};
  }
  std::vector<corvaned::HitDetails> details(const std::string& name,
                                            const corvaned::SearchQuery& query,
                                            const corvaned::DetailsWanted& wanted) override {
    named(name);
    hasQuery(query);
    require(wanted.snippetBytes <= 4096, "no snippet is longer than an answer may be");
    return {{{"key", 532}, {{"title", "a"}}, "a <b>b</b>"}, {{"other", 7}}};
  }
  std::vector<corvaned::HitDetails> details(const std::vector<std::string>& names,
                                            const corvaned::SearchQuery& query,
                                            const corvaned::DetailsWanted& wanted) override {
    require(names.size() > 1, "only several collections are searched together");
    require(!query.inPages, "there are no pages of several collections");
    std::vector<corvaned::HitDetails> details = this->details(names.front(), query, wanted);
    for (corvaned::HitDetails& each : details) each.collection = names.back();
    return details;
  }
  corvaned::CollectionState state(const std::string& name) override {
    named(name);
    return corvaned::CollectionState::Current;
  }

 private:
  static void hasKey(const std::string& key) {
    require(!key.empty() && key.size() <= corvaned::kMaxKeyBytes, "what is changed has a key");
  }
  static void hasQuery(const corvaned::SearchQuery& query) {
    require(query.everything || !query.text.empty(), "a search that reaches the store has a query");
  }
  static void named(const std::string& name) {
    require(!name.empty(), "whatever reaches the store names a collection");
  }
};

/// All that a connection's bytes were taken for.
struct Reading {
  std::vector<corvaned::Request> requests;
  bool refused = false;
  std::string refusal;
};

Reading read(Framing framing, const corvaned::DecoderLimits& limits, std::string_view bytes,
             Cutter cutter) {
  Reading reading;
  // The shortest request is its end mark, two bytes.
  const std::size_t most = bytes.size() / 2;
  corvaned::RequestDecoder decoder(framing, limits);
  try {
    while (!bytes.empty()) {
      const std::size_t size = std::min(cutter.next(), bytes.size());
      const auto exact = std::make_unique_for_overwrite<char[]>(size);
      std::memcpy(exact.get(), bytes.data(), size);
      decoder.feed({exact.get(), size});
      bytes.remove_prefix(size);
      while (auto request = decoder.next()) {
        reading.requests.push_back(std::move(*request));
      }
    }
  } catch (const corvaned::FramingError& error) {
    reading.refused = true;
    reading.refusal = error.what();
  }
  require(reading.requests.size() <= most, "a request is made of bytes");
  return reading;
}

void requireEqual(const Reading& whole, const Reading& cut) {
  require(whole.requests.size() == cut.requests.size(), "as many requests, however they are cut");
  for (std::size_t i = 0; i < whole.requests.size(); ++i) {
    const corvaned::Request& one = whole.requests[i];
    const corvaned::Request& other = cut.requests[i];
    require(one.headers == other.headers, "the same headers, however they are cut");
    require(one.content == other.content, "the same content, however it is cut");
    require(one.defect == other.defect, "the same defect, however it is cut");
  }
  require(whole.refused == cut.refused && whole.refusal == cut.refusal,
          "the same refusal, however it is cut");
}

void appendText(std::string& out, std::string_view text) {
  corvaned::appendU32(out, static_cast<std::uint32_t>(text.size()));
  out.append(text);
}

/// The block again, its reserved word and the spare bits of its lengths cleared.
std::string encode(const corvaned::DocumentBlock& block) {
  std::string body;
  if (!block.terminate) {
    for (const auto& [name, value] : block.document.metadata) {
      appendText(body, name);
      appendText(body, value);
    }
    appendText(body, "rowId");
    appendText(body, block.document.key);
    if (!block.document.content.empty()) {
      appendText(body, "data");
      appendText(body, block.document.content);
    }
  }
  std::string out(4, '\0');
  appendText(out, body);
  return out;
}

/// A block that is taken says what was sent: nothing is lost, nothing is made up.
void checkDocument(const std::string& bytes) {
  corvaned::DocumentBlock block;
  try {
    block = corvaned::parseDocumentBlock(bytes);
  } catch (const corvaned::ServerError&) {
    return;
  }
  std::string expected = encode(block);
  // A content of length 0 is announced or not; both mean the same.
  if (expected.size() + 12 == bytes.size()) {
    appendText(expected, "data");
    appendText(expected, "");
  }
  require(expected.size() == bytes.size(), "a document block is read to its end");
  for (std::size_t at = 8; at < bytes.size();) {
    const std::uint32_t length =
        corvaned::loadU32(std::string_view(bytes).substr(at)) & kLengthMask;
    require(corvaned::loadU32(std::string_view(expected).substr(at)) == length,
            "a text has the length that was sent");
    at += 4;
    require(bytes.compare(at, length, expected, at, length) == 0,
            "a text has the bytes that were sent");
    at += length;
  }
}

/// Serves a request and takes the reply to its end.
void serve(corvaned::Dispatcher& dispatcher, Framing framing, const corvaned::Request& request) {
  constexpr std::size_t kMaxPortions = 64;
  corvaned::Dispatcher::workload(request.header("action"));
  const auto encoder = corvaned::encode(framing, dispatcher.handle(request));
  std::string out;
  std::size_t portions = 0;
  while (encoder->next(out)) {
    require(++portions < kMaxPortions, "a reply without end is none");
    require(out.size() < std::size_t{1} << 17, "a reply is no longer than what it says");
  }
}

void serveAll(Framing framing, const Reading& reading) {
  EmptyStore store;
  corvaned::Dispatcher dispatcher(store, "1");
  for (const corvaned::Request& request : reading.requests) {
    checkDocument(request.content);
    serve(dispatcher, framing, request);
  }
}

}  // namespace

}  // namespace tq::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  spdlog::set_level(spdlog::level::off);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tq::fuzz;
  Input input(data, size);
  const unsigned int choice = input.byte();
  const Framing framing = choice % 2 == 0 ? Framing::Http : Framing::Binary;
  const corvaned::DecoderLimits& limits = kLimits[(choice >> 1) % kLimits.size()];
  const Cutter pieces(input.byte());
  const std::string_view bytes = input.rest();
  const MemoryMeter meter;
  const Reading whole = read(framing, limits, bytes, Cutter::whole());
  requireEqual(whole, read(framing, limits, bytes, pieces));
  serveAll(framing, whole);
  requireWithin(meter, kMemory, bytes.size());
  return 0;
}
