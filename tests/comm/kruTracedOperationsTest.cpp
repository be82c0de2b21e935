#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruOpenResult.h"
#include "comm/kruRESTException.h"
#include "comm/kruRESTMessage.h"
#include "tests/comm/kruCommText.h"
#include "tests/support/recordingFacility.h"

namespace tq::comm {
namespace {

using tq::test::RecordingFacility;

struct Operation {
  unsigned int id;
  std::function<void()> run;
};

ClientRequest& sampleRequest() {
  static ClientRequest request;
  request.buildRequest(ClientRequest::ADD_DOCUMENT, {});
  request.setDocKey("k", 1);
  request.setContent({{u"a", u"b"}}, nullptr, 0);
  return request;
}

template <typename Result>
void parse(Result& result, const test::Fields& fields) {
  const std::string bytes = test::record32(fields);
  result.parseRecord(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

const Operation kOperations[] = {
    {trace::ClientRequestBuildRequest,
     [] { ClientRequest().buildRequest(ClientRequest::GET_STATUS, {}); }},
    {trace::ClientRequestBuildRequestForCollection,
     [] { ClientRequest().buildRequest(u"c", ClientRequest::GET_STATUS, {}); }},
    {trace::ClientRequestSetRequestString, [] { ClientRequest().setRequestString(); }},
    {trace::ClientRequestSetContent, [] { ClientRequest().setContent(nullptr, 0); }},
    {trace::ClientRequestSetContentWithMetadata,
     [] { ClientRequest().setContent({}, nullptr, 0); }},
    {trace::ClientRequestSetDocKey, [] { ClientRequest().setDocKey(nullptr, 0); }},
    {trace::ClientRequestConstruct, [] { ClientRequest(); }},
    {trace::ClientRequestPrint, [] { ClientRequest().print(); }},
    {trace::ClientRequestPrint, [] { std::as_const(sampleRequest()).print(); }},
    {trace::RESTMessageConstruct, [] { RESTMessage(u"h", sampleRequest()); }},
    {trace::RESTMessageInitUrls, [] { RESTMessage::initUrls(); }},
    {trace::RESTMessageInitUrls, [] { RESTMessage(u"h", sampleRequest()); }},
    {trace::RESTMessageInitMessage, [] { RESTMessage(u"h", sampleRequest()); }},
    {trace::RESTMessageGetAction, [] { RESTMessage::getAction(ClientRequest::BACKUP); }},
    {trace::RESTMessageGetActionType, [] { RESTMessage::getActionType(ClientRequest::BACKUP); }},
    {trace::RESTMessageGetParamString,
     [] { RESTMessage(u"h", sampleRequest()).getParamString(false); }},
    {trace::RESTMessageBuildProtocolMsg,
     [] {
       icu::UnicodeString out;
       RESTMessage(u"h", sampleRequest()).buildProtocolMsg(out, ClientRequest::BACKUP);
     }},
    {trace::RESTMessageGetSerializedHeader,
     [] { RESTMessage(u"h", sampleRequest()).getSerializedHeader(); }},
    {trace::RESTMessageToB64,
     [] {
       icu::UnicodeString out;
       RESTMessage::toB64(u"a", out);
     }},
    {trace::RESTMessageGetSerializeMetadataLength, [] { RESTMessage(u"h", sampleRequest()); }},
    {trace::RESTMessageSerializeMetadata, [] { RESTMessage(u"h", sampleRequest()); }},
    {trace::RESTMessageSerializeTermRecord,
     [] { RESTMessage(u"h", sampleRequest()).serializeTermRecord(); }},
    {trace::ClientResponseSetSearchResponse,
     [] { ClientResponse().setSearchResponse(SearchResponse()); }},
    {trace::ClientResponseSetParseResponse,
     [] { ClientResponse().setParseResponse(ParseResponse()); }},
    {trace::ClientResponseSetSelectivityInfo,
     [] { ClientResponse().setSelectivityInfo(SelectivityInfo(false)); }},
    {trace::GenRespRecordParseRecord,
     [] {
       SelectivityInfo info(true);
       info.parseRecord(nullptr, 0);
     }},
    {trace::GenRespRecordParseRecordNew,
     [] {
       const std::string bytes = test::record16({{"Doc", "k"}});
       ParseResult(true).parseRecordNew(bytes.data(), static_cast<unsigned short>(bytes.size()), 1);
     }},
    {trace::GenRespRecordParseMessage,
     [] {
       tq::oss::Message message;
       SelectivityInfo(true).parseMessage(message, false);
     }},
    {trace::GenRespRecordAddStringToConversionCache,
     [] { GenRespRecord::AddStringToConversionCache(u"traced"); }},
    {trace::GenRespRecordParseRecordIntoProps,
     [] {
       tq::util::ExtendedProperties properties;
       SelectivityInfo(false).parseRecordIntoProps(nullptr, 0, &properties);
     }},
    {trace::GenRespRecordParseRecordIntoPropsNew,
     [] {
       tq::util::ExtendedProperties properties;
       SelectivityInfo(false).parseRecordIntoPropsNew(nullptr, 0, &properties);
     }},
    {trace::GenRespRecordSerializeKVPair,
     [] {
       char out[16];
       unsigned int written = 0;
       GenRespRecord::serializeKVPair(out, KVPair(u"a", u"b"), written);
     }},
    {trace::SearchResultReset,
     [] {
       SearchResult result(true);
       parse(result, {{"URI", "k"}});
     }},
    {trace::SearchResultDocIdToB64,
     [] {
       icu::UnicodeString out;
       SearchResult::docIdToB64("k", 1, out);
     }},
    {trace::RESTExceptionReset,
     [] {
       RESTException error(true);
       parse(error, {{"MsgId", "a"}, {"MsgText", "b"}});
     }},
    {trace::SearchResultParseRecordNew, [] { SearchResult(true).parseRecordNew("k", 1, 1); }},
    {trace::SearchResponseInit, [] { SearchResponse().init(); }},
    {trace::ParseResultReset,
     [] {
       ParseResult result(true);
       parse(result, {{"Doc", "k"}});
     }},
    {trace::ParseResponseInit, [] { ParseResponse().init(); }},
    {trace::SelectivityInfoParseRecordNew,
     [] { SelectivityInfo(false).parseRecordNew("123456789012", 12, 1); }},
    {trace::OpenResultReset,
     [] {
       OpenResult result(true);
       parse(result, {{"port", "1"}});
     }},
};

TEST(TracedOperations, LeaveAnEntryAndAnExitRecordEach) {
  for (const Operation& operation : kOperations) {
    RecordingFacility facility;
    operation.run();
    EXPECT_GE(facility.entries.count(operation.id), 1U) << std::hex << operation.id;
    EXPECT_EQ(facility.entries, facility.exits) << std::hex << operation.id;
    EXPECT_EQ(std::set<unsigned int>{155}, facility.components);
  }
}

TEST(TracedOperations, AHeaderTextIsBuiltInTheSameStepsWhateverItIsWrittenTo) {
  const std::vector<unsigned int> steps{
      trace::RESTMessageBuildProtocolMsg, trace::RESTMessageGetAction,
      trace::RESTMessageGetActionType, trace::RESTMessageGetParamString};
  RESTMessage message(u"h", sampleRequest());
  {
    RecordingFacility facility;
    icu::UnicodeString out;
    message.buildProtocolMsg(out, ClientRequest::BACKUP);
    EXPECT_EQ(steps, facility.sequence);
  }
  RecordingFacility facility;
  message.getSerializedHeader();
  std::vector<unsigned int> sent{trace::RESTMessageGetSerializedHeader};
  sent.insert(sent.end(), steps.begin(), steps.end());
  EXPECT_EQ(sent, facility.sequence);
}

TEST(TracedOperations, HaveNumbersOfTheLibrarysRange) {
  EXPECT_EQ(0x1CD8049DU, static_cast<unsigned int>(trace::ClientRequestBuildRequest));
  EXPECT_EQ(0x1CD804E3U, static_cast<unsigned int>(trace::DrestoPerfResponseValidateRespEnv));
}

}  // namespace
}  // namespace tq::comm
