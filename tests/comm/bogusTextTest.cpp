// ICU marks a text that it gets no memory for as bogus, and a bogus text reads as an empty one. It
// is never sent as one.

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>

#include "comm/kruConversionCache.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruGenRespRecord.h"
#include "comm/kruRESTMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruNLSException.h"

namespace tq::comm {
namespace {

icu::UnicodeString bogus() {
  icu::UnicodeString text(u"text");
  text.setToBogus();
  return text;
}

// Both members are public, so that a pair can turn bad after it was made.
KVPair badPair(icu::UnicodeString KVPair::*member) {
  KVPair pair(u"key", u"value");
  pair.*member = bogus();
  return pair;
}

ClientRequest searchRequest() {
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, {});
  return request;
}

void encodeWithBadPair(icu::UnicodeString KVPair::*member) {
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, {});
  request.setDocKey("k", 1);
  request.getMetadata().push_back(badPair(member));
  RESTMessage message(u"host", request);
}

void serialize(const KVPair& pair) {
  char out[64];
  unsigned int written = 0;
  GenRespRecord::serializeKVPair(out, pair, written);
}

struct Use {
  const char* name;
  std::function<void()> use;
};

const Use kUses[] = {
    {"CollectionId",
     [] { ClientRequest().buildRequest(bogus(), ClientRequest::DROP_COLLECTION, {}); }},
    {"PairKey", [] { KVPair(bogus(), u"value"); }},
    {"PairValue", [] { KVPair(u"key", bogus()); }},
    {"MetadataKey", [] { ClientRequest().setContent({badPair(&KVPair::key)}, "c", 1); }},
    {"MetadataValue", [] { ClientRequest().setContent({badPair(&KVPair::value)}, "c", 1); }},
    {"EncodedKey", [] { encodeWithBadPair(&KVPair::key); }},
    {"EncodedValue", [] { encodeWithBadPair(&KVPair::value); }},
    {"SerializedKey", [] { serialize(badPair(&KVPair::key)); }},
    {"SerializedValue", [] { serialize(badPair(&KVPair::value)); }},
    {"SerializedLength", [] { GenRespRecord::getNumberOfBytesOfSerialized(bogus()); }},
    {"FrequentText", [] { GenRespRecord::AddStringToConversionCache(bogus()); }},
    {"MessageHost",
     [] {
       ClientRequest request = searchRequest();
       RESTMessage message(bogus(), request);
     }},
    {"HeaderText",
     [] {
       ClientRequest request = searchRequest();
       icu::UnicodeString out = bogus();
       RESTMessage(u"host", request).buildProtocolMsg(out, ClientRequest::STREAM_SEARCH);
     }},
    {"Credential",
     [] {
       icu::UnicodeString out;
       RESTMessage::toB64(bogus(), out);
     }},
    {"CredentialOutput",
     [] {
       icu::UnicodeString out = bogus();
       RESTMessage::toB64(u"text", out);
     }},
    {"NumberText",
     [] {
       icu::UnicodeString out = bogus();
       convertNumberToString(out, 7);
     }},
    {"ClientHost", [] { CorvaneRESTClient(bogus(), 7, false); }},
};

class BogusText : public testing::TestWithParam<Use> {};

TEST_P(BogusText, IsOutOfMemory) {
  try {
    GetParam().use();
    FAIL() << "taken for a text";
  } catch (const tq::oss::NLSException& e) {
    ASSERT_EQ(1U, e.getMessageList().size());
    EXPECT_TRUE(e.getMessageList().front().getMessageId() == u"TQ_ERR_OUT_OF_MEMORY");
  }
}

INSTANTIATE_TEST_SUITE_P(Uses, BogusText, testing::ValuesIn(kUses),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(BogusCollection, LeavesTheRequestAsItWas) {
  ClientRequest request = searchRequest();
  EXPECT_THROW(request.buildRequest(bogus(), ClientRequest::DROP_COLLECTION, {}),
               tq::oss::NLSException);
  EXPECT_EQ(request.getRequest(), ClientRequest::STREAM_SEARCH);
  EXPECT_TRUE(request.getCollectionId() == u"c1");
}

}  // namespace
}  // namespace tq::comm
