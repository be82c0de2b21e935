#pragma once

#include <unicode/unistr.h>

#include <atomic>
#include <list>
#include <memory>

#include "comm/kruKVPair.h"
#include "infra/oss/kruExport.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

struct KeptHeader;

/// What a caller wants of the search server: a kind, named parameters and, for some kinds, a
/// document. Build it once with `buildRequest`, optionally add `setDocKey` and `setContent`, then
/// hand it to a client. Calls on one object must not overlap; different objects are independent.
/// A client only reads a request, so that several clients may send one at the same time on threads
/// of their own, as long as no thread changes it meanwhile.
///
/// Texts and metadata are copied. The document's key and content are not: keep these bytes until
/// the request has been sent.
///
/// Running out of memory is all that can fail here: std::bad_alloc, or tq::oss::NLSException
/// "TQ_ERR_OUT_OF_MEMORY" for a text that ICU got no memory for. Such a text is bogus and reads as
/// empty, so it is never taken into a request, whether ICU or the caller made it.
class KRU_EXPORT ClientRequest {
 public:
  /// The request kinds. 0, 6 and 7 are unassigned; 64 is the first value that no set of kinds
  /// holds.
  enum REQUEST : int {
    CREATE_COLLECTION = 1,
    DROP_COLLECTION = 2,
    ADD_DOCUMENT = 3,
    UPDATE_INDEX = 4,
    DELETE_DOCUMENT = 5,
    STREAM_SEARCH = 8,
    ASYNCH_ADD_DOCUMENT = 9,
    LAST_DOC_SENT = 10,
    PARSE_RESULT = 11,
    OPEN_COLLECTION = 12,
    CLOSE_COLLECTION = 13,
    SELECTIVITY = 14,
    GET_STATUS = 15,
    BACKUP = 16,
    RESTORE = 17,
    TAKEOVER = 18,
    SHUTDOWN = 19,
    SCALAR_SEARCH = 20,
    OPEN_COLLECTION_ALT = 21,
    GET_SERVER_VERSION = 22,
    SET_CONSTRUCTOR_CONFIGURATION = 23,
    VERSIONS_VALIDATION = 24
  };

  /// Everything empty, null or 0; the kind has no meaning until `buildRequest` sets it.
  ClientRequest();

  /// A request that names no collection. Replaces kind and properties, empties the collection id,
  /// and puts "ver" over whatever the caller had there. Neither "index" nor "mode" is put.
  void buildRequest(REQUEST kind, const tq::util::ExtendedProperties& props);

  /// A request to one collection: as above, and puts "index" = the collection id and, for the three
  /// kinds of search, their "mode". Texts are not checked: a CR or LF begins another header
  /// line, and what follows a NUL is not sent, the end of the header included. So refuse a person's
  /// text that has one of them.
  void buildRequest(const icu::UnicodeString& collectionId, REQUEST kind,
                    const tq::util::ExtendedProperties& props);

  /// Sets the display name from the kind; a kind that has none leaves the name unchanged.
  void setRequestString();
  icu::UnicodeString getRequestString() const { return requestString_; }

  REQUEST getRequest() const { return request_; }
  icu::UnicodeString getCollectionId() const { return collectionId_; }

  /// The request's own property set; changes show in messages that are built later.
  tq::util::ExtendedProperties& getReqProperties() { return properties_; }
  const tq::util::ExtendedProperties& getReqProperties() const { return properties_; }

  /// The request's own metadata list, in insertion order.
  std::list<KVPair>& getMetadata() { return metadata_; }
  const std::list<KVPair>& getMetadata() const { return metadata_; }

  /// Replaces the metadata by a copy (which may be the request's own list) and stores where the
  /// content is and its length in bytes. Null with a length is stored as it is; clients refuse to
  /// send it, and a content or key of 2^30 bytes and more, whose length no request can announce.
  void setContent(const std::list<KVPair>& metadata, const char* content, unsigned int length);
  /// Stores the content only; the metadata stays.
  void setContent(const char* content, unsigned int length);
  /// The content, or null. What is sent is what the first of the two returns, which a derived class
  /// may override; the second gives a constant request's stored content.
  virtual const char* getContent() { return content_; }
  const char* getContent() const { return content_; }
  unsigned int getContentLength() const { return contentLength_; }

  /// Stores the document key, which is not copied; `length` is in bytes and not checked against
  /// StaticDefs::MAX_KEY_LENGTH. A key needs at least one metadata pair: clients refuse to send a
  /// key without any, as they refuse null with a length.
  void setDocKey(const char* key, unsigned int length);
  /// The key, or null; its length is written to `length`. Virtual as `getContent` is.
  virtual const char* getDocKey(unsigned int& length);
  const char* getDocKey(unsigned int& length) const;
  unsigned int getDocKeyLen() const { return docKeyLength_; }

  /// Both leave nothing but a record in the host's trace.
  void print();
  void print() const;

 private:
  friend class RESTMessage;

  /// For the messages that are made of this request: the header text that did not change lately,
  /// how many messages were made without one, and how many it takes until the next text is kept.
  /// One of the messages that are made at the same time has it, the others do without it. A copy of
  /// the request keeps a text of its own: this one's may be changing.
  struct Kept {
    Kept() = default;
    Kept(const Kept&) noexcept {}
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): nothing is taken over
    Kept& operator=(const Kept&) noexcept { return *this; }

    std::shared_ptr<const KeptHeader> header;
    unsigned int madeWithout = 0;
    unsigned int patience = 1;
    std::atomic<bool> inUse{false};
  };
  class UseOfKept;

  void replaceProperties(const tq::util::ExtendedProperties& props);

  REQUEST request_{};
  icu::UnicodeString requestString_;
  tq::util::ExtendedProperties properties_;

  // The caller's bytes.
  const char* content_ = nullptr;
  const char* docKey_ = nullptr;
  unsigned int contentLength_ = 0;
  unsigned int docKeyLength_ = 0;

  icu::UnicodeString collectionId_;
  std::list<KVPair> metadata_;

  Kept kept_;
};

}  // namespace tq::comm
