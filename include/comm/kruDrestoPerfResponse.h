#pragma once

#include "comm/kruRESTResponse.h"

namespace tq::comm {

/// Parser of one reply of the binary protocol. It is fed blocks: the first call takes the reply
/// header, every further one a block of the body. It keeps no pointer into a block. One object
/// serves one thread.
///
/// Integers are big-endian. A reply is
///   2 bytes: code (1 success, 5 status only, 6 error, 401 authentication refused);
///   code 6: an error record, that is, 2 bytes length n and n bytes of fields;
///   code 1: envelopes, each 2 bytes status, 2 bytes length, payload; status 1 with length 0 ends
///   them. A hit's payload is its key, with status 5 behind a 2-byte score in thousandths.
class KRU_EXPORT DrestoPerfResponse final : public RESTResponse {
 public:
  /// `resultsExpected`: whether replies to this kind carry records.
  DrestoPerfResponse(ClientRequest::REQUEST kind, bool resultsExpected);

  /// True makes the parser take a further block of the body, false a new reply.
  void initState(bool body) override;

  /// Decodes an error record into `error`; one whose bytes are not all there leaves it as it is.
  void parseErrorMessage(const char* buffer, int length, RESTException& error) override;

  /// Takes the reply header and returns how many bytes follow it.
  int parseHeaders(const char* buffer, int length) override;

  /// True when the reply is finished. Otherwise `need` is how many bytes to offer next; 0 when the
  /// header was all of the reply. Unchanged in a state that wants nothing.
  bool parseDone(int& need) const;

  /// Advances over `buffer` and returns how many of its last bytes were not consumed. `done` is set
  /// when the reply is complete, never cleared. Throws ERR_CLIENT_RESP_PARSING when the reply was
  /// finished already.
  int parseMesg(const char* buffer, int length, ClientResponse& response, bool& done);

  int parseBody(const char* buffer, int length, ClientResponse& response, bool& done);
  int parseStreamSearchResponse(const char* buffer, int length, ClientResponse& response,
                                bool& done);
  int parseParseResultResponse(const char* buffer, int length, ClientResponse& response,
                               bool& done);
  int parseSelectivityResponse(const char* buffer, int length, ClientResponse& response,
                               bool& done);
  int parseContent(const char* buffer, int length, ClientResponse& response, bool& done);

  /// Reads the envelope header at `position` and moves behind it; returns the payload's length. An
  /// envelope whose bytes are not all there has status 9 and leaves `position` where it was.
  unsigned short validateRespEnv(const char* buffer, int length, int& position,
                                 unsigned short& status);

  unsigned short getShort(const char* buffer, int& position);
  int getInt(const char* buffer, int& position);

  /// Writes one line about the parser's state to standard error.
  void printState(icu::UnicodeString context) const;

  /// True when a body belongs to the code of the header.
  bool hasBody() const;
  bool isErrorReply() const;
  /// True when a body block has brought a whole record.
  bool hasTakenRecords() const { return recordsTaken_; }
  /// True when `buffer` begins with something that can be decoded: an error record or an envelope
  /// whose bytes are all there, or anything for a kind that has neither.
  bool holdsWholeUnit(const char* buffer, int length) const;
  /// The bytes of the error record at `buffer`, its length word included, as far as they are there.
  static int errorRecordLength(const char* buffer, int length);

 private:
  void takeServerError(const char* buffer, int length, ClientResponse& response, bool& done);
  int parseResults(const char* buffer, int length, ClientResponse& response, bool& done);

  template <typename Take>
  int walkEnvelopes(const char* buffer, int length, bool& done, Take take);

  bool resultsExpected_;
  bool recordsTaken_ = false;
};

}  // namespace tq::comm
