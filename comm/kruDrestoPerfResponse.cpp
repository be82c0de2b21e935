#include "comm/kruDrestoPerfResponse.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "comm/kruBytes.h"
#include "comm/kruClientResponse.h"
#include "comm/kruDiagnostic.h"
#include "comm/kruErrorRecord.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruHitFiller.h"
#include "comm/kruKinds.h"
#include "comm/kruParseFiller.h"
#include "comm/kruRESTException.h"
#include "comm/kruRaise.h"
#include "comm/kruRecordBounds.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruTrace.h"

namespace tq::comm {

namespace {

// The replies. Every integer is unsigned and big-endian.
//
//   reply           size   content
//                   2      code
//                          code 6: error record; code 1: envelopes, where the kind has results
//
//   error record    2      n
//                   n      fields
//
//   envelope        2      status; 1 with p = 0 ends the envelopes
//                   2      p
//                   p      payload
//
//   payload         search, status 5      score in thousandths (2), key
//                   search, other status  key
//                   parse result          fields
//                   estimate              first (4), third (4), second value (4)
//                   version               text, UTF-8
//                   version, status 6     error record
//
//   field           2      k
//                   k      key, UTF-8
//                   2      v
//                   v      value, UTF-8
constexpr std::size_t kReplyHeader = 2;
constexpr std::size_t kLengthWord = 2;
constexpr std::size_t kEnvelopeHeader = 4;
constexpr std::size_t kScore = 2;
constexpr std::size_t kSelectivityRecord = 12;

constexpr int kSuccess = 1;
constexpr int kStatusOnly = 5;
constexpr int kServerError = 6;
constexpr int kInvalidAuth = 401;

constexpr std::uint16_t kEnvelopeData = 1;
constexpr std::uint16_t kEnvelopeScoredHit = 5;
constexpr std::uint16_t kEnvelopeError = 6;
// Says within the parser that not all bytes of an envelope have arrived. A server that sends it
// cannot be told from that.
constexpr std::uint16_t kEnvelopeIncomplete = 9;

constexpr Raiser fail("kruDrestoPerfResponse");
// A parser that is fed when it is finished has never said where.
constexpr Raiser failWithoutPlace(nullptr);

// Support tools recognise these failures by their line, which therefore never changes.
constexpr unsigned long kLineEmptyHeader = 171;
constexpr unsigned long kLineStatusOnly = 240;
constexpr unsigned long kLineInvalidAuth = 266;
constexpr unsigned long kLineInvalidCode = 272;
constexpr unsigned long kLineEmptyContent = 327;
constexpr unsigned long kLineInvalidContent = 336;
constexpr unsigned long kLineEmptySearch = 375;
constexpr unsigned long kLineEmptyParseResult = 441;
constexpr unsigned long kLineEmptySelectivity = 485;

// How many bytes a reader should offer next. More may come: the parser leaves what it cannot use.
constexpr int kBodyPiece = 1024;
constexpr int kErrorPiece = 256;

[[noreturn]] void refuseEmptyBody(const char16_t* argument, unsigned long line) {
  fail(StaticDefs::ERR_SERVER_PROTOCOL, Details().argument(argument), line);
}

/// The exception until the server's own record replaces its messages. They are two because callers
/// know the general failure by that.
RESTException serverError() {
  RESTException error(true);
  tq::oss::Message id;
  id.setMessageId(StaticDefs::ERR_SERVER_APP);
  error.getMessageList().add(id);
  error.getMessageList().add(tq::oss::Message(StaticDefs::ERR_SERVER_APP, icu::UnicodeString(),
                                              static_cast<tq::oss::Message::Level>(2)));
  return error;
}

/// The record codec trusts the lengths inside a record, so they are compared with the record first.
void requireFieldsFit(std::string_view record) {
  if (fieldsFitNew(record.data(), static_cast<std::uint16_t>(record.size()))) return;
  fail(StaticDefs::ERR_CLIENT_RESP_PARSING, u"a field runs past the end of its record");
}

/// Takes an envelope's header and returns the length of its payload, which then lies in `block`.
/// An envelope whose bytes are not all there has the status `kEnvelopeIncomplete` and stays in
/// `block` as a whole.
std::uint16_t takeEnvelopeHeader(bytes::Reader& block, std::uint16_t& status) {
  bytes::Reader next = block;
  std::uint16_t size = 0;
  if (!next.readShort(status) || !next.readShort(size)) {
    status = kEnvelopeIncomplete;
    // validateRespEnv promises this length when there is none to read.
    return 1;
  }
  if (size > next.remaining()) {
    status = kEnvelopeIncomplete;
  } else {
    block = next;
  }
  return size;
}

void requireScore(std::string_view payload, std::uint16_t status) {
  if (status != kEnvelopeScoredHit || payload.size() >= kScore) return;
  fail(StaticDefs::ERR_CLIENT_RESP_PARSING, u"a hit is too short for its score");
}

std::uint16_t takeEnvelopeHeaderTraced(bytes::Reader& block, std::uint16_t& status) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseValidateRespEnv);
  return takeEnvelopeHeader(block, status);
}

/// Decodes a payload, whose length has come from 16 bits.
void parseInto(GenRespRecord& record, std::string_view payload, std::uint16_t status) {
  record.parseRecordNew(payload.data(), static_cast<unsigned short>(payload.size()), status);
}

}  // namespace

DrestoPerfResponse::DrestoPerfResponse(ClientRequest::REQUEST kind, bool resultsExpected)
    : RESTResponse(kind, true), resultsExpected_(resultsExpected) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseConstruct);
  DrestoPerfResponse::initState(false);
}

void DrestoPerfResponse::initState(bool body) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseInitState);
  state_ = body ? kChunkLength : kHeaders;
  flag_ = false;
  chunked_ = false;
}

bool DrestoPerfResponse::hasBody() const {
  return statusCode_ == kSuccess || statusCode_ == kServerError;
}

bool DrestoPerfResponse::isErrorReply() const { return statusCode_ == kServerError; }

bool DrestoPerfResponse::beginsWithError(const char* buffer, int length) const {
  if (isErrorReply()) return true;
  if (kind_ != ClientRequest::GET_SERVER_VERSION || statusCode_ != kSuccess) return false;
  std::uint16_t status = 0;
  return bytes::readerOf(buffer, length).readShort(status) && status == kEnvelopeError;
}

bool DrestoPerfResponse::holdsWholeUnit(const char* buffer, int length) const {
  if (!isErrorReply() && !resultsExpected_) return true;
  const std::size_t unit = unitLength(buffer, length);
  return unit != 0 && unit <= static_cast<std::size_t>(length);
}

int DrestoPerfResponse::errorLength(const char* buffer, int length) const {
  const std::size_t unit = unitLength(buffer, length);
  return unit != 0 ? static_cast<int>(std::min(unit, static_cast<std::size_t>(length))) : length;
}

/// The bytes that the error record or the envelope at `buffer` has altogether; 0 while its length
/// has not arrived.
std::size_t DrestoPerfResponse::unitLength(const char* buffer, int length) const {
  bytes::Reader unit = bytes::readerOf(buffer, length);
  const std::size_t status = isErrorReply() ? 0 : kEnvelopeHeader - kLengthWord;
  std::uint16_t size = 0;
  if (!unit.skip(status) || !unit.readShort(size)) return 0;
  return status + kLengthWord + size;
}

bool DrestoPerfResponse::parseDone(int& need) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseDone);
  if (state_ == kHeaders) need = kReplyHeader;
  if (state_ == kChunkLength) {
    const bool headerIsAll = (!resultsExpected_ && statusCode_ == kSuccess) ||
                             (statusCode_ == kStatusOnly && kind_ == ClientRequest::GET_STATUS);
    need = headerIsAll ? 0 : (isErrorReply() ? kErrorPiece : kBodyPiece);
  }
  return state_ == kDone;
}

int DrestoPerfResponse::parseMesg(const char* buffer, int length, ClientResponse& response,
                                  bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseMesg);
  try {
    switch (state_) {
      case kDone:
        failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING,
                         u"the reply is finished until a further block is announced");
      case kHeaders:
        return parseHeaders(buffer, length);
      case kChunkLength:
        setContentLen(length);
        return parseBody(buffer, contentLength_, response, done);
      default:
        return 0;
    }
  } catch (const RESTException& e) {
    rethrow(e.getMessageList());
  }
}

int DrestoPerfResponse::parseHeaders(const char* buffer, int length) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseHeaders);
  if (length == 0) {
    fail(StaticDefs::ERR_SERVER_PROTOCOL,
         Details().argument(u"Zero(0) sized Response Header for Request from remote"),
         kLineEmptyHeader);
  }
  bytes::Reader block = bytes::readerOf(buffer, length);
  std::uint16_t code = 0;
  if (!block.readShort(code)) return length;
  // Every code passes. Some are answers of their own and some are refused, which `parseBody` knows.
  statusCode_ = code;
  state_ = kChunkLength;
  return bytes::leftIn(block);
}

unsigned short DrestoPerfResponse::validateRespEnv(const char* buffer, int length, int& position,
                                                   unsigned short& status) {
  bytes::Reader block = bytes::readerOf(buffer + position, length - position);
  const int offered = bytes::leftIn(block);
  const std::uint16_t size = takeEnvelopeHeaderTraced(block, status);
  position += offered - bytes::leftIn(block);
  return size;
}

int DrestoPerfResponse::parseBody(const char* buffer, int length, ClientResponse& response,
                                  bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseBody);
  int leftover = 0;
  switch (statusCode_) {
    case kServerError:
      takeServerError(buffer, length, response, done);
      break;
    case kStatusOnly:
      response.setReturnCode(0);
      if (kind_ != ClientRequest::GET_STATUS) {
        fail(StaticDefs::ERR_SERVER_PROTOCOL,
             Details().argument(u"Unpexpected StatCode 5 in response header"), kLineStatusOnly);
      }
      response.setGetStatusCode(1);
      done = true;
      break;
    case kInvalidAuth:
      fail(StaticDefs::ERR_SERVER_INVALID_AUTH, {}, kLineInvalidAuth);
    case kSuccess:
      response.setReturnCode(0);
      leftover = parseResults(buffer, length, response, done);
      break;
    default:
      fail(StaticDefs::ERR_SERVER_PROTOCOL, {}, kLineInvalidCode);
  }
  state_ = kDone;
  return leftover;
}

void DrestoPerfResponse::takeServerError(const char* buffer, int length, ClientResponse& response,
                                         bool& done) {
  RESTException error = serverError();
  parseErrorMessage(buffer, length, error);
  if (kind_ != ClientRequest::GET_STATUS) throw error;
  // To the question how it is, a server's error is an answer.
  response.setReturnCode(0);
  response.setGetStatusCode(2);
  response.setStatusMessage(error.getMessageList().front());
  done = true;
}

int DrestoPerfResponse::parseResults(const char* buffer, int length, ClientResponse& response,
                                     bool& done) {
  switch (static_cast<int>(kind_)) {
    case kUnassignedSearchKind:
    case ClientRequest::STREAM_SEARCH:
    case ClientRequest::SCALAR_SEARCH:
      return parseStreamSearchResponse(buffer, length, response, done);
    case ClientRequest::PARSE_RESULT:
      return parseParseResultResponse(buffer, length, response, done);
    case ClientRequest::SELECTIVITY:
      return parseSelectivityResponse(buffer, length, response, done);
    case ClientRequest::GET_SERVER_VERSION:
      return parseContent(buffer, length, response, done);
    case ClientRequest::GET_STATUS:
      response.setGetStatusCode(0);
      done = true;
      return 0;
    default:
      if (!resultsExpected_ && contentLength_ == 0) done = true;
      return 0;
  }
}

void DrestoPerfResponse::parseErrorMessage(const char* buffer, int length, RESTException& error) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseErrorMessage);
  bytes::Reader block = bytes::readerOf(buffer, length);
  std::uint16_t size = 0;
  if (!block.readShort(size)) return;
  requireWithinLimit(size);
  std::string_view record;
  if (!block.readBytes(size, record)) return;
  requireFieldsFit(record);
  try {
    parseInto(error, record, 1);
  } catch (const tq::oss::BaseException& e) {
    if (!lacksProperty(e)) throw;
  }
}

void DrestoPerfResponse::requireWithinLimit(std::size_t size) const {
  if (size <= maxReplyBytes_) return;
  fail(StaticDefs::ERR_CLIENT_RESP_PARSING, u"a record is longer than the limit");
}

/// Hands each whole envelope to `take(payload, status)` up to the one that ends them, and returns
/// how many bytes follow the last one that was taken.
template <auto TakeHeader, typename Take>
int DrestoPerfResponse::walkEnvelopes(const char* buffer, int length, bool& done, Take take) {
  bytes::Reader block = bytes::readerOf(buffer, length);
  while (block.remaining() != 0) {
    std::uint16_t status = 0;
    const std::uint16_t size = TakeHeader(block, status);
    if (status == kEnvelopeIncomplete) break;
    if (status == kEnvelopeData && size == 0) {
      done = true;
      break;
    }
    if (size > maxReplyBytes_) requireWithinLimit(size);
    std::string_view payload;
    block.readBytes(size, payload);
    take(payload, status);
    recordsTaken_ = true;
  }
  return bytes::leftIn(block);
}

int DrestoPerfResponse::parseStreamSearchResponse(const char* buffer, int length,
                                                  ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseStreamSearchResponse);
  if (length == 0) {
    refuseEmptyBody(u"Zero(0) sized protocol body inparseStreamSearchresp", kLineEmptySearch);
  }
  // The host wants to see each step of each hit, or it wants the hits.
  return tq::oss::getTraceFacility() != nullptr ? walkHits(buffer, length, response, done)
                                                : fillHits(buffer, length, response, done);
}

/// Decodes each envelope as a record.
int DrestoPerfResponse::walkHits(const char* buffer, int length, ClientResponse& response,
                                 bool& done) {
  SearchResult hit(true);
  const auto take = [&](std::string_view payload, std::uint16_t status) {
    requireScore(payload, status);
    // An error among the hits is decoded as a hit too, because it must not end the stream.
    parseInto(hit, payload, status);
    response.addSearchResult(hit);
  };
  return walkEnvelopes<takeEnvelopeHeaderTraced>(buffer, length, done, take);
}

/// The same hits, without a record for each: millions of them come in one reply.
int DrestoPerfResponse::fillHits(const char* buffer, int length, ClientResponse& response,
                                 bool& done) {
  HitFiller hits(response, {buffer, static_cast<std::size_t>(std::max(length, 0))});
  // A hit without a score has that of the hit before.
  double score = 0.0;
  const auto take = [&](std::string_view payload, std::uint16_t status) {
    requireScore(payload, status);
    if (status == kEnvelopeScoredHit) {
      score = scoreOf(bytes::loadShort(payload.data()));
      payload.remove_prefix(kScore);
    }
    hits.addKeyed(score, payload);
  };
  return walkEnvelopes<takeEnvelopeHeader>(buffer, length, done, take);
}

int DrestoPerfResponse::parseParseResultResponse(const char* buffer, int length,
                                                 ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseParseResultResponse);
  if (length == 0) {
    refuseEmptyBody(u"Zero(0) sized protocol body in parseParseResult ", kLineEmptyParseResult);
  }
  ParseFiller results(response, {buffer, static_cast<std::size_t>(std::max(length, 0))});
  const bool traced = tq::oss::getTraceFacility() != nullptr;
  const auto take = [&](std::string_view payload, std::uint16_t status) {
    if (!traced && results.add(payload, fields::Form::Narrow)) return;
    requireFieldsFit(payload);
    ParseResult result(true);
    parseInto(result, payload, status);
    results.add(result);
  };
  return walkEnvelopes<takeEnvelopeHeaderTraced>(buffer, length, done, take);
}

int DrestoPerfResponse::parseSelectivityResponse(const char* buffer, int length,
                                                 ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseSelectivityResponse);
  if (length == 0) {
    refuseEmptyBody(u"Zero(0) sized protocol body in parseSelectivity ", kLineEmptySelectivity);
  }
  SelectivityInfo info(true);
  const auto take = [&](std::string_view payload, std::uint16_t status) {
    if (payload.size() < kSelectivityRecord) {
      fail(StaticDefs::ERR_CLIENT_RESP_PARSING, u"an estimate is too short for its values");
    }
    parseInto(info, payload, status);
    response.setSelectivityInfo(info);
  };
  return walkEnvelopes<takeEnvelopeHeaderTraced>(buffer, length, done, take);
}

int DrestoPerfResponse::parseContent(const char* buffer, int length, ClientResponse& response,
                                     bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseContent);
  if (length == 0) {
    done = true;
    refuseEmptyBody(u"Zero(0) sized protocol body in parseContent", kLineEmptyContent);
  }
  bytes::Reader block = bytes::readerOf(buffer, length);
  std::uint16_t status = 0;
  const std::uint16_t size = takeEnvelopeHeaderTraced(block, status);
  if (status == kEnvelopeIncomplete) {
    done = true;
    fail(StaticDefs::ERR_SERVER_PROTOCOL,
         Details().argument(u"Invalid message envelope, status code not available in parseContent"),
         kLineInvalidContent);
  }
  if (status == kEnvelopeError) {
    done = true;
    RESTException error = serverError();
    parseErrorMessage(block.data(), bytes::leftIn(block), error);
    throw error;
  }
  if (status == kEnvelopeData) {
    requireWithinLimit(size);
    std::string_view text;
    block.readBytes(size, text);
    response.setContent(tq::oss::Converter::fromUTF8(text.data(), text.size()));
    done = true;
  }
  return bytes::leftIn(block);
}

unsigned short DrestoPerfResponse::getShort(const char* buffer, int& position) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseGetShort);
  const std::uint16_t value = bytes::loadShort(buffer + position);
  position += 2;
  return value;
}

int DrestoPerfResponse::getInt(const char* buffer, int& position) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseGetInt);
  const auto value = static_cast<int>(bytes::loadInt(buffer + position));
  position += 4;
  return value;
}

void DrestoPerfResponse::printState(icu::UnicodeString context) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponsePrintState);
  std::string text;
  context.toUTF8String(text);
  const std::string expected = std::to_string(static_cast<int>(resultsExpected_));
  writeDiagnostic(" <Printing State for context  " + text +
                  " Req : " + std::to_string(static_cast<int>(kind_)) + " response StatCode : " +
                  std::to_string(statusCode_) + " << ResultsExpected : " + expected +
                  " Resp State=: " + std::to_string(state_) + " ResultsExpected:" + expected +
                  "  Content Len " + std::to_string(contentLength_) + "***>>\n");
}

}  // namespace tq::comm
