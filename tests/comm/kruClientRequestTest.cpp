#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruRESTMessage.h"
#include "comm/kruStaticDefs.h"
#include "tests/comm/kruCommText.h"

namespace tq::comm {
namespace {

using test::listed;
using test::properties;
using test::utf8;
using Listed = std::vector<std::string>;

ClientRequest::REQUEST kindOf(int number) { return static_cast<ClientRequest::REQUEST>(number); }

std::string displayNameAfter(int number) {
  ClientRequest request;
  request.buildRequest(kindOf(number), {});
  return utf8(request.getRequestString());
}

TEST(ClientRequest, IsEmptyWhenFresh) {
  ClientRequest request;
  unsigned int length = 7;
  EXPECT_EQ(nullptr, request.getDocKey(length));
  EXPECT_EQ(0U, length);
  EXPECT_EQ(0U, request.getDocKeyLen());
  EXPECT_EQ(nullptr, request.getContent());
  EXPECT_EQ(0U, request.getContentLength());
  EXPECT_TRUE(request.getCollectionId().isEmpty());
  EXPECT_TRUE(request.getRequestString().isEmpty());
  EXPECT_TRUE(request.getMetadata().empty());
  EXPECT_EQ(0U, request.getReqProperties().size());
}

TEST(ClientRequest, AlwaysOverwritesTheCallersProtocolVersion) {
  ClientRequest request;
  request.buildRequest(ClientRequest::GET_STATUS, properties({{"ver", "2.0"}}));
  EXPECT_EQ(Listed{"ver=1.1"}, listed(request.getReqProperties()));

  request.buildRequest(u"c1", ClientRequest::UPDATE_INDEX, properties({{"ver", "2.0"}}));
  EXPECT_EQ((Listed{"index=c1", "ver=1.1"}), listed(request.getReqProperties()));
}

TEST(ClientRequest, WithoutACollectionClearsTheIdAndReplacesTheProperties) {
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
  request.buildRequest(ClientRequest::GET_STATUS, properties({{"a", "b"}}));
  EXPECT_TRUE(request.getCollectionId().isEmpty());
  EXPECT_EQ((Listed{"a=b", "ver=1.1"}), listed(request.getReqProperties()));
}

TEST(ClientRequest, WithoutACollectionPutsNeitherIndexNorMode) {
  ClientRequest request;
  for (const int kind : {8, 14, 20}) {
    request.buildRequest(kindOf(kind), {});
    EXPECT_EQ(Listed{"ver=1.1"}, listed(request.getReqProperties())) << kind;
  }
}

TEST(ClientRequest, ForACollectionPutsItsIdAndTheModeOfASearch) {
  for (int kind = -1; kind <= 64; ++kind) {
    ClientRequest request;
    request.buildRequest(u"c1", kindOf(kind), {});
    Listed expected{"index=c1"};
    if (kind == 8) expected.emplace_back("mode=streaming");
    if (kind == 14) expected.emplace_back("mode=selectivity");
    if (kind == 20) expected.emplace_back("mode=scalar");
    expected.emplace_back("ver=1.1");
    EXPECT_EQ(expected, listed(request.getReqProperties())) << kind;
    EXPECT_EQ(kind, static_cast<int>(request.getRequest()));
    EXPECT_EQ("c1", utf8(request.getCollectionId()));
  }
}

TEST(ClientRequest, OverwritesTheCallersIndexAndMode) {
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::SCALAR_SEARCH,
                       properties({{"index", "other"}, {"mode", "streaming"}}));
  EXPECT_EQ((Listed{"index=c1", "mode=scalar", "ver=1.1"}), listed(request.getReqProperties()));
}

TEST(ClientRequest, CanBeRebuiltFromItsOwnProperties) {
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, properties({{"query", "x"}}));
  request.buildRequest(ClientRequest::GET_STATUS, request.getReqProperties());
  EXPECT_EQ((Listed{"index=c1", "mode=streaming", "query=x", "ver=1.1"}),
            listed(request.getReqProperties()));
}

TEST(ClientRequest, TakesACollectionIdThatStandsInTheReplacedProperties) {
  ClientRequest request;
  request.buildRequest(u"a collection id too long for the string's own room",
                       ClientRequest::OPEN_COLLECTION, {});
  const icu::UnicodeString& id =
      request.getReqProperties().requireProperty(StaticDefs::PARAM_COLLECTION_ID);
  request.buildRequest(id, ClientRequest::CLOSE_COLLECTION, {});
  EXPECT_EQ("a collection id too long for the string's own room", utf8(request.getCollectionId()));
}

TEST(ClientRequest, HasTheDisplayNameOfItsKind) {
  const std::pair<int, const char*> names[] = {
      {1, "CreateCollection"}, {2, "DropCollection"},    {4, "UpdateIndex"},  {5, "DeleteDocument"},
      {8, "StreamSearch"},     {9, "AsyncAddDocument"},  {10, "LastDocSent"}, {11, "ParseResult"},
      {12, "OpenCollection"},  {13, "CloseCollection"},  {14, "Selectivity"}, {15, "GetStatus"},
      {16, "Backup"},          {17, "Restore"},          {18, "Takeover"},    {19, "Shutdown"},
      {20, "ScalarSearch"},    {22, "GetServerVersion"},
  };
  for (const auto& [kind, name] : names) EXPECT_EQ(name, displayNameAfter(kind)) << kind;
}

TEST(ClientRequest, AddingADocumentIsCalledCreateCollection) {
  EXPECT_EQ("CreateCollection", displayNameAfter(3));
}

TEST(ClientRequest, AKindOutsideTheTableHasNoDisplayName) {
  for (const int kind : {-1, 0, 6, 7, 21, 23, 24, 25, 63, 64, 1000}) {
    EXPECT_EQ("", displayNameAfter(kind)) << kind;
  }
}

TEST(ClientRequest, KeepsTheOldDisplayNameWhenTheNewKindHasNone) {
  for (const int kind : {-1, 0, 6, 7, 21, 23, 24, 25, 64}) {
    ClientRequest request;
    request.buildRequest(u"c1", ClientRequest::OPEN_COLLECTION, {});
    request.buildRequest(u"c1", kindOf(kind), {});
    EXPECT_EQ("OpenCollection", utf8(request.getRequestString())) << kind;
  }
}

TEST(ClientRequest, ChangesOfItsPropertiesAreTheRequestsOwn) {
  ClientRequest request;
  request.buildRequest(ClientRequest::GET_STATUS, {});
  request.getReqProperties().putProperty(u"locale", u"de_DE");
  EXPECT_EQ((Listed{"locale=de_DE", "ver=1.1"}), listed(request.getReqProperties()));
}

TEST(ClientRequest, PointsAtTheCallersContentAndKeyWithoutCopyingThem) {
  const char content[] = "text";
  const char key[] = {'\0', 'k'};
  ClientRequest request;
  request.setContent(content, 4);
  request.setDocKey(key, 2);
  unsigned int length = 0;
  EXPECT_EQ(content, request.getContent());
  EXPECT_EQ(4U, request.getContentLength());
  EXPECT_EQ(key, request.getDocKey(length));
  EXPECT_EQ(2U, length);
  EXPECT_EQ(2U, request.getDocKeyLen());
}

TEST(ClientRequest, ContentAloneKeepsTheMetadata) {
  const std::list<KVPair> metadata{{u"title", u"x", 1, 2}};
  ClientRequest request;
  request.setContent(metadata, "a", 1);
  request.setContent("bc", 2);
  ASSERT_EQ(1U, request.getMetadata().size());
  EXPECT_EQ("title", utf8(request.getMetadata().front().key));
  EXPECT_EQ(2U, request.getContentLength());
}

TEST(ClientRequest, CopiesTheMetadataWithBothAttributes) {
  std::list<KVPair> metadata{{u"title", u"x", 1, 2}, {u"size", u"3"}};
  ClientRequest request;
  request.setContent(metadata, nullptr, 0);
  metadata.clear();
  ASSERT_EQ(2U, request.getMetadata().size());
  const KVPair& first = request.getMetadata().front();
  EXPECT_EQ("title", utf8(first.key));
  EXPECT_EQ("x", utf8(first.value));
  EXPECT_EQ(1U, first.firstAttribute);
  EXPECT_EQ(2U, first.secondAttribute);
  const KVPair& second = request.getMetadata().back();
  EXPECT_EQ(0U, second.firstAttribute);
  EXPECT_EQ(0U, second.secondAttribute);
}

TEST(ClientRequest, AListAssignedToItselfChangesNothing) {
  ClientRequest request;
  request.setContent({{u"a", u"1"}, {u"b", u"2"}}, nullptr, 0);
  request.setContent(request.getMetadata(), "c", 1);
  ASSERT_EQ(2U, request.getMetadata().size());
  EXPECT_EQ("a", utf8(request.getMetadata().front().key));
  EXPECT_EQ("b", utf8(request.getMetadata().back().key));
  EXPECT_EQ(1U, request.getContentLength());
}

TEST(ClientRequest, AShorterListLeavesNoOldPairs) {
  ClientRequest request;
  request.setContent({{u"a", u"1"}, {u"b", u"2"}}, nullptr, 0);
  request.setContent({{u"c", u"3"}}, nullptr, 0);
  ASSERT_EQ(1U, request.getMetadata().size());
  EXPECT_EQ("c", utf8(request.getMetadata().front().key));
}

TEST(ClientRequest, DoesNotCheckTheKeysLength) {
  const std::string key(StaticDefs::MAX_KEY_LENGTH + 1, 'k');
  ClientRequest request;
  request.setDocKey(key.data(), static_cast<unsigned int>(key.size()));
  EXPECT_EQ(129U, request.getDocKeyLen());
}

TEST(ClientRequest, PrintWritesNothing) {
  ClientRequest request;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  request.print();
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(ClientRequest, IsNotDestroyedThroughABase) {
  EXPECT_TRUE(std::is_polymorphic_v<ClientRequest>);
  EXPECT_FALSE(std::has_virtual_destructor_v<ClientRequest>);
}

TEST(ClientRequest, AKindIsHeldInAnInt) {
  EXPECT_TRUE((std::is_same_v<int, std::underlying_type_t<ClientRequest::REQUEST>>));
}

// As callers write it, without `override`: a signature that differs would make another operation,
// which nobody calls.
class StoredDocument : public ClientRequest {
 public:
  // NOLINTBEGIN(modernize-use-override)
  const char* getContent() { return "stored"; }
  const char* getDocKey(unsigned int& length) {
    length = 3;
    return "key";
  }
  // NOLINTEND(modernize-use-override)
};

TEST(ClientRequest, ADerivedRequestCanSupplyContentAndKeyItself) {
  StoredDocument document;
  ClientRequest& request = document;
  unsigned int length = 0;
  EXPECT_STREQ("stored", request.getContent());
  EXPECT_STREQ("key", request.getDocKey(length));
  EXPECT_EQ(3U, length);
}

TEST(ClientRequest, WhatADerivedRequestSuppliesIsWhatIsSent) {
  StoredDocument document;
  document.buildRequest(u"c1", ClientRequest::ADD_DOCUMENT, {});
  document.setContent({{u"a", u"b"}}, "other1", 6);
  document.setDocKey("kept", 4);
  RESTMessage message(u"host", document);
  EXPECT_STREQ("stored", message.getMsgBody());
  const std::string prefix(message.getMsgPrefix(), message.getMsgPrefixLen());
  EXPECT_NE(std::string::npos, prefix.find(std::string("rowId\0\0\0\3key", 12)));
}

TEST(ClientRequest, AConstantRequestGivesTheBytesThatItHolds) {
  StoredDocument document;
  document.setContent("content", 7);
  document.setDocKey("key of four", 4);
  const ClientRequest& request = document;
  unsigned int length = 0;
  EXPECT_STREQ("content", request.getContent());
  EXPECT_STREQ("key of four", request.getDocKey(length));
  EXPECT_EQ(4U, length);
}

// The first word of a pointer to a virtual operation is one more than its place in the table.
template <typename Operation>
std::size_t slotOf(Operation operation) {
  std::size_t word = 0;
  std::memcpy(&word, &operation, sizeof word);
  return (word - 1) / sizeof(void*);
}

TEST(ClientRequest, ItsVirtualOperationsStandInTheOrderThatCallersWereBuiltWith) {
  EXPECT_EQ(0U, slotOf<const char* (ClientRequest::*)()>(&ClientRequest::getContent));
  EXPECT_EQ(1U, slotOf<const char* (ClientRequest::*)(unsigned int&)>(&ClientRequest::getDocKey));
  EXPECT_EQ(0U, slotOf<const char* (RESTMessage::*)()>(&RESTMessage::getMsgBody));
}

TEST(ClientRequest, OutlivesTheTextsThatItWasBuiltFrom) {
  ClientRequest request;
  std::u16string units(40, u'u');
  const auto alias = [&] { return icu::UnicodeString(false, units.data(), 40); };
  const icu::UnicodeString expected(units.data(), 40);
  tq::util::ExtendedProperties props;
  props.putProperty(u"query", alias());
  request.buildRequest(alias(), ClientRequest::STREAM_SEARCH, props);
  KVPair pair(u"key", u"");
  pair.value = alias();
  request.getMetadata().push_back(std::move(pair));
  units.assign(40, u'?');
  EXPECT_EQ(request.getReqProperties().getProperty(u"query", u""), expected);
  EXPECT_EQ(request.getReqProperties().getProperty(u"index", u""), expected);
  EXPECT_EQ(request.getCollectionId(), expected);
  EXPECT_EQ(request.getMetadata().front().value, expected);
}

}  // namespace
}  // namespace tq::comm
