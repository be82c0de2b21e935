#include "comm/kruRESTResponse.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "comm/kruBytes.h"
#include "comm/kruChunkTail.h"
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
#include "comm/kruRecordFields.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruStringTokenizer.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

namespace {

// The bodies of replies. Every integer is unsigned and big-endian.
//
//   first body      4 bytes that are not interpreted, then the results
//   further chunk   the results; an estimate and a status have the 4 bytes here too
//   results         searches and parse results: records up to one of length 0
//                   estimate, status and error: one record
//
//   record          size   content
//                   4      n: bytes of the fields; 0 ends the results
//                   n      fields
//
//   field           size   content
//                   4      low 30 bits: k
//                   k      key, UTF-8
//                   4      low 30 bits: v; the two bits above are a type tag without effect
//                   v      value, UTF-8
constexpr std::size_t kUninterpreted = 4;

constexpr Raiser fail("kruRESTResponse");
// The framing of a reply and its parse results: their failures have never had a position, and
// callers know them by that.
constexpr Raiser failWithoutPlace(nullptr);

// How many bytes a reader should offer while the parser looks for the end of a line or a block.
constexpr int kHeaderPiece = 256;
constexpr int kChunkLengthPiece = 16;

constexpr std::size_t kMaxHeaderBlock = std::size_t{1} << 20;
constexpr std::size_t kMaxChunkLengthLine = 125;

constexpr std::string_view kProtocol = "HTTP/";
constexpr std::string_view kLineEnd = "\r\n";

constexpr int kFirstFinal = 200;
constexpr int kOk = 200;
constexpr int kNoContent = 204;
constexpr int kNotModified = 304;
constexpr int kUnauthorized = 401;
constexpr int kServerError = 500;

/// A length below 0 means none.
std::string_view runOf(const char* bytes, int length) {
  return {bytes, static_cast<std::size_t>(std::max(length, 0))};
}

/// The number at the start of `text`, as `atoi` reads it, except that a number beyond the range of
/// `long` becomes the nearest bound.
long leadingNumber(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  long number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (read.ec != std::errc::result_out_of_range) return number;
  return text.front() == '-' ? std::numeric_limits<long>::min() : std::numeric_limits<long>::max();
}

long leadingNumber(const icu::UnicodeString& text) {
  std::string digits;
  text.toUTF8String(digits);
  return leadingNumber(std::string_view(digits));
}

/// Takes the next run of characters without the delimiter; an empty one when there is none.
std::string_view takeToken(std::string_view& text, char delimiter) {
  text.remove_prefix(std::min(text.find_first_not_of(delimiter), text.size()));
  const std::string_view token = text.substr(0, text.find(delimiter));
  text.remove_prefix(token.size());
  return token;
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
}

/// The status of a record that consists of nothing else, written in digits.
std::optional<std::uint32_t> onlyStatus(std::string_view record) {
  constexpr auto kWide = fields::Form::Wide;
  bytes::Reader left(record.data(), record.size());
  std::string_view name;
  std::string_view value;
  if (!fields::takeText(left, kWide, name) || name != "STATUS_CODE") return {};
  if (!fields::takeText(left, kWide, value) || left.remaining() != 0) return {};
  std::uint32_t status = 0;
  const char* const end = value.data() + value.size();
  const auto read = std::from_chars(value.data(), end, status);
  if (read.ec != std::errc() || read.ptr != end) return {};
  return status;
}

/// `letters` are small ones of ASCII, so that only a capital stands 32 below one.
bool equalInAnyCase(std::string_view text, std::string_view letters) {
  return std::equal(text.begin(), text.end(), letters.begin(), letters.end(),
                    [](char a, char b) { return a == b || a + 32 == b; });
}

/// True for the header line by which a server says that it closes the connection behind its reply.
bool announcesClose(std::string_view line) {
  constexpr std::string_view kName = "connection";
  constexpr std::string_view kBlank = " \t\r";
  if (!equalInAnyCase(line.substr(0, kName.size()), kName)) return false;
  line.remove_prefix(std::min(line.find_first_not_of(kBlank, kName.size()), line.size()));
  if (!line.starts_with(':')) return false;
  line.remove_prefix(1);
  for (std::string_view option; !(option = takeToken(line, ',')).empty();) {
    option.remove_prefix(std::min(option.find_first_not_of(kBlank), option.size()));
    if (equalInAnyCase(option.substr(0, option.find_first_of(kBlank)), "close")) return true;
  }
  return false;
}

/// Of a reply that no header measures.
bool hasNoBody(int status) { return status == kNoContent || status == kNotModified; }

/// The text after the name and the colon of a header line.
icu::UnicodeString headerValue(const icu::UnicodeString& line, int nameStart) {
  const int colon = line.indexOf(u':', nameStart);
  return colon < 0 ? icu::UnicodeString() : line.tempSubString(colon + 1);
}

/// Takes a record and its length word; `record` names its fields. When not all of its bytes have
/// arrived nothing is taken and the result is false.
bool takeRecord(bytes::Reader& body, std::string_view& record) {
  bytes::Reader next = body;
  std::uint32_t length = 0;
  if (!next.readInt(length) || !next.readBytes(length, record)) return false;
  body = next;
  return true;
}

/// The record codec trusts the lengths inside a record, so they are compared with the record first.
void requireFieldsFit(std::string_view record, const Raiser& raiser) {
  if (fieldsFit(record.data(), static_cast<std::uint32_t>(record.size()))) return;
  raiser(StaticDefs::ERR_CLIENT_RESP_PARSING, u"a field runs past the end of its record");
}

/// As `takeRecord`, for the bodies that consist of one record.
bool takeOnlyRecord(bytes::Reader& body, std::string_view& record) {
  if (!takeRecord(body, record)) return false;
  requireFieldsFit(record, fail);
  return true;
}

void parseInto(GenRespRecord& result, std::string_view record) {
  result.parseRecord(record.data(), static_cast<unsigned int>(record.size()));
}

/// For the caller who wants the fields of a record and nothing made of them.
class PlainRecord : public GenRespRecord {
 public:
  void reset() override {}
};

/// The status of a record whatever else is in it.
std::uint32_t statusAmong(std::string_view record) {
  tq::util::ExtendedProperties fields;
  PlainRecord().parseRecordIntoProps(record.data(), static_cast<unsigned int>(record.size()),
                                     &fields);
  return fields.requirePropertyAsUInt32(u"STATUS_CODE");
}

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
  endsConnection_ = false;
  unmeasured_ = false;
  lastChunk_ = false;
  endMark_ = false;
}

void RESTResponse::setMaxReplyBytes(std::size_t bytes) {
  maxReplyBytes_ = std::min<std::size_t>(bytes, std::numeric_limits<int>::max());
}

bool RESTResponse::parseDone(int& need) {
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
        failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING,
                         u"the reply is complete, it has no further bytes");
      case kHeaders:
        return parseHeaders(buffer, length);
      case kChunkLength:
        return gatherChunkLength(runOf(buffer, length));
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
  const std::string_view offered = runOf(buffer, length);
  // Line ends before a status line belong to no reply; some servers end a body with one.
  std::size_t start = 0;
  if (pending_.empty()) start = std::min(offered.find_first_not_of(kLineEnd), offered.size());
  // A block that comes in one piece, as most do, is read where it lies.
  const std::size_t gathered = pending_.size();
  std::string_view block = offered.substr(start);
  if (gathered != 0) block = pending_.append(block);
  const std::size_t end = headerBlockEnd(block, gathered);
  const bool whole = end != std::string::npos;
  const bool isReply = kProtocol.starts_with(block.substr(0, kProtocol.size()));
  if (gathered == 0 && !(whole && isReply)) pending_ = block;
  // A peer that speaks another protocol may never send a blank line, so it is not waited for.
  if (!isReply) {
    failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING, u"the reply does not begin with HTTP/");
  }
  const std::size_t consumed = whole ? start + (end - gathered) : offered.size();
  headerBytes_ += consumed;
  if (headerBytes_ > std::min(maxReplyBytes_, kMaxHeaderBlock)) {
    failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING,
                     u"the header block is longer than the limit");
  }
  if (!whole) return 0;
  const std::string held = std::exchange(pending_, {});
  takeHeaderBlock((gathered != 0 ? std::string_view(held) : block).substr(0, end));
  const std::string_view rest = offered.substr(consumed);
  return chunked_ ? gatherChunkLength(rest) : static_cast<int>(rest.size());
}

/// The block is converted up to its first NUL, so it ends there as well.
std::size_t RESTResponse::headerBlockEnd(std::string_view block, std::size_t searched) {
  constexpr std::string_view kBlankLine = "\r\n\r\n";
  // The blank line may have begun in the bytes that were searched before.
  const std::size_t from = searched < kBlankLine.size() ? 0 : searched - (kBlankLine.size() - 1);
  const std::size_t blank = block.find(kBlankLine, from);
  const std::size_t zero = block.find('\0', searched);
  if (zero < blank) return zero;
  return blank == std::string::npos ? blank : blank + kBlankLine.size();
}

void RESTResponse::takeHeaderBlock(std::string_view block) {
  endsConnection_ = false;
  // The bytes of ASCII are its characters. A host that traces wants to see the general operation.
  if (isAscii(block) && tq::oss::getTraceFacility() == nullptr) {
    readHeaders(block);
  } else {
    icu::UnicodeString headers = tq::oss::Converter::fromUTF8(block.data(), block.size());
    extractHeaders(headers);
  }
  // A length beside chunks has no meaning: the size lines tell where the body ends.
  if (chunked_) {
    contentLength_ = 0;
    state_ = kChunkLength;
  }
  if (state_ == kHeaders && statusCode_ > kOk) {
    // What no header measures ends with the connection, and nobody waits for that: the status has
    // said all that a text of unknown form can.
    setContentLen(0);
    unmeasured_ = true;
    if (!hasNoBody(statusCode_)) endsConnection_ = true;
  }
  // Taken for the reply because it announces a body, which no interim one should. The final reply
  // is still to come, and would be that of the next request.
  if (state_ != kHeaders && isInterim()) endsConnection_ = true;
}

bool RESTResponse::isInterim() const { return statusCode_ >= 100 && statusCode_ < kFirstFinal; }

/// What `extractHeaders` does, for bytes.
void RESTResponse::readHeaders(std::string_view block) {
  constexpr std::string_view kLength = "Content-Length";
  constexpr std::string_view kEncoding = "Transfer-Encoding";
  // There is one, since the block begins as a reply does.
  std::string_view statusLine = takeToken(block, '\n');
  flag_ = true;
  takeToken(statusLine, ' ');
  takeStatus(leadingNumber(takeToken(statusLine, ' ')));
  for (std::string_view line; !(line = takeToken(block, '\n')).empty();) {
    const std::size_t lengthName = line.find(kLength);
    if (lengthName != std::string_view::npos) {
      const std::size_t colon = line.find(':', lengthName);
      const bool named = colon != std::string_view::npos;
      acceptLength(named ? leadingNumber(line.substr(colon + 1)) : 0);
    }
    if (line.find(kEncoding) != std::string_view::npos) chunked_ = true;
    // The letter first: most lines are others.
    if ((line.front() | 0x20) == 'c' && announcesClose(line)) endsConnection_ = true;
  }
}

void RESTResponse::takeStatus(long code) {
  statusCode_ = static_cast<int>(
      std::clamp<long>(code, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

void RESTResponse::extractHeaders(icu::UnicodeString& headers) {
  const tq::oss::TraceScope trace(trace::RESTResponseExtractHeaders);
  tq::oss::StringTokenizer lines(headers, StaticDefs::NEWLINE);
  if (!lines.hasMore()) return;
  flag_ = true;
  tq::oss::StringTokenizer statusLine(lines.next(), icu::UnicodeString(u' '));
  statusLine.next();
  takeStatus(leadingNumber(statusLine.next()));
  while (lines.hasMore()) {
    const icu::UnicodeString line = lines.next();
    const int lengthName = line.indexOf(StaticDefs::RESP_CONTENT_LENGTH);
    if (lengthName >= 0) acceptLength(leadingNumber(headerValue(line, lengthName)));
    // The value is not looked at: chunks are the only coding that the server knows.
    if (line.indexOf(StaticDefs::RESP_TRANSFER_ENCODING) >= 0) chunked_ = true;
    std::string bytes;
    if (announcesClose(line.toUTF8String(bytes))) endsConnection_ = true;
  }
}

void RESTResponse::acceptLength(long length) {
  if (length < 0) {
    failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING, u"the announced length is below 0");
  }
  if (static_cast<unsigned long>(length) > maxReplyBytes_) {
    failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING,
                     u"the announced length is above the limit");
  }
  setContentLen(static_cast<int>(length));
}

void RESTResponse::setContentLen(int length) {
  contentLength_ = length;
  state_ = kBody;
}

/// Gathers a chunk-size line, which may come in pieces, and the CR LF before it that ends the data
/// of the previous chunk.
int RESTResponse::gatherChunkLength(std::string_view offered) {
  for (std::size_t i = 0; i < offered.size(); ++i) {
    pending_.push_back(offered[i]);
    const std::size_t front = pending_.starts_with(kLineEnd) ? kLineEnd.size() : 0;
    if (offered[i] == '\n' && pending_.size() > front) {
      takeChunkLengthLine(front);
      return static_cast<int>(offered.size() - i - 1);
    }
    // One more than the characters of a line: its CR.
    if (pending_.size() > front + kMaxChunkLengthLine + 1) {
      failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING,
                       u"the chunk-size line is longer than 125 characters");
    }
  }
  flag_ = true;
  return 0;
}

/// Takes the size from the gathered line, whose text begins at `front`. The line is checked first,
/// because `updateContentLength` reads anything that is not a number as 0, the end of the reply.
void RESTResponse::takeChunkLengthLine(std::size_t front) {
  const auto size = chunkSizeOf(std::string_view(pending_).substr(front));
  if (!size) {
    failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING,
                     u"the chunk-size line is not a hexadecimal number");
  }
  if (*size > maxReplyBytes_) {
    failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING, u"the chunk is longer than the limit");
  }
  int consumed = 0;
  updateContentLength(pending_.c_str(), consumed);
  lastChunk_ = contentLength_ == 0;
  pending_.clear();
}

void RESTResponse::updateContentLength(const char* buffer, int& consumed) {
  const tq::oss::TraceScope trace(trace::RESTResponseUpdateContentLength);
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

/// A first body may come in chunks that are too short to decode. Such a chunk is left unconsumed,
/// and the body is decoded once the next chunks have made it long enough.
int RESTResponse::parseFirstBody(const char* buffer, int length, ClientResponse& response,
                                 bool& done) {
  // A length that was set by hand may be below 0, which counts as 0.
  contentLength_ = std::max(contentLength_, 0);
  if (joined_ > std::numeric_limits<int>::max() - contentLength_) {
    fail(StaticDefs::ERR_CLIENT_RESP_PARSING,
         u"the chunks that the first record is spread over are longer than the limit");
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

/// True when a further chunk has to be joined to this body: it does not hold the start of a record
/// or, where the reply consists of one record, all of it.
bool RESTResponse::firstBodyIsTooShort(const char* buffer, int length) const {
  const bool oneRecord =
      statusCode_ == kServerError || (statusCode_ == kOk && kindOf(kind_).has(kOneRecord));
  const bool records =
      statusCode_ == kOk && (isSearch(kind_) || kind_ == ClientRequest::PARSE_RESULT);
  if (!oneRecord && !records) return false;
  bytes::Reader body = bytes::readerOf(buffer, length);
  std::uint32_t recordLength = 0;
  if (!body.skip(kUninterpreted) || !body.readInt(recordLength)) return true;
  if (!oneRecord) return false;
  // Refused before the chunks that would make it whole are waited for.
  if (recordLength > maxReplyBytes_) {
    // A proxy refuses in words of its own, whose letters make no length. The refusal stands without
    // them, as it does in one piece.
    if (statusCode_ == kServerError) return false;
    fail(StaticDefs::ERR_CLIENT_RESP_PARSING, u"a record is longer than the limit");
  }
  return recordLength > body.remaining();
}

int RESTResponse::parseBody(const char* buffer, int length, ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseBody);
  if (statusCode_ == kOk) response.setReturnCode(0);
  if (unmeasured_ && !hasNoBody(statusCode_)) raiseServerError(buffer, 0);
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
  const bool oneRecord = kindOf(kind_).has(kOneRecord);
  if (!search && !oneRecord && kind_ != ClientRequest::PARSE_RESULT) return 0;
  bytes::Reader body = bytes::readerOf(buffer, length);
  const bool continued = streaming_ && !oneRecord;
  if (!continued && !body.skip(kUninterpreted)) {
    fail(StaticDefs::ERR_CLIENT_RESP_PARSING, u"the body is too short for the start of a record");
  }
  const char* records = body.data();
  const int size = bytes::leftIn(body);
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

/// The reply counts as complete even if its error record is malformed, because all of its body has
/// been taken: the connection may be used again.
void RESTResponse::raiseServerError(const char* buffer, int length) {
  state_ = kDone;
  // These two have never had a text or a position either.
  if (statusCode_ == kUnauthorized) failWithoutPlace(StaticDefs::ERR_SERVER_INVALID_AUTH);
  if (statusCode_ != kServerError) failWithoutPlace(StaticDefs::ERR_SERVER_PROTOCOL);
  RESTException error(true);
  error.getMessageList().add(fail.message(StaticDefs::ERR_SERVER_APP));
  bytes::Reader body = bytes::readerOf(buffer, length);
  if (body.skip(kUninterpreted)) parseErrorMessage(body.data(), bytes::leftIn(body), error);
  throw error;
}

void RESTResponse::parseErrorMessage(const char* buffer, int length, RESTException& error) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseErrorMessage);
  bytes::Reader body = bytes::readerOf(buffer, length);
  std::string_view record;
  if (!takeOnlyRecord(body, record)) return;
  try {
    parseInto(error, record);
  } catch (const tq::oss::BaseException& e) {
    if (!lacksProperty(e)) throw;
  }
}

/// Hands each whole record to `take` and stops at the record of length 0, at one whose bytes have
/// not all arrived, or at the end. Whatever it stops at stays in `body`.
template <typename Take>
void RESTResponse::walkRecords(bytes::Reader& body, bool& done, const Raiser& raiser, Take take) {
  bytes::Reader next = body;
  std::uint32_t length = 0;
  while (next.readInt(length)) {
    if (length == 0) {
      endMark_ = true;
      done = true;
      return;
    }
    // Not left for later: its bytes would be hoarded as they come.
    if (length > maxReplyBytes_) {
      raiser(StaticDefs::ERR_CLIENT_RESP_PARSING, u"a record is longer than the limit");
    }
    std::string_view record;
    if (!next.readBytes(length, record)) return;
    take(record);
    body = next;
  }
}

int RESTResponse::parseStreamSearchResponse(const char* buffer, int length,
                                            ClientResponse& response, bool& done) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseStreamSearchResponse);
  if (length == 0) {
    writeDiagnostic(" [WARN]: parseStreamSearch !!: 0 len for resp\n");
    done = true;
    return 0;
  }
  bytes::Reader body = bytes::readerOf(buffer, length);
  HitFiller hits(response, {buffer, body.remaining()});
  // A host that traces wants to see each step of each hit.
  const bool traced = tq::oss::getTraceFacility() != nullptr;
  walkRecords(body, done, fail, [&](std::string_view record) {
    if (!traced && hits.addNamed(record)) return;
    requireFieldsFit(record, fail);
    SearchResult hit(true);
    parseInto(hit, record);
    hits.add(hit);
  });
  return bytes::leftIn(body);
}

int RESTResponse::parseParseResultResponse(const char* buffer, int length, ClientResponse& response,
                                           bool& done) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseParseResultResponse);
  if (length == 0) {
    done = true;
    return 0;
  }
  bytes::Reader body = bytes::readerOf(buffer, length);
  ParseFiller results(response, {buffer, body.remaining()});
  const bool traced = tq::oss::getTraceFacility() != nullptr;
  walkRecords(body, done, failWithoutPlace, [&](std::string_view record) {
    if (!traced && results.add(record, fields::Form::Wide)) return;
    requireFieldsFit(record, failWithoutPlace);
    ParseResult result(true);
    parseInto(result, record);
    results.add(result);
  });
  // The server never cuts a parse result, so one that is not whole is broken. `done` would not do
  // here: the caller may have set it before.
  if (body.remaining() != 0 && !endMark_) {
    failWithoutPlace(StaticDefs::ERR_CLIENT_RESP_PARSING,
                     u"a parse result is longer than its data");
  }
  return bytes::leftIn(body);
}

int RESTResponse::parseSelectivityResponse(const char* buffer, int length, ClientResponse& response,
                                           bool&) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseSelectivityResponse);
  SelectivityInfo info(true);
  bytes::Reader body = bytes::readerOf(buffer, length);
  std::string_view record;
  if (takeOnlyRecord(body, record)) parseInto(info, record);
  response.setSelectivityInfo(info);
  return bytes::leftIn(body);
}

int RESTResponse::parseGetStatus(const char* buffer, int length, ClientResponse& response, bool&) {
  const tq::oss::TraceScope trace(trace::RESTResponseParseGetStatus);
  std::uint32_t code = 0;
  bytes::Reader body = bytes::readerOf(buffer, length);
  std::string_view record;
  if (takeOnlyRecord(body, record)) {
    const auto status = tq::oss::getTraceFacility() == nullptr ? onlyStatus(record) : std::nullopt;
    code = status ? *status : statusAmong(record);
  }
  response.setGetStatusCode(code);
  return bytes::leftIn(body);
}

void RESTResponse::print() { const tq::oss::TraceScope trace(trace::RESTResponsePrint); }

int getChunkedMesgLen(const char* line, int& consumed) {
  const tq::oss::TraceScope trace(trace::RESTResponseGetChunkedMesgLen);
  // With its prefix the text is read as it stands in the line: a sign, a blank or a second prefix
  // after the "0x" is not a number, hence 0.
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
