#include "comm/kruDrestoPerfResponse.h"

#include <algorithm>
#include <iostream>
#include <string>

#include "comm/kruBytes.h"
#include "comm/kruClientResponse.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruKinds.h"
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

constexpr const char* kFile = "kruDrestoPerfResponse";

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

constexpr int kSuccess = 1;
constexpr int kStatusOnly = 5;
constexpr int kServerError = 6;
constexpr int kInvalidAuth = 401;

constexpr unsigned short kEnvelopeData = 1;
constexpr unsigned short kEnvelopeScoredHit = 5;
constexpr unsigned short kEnvelopeError = 6;
constexpr unsigned short kEnvelopeIncomplete = 9;

constexpr int kReplyHeader = 2;
constexpr int kLengthWord = 2;
constexpr int kEnvelopeHeader = 4;
constexpr int kScore = 2;
constexpr int kSelectivityRecord = 12;

constexpr int kBodyPiece = 1024;
constexpr int kErrorPiece = 256;

/// What the exception says until the server's own record replaces it.
RESTException serverError() {
  RESTException error(true);
  tq::oss::Message id;
  id.setMessageId(StaticDefs::ERR_SERVER_APP);
  error.getMessageList().add(id);
  error.getMessageList().add(tq::oss::Message(StaticDefs::ERR_SERVER_APP, icu::UnicodeString(),
                                              static_cast<tq::oss::Message::Level>(2)));
  return error;
}

void require(bool fits) {
  if (!fits) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
}

}  // namespace

DrestoPerfResponse::DrestoPerfResponse(ClientRequest::REQUEST kind, bool resultsExpected)
    : RESTResponse(kind, true), resultsExpected_(resultsExpected) {
  DrestoPerfResponse::initState(false);
}

void DrestoPerfResponse::initState(bool body) {
  state_ = body ? kChunkLength : kHeaders;
  flag_ = false;
  chunked_ = false;
}

bool DrestoPerfResponse::hasBody() const {
  return statusCode_ == kSuccess || statusCode_ == kServerError;
}

bool DrestoPerfResponse::isErrorReply() const { return statusCode_ == kServerError; }

bool DrestoPerfResponse::holdsWholeUnit(const char* buffer, int length) const {
  if (isErrorReply()) {
    return length >= kLengthWord && length - kLengthWord >= bytes::loadShort(buffer);
  }
  if (!resultsExpected_) return true;
  return length >= kEnvelopeHeader &&
         length - kEnvelopeHeader >= bytes::loadShort(buffer + kLengthWord);
}

int DrestoPerfResponse::errorRecordLength(const char* buffer, int length) {
  if (length < kLengthWord) return length;
  return std::min(length, kLengthWord + bytes::loadShort(buffer));
}

bool DrestoPerfResponse::parseDone(int& need) const {
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
        raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
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
    raise(StaticDefs::ERR_SERVER_PROTOCOL, kFile, kLineEmptyHeader,
          u"Zero(0) sized Response Header for Request from remote");
  }
  if (length < kReplyHeader) return length;
  int position = 0;
  // Any code is taken: those that are neither success nor an error are told apart with the body.
  statusCode_ = getShort(buffer, position);
  state_ = kChunkLength;
  return length - position;
}

unsigned short DrestoPerfResponse::validateRespEnv(const char* buffer, int length, int& position,
                                                   unsigned short& status) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseValidateRespEnv);
  const int start = position;
  if (length - position < kEnvelopeHeader) {
    status = kEnvelopeIncomplete;
    return 1;
  }
  status = getShort(buffer, position);
  const unsigned short payload = getShort(buffer, position);
  if (payload > length - position) {
    position = start;
    status = kEnvelopeIncomplete;
  }
  return payload;
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
        raise(StaticDefs::ERR_SERVER_PROTOCOL, kFile, kLineStatusOnly,
              u"Unpexpected StatCode 5 in response header");
      }
      response.setGetStatusCode(1);
      done = true;
      break;
    case kInvalidAuth:
      raise(StaticDefs::ERR_SERVER_INVALID_AUTH, kFile, kLineInvalidAuth);
    case kSuccess:
      response.setReturnCode(0);
      leftover = parseResults(buffer, length, response, done);
      break;
    default:
      raise(StaticDefs::ERR_SERVER_PROTOCOL, kFile, kLineInvalidCode);
  }
  state_ = kDone;
  return leftover;
}

void DrestoPerfResponse::takeServerError(const char* buffer, int length, ClientResponse& response,
                                         bool& done) {
  RESTException error = serverError();
  parseErrorMessage(buffer, length, error);
  if (kind_ != ClientRequest::GET_STATUS) throw error;
  // A server that answers with an error is up, and says how it is.
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
  if (length < kLengthWord) return;
  int position = 0;
  const unsigned short recordLength = getShort(buffer, position);
  require(recordLength <= maxReplyBytes_);
  if (recordLength > length - position) return;
  require(fieldsFitNew(buffer + position, recordLength));
  try {
    error.parseRecordNew(buffer + position, recordLength, 1);
  } catch (const tq::oss::BaseException&) {
    // A record that names no error leaves the general one standing.
  }
}

/// Hands every whole envelope to `take(payload, length, status)`, up to the one that ends them, and
/// returns how many bytes are left behind the last one.
template <typename Take>
int DrestoPerfResponse::walkEnvelopes(const char* buffer, int length, bool& done, Take take) {
  int position = 0;
  while (position != length) {
    unsigned short status = 0;
    const unsigned short payload = validateRespEnv(buffer, length, position, status);
    if (status == kEnvelopeIncomplete) return length - position;
    if (status == kEnvelopeData && payload == 0) {
      done = true;
      return length - position;
    }
    require(payload <= maxReplyBytes_);
    take(buffer + position, payload, status);
    recordsTaken_ = true;
    position += payload;
  }
  return 0;
}

int DrestoPerfResponse::parseStreamSearchResponse(const char* buffer, int length,
                                                  ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseStreamSearchResponse);
  if (length == 0) {
    raise(StaticDefs::ERR_SERVER_PROTOCOL, kFile, kLineEmptySearch,
          u"Zero(0) sized protocol body inparseStreamSearchresp");
  }
  SearchResult hit(true);
  return walkEnvelopes(buffer, length, done,
                       [&](const char* payload, unsigned short size, unsigned short status) {
                         require(status != kEnvelopeScoredHit || size >= kScore);
                         // An error among the hits is a hit like any other: it ends no stream.
                         hit.parseRecordNew(payload, size, status);
                         response.addSearchResult(hit);
                         hit.freeKey();
                       });
}

int DrestoPerfResponse::parseParseResultResponse(const char* buffer, int length,
                                                 ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseParseResultResponse);
  if (length == 0) {
    raise(StaticDefs::ERR_SERVER_PROTOCOL, kFile, kLineEmptyParseResult,
          u"Zero(0) sized protocol body in parseParseResult ");
  }
  ParseResult result(true);
  return walkEnvelopes(buffer, length, done,
                       [&](const char* payload, unsigned short size, unsigned short status) {
                         require(fieldsFitNew(payload, size));
                         result.parseRecordNew(payload, size, status);
                         response.addParseResult(result);
                       });
}

int DrestoPerfResponse::parseSelectivityResponse(const char* buffer, int length,
                                                 ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseSelectivityResponse);
  if (length == 0) {
    raise(StaticDefs::ERR_SERVER_PROTOCOL, kFile, kLineEmptySelectivity,
          u"Zero(0) sized protocol body in parseSelectivity ");
  }
  SelectivityInfo info(true);
  return walkEnvelopes(buffer, length, done,
                       [&](const char* payload, unsigned short size, unsigned short status) {
                         require(size >= kSelectivityRecord);
                         info.parseRecordNew(payload, size, status);
                         response.setSelectivityInfo(info);
                       });
}

int DrestoPerfResponse::parseContent(const char* buffer, int length, ClientResponse& response,
                                     bool& done) {
  const tq::oss::TraceScope trace(trace::DrestoPerfResponseParseContent);
  if (length == 0) {
    done = true;
    raise(StaticDefs::ERR_SERVER_PROTOCOL, kFile, kLineEmptyContent,
          u"Zero(0) sized protocol body in parseContent");
  }
  int position = 0;
  unsigned short status = 0;
  const unsigned short payload = validateRespEnv(buffer, length, position, status);
  if (status == kEnvelopeIncomplete) {
    done = true;
    raise(StaticDefs::ERR_SERVER_PROTOCOL, kFile, kLineInvalidContent,
          u"Invalid message envelope, status code not available in parseContent");
  }
  if (status == kEnvelopeError) {
    done = true;
    RESTException error = serverError();
    parseErrorMessage(buffer + position, length - position, error);
    throw error;
  }
  if (status == kEnvelopeData) {
    require(payload <= maxReplyBytes_);
    response.setContent(tq::oss::Converter::fromUTF8(buffer + position, payload));
    position += payload;
    done = true;
  }
  return length - position;
}

unsigned short DrestoPerfResponse::getShort(const char* buffer, int& position) {
  const unsigned short value = bytes::loadShort(buffer + position);
  position += 2;
  return value;
}

int DrestoPerfResponse::getInt(const char* buffer, int& position) {
  const auto value = static_cast<int>(bytes::loadInt(buffer + position));
  position += 4;
  return value;
}

void DrestoPerfResponse::printState(icu::UnicodeString context) const {
  std::string text;
  context.toUTF8String(text);
  std::cerr << " <Printing State for context  " << text << " Req : " << static_cast<int>(kind_)
            << " response StatCode : " << statusCode_
            << " << ResultsExpected : " << static_cast<int>(resultsExpected_)
            << " Resp State=: " << state_
            << " ResultsExpected:" << static_cast<int>(resultsExpected_) << "  Content Len "
            << contentLength_ << "***>>" << std::endl;
}

}  // namespace tq::comm
