#pragma once

/// The function ids under which the library's operations appear in the host's trace, one each.
/// Tools that read a trace know these numbers: a new operation needs a free one, and none is ever
/// given to another operation.
namespace tq::comm::trace {

enum FunctionId : unsigned int {
  // Requests.
  ClientRequestBuildRequest = 0x1CD8049D,
  ClientRequestBuildRequestForCollection = 0x1CD8049E,
  ClientRequestSetRequestString = 0x1CD8049F,
  ClientRequestSetContent = 0x1CD804A0,
  ClientRequestSetContentWithMetadata = 0x1CD804A1,
  ClientRequestSetDocKey = 0x1CD804A2,
  // Encoding.
  RESTMessageConstruct = 0x1CD804A3,
  RESTMessageInitUrls = 0x1CD804A4,
  RESTMessageInitMessage = 0x1CD804A5,
  RESTMessageGetAction = 0x1CD804A6,
  RESTMessageGetActionType = 0x1CD804A7,
  RESTMessageGetParamString = 0x1CD804A8,
  RESTMessageBuildProtocolMsg = 0x1CD804A9,
  RESTMessageGetSerializedHeader = 0x1CD804AA,
  RESTMessageToB64 = 0x1CD804AB,
  RESTMessageGetSerializeMetadataLength = 0x1CD804AC,
  RESTMessageSerializeMetadata = 0x1CD804AD,
  RESTMessageSerializeTermRecord = 0x1CD804AE,
  // Responses and results.
  ClientResponsePullSearchResponse = 0x1CD804AF,
  ClientResponsePullParseResponse = 0x1CD804B0,
  ClientResponseSetSearchResponse = 0x1CD804B1,
  ClientResponseSetParseResponse = 0x1CD804B2,
  ClientResponseSetSelectivityInfo = 0x1CD804B3,
  GenRespRecordParseRecord = 0x1CD804B4,
  GenRespRecordParseRecordNew = 0x1CD804B5,
  GenRespRecordParseMessage = 0x1CD804B6,
  GenRespRecordAddStringToConversionCache = 0x1CD804B7,
  RESTExceptionReset = 0x1CD804B8,
  SearchResultParseRecordNew = 0x1CD804B9,
  SearchResponseInit = 0x1CD804BA,
  ParseResultReset = 0x1CD804BB,
  ParseResponseInit = 0x1CD804BC,
  SelectivityInfoParseRecordNew = 0x1CD804BD,
  OpenResultReset = 0x1CD804BE,
  // HTTP reply parser.
  RESTResponseParseMesg = 0x1CD804BF,
  RESTResponseParseHeaders = 0x1CD804C0,
  RESTResponseParseBody = 0x1CD804C1,
  RESTResponseParseStreamSearchResponse = 0x1CD804C2,
  RESTResponseParseParseResultResponse = 0x1CD804C3,
  RESTResponseParseSelectivityResponse = 0x1CD804C4,
  RESTResponseParseGetStatus = 0x1CD804C5,
  RESTResponseParseErrorMessage = 0x1CD804C6,
  // Connection.
  CorvaneClientOpen = 0x1CD804C7,
  CorvaneClientClose = 0x1CD804C8,
  CorvaneClientRead = 0x1CD804C9,
  CorvaneClientReadOnce = 0x1CD804CA,
  CorvaneClientDataToRead = 0x1CD804CB,
  CorvaneClientGenericRead = 0x1CD804CC,
  // HTTP client.
  CorvaneRESTClientSendAndRecvMesg = 0x1CD804CD,
  CorvaneRESTClientSendAndRecvMesgOnce = 0x1CD804CE,
  CorvaneRESTClientSend = 0x1CD804CF,
  CorvaneRESTClientSendMesg = 0x1CD804D0,
  CorvaneRESTClientRecvMesg = 0x1CD804D1,
  CorvaneRESTClientRecvStream = 0x1CD804D2,
  CorvaneRESTClientRecv = 0x1CD804D3,
  CorvaneRESTClientRecvMultResponse = 0x1CD804D4,
  // Binary client.
  DrestoPerfClientSendAndRecvMesgOnce = 0x1CD804D5,
  DrestoPerfClientSendMesg = 0x1CD804D6,
  DrestoPerfClientSendBodyChunks = 0x1CD804D7,
  DrestoPerfClientRecvMesg = 0x1CD804D8,
  DrestoPerfClientRecvStream = 0x1CD804D9,
  DrestoPerfClientRecv = 0x1CD804DA,
  // Binary reply parser.
  DrestoPerfResponseParseMesg = 0x1CD804DB,
  DrestoPerfResponseParseHeaders = 0x1CD804DC,
  DrestoPerfResponseParseBody = 0x1CD804DD,
  DrestoPerfResponseParseStreamSearchResponse = 0x1CD804DE,
  DrestoPerfResponseParseParseResultResponse = 0x1CD804DF,
  DrestoPerfResponseParseSelectivityResponse = 0x1CD804E0,
  DrestoPerfResponseParseContent = 0x1CD804E1,
  DrestoPerfResponseParseErrorMessage = 0x1CD804E2,
  DrestoPerfResponseValidateRespEnv = 0x1CD804E3,
  // Later additions to the reply parsers.
  RESTResponseExtractHeaders = 0x1CD804F0,
  RESTResponseUpdateContentLength = 0x1CD804F1,
  RESTResponseGetChunkedMesgLen = 0x1CD804F2,
  RESTResponsePrint = 0x1CD804F3,
  DrestoPerfResponseConstruct = 0x1CD804F4,
  DrestoPerfResponseInitState = 0x1CD804F5,
  DrestoPerfResponseParseDone = 0x1CD804F6,
  DrestoPerfResponseGetShort = 0x1CD804F7,
  DrestoPerfResponseGetInt = 0x1CD804F8,
  DrestoPerfResponsePrintState = 0x1CD804F9,
  // Requests, encoding and results, continued.
  ClientRequestConstruct = 0x1CD804E4,
  ClientRequestPrint = 0x1CD804E5,
  GenRespRecordParseRecordIntoProps = 0x1CD804E6,
  GenRespRecordParseRecordIntoPropsNew = 0x1CD804E7,
  GenRespRecordSerializeKVPair = 0x1CD804E8,
  SearchResultReset = 0x1CD804E9,
  SearchResultDocIdToB64 = 0x1CD804EA,
};

static_assert(ClientRequestBuildRequest == 0x1CD8049D);
static_assert(DrestoPerfResponseValidateRespEnv == 0x1CD804E3);

}  // namespace tq::comm::trace
