#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <string>

#include "comm/kruClientRequest.h"
#include "infra/oss/kruExport.h"
#include "infra/oss/kruUTF8String.h"

namespace tq::comm {

class ClientResponse;
class RESTException;

/// Parser of one reply of the HTTP-style protocol, or of one portion of a streamed one. It knows no
/// socket: it is fed bytes, says how many it wants next, and fills a ClientResponse or throws a
/// RESTException. It keeps no pointer into what it was fed. One object serves one thread.
///
/// A reply is a status line, header lines ended by CR LF, a blank line, and a body of as many bytes
/// as "Content-Length" announces or in chunks. A first body begins with 4 bytes that are not
/// interpreted; then come records, each a 4-byte big-endian length and that many bytes; length 0
/// ends them.
class KRU_EXPORT RESTResponse {
 public:
  /// `streaming`: the parser goes on with a chunked reply, at a chunk-size line, status 200.
  RESTResponse(ClientRequest::REQUEST kind, bool streaming);

  virtual void initState(bool streaming);

  /// Decodes an error record, 4-byte length in front, into `error`; what is too short for its
  /// length leaves `error` as it is.
  virtual void parseErrorMessage(const char* buffer, int length, RESTException& error);

  /// Takes a header block, which may come in pieces, and returns how many bytes follow it.
  virtual int parseHeaders(const char* buffer, int length);

  /// True when the reply is complete. Otherwise `need` is how many bytes the parser wants next: up
  /// to 256 of a header block, up to 16 of a chunk-size line, exactly the length of a body.
  bool parseDone(int& need) const;

  /// True while a body is awaited: the next call must bring all of the bytes that `parseDone`
  /// named, behind those that the previous call left. Otherwise any number of bytes will do.
  bool wantsWholeBody() const { return state_ == kBody; }

  /// Advances over `buffer` and returns how many of its last bytes were not consumed. `done` is set
  /// when the server has signalled the end of the results, never cleared. Throws
  /// ERR_CLIENT_RESP_PARSING for what cannot be a reply, or when the reply was complete already.
  int parseMesg(const char* buffer, int length, ClientResponse& response, bool& done);

  /// Takes the status code, the length and the coding from the text of a header block, whose first
  /// line is the status line. Throws ERR_CLIENT_RESP_PARSING for a length that no reply can have.
  void extractHeaders(icu::UnicodeString& headers);

  /// Reads the chunk-size line at `buffer`, with the CR LF that may stand in front of it, and adds
  /// the bytes of both to `consumed`; a reply that is not chunked is left alone. The line must be
  /// whole or end with a zero byte. What is no number is 0.
  void updateContentLength(const char* buffer, int& consumed);

  /// A body or chunk of so many bytes is awaited from now on.
  void setContentLen(int length);

  /// Takes a body as status and kind say; with a length of 0 announced there is none. This and the
  /// operations below take what is in `buffer`, write nothing to it, and return how many of its
  /// last bytes were not consumed; `done` is set as `parseMesg` sets it. Throws by the status (see
  /// RESTException), and ERR_CLIENT_RESP_PARSING for records that lie about a length.
  int parseBody(const char* buffer, int length, ClientResponse& response, bool& done);
  /// The records of a body, from the first one on. A partial hit is left unconsumed, a partial
  /// parse result refused.
  int parseStreamSearchResponse(const char* buffer, int length, ClientResponse& response,
                                bool& done);
  int parseParseResultResponse(const char* buffer, int length, ClientResponse& response,
                               bool& done);
  /// The one record of a body. What is too short for its length gives 1, 1 and 100, or status 0.
  int parseSelectivityResponse(const char* buffer, int length, ClientResponse& response,
                               bool& done);
  int parseGetStatus(const char* buffer, int length, ClientResponse& response, bool& done);

  /// Does nothing.
  void print() const {}

  /// The most bytes that a body, chunk or record may announce; see CorvaneClient.
  void setMaxReplyBytes(std::size_t bytes);

  bool isChunked() const { return chunked_; }
  /// True when the chunk last announced was the one of size 0 that ends a reply.
  bool lastChunkSeen() const { return lastChunk_; }
  /// True when the record of length 0 that ends the results was among the parsed bytes.
  bool endMarkSeen() const { return endMark_; }
  int getStatusCode() const { return statusCode_; }
  int getContentLength() const { return contentLength_; }

 protected:
  static constexpr int kHeaders = 1;
  static constexpr int kChunkLength = 2;
  static constexpr int kBody = 3;
  static constexpr int kDone = 4;

  bool flag_ = false;
  int state_ = kHeaders;
  int statusCode_ = 0;
  bool chunked_ = false;
  bool streaming_ = false;
  int contentLength_ = 0;
  ClientRequest::REQUEST kind_;
  icu::UnicodeString text_;
  tq::oss::UTF8String utf8Buffer_;
  icu::UnicodeString secondText_;
  std::size_t maxReplyBytes_ = std::size_t{1} << 30;

 private:
  std::size_t headerBlockEnd(std::size_t searched) const;
  void takeHeaderBlock(std::size_t length);
  int gatherChunkLength(const char* buffer, int length);
  void takeChunkLengthLine(std::size_t front);
  void acceptLength(long length);
  int parseFirstBody(const char* buffer, int length, ClientResponse& response, bool& done);
  bool firstBodyIsTooShort(const char* buffer, int length) const;
  int parseResults(const char* buffer, int length, ClientResponse& response, bool& done);
  template <typename Take>
  int walkRecords(const char* buffer, int length, bool& done, Take take);
  [[noreturn]] void raiseServerError(const char* buffer, int length);

  // What has come of a header block or a chunk-size line that is not complete yet.
  std::string pending_;
  // Everything taken in front of the body. Blocks that are no reply count too: a server that sends
  // nothing else would never be done with.
  std::size_t headerBytes_ = 0;
  // Bytes of a first body that were too few to decode and stand in front of the next chunk.
  int joined_ = 0;
  bool lastChunk_ = false;
  bool endMark_ = false;
};

/// Reads a chunk-size line: the hexadecimal number before the first CR LF. `consumed` becomes the
/// number of bytes through the LF. Not a number: 0; one that no int holds: the largest int. At most
/// 125 characters are looked at, and none behind a zero byte.
KRU_EXPORT int getChunkedMesgLen(const char* line, int& consumed);

}  // namespace tq::comm
