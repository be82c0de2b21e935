#pragma once

#include <unicode/unistr.h>

#include <cstdint>

#include "comm/kruClientRequest.h"
#include "comm/kruParseResponse.h"
#include "comm/kruSearchResponse.h"
#include "comm/kruSelectivityInfo.h"
#include "infra/oss/kruUTF8String.h"

namespace tq::comm {

class CorvaneClient;
class CorvaneRESTClient;
class HitFiller;
class ParseFiller;

/// What one request brought: the outcome, the server's status, and the typed results. A client's
/// exchange fills it; for kinds whose results stream, the two pulling operations fetch the further
/// portions over the same client. One object holds the reply to one request, and calls on it must
/// not overlap; different objects are independent. A copy hands out again what was taken from the
/// original, and counts as its exchange's: pull into one of them only, or each gets some portions.
class KRU_EXPORT ClientResponse {
 public:
  /// Empty. The return code is -1, so that it does not read as a success before a reply has come.
  ClientResponse();
  ClientResponse(const icu::UnicodeString& text, int code);

  /// Whether the return code is 0. Each exchange that is begun sets it back to -1 first. It becomes
  /// 0 with the header of the reply, before the body is read: after an exchange that has thrown it
  /// says nothing.
  bool success() const { return returnCode_ == 0; }
  int getReturnCode() const { return returnCode_; }
  void setReturnCode(int code) { returnCode_ = code; }

  /// The server's status, filled by GET_STATUS.
  unsigned int getStatusCode() const { return statusCode_; }
  void setGetStatusCode(unsigned int code) { statusCode_ = code; }
  void setStatusMessage(const tq::oss::Message& message);
  tq::oss::Message getStatusMessage() const { return statusMessage_; }

  /// Plain content, such as the server's version.
  const icu::UnicodeString& getContent() const { return content_; }
  void setContent(const icu::UnicodeString& content) { content_ = content; }

  /// Kept for the caller; the library only sets the text that the constructor is given.
  icu::UnicodeString& getText() { return text_; }
  const icu::UnicodeString& getText() const { return text_; }
  tq::oss::UTF8String& getUtf8Buffer() { return utf8Buffer_; }
  void initId() { identified_ = false; }

  /// Each appends a copy and raises the result count by one.
  void addSearchResult(const SearchResult& result);
  void addParseResult(const ParseResult& result);
  void setSearchResponse(const SearchResponse& response);
  void setParseResponse(const ParseResponse& response);
  void setSelectivityInfo(const SelectivityInfo& info);

  /// Results added since the last receive.
  int getResultCount() const { return resultCount_; }
  /// For a client that starts receiving.
  void resetResultCount() { resultCount_ = 0; }

  /// When set, the next pulling operation receives nothing and returns what is held. It is cleared
  /// by whatever returns search or parse results, the next two included.
  void setResultsBuffered(bool buffered) { resultsBuffered_ = buffered; }
  SearchResponse& getSearchResponse();
  ParseResponse& getParseResponse();
  SelectivityInfo& getSelectivityInfo() { return selectivity_; }

  // Whose results these are, for clients: an exchange, by the numbers of its client and of itself.
  void fillFrom(std::uint64_t client, std::uint64_t exchange) {
    client_ = client;
    exchange_ = exchange;
  }
  bool isFree() const { return client_ == 0; }
  bool isFilledFrom(std::uint64_t client, std::uint64_t exchange) const {
    return client_ == client && exchange_ == exchange;
  }

  /// The search results after receiving over `client`, unless they are marked as buffered.
  /// Not `streaming`: exactly one receive, which as the client's `recv` replaces the hits of
  /// STREAM_SEARCH and adds to those of SCALAR_SEARCH. `streaming`: receives while no hit is left
  /// to take and the stream has not ended, which is tested before the first receive; hits that were
  /// taken are dropped before the next portion comes. Throws RESTException:
  /// what the client's `recv` throws, or ERR_INVALID_STATE when the client speaks no protocol or
  /// another exchange has filled this response.
  SearchResponse& getSearchResponse(CorvaneClient& client, bool streaming);
  /// The same for parse results, always in the streaming form.
  ParseResponse& getParseResponse(CorvaneClient& client);

  /// How a kind's reply is shaped; a kind below 0 or from 64 on only requires a reply.
  static bool isMultiResp(ClientRequest::REQUEST kind);
  static bool isStreaming(ClientRequest::REQUEST kind);
  static bool isRespReqd(ClientRequest::REQUEST kind);
  static bool resultsExpected(ClientRequest::REQUEST kind);

 private:
  friend class CorvaneRESTClient;
  friend class HitFiller;
  friend class ParseFiller;

  // What has been taken is not handed out again with what a client adds in its lifetime.
  class TakenApart {
   public:
    explicit TakenApart(ClientResponse& response) noexcept;
    ~TakenApart();
    TakenApart(const TakenApart&) = delete;
    TakenApart& operator=(const TakenApart&) = delete;

   private:
    ClientResponse& response_;
  };
  // Gives the memory of hits back that have all been taken.
  void dropTakenHits() noexcept;

  int resultCount_ = 0;
  icu::UnicodeString text_;
  tq::oss::UTF8String utf8Buffer_;

  // Outcome.
  int returnCode_ = -1;
  unsigned int statusCode_ = 0;
  tq::oss::Message statusMessage_;

  // Typed results.
  SearchResponse searchResponse_;
  SelectivityInfo selectivity_{false};
  ParseResponse parseResponse_;

  bool identified_ = false;
  bool resultsBuffered_ = false;
  icu::UnicodeString content_;

  // The exchange that filled this response last; client 0: none.
  std::uint64_t client_ = 0;
  std::uint64_t exchange_ = 0;
};

}  // namespace tq::comm
