#pragma once

#include "comm/kruRESTResponse.h"

namespace tq::comm {

/// Parser of one reply of the binary protocol. It is fed blocks: the first call takes the reply
/// header, each later call takes a block of the body. It keeps no pointer into a block. One object
/// serves one thread.
///
/// Integers are big-endian. A reply is
///   2 bytes: code (1 success, 5 status only, 6 error, 401 authentication refused);
///   code 6: an error record, that is, 2 bytes length n and n bytes of fields;
///   code 1: envelopes, each 2 bytes status, 2 bytes length, payload; status 1 with length 0 ends
///   them. A hit's payload is its key; with status 5 a 2-byte score in thousandths precedes it.
class KRU_EXPORT DrestoPerfResponse : public RESTResponse {
 public:
  /// `resultsExpected`: whether replies to this kind carry records.
  DrestoPerfResponse(ClientRequest::REQUEST kind, bool resultsExpected);

  /// Makes the parser take a further block of the body (true) or a new reply (false).
  void initState(bool body) override;

  /// Decodes an error record into `error`. A record whose bytes are not all there leaves `error` as
  /// it is.
  void parseErrorMessage(const char* buffer, int length, RESTException& error) override;

  /// Takes the reply header and returns how many bytes follow it.
  int parseHeaders(const char* buffer, int length) override;

  /// True when the reply is finished. Otherwise `need` is how many bytes to offer next; 0 when the
  /// reply consists of its header. In a state that wants nothing `need` stays as it is.
  bool parseDone(int& need);

  /// Advances over `buffer` and returns how many of its last bytes were not consumed. `done` is set
  /// when the reply is complete, never cleared. Throws the server's error; ERR_SERVER_PROTOCOL for
  /// an empty block and for a code that the kind does not have; ERR_SERVER_INVALID_AUTH; and
  /// ERR_CLIENT_RESP_PARSING, whose text says why, for a malformed record or when the reply was
  /// finished already.
  int parseMesg(const char* buffer, int length, ClientResponse& response, bool& done);

  /// Takes a block of the body by code and kind. This and the parsers below, one for each form of
  /// the results, return and throw as `parseMesg` does.
  int parseBody(const char* buffer, int length, ClientResponse& response, bool& done);
  int parseStreamSearchResponse(const char* buffer, int length, ClientResponse& response,
                                bool& done);
  int parseParseResultResponse(const char* buffer, int length, ClientResponse& response,
                               bool& done);
  int parseSelectivityResponse(const char* buffer, int length, ClientResponse& response,
                               bool& done);
  int parseContent(const char* buffer, int length, ClientResponse& response, bool& done);

  /// Reads the envelope header at `position`, moves `position` to the payload and returns the
  /// payload's length. An envelope whose bytes are not all there has status 9 and leaves `position`
  /// where it was.
  unsigned short validateRespEnv(const char* buffer, int length, int& position,
                                 unsigned short& status);

  /// Read the big-endian integer at `position`, which moves past it.
  unsigned short getShort(const char* buffer, int& position);
  int getInt(const char* buffer, int& position);

  /// Writes one line about the parser's state to standard error.
  void printState(icu::UnicodeString context);

  /// True when replies with the header's code have a body.
  bool hasBody() const;
  /// True when the header's code is that of an error.
  bool isErrorReply() const;
  /// True when a body block has brought a whole record.
  bool hasTakenRecords() const { return recordsTaken_; }
  /// True when the body that begins with `buffer` is an error of the server: an error record, or
  /// the error envelope in place of the server's version. False for a version of which less than
  /// the 2 bytes of the status are there.
  bool beginsWithError(const char* buffer, int length) const;
  /// True when `buffer` begins with something that can be decoded: an error record or an envelope
  /// whose bytes are all there, or anything at all for a kind that has neither.
  bool holdsWholeUnit(const char* buffer, int length) const;
  /// How many of the bytes belong to the error that they begin with; all of them when its length is
  /// not among them.
  int errorLength(const char* buffer, int length) const;

 private:
  void takeServerError(const char* buffer, int length, ClientResponse& response, bool& done);
  int parseResults(const char* buffer, int length, ClientResponse& response, bool& done);
  std::size_t unitLength(const char* buffer, int length) const;
  void requireWithinLimit(std::size_t size) const;

  int walkHits(const char* buffer, int length, ClientResponse& response, bool& done);
  int fillHits(const char* buffer, int length, ClientResponse& response, bool& done);
  template <auto TakeHeader, typename Take>
  int walkEnvelopes(const char* buffer, int length, bool& done, Take take);

  bool resultsExpected_;
  bool recordsTaken_ = false;
};

}  // namespace tq::comm
