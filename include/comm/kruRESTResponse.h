#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "comm/kruClientRequest.h"
#include "infra/oss/kruExport.h"
#include "infra/oss/kruUTF8String.h"

namespace tq::comm {

class ClientResponse;
class RESTException;
class Raiser;
namespace bytes {
class Reader;
}

/// Parser of one reply of the HTTP-style protocol, or of one portion of a streamed one. It knows no
/// socket: it is fed bytes, says how many it wants next, and fills a ClientResponse or throws a
/// RESTException. It keeps no pointer into what it was fed. One object serves one thread.
///
/// A reply is a status line, header lines ended by CR LF, a blank line, and a body of as many bytes
/// as "Content-Length" announces or in chunks. A status above 200 without either speaks for itself;
/// 204 and 304 then have no body. The first 4 bytes of a first body mean nothing; records follow,
/// each after its length (4 bytes, big-endian), up to a length of 0.
class KRU_EXPORT RESTResponse {
 public:
  /// `streaming`: the parser continues a chunked reply. It begins at a chunk-size line and takes
  /// the status for 200.
  RESTResponse(ClientRequest::REQUEST kind, bool streaming);

  virtual void initState(bool streaming);

  /// Decodes an error record, which begins with its 4-byte length, into `error`. A record whose
  /// bytes are not all there leaves `error` as it is.
  virtual void parseErrorMessage(const char* buffer, int length, RESTException& error);

  /// Takes a header block, which may come in pieces, and returns how many bytes follow it: of the
  /// body, or of the chunk after its size line.
  virtual int parseHeaders(const char* buffer, int length);

  /// True when the reply is complete. Otherwise `need` is how many bytes the parser wants next: up
  /// to 256 of a header block, up to 16 of a chunk-size line, exactly the length of a body.
  bool parseDone(int& need);

  /// True while a body is awaited. `parseMesg` then needs all of it at once: first what the
  /// previous call left unconsumed, then as many bytes as `parseDone` wants. At other times it
  /// takes whatever is there.
  bool wantsWholeBody() const { return state_ == kBody; }

  /// Advances over `buffer` and returns how many of its last bytes were not consumed. A length
  /// below 0 counts as 0. `done` is set when the server has signalled the end of the results, never
  /// cleared. Throws ERR_CLIENT_RESP_PARSING for bytes that cannot be a reply, or when the reply
  /// was complete already; the text of the message says what was wrong. A failure of the status
  /// line, the headers, a size line or a parse result names no file and no line.
  int parseMesg(const char* buffer, int length, ClientResponse& response, bool& done);

  /// Takes the status code, the length and the coding from the text of a header block, whose first
  /// line is the status line. Throws ERR_CLIENT_RESP_PARSING for a length below 0 or above the
  /// limit.
  void extractHeaders(icu::UnicodeString& headers);

  /// Reads the chunk-size line at `buffer`, which a CR LF may precede, and adds the bytes of both
  /// to `consumed`; a reply that is not chunked is left alone. The line must be whole or end with a
  /// NUL byte. A line that is not a number counts as 0.
  void updateContentLength(const char* buffer, int& consumed);

  /// From now on the parser awaits a body or chunk of this many bytes.
  void setContentLen(int length);

  /// Takes a body by the status and the kind; when the announced length is 0 there is none. This
  /// and the operations below only read `buffer` and return how many of its last bytes were not
  /// consumed; `done` is set as `parseMesg` sets it. Throws ERR_SERVER_INVALID_AUTH for the status
  /// 401, the server's message or ERR_SERVER_APP for 500, ERR_SERVER_PROTOCOL for any other one but
  /// 200, and ERR_CLIENT_RESP_PARSING for a record with an impossible length.
  int parseBody(const char* buffer, int length, ClientResponse& response, bool& done);
  /// The records of a body, without the 4 bytes before the first one. A partial hit is left
  /// unconsumed; a partial parse result is refused.
  int parseStreamSearchResponse(const char* buffer, int length, ClientResponse& response,
                                bool& done);
  int parseParseResultResponse(const char* buffer, int length, ClientResponse& response,
                               bool& done);
  /// The only record of a body. A record whose bytes are not all there counts as 1, 1 and 100, or
  /// as status 0.
  int parseSelectivityResponse(const char* buffer, int length, ClientResponse& response,
                               bool& done);
  int parseGetStatus(const char* buffer, int length, ClientResponse& response, bool& done);

  /// Prints nothing.
  void print();

  /// The maximum number of bytes that a body, chunk or record may announce; see CorvaneClient.
  void setMaxReplyBytes(std::size_t bytes);

  bool isChunked() const { return chunked_; }
  /// True when the chunk last announced was the one of size 0 that ends a reply.
  bool lastChunkSeen() const { return lastChunk_; }
  /// True when the record of length 0 that ends the results was among the parsed bytes.
  bool endMarkSeen() const { return endMark_; }
  /// True when the headers say that no reply follows this one on its connection ("Connection:
  /// close"), when its own final reply does (it is an interim one with a length or chunks), and
  /// when nothing says where it ends.
  bool endsConnection() const { return endsConnection_; }
  /// True for the statuses 100 to 199.
  bool isInterim() const;
  /// True for a status above 200 with neither a length nor chunks.
  bool isUnmeasured() const { return unmeasured_; }
  int getStatusCode() const { return statusCode_; }
  int getContentLength() const { return contentLength_; }

 protected:
  static constexpr int kHeaders = 1;
  static constexpr int kChunkLength = 2;
  static constexpr int kBody = 3;
  static constexpr int kDone = 4;

  bool flag_ = false;  // Part of the class as it has always been; nothing reads it.
  int state_ = kHeaders;
  int statusCode_ = 0;
  bool chunked_ = false;
  bool streaming_ = false;
  int contentLength_ = 0;
  ClientRequest::REQUEST kind_;
  // Nothing reads these three either.
  icu::UnicodeString text_;
  tq::oss::UTF8String utf8Buffer_;
  icu::UnicodeString secondText_;
  std::size_t maxReplyBytes_ = std::size_t{1} << 30;

 private:
  static std::size_t headerBlockEnd(std::string_view block, std::size_t searched);
  void takeHeaderBlock(std::string_view block);
  void readHeaders(std::string_view block);
  void takeStatus(long code);
  int gatherChunkLength(std::string_view offered);
  void takeChunkLengthLine(std::size_t front);
  void acceptLength(long length);
  int parseFirstBody(const char* buffer, int length, ClientResponse& response, bool& done);
  bool firstBodyIsTooShort(const char* buffer, int length) const;
  int parseResults(const char* buffer, int length, ClientResponse& response, bool& done);
  template <typename Take>
  void walkRecords(bytes::Reader& body, bool& done, const Raiser& raiser, Take take);
  [[noreturn]] void raiseServerError(const char* buffer, int length);

  // Headers or a chunk-size line, as far as they have arrived, until they are complete.
  std::string pending_;
  // All bytes taken before the body. Those of interim and empty blocks too: a server may send such
  // blocks without end.
  std::size_t headerBytes_ = 0;
  // The length of the chunks of a first body that were too short to decode. The caller still holds
  // them and passes them again, followed by the next chunk.
  int joined_ = 0;
  bool endsConnection_ = false;
  bool unmeasured_ = false;
  bool lastChunk_ = false;
  bool endMark_ = false;
};

/// Reads a chunk-size line: the hexadecimal number before the first CR LF. `consumed` becomes the
/// number of bytes through the LF. A line that is not a number gives 0, also one with a sign, a
/// blank or "0x" before its digits; a number beyond the range of an int gives the largest int. The
/// line is read up to its 125th character or up to a NUL byte, whichever comes first.
KRU_EXPORT int getChunkedMesgLen(const char* line, int& consumed);

}  // namespace tq::comm
