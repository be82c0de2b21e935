#pragma once

#include <unicode/unistr.h>

#include <memory>

#include "comm/kruGenRespRecord.h"

namespace tq::comm {

class HitFiller;

/// One hit of a search: a document and its score. Calls on one object must not overlap; different
/// objects, copies included, are independent.
///
/// Key bytes that a result made itself are shared by its copies, so a copy's key stays readable
/// whatever becomes of the original. What `getKey()` returned stays readable until this result is
/// given another key (`setKey`, `parseRecordNew`), is assigned to or ends, and longer while a copy
/// made before is there; `freeKey()`, `reset()` and `copyKey()` end no key's life.
class KRU_EXPORT SearchResult : public GenRespRecord {
 public:
  explicit SearchResult(bool withProperties);
  /// Copies score and document id, shares the key; the copy has no property set.
  SearchResult(const SearchResult& other);
  SearchResult& operator=(const SearchResult& other);
  ~SearchResult() override;

  /// Parses a compact hit: for record type 5 a 2-byte score (thousandths, so 0.000 to 65.535), then
  /// the raw key up to `len`. Any other type has no score and leaves the score unchanged. If it
  /// ends within the score, the key is empty. `buf` may be this result's own key. Returns 0, not
  /// the bytes consumed; `reset()` is not called.
  int parseRecordNew(const char* buf, unsigned short len, unsigned short recordType) override;

  /// Takes the hit from the properties: document id = "URI" (required, tq::oss::NLSException when
  /// missing), no key, score = "SCORE" or 0.0.
  void reset() override;

  /// Relevance; 0.0 if the server sent no score.
  double getScore() const { return score_; }
  /// The document as text; "base64:" and the key's Base64 for a hit that came as a raw key. Valid
  /// until the result is changed or ends. The text of a raw key is made when it is asked for first,
  /// and throws tq::oss::NLSException "TQ_ERR_OUT_OF_MEMORY" when there is no memory.
  const icu::UnicodeString& getDocId() const;

  /// Copies `len` bytes, which may be part of this result's own key, and makes them the key. Copies
  /// made before keep theirs. Null with a length throws RESTException ERR_CLIENT_INTERNAL and
  /// changes nothing.
  void setKey(const char* bytes, unsigned int len);
  /// Makes the caller's bytes the key without copying them; they must outlive every use of it.
  void copyKey(const char* bytes, unsigned int len);
  /// Lets go of the key: `getKey()` is null afterwards. Copies keep theirs, as does the document
  /// id.
  void freeKey();
  /// The raw key or null, and its length in bytes, which is 0 when it is null.
  const char* getKey() const { return key_; }
  unsigned int getKeyLen() const { return key_ != nullptr ? keyLength_ : 0; }

  /// Sets `out` to "base64:" and the Base64 form of the key. Null with a length is refused as by
  /// `setKey`.
  static void docIdToB64(const char* key, unsigned int len, icu::UnicodeString& out);

 private:
  // Makes hits in their list, straight from a reply.
  friend class HitFiller;

  void settleDocId() const;
  // Room for `len` bytes. A block that is full is replaced and handed over in `left`.
  char* reserve(unsigned int len, std::shared_ptr<char[]>& left);

  double score_ = 0.0;
  mutable icu::UnicodeString docId_;
  const char* key_ = nullptr;
  unsigned int keyLength_ = 0;

  // Room for keys. Copies share the block for reading; only the result that made it fills it.
  unsigned int used_ = 0;
  unsigned int capacity_ = 0;
  std::shared_ptr<char[]> block_;

  // A hit in a list leaves the share in its key's block to the list; a copy takes one of its own.
  const std::shared_ptr<char[]>* lender_ = nullptr;

  // The key whose text form the caller has not asked for yet, or null.
  mutable const char* pendingId_ = nullptr;
};

}  // namespace tq::comm
