#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "comm/kruClientRequest.h"
#include "infra/oss/kruSizeableBuffer.h"

namespace tq::comm {

/// The bytes of one request. A client sends the header text first. LAST_DOC_SENT is followed by the
/// terminate record; any other kind by prefix and content, unless there is no prefix. Calls on one
/// object must not overlap; different objects are independent, and the first of the process may be
/// made on several threads at once.
///
/// A message has its own copy of the properties, and refers to the caller's content, which must
/// live until it is sent.
///
/// Header text: a line "name: value" per property, ended by LF, sorted by the UTF-16 code units of
/// the names; the block ends with CR LF. Texts are written unescaped. The line of "authToken" is
/// named "Authorization" and stays where "authToken" stands in the order.
///
/// Document block (integers are 32-bit, big-endian; "masked" clears the two highest bits):
///   0, T = bytes that follow T (content included, not masked), the metadata pairs in list order,
///   masked 5, "rowId", masked key length, key; then, when there is content, masked 4, "data",
///   masked content length, content.
/// The prefix is that block without the content; the header "Content-Length  " carries T + 8.
/// Metadata and content without a key are not sent. A terminate record is 8 bytes, all 0.
///
/// Operations that build text or bytes throw tq::oss::NLSException "TQ_ERR_OUT_OF_MEMORY" when a
/// buffer cannot grow, or when a text that they are given or make is bogus (ICU got no memory for
/// it): it would be written as an empty one. What has been appended to `out` by then is lost. A key
/// or content that would be sent and is null with a length throws RESTException
/// ERR_CLIENT_INTERNAL.
class KRU_EXPORT RESTMessage {
 public:
  RESTMessage(const icu::UnicodeString& host, ClientRequest& request);
  RESTMessage(const RESTMessage&) = delete;
  RESTMessage& operator=(const RESTMessage&) = delete;

  /// Fills the process-wide tables that all messages share. The first message does it; calling it
  /// at start-up moves the cost there. Safe from any thread; later calls return at once.
  static void initUrls();

  /// Makes this the message of another request.
  void initMessage(ClientRequest& request);

  /// The action of a kind; empty for a kind that has none, for which no action line is put.
  static icu::UnicodeString getAction(ClientRequest::REQUEST kind);
  /// The action type of a kind, "unknown" where the kind has none.
  static icu::UnicodeString getActionType(ClientRequest::REQUEST kind);

  /// The properties as header lines, or as a query string ("?name=value&name=value").
  icu::UnicodeString getParamString(bool asHeaders) const;

  /// Puts "action" (where the kind has one) and "actionType" into the message's properties and
  /// appends the header text to `out`.
  void buildProtocolMsg(icu::UnicodeString& out, ClientRequest::REQUEST kind);

  /// The header text in UTF-8, zero-terminated. It stays as long as the message, or until this is
  /// called again.
  char* getSerializedHeader();

  /// The bytes that go before the content, and how many. Never null; valid until `initMessage`.
  const char* getMsgPrefix() const { return prefixBuffer_.data(); }
  unsigned int getMsgPrefixLen() const { return prefixLength_; }

  /// The caller's content and its length in bytes. What is sent is what the first returns, which a
  /// derived class may override.
  virtual const char* getMsgBody() { return body_; }
  const char* getMsgBody() const { return body_; }
  unsigned int getMsgBodyLength() const { return bodyLength_; }

  /// The terminate record and its length in bytes; meaningful for LAST_DOC_SENT only.
  const char* getTerminateRecord(unsigned int& length) const;
  /// Writes the terminate record into this message.
  void serializeTermRecord();

  ClientRequest::REQUEST getRequest() const { return request_; }
  const icu::UnicodeString& getHost() const { return host_; }

  /// An upper bound of the block in bytes, content included: 8 bytes per pair more than
  /// `serializeMetadata` reports. 0 for an empty list.
  std::uint64_t getSerializeMetadataLength(const std::list<KVPair>& metadata, const char* key,
                                           unsigned int keyLength) const;
  /// Writes the block without the content to `out`, which must hold the length above without the
  /// content, and returns the block's length in bytes with the content. An empty list writes
  /// nothing and returns 0, although there is a key.
  std::uint64_t serializeMetadata(char* out, const std::list<KVPair>& metadata, const char* key,
                                  unsigned int keyLength) const;

  /// Appends the Base64 form of `in`'s UTF-8 bytes to `out`. For callers that make a credential;
  /// the library does not call it.
  static void toB64(const icu::UnicodeString& in, icu::UnicodeString& out);

 private:
  struct Added;

  const tq::util::ExtendedProperties& properties() const noexcept;
  void takeProperties(ClientRequest& request);
  void takeKept(ClientRequest& request);
  void keepHeader(ClientRequest& request);
  void initPrefix(ClientRequest& request);
  std::uint64_t roomForBlock(const std::list<KVPair>& metadata, const char* key,
                             unsigned int keyLength) const;
  template <typename Write>
  void buildHeader(ClientRequest::REQUEST kind, Write write);
  Added added() const noexcept;
  void writeHeader();
  void writeMeasuredHeader();
  void writeKeptHeader();

  tq::oss::SizeableBuffer<char, 16384> headerBuffer_;
  ClientRequest::REQUEST request_{};
  // The properties are the message's own, or those that the header text was kept with.
  tq::util::ExtendedProperties properties_;
  std::shared_ptr<const KeptHeader> kept_;
  icu::UnicodeString lengthText_;
  const icu::UnicodeString* action_ = nullptr;
  const icu::UnicodeString* actionType_ = nullptr;
  tq::oss::SizeableBuffer<char, 16384> prefixBuffer_;
  tq::oss::SizeableBuffer<char, 512> termRecordBuffer_;
  unsigned int prefixLength_ = 0;
  unsigned int termRecordLength_ = 0;

  // The caller's bytes.
  const char* body_ = nullptr;
  unsigned int bodyLength_ = 0;

  icu::UnicodeString host_;
};

/// Appends the decimal digits of `n`, without sign or leading zeros.
KRU_EXPORT void convertNumberToString(icu::UnicodeString& out, unsigned int n);

}  // namespace tq::comm
