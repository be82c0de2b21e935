#include <gtest/gtest.h>

#include <string>

#include "comm/kruUnsendable.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

constexpr bool kMetadata = true;
constexpr bool kNoMetadata = false;
constexpr auto kAdd = ClientRequest::ADD_DOCUMENT;
constexpr auto kLast = ClientRequest::LAST_DOC_SENT;
constexpr unsigned int kLongest = 0x3FFFFFFF;
const std::string kLonely = "a document key needs at least one metadata pair to be sent with";

const struct {
  const char* what;
  ClientRequest::REQUEST kind;
  const char* key;
  unsigned int keyLength;
  bool metadata;
  const char* content;
  unsigned int contentLength;
  std::string reason;
} kCases[] = {
    {"no document", kAdd, nullptr, 0, kNoMetadata, nullptr, 0, ""},
    {"a document", kAdd, "k", 1, kMetadata, "c", 1, ""},
    {"a document without content", kAdd, "k", 1, kMetadata, nullptr, 0, ""},
    {"a key alone", kAdd, "k", 1, kNoMetadata, nullptr, 0, kLonely},
    {"a null key of one byte", kAdd, nullptr, 1, kMetadata, "c", 1, test::utf8(kNullKey)},
    {"a longer null key", kAdd, nullptr, 2, kMetadata, "c", 1, test::utf8(kNullKey)},
    {"null content of one byte", kAdd, "k", 1, kMetadata, nullptr, 1, test::utf8(kNullContent)},
    {"longer null content", kAdd, "k", 1, kMetadata, nullptr, 2, test::utf8(kNullContent)},
    {"null content without a key", kAdd, nullptr, 0, kMetadata, nullptr, 1, ""},
    {"the longest key", kAdd, "k", kLongest, kMetadata, "c", 1, ""},
    {"a key that is too long", kAdd, "k", kLongest + 1, kMetadata, "c", 1, test::utf8(kLongKey)},
    {"the longest content", kAdd, "k", 1, kMetadata, "c", kLongest, ""},
    {"content that is too long", kAdd, "k", 1, kMetadata, "c", kLongest + 1,
     test::utf8(kLongContent)},
    {"content of any length", kAdd, "k", 1, kMetadata, "c", 0xFFFFFFFF, test::utf8(kLongContent)},
    {"long content without a key", kAdd, nullptr, 0, kMetadata, "c", 0xFFFFFFFF, ""},
    {"a kind that sends no document", kLast, nullptr, 1, kNoMetadata, nullptr, 1, ""},
};

TEST(Unsendable, SaysWhyADocumentCannotBeSent) {
  for (const auto& c : kCases) {
    ClientRequest request;
    request.buildRequest(u"c1", c.kind, {});
    request.setDocKey(c.key, c.keyLength);
    request.setContent(c.content, c.contentLength);
    if (c.metadata) request.getMetadata().push_back({u"title", u"one"});
    const char16_t* const reason = whyUnsendable(request);
    EXPECT_EQ(reason != nullptr ? test::utf8(reason) : "", c.reason) << c.what;
  }
}

}  // namespace
}  // namespace tq::comm
