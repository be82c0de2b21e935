#include "comm/kruRESTResponse.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <string_view>

#include "comm/kruBytes.h"
#include "comm/kruChunkTail.h"
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
#include "infra/oss/kruStringTokenizer.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

namespace {

constexpr const char* kFile = "kruRESTResponse";

// How many bytes a reader should offer while the parser looks for the end of a line or a block.
constexpr int kHeaderPiece = 256;
constexpr int kChunkLengthPiece = 16;

constexpr std::size_t kMaxHeaderBlock = std::size_t{1} << 20;
constexpr std::size_t kMaxChunkLengthLine = 125;

// A first body: bytes that nobody interprets, then the first record's length word.
constexpr int kUninterpreted = 4;
constexpr int kLengthWord = 4;

constexpr std::string_view kProtocol = "HTTP/";

constexpr int kOk = 200;
constexpr int kUnauthorized = 401;
constexpr int kServerError = 500;

/// The number at the start of `text`, as `atoi` reads it, without its overflow.
long leadingNumber(const icu::UnicodeString& text) {
  std::string digits;
  text.toUTF8String(digits);
  return std::strtol(digits.c_str(), nullptr, 10);
}

/// What stands behind the name and the colon of a header line.
icu::UnicodeString headerValue(const icu::UnicodeString& line, int nameStart) {
  const int colon = line.indexOf(u':', nameStart);
  return colon < 0 ? icu::UnicodeString() : line.tempSubString(colon + 1);
}

/// The length of a record whose length word and bytes are all there; otherwise false.
bool wholeRecord(const char* buffer, int length, std::uint32_t& recordLength) {
  if (length < kLengthWord) return false;
  recordLength = bytes::loadInt(buffer);
  return recordLength <= static_cast<std::uint32_t>(length - kLengthWord);
}

void requireFieldsFit(const char* record, std::uint32_t length) {
  if (!fieldsFit(record, length)) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
}

/// A record whose fields are all that is wanted of it.
class PlainRecord : public GenRespRecord {
 public:
  void reset() override {}
};

}  // namespace

RESTResponse::RESTResponse(ClientRequest::REQUEST kind, bool streaming)
    : kind_(kind), utf8Buffer_(nullptr) {
  RESTResponse::initState(streaming);
}

void RESTResponse::initState(bool streaming) {
  streaming_ = streaming;
  state_ = streaming ? kChunkLength : kHeaders;
  chunked_ = streaming;
  if (streaming) statusCode_ = kOk;
  flag_ = false;
  contentLength_ = 0;
  pending_.clear();
  headerBytes_ = 0;
  joined_ = 0;
  lastChunk_ = false;
  endMark_ = false;
}

void RESTResponse::setMaxReplyBytes(std::size_t bytes) {
  maxReplyBytes_ = std::min<std::size_t>(bytes, std::numeric_limits<int>::max());
}

bool RESTResponse::parseDone(int& need) const {
  switch (state_) {
    case kHeaders:
      need = kHeaderPiece;
      break;
    case kChunkLength:
      need = kChunkLengthPiece;
      break;
    case kBody:
      need = contentLength_;
      break;
    default:
      break;
  }
  return state_ == kDone;
}

int RESTResponse::parseMesg(const char* buffer, int length, ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseMesg);
  try {
    switch (state_) {
      case kDone:
        raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
      case kHeaders:
        return parseHeaders(buffer, length);
      case kChunkLength:
        return gatherChunkLength(buffer, length);
      case kBody:
        return streaming_ ? parseBody(buffer, length, response, done)
                          : parseFirstBody(buffer, length, response, done);
      default:
        return 0;
    }
  } catch (const tq::oss::BaseException& e) {
    rethrow(e.getMessageList());
  }
}

int RESTResponse::parseHeaders(const char* buffer, int length) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseHeaders);
  int start = 0;
  if (pending_.empty()) {
    while (start < length && (buffer[start] == '\r' || buffer[start] == '\n')) ++start;
  }
  const std::size_t gathered = pending_.size();
  pending_.append(buffer + start, static_cast<std::size_t>(length - start));
  const std::string_view known = std::string_view(pending_).substr(0, kProtocol.size());
  if (known != kProtocol.substr(0, known.size())) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);

  const std::size_t end = headerBlockEnd(gathered);
  const int consumed = end == std::string::npos ? length : start + static_cast<int>(end - gathered);
  headerBytes_ += static_cast<std::size_t>(consumed);
  if (headerBytes_ > std::min(maxReplyBytes_, kMaxHeaderBlock)) {
    raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  }
  if (end == std::string::npos) return 0;
  takeHeaderBlock(end);
  if (!chunked_) return length - consumed;
  return gatherChunkLength(buffer + consumed, length - consumed);
}

/// A zero byte ends a block as well: no text goes on behind it.
std::size_t RESTResponse::headerBlockEnd(std::size_t searched) const {
  constexpr std::string_view kBlankLine = "\r\n\r\n";
  const std::size_t from = searched < kBlankLine.size() ? 0 : searched - (kBlankLine.size() - 1);
  const std::size_t blank = pending_.find(kBlankLine, from);
  const std::size_t zero = pending_.find('\0', searched);
  if (zero < blank) return zero;
  return blank == std::string::npos ? blank : blank + kBlankLine.size();
}

void RESTResponse::takeHeaderBlock(std::size_t length) {
  icu::UnicodeString headers = tq::oss::Converter::fromUTF8(pending_.data(), length);
  pending_.clear();
  extractHeaders(headers);
  if (chunked_) {
    contentLength_ = 0;
    state_ = kChunkLength;
  }
}

void RESTResponse::extractHeaders(icu::UnicodeString& headers) {
  tq::oss::StringTokenizer lines(headers, StaticDefs::NEWLINE);
  if (!lines.hasMore()) return;
  flag_ = true;
  tq::oss::StringTokenizer statusLine(lines.next(), icu::UnicodeString(u' '));
  statusLine.next();
  statusCode_ = static_cast<int>(std::clamp<long>(leadingNumber(statusLine.next()),
                                                  std::numeric_limits<int>::min(),
                                                  std::numeric_limits<int>::max()));
  while (lines.hasMore()) {
    const icu::UnicodeString line = lines.next();
    const int lengthName = line.indexOf(StaticDefs::RESP_CONTENT_LENGTH);
    if (lengthName >= 0) acceptLength(leadingNumber(headerValue(line, lengthName)));
    // Whatever coding it names: this server knows no other than chunks.
    if (line.indexOf(StaticDefs::RESP_TRANSFER_ENCODING) >= 0) chunked_ = true;
  }
}

void RESTResponse::acceptLength(long length) {
  if (length < 0 || static_cast<unsigned long>(length) > maxReplyBytes_) {
    raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  }
  setContentLen(static_cast<int>(length));
}

void RESTResponse::setContentLen(int length) {
  contentLength_ = length;
  state_ = kBody;
}

/// Gathers a chunk-size line, which may come in pieces, with the CR LF in front of it that ends the
/// data of the chunk before.
int RESTResponse::gatherChunkLength(const char* buffer, int length) {
  for (int i = 0; i < length; ++i) {
    pending_.push_back(buffer[i]);
    const std::size_t front = pending_.compare(0, 2, "\r\n") == 0 ? 2 : 0;
    if (buffer[i] == '\n' && pending_.size() > front) {
      takeChunkLengthLine(front);
      return length - i - 1;
    }
    if (pending_.size() > front + kMaxChunkLengthLine + 1) {
      raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
    }
  }
  flag_ = true;
  return 0;
}

/// Reads the gathered line, whose text begins at `front`, after making sure that it is a number of
/// an acceptable size: read as it stands, garbage would be 0 and so the end of the reply.
void RESTResponse::takeChunkLengthLine(std::size_t front) {
  const auto size = chunkSizeOf(std::string_view(pending_).substr(front));
  if (!size || *size > maxReplyBytes_) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  int consumed = 0;
  updateContentLength(pending_.c_str(), consumed);
  lastChunk_ = contentLength_ == 0;
  pending_.clear();
}

void RESTResponse::updateContentLength(const char* buffer, int& consumed) {
  if (!chunked_) return;
  int skipped = 0;
  if (buffer[skipped] == '\r') {
    ++skipped;
    if (buffer[skipped] == '\n') ++skipped;
  }
  int lineLength = 0;
  setContentLen(getChunkedMesgLen(buffer + skipped, lineLength));
  consumed += skipped + lineLength;
}

/// The first body of a reply. Chunks that are too short to decode are joined to the next one: what
/// was offered is then left unconsumed in front of it.
int RESTResponse::parseFirstBody(const char* buffer, int length, ClientResponse& response,
                                 bool& done) {
  if (joined_ > std::numeric_limits<int>::max() - contentLength_) {
    raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  }
  const int total = joined_ + contentLength_;
  if (length < total) return length;
  if (chunked_ && !lastChunk_ && firstBodyIsTooShort(buffer, total)) {
    joined_ = total;
    state_ = kChunkLength;
    return total;
  }
  contentLength_ = total;
  const int leftover = parseBody(buffer, total, response, done);
  if (lastChunk_) done = true;
  return leftover;
}

bool RESTResponse::firstBodyIsTooShort(const char* buffer, int length) const {
  const bool oneRecord =
      statusCode_ == kServerError || (statusCode_ == kOk && (kind_ == ClientRequest::SELECTIVITY ||
                                                             kind_ == ClientRequest::GET_STATUS));
  const bool records =
      statusCode_ == kOk && (isSearch(kind_) || kind_ == ClientRequest::PARSE_RESULT);
  if (!oneRecord && !records) return false;
  if (length < kUninterpreted + kLengthWord) return true;
  if (!oneRecord) return false;
  const std::uint32_t recordLength = bytes::loadInt(buffer + kUninterpreted);
  if (recordLength > maxReplyBytes_) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  return recordLength > static_cast<std::uint32_t>(length - kUninterpreted - kLengthWord);
}

int RESTResponse::parseBody(const char* buffer, int length, ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseBody);
  if (statusCode_ == kOk) response.setReturnCode(0);
  if (contentLength_ == 0) {
    state_ = kDone;
    done = true;
    return 0;
  }
  if (statusCode_ != kOk) raiseServerError(buffer, length);
  const int leftover = parseResults(buffer, length, response, done);
  state_ = kDone;
  return leftover;
}

int RESTResponse::parseResults(const char* buffer, int length, ClientResponse& response,
                               bool& done) {
  const bool search = isSearch(kind_);
  const bool oneRecord = kind_ == ClientRequest::SELECTIVITY || kind_ == ClientRequest::GET_STATUS;
  if (!search && !oneRecord && kind_ != ClientRequest::PARSE_RESULT) return 0;
  const int skipped = streaming_ && !oneRecord ? 0 : kUninterpreted;
  if (length < skipped) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  const char* records = buffer + skipped;
  const int size = length - skipped;
  if (search) return parseStreamSearchResponse(records, size, response, done);
  switch (static_cast<int>(kind_)) {
    case ClientRequest::PARSE_RESULT:
      return parseParseResultResponse(records, size, response, done);
    case ClientRequest::SELECTIVITY:
      return parseSelectivityResponse(records, size, response, done);
    default:
      return parseGetStatus(records, size, response, done);
  }
}

/// The reply is complete whatever its error record holds: its body has been handed over whole.
void RESTResponse::raiseServerError(const char* buffer, int length) {
  state_ = kDone;
  if (statusCode_ == kUnauthorized) raise(StaticDefs::ERR_SERVER_INVALID_AUTH);
  if (statusCode_ != kServerError) raise(StaticDefs::ERR_SERVER_PROTOCOL);
  tq::oss::Message message(StaticDefs::ERR_SERVER_APP, icu::UnicodeString());
  message.setFileName(kFile);
  message.setLineNumber(__LINE__);
  RESTException error(true);
  error.getMessageList().add(message);
  if (length >= kUninterpreted) {
    parseErrorMessage(buffer + kUninterpreted, length - kUninterpreted, error);
  }
  throw error;
}

void RESTResponse::parseErrorMessage(const char* buffer, int length, RESTException& error) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseErrorMessage);
  std::uint32_t recordLength = 0;
  if (!wholeRecord(buffer, length, recordLength)) return;
  requireFieldsFit(buffer + kLengthWord, recordLength);
  try {
    error.parseRecord(buffer + kLengthWord, recordLength);
  } catch (const tq::oss::BaseException&) {
    // A record that names no error leaves the general one standing.
  }
}

/// Hands the whole records to `take(record, length)`, up to the one of length 0 that ends them.
/// Returns how many bytes are left in front of that one, or of one whose bytes are not all there.
template <typename Take>
int RESTResponse::walkRecords(const char* buffer, int length, bool& done, Take take) {
  int position = 0;
  while (length - position >= kLengthWord) {
    const std::uint32_t recordLength = bytes::loadInt(buffer + position);
    if (recordLength == 0) {
      endMark_ = true;
      done = true;
      break;
    }
    if (recordLength > maxReplyBytes_) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
    if (recordLength > static_cast<std::uint32_t>(length - position - kLengthWord)) break;
    const char* record = buffer + position + kLengthWord;
    requireFieldsFit(record, recordLength);
    take(record, recordLength);
    position += kLengthWord + static_cast<int>(recordLength);
  }
  return length - position;
}

int RESTResponse::parseStreamSearchResponse(const char* buffer, int length,
                                            ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseStreamSearchResponse);
  if (length == 0) {
    std::cerr << " [WARN]: parseStreamSearch !!: 0 len for resp" << std::endl;
    done = true;
    return 0;
  }
  return walkRecords(buffer, length, done, [&](const char* record, std::uint32_t recordLength) {
    SearchResult hit(true);
    hit.parseRecord(record, recordLength);
    response.addSearchResult(hit);
  });
}

int RESTResponse::parseParseResultResponse(const char* buffer, int length, ClientResponse& response,
                                           bool& done) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseParseResultResponse);
  if (length == 0) {
    done = true;
    return 0;
  }
  const int leftover =
      walkRecords(buffer, length, done, [&](const char* record, std::uint32_t recordLength) {
        ParseResult result(true);
        result.parseRecord(record, recordLength);
        response.addParseResult(result);
      });
  // Unlike a hit, a parse result is never left for later.
  if (leftover != 0 && !endMark_) raise(StaticDefs::ERR_CLIENT_RESP_PARSING);
  return leftover;
}

int RESTResponse::parseSelectivityResponse(const char* buffer, int length, ClientResponse& response,
                                           bool&) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseSelectivityResponse);
  SelectivityInfo info(true);
  int consumed = 0;
  std::uint32_t recordLength = 0;
  if (wholeRecord(buffer, length, recordLength)) {
    requireFieldsFit(buffer + kLengthWord, recordLength);
    info.parseRecord(buffer + kLengthWord, recordLength);
    consumed = kLengthWord + static_cast<int>(recordLength);
  }
  response.setSelectivityInfo(info);
  return length - consumed;
}

int RESTResponse::parseGetStatus(const char* buffer, int length, ClientResponse& response, bool&) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseGetStatus);
  std::uint32_t code = 0;
  int consumed = 0;
  std::uint32_t recordLength = 0;
  if (wholeRecord(buffer, length, recordLength)) {
    requireFieldsFit(buffer + kLengthWord, recordLength);
    tq::util::ExtendedProperties fields;
    PlainRecord().parseRecordIntoProps(buffer + kLengthWord, recordLength, &fields);
    code = fields.requirePropertyAsUInt32(u"STATUS_CODE");
    consumed = kLengthWord + static_cast<int>(recordLength);
  }
  response.setGetStatusCode(code);
  return length - consumed;
}

int getChunkedMesgLen(const char* line, int& consumed) {
  std::string number = "0x";
  const std::size_t limit = number.size() + kMaxChunkLengthLine;
  int position = 0;
  while (line[position] != '\0') {
    if (line[position] == '\r' && line[position + 1] == '\n') {
      position += 2;
      break;
    }
    if (number.size() == limit) break;
    const char c = line[position++];
    if (c != '\r') number.push_back(c);
  }
  consumed = position;
  const long length = std::strtol(number.c_str(), nullptr, 0);
  return static_cast<int>(std::min<long>(length, std::numeric_limits<int>::max()));
}

}  // namespace tq::comm
