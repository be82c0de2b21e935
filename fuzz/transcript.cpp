#include "fuzz/transcript.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "comm/kruClientResponse.h"
#include "fuzz/check.h"
#include "infra/oss/kruBaseException.h"
#include "infra/oss/kruMessageList.h"

namespace tq::fuzz {

namespace {

void show(const char* which, const std::string& text) {
  std::fprintf(stderr, "--- %s\n", which);
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n' || std::isprint(byte) != 0) {
      std::fputc(c, stderr);
    } else if (c != '\0') {
      std::fprintf(stderr, "\\x%02x", static_cast<unsigned int>(byte));
    }
  }
}

void add(std::string& out, std::string_view label, long long value) {
  out.append(label).push_back(' ');
  out.append(std::to_string(value)).push_back('\n');
}

// The units as they stand: converting them would take longer than the parsing.
void add(std::string& out, std::string_view label, const icu::UnicodeString& text) {
  out.append(label).push_back(' ');
  const auto units = static_cast<std::size_t>(text.length());
  out.append(reinterpret_cast<const char*>(text.getBuffer()), units * sizeof(char16_t));
  out.push_back('\n');
}

}  // namespace

void Transcript::note(std::string_view label, long long value) { add(text_, label, value); }

void Transcript::note(std::string_view label, const icu::UnicodeString& text) {
  add(text_, label, text);
}

void Transcript::noteMessage(std::string& out, const tq::oss::Message& message) {
  add(out, "message", message.getMessageId());
  // Bytes that are no reply can be wrong in several ways; the cut decides which is met first.
  if (message.getMessageId() != u"ERR_CLIENT_RESP_PARSING") {
    add(out, "text", message.getMessageText());
  }
  add(out, "level", static_cast<int>(message.getLevel()));
}

void Transcript::noteError(const tq::oss::BaseException& error) {
  require(!error.getMessageList().empty(), "an error says what happened");
  require(!error.getMessageList().front().getMessageId().isEmpty(), "an error has an id");
  note("error");
  noteMessage(text_, error.getMessageList().front());
}

void Transcript::takeHits(tq::comm::SearchResponse& hits) {
  while (hits.hasMore()) {
    const tq::comm::SearchResult& hit = hits.getNext();
    add(results_, "hit", hit.getDocId());
    if (hit.getKey() != nullptr) results_.append(hit.getKey(), hit.getKeyLen());
    if (scores_ == Scores::Noted) {
      const double score = hit.getScore();
      char bits[sizeof score];
      std::memcpy(bits, &score, sizeof score);
      results_.append(bits, sizeof bits);
    }
    ++hits_;
  }
}

void Transcript::takeRows(tq::comm::ParseResponse& rows) {
  while (rows.hasMore()) {
    const tq::comm::ParseResult& row = rows.getNext();
    add(results_, "row", row.getDocument());
    if (row.hasMessage()) noteMessage(results_, row.getMessage());
  }
}

void Transcript::noteResponse(tq::comm::ClientResponse& response) {
  note("return code", response.getReturnCode());
  note("status", response.getStatusCode());
  noteMessage(text_, response.getStatusMessage());
  const tq::comm::SelectivityInfo& estimate = response.getSelectivityInfo();
  note("first", estimate.getFirst());
  note("second", estimate.getSecond());
  note("third", estimate.getThird());
  note("content", response.getContent());
}

void Transcript::requireEqual(const Transcript& whole, const Transcript& cut) {
  if (whole == cut) return;
  show("whole", whole.results_ + whole.text_);
  show("in pieces", cut.results_ + cut.text_);
  fail("a reply means the same however it is cut");
}

}  // namespace tq::fuzz
