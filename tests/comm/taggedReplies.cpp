#include "tests/comm/taggedReplies.h"

#include "tests/support/binaryReplies.h"

namespace tq::test {

namespace {

constexpr auto kErrorId = "ZVK0001E";

std::string nameOf(unsigned int tag, unsigned int result) {
  return tagText(tag) + "/" + std::to_string(result);
}

Reply httpBody(const TaggedReply& reply, bool endMark) {
  if (reply.verdict == TaggedReply::Verdict::Refused) return {"", reply.kind, 401, "x"};
  Reply out{"", reply.kind, 200, std::string(4, '\0')};
  if (reply.verdict == TaggedReply::Verdict::Error) {
    out.status = 500;
    out.body += enveloped(record({{"MsgId", kErrorId}, {"MsgText", tagText(reply.tag)}}));
    return out;
  }
  const bool records = isStreaming(reply.kind);
  if (records) {
    for (unsigned int i = 0; i < reply.results; ++i) {
      const std::string name = nameOf(reply.tag, i);
      out.body += enveloped(isSearch(reply.kind) ? hitRecord(name, "1") : record({{"Doc", name}}));
    }
    if (endMark) out.body += bigEndian(0);
  } else if (reply.kind == kSelectivity) {
    out.body += enveloped(record({{"any", "1"}}));
  } else if (reply.kind == kGetStatus) {
    out.body += enveloped(record({{"STATUS_CODE", std::to_string(reply.tag)}}));
  } else if (reply.kind == kGetServerVersion) {
    out.body = tagText(reply.tag);
  } else {
    out.body.clear();
  }
  return out;
}

/// The reply with no word of where it ends.
std::string withoutLength(const Reply& reply) {
  std::string text = plain(reply);
  const std::size_t line = text.find("Content-Length");
  return text.erase(line, text.find("\r\n", line) + 2 - line);
}

std::string binaryError(unsigned int tag) {
  return word16(6) + errorRecord({{"MsgId", kErrorId}, {"MsgText", tagText(tag)}});
}

}  // namespace

std::vector<std::string> TaggedReply::names(bool binary) const {
  std::vector<std::string> all;
  if (verdict != Verdict::Ok || !isStreaming(kind)) return all;
  for (unsigned int i = 0; i < results; ++i) {
    const std::string name = nameOf(tag, i);
    all.push_back(binary && isSearch(kind) ? idOfKey(name) : name);
  }
  return all;
}

std::string tagText(unsigned int tag) { return std::string("t").append(std::to_string(tag)); }

std::string httpReply(const TaggedReply& reply, const HttpForm& form) {
  Reply body = httpBody(reply, form.endMark);
  body.headerLines = form.headerLines;
  if (!form.measured && reply.verdict != TaggedReply::Verdict::Ok) return withoutLength(body);
  if (!form.chunked) return plain(body);
  const bool tail = !form.behindResults.empty() && !body.body.empty();
  std::string text = chunked(body, form.chunkSize, form.lastChunk && !tail).text;
  if (!tail) return text;
  // The same framing around data that is no result.
  Reply behind{"", reply.kind, 200, form.behindResults};
  const std::string more = chunked(behind, 0, form.lastChunk).text;
  return text + more.substr(more.find("\r\n\r\n") + 4);
}

Portions portionsOf(const TaggedReply& reply, bool binary) {
  TaggedReply first = reply;
  first.results = 1;
  if (binary) {
    const std::string text = binaryReply(reply);
    const std::size_t cut = binaryReply(first).size() - endOfResults().size();
    return {text.substr(0, cut), text.substr(cut)};
  }
  const Reply body = httpBody(reply, true);
  const Chunked whole =
      chunkedAt(body, {httpBody(first, false).body.size(), body.body.size()}, true);
  const std::size_t cut = whole.chunks.front().dataEnd + 2;
  return {whole.text.substr(0, cut), whole.text.substr(cut)};
}

std::string binaryReply(const TaggedReply& reply) {
  if (reply.verdict == TaggedReply::Verdict::Refused) return word16(401);
  // A status has room for a tag only in its error form.
  if (reply.verdict == TaggedReply::Verdict::Error || reply.kind == kGetStatus) {
    return binaryError(reply.tag);
  }
  std::string text = word16(1);
  if (isSearch(reply.kind)) {
    for (unsigned int i = 0; i < reply.results; ++i) text += plainHit(nameOf(reply.tag, i));
    return text + endOfResults();
  }
  if (reply.kind == kParseResult) {
    for (unsigned int i = 0; i < reply.results; ++i) {
      text += envelope(1, record16({{"Doc", nameOf(reply.tag, i)}}));
    }
    return text + endOfResults();
  }
  if (reply.kind == kSelectivity) {
    return text + envelope(1, estimate(reply.tag, reply.tag, reply.tag)) + endOfResults();
  }
  if (reply.kind == kGetServerVersion) return text + envelope(1, tagText(reply.tag));
  return text;
}

}  // namespace tq::test
