#include "comm/kruSearchResult.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "comm/kruBuiltFirst.h"
#include "comm/kruBytes.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruHitFiller.h"
#include "comm/kruRaise.h"
#include "comm/kruStaticDefs.h"
#include "comm/kruUnsendable.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruFormatter.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruBase64.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

namespace {

KRU_BUILT_FIRST const icu::UnicodeString kUri(u"URI");
KRU_BUILT_FIRST const icu::UnicodeString kScore(u"SCORE");
constexpr char16_t kIdPrefix[] = u"base64:";
constexpr std::size_t kIdPrefixLength = std::size(kIdPrefix) - 1;

constexpr unsigned short kScoredHit = 5;

// A caller that keeps one hit of a block keeps the block, hence no larger ones.
constexpr unsigned int kSmallestBlock = 64;
constexpr unsigned int kLargestBlock = 4096;

constexpr Raiser fail("kruSearchResult");

void requireBytes(const char* key, unsigned int length) {
  if (key == nullptr && length != 0) fail(StaticDefs::ERR_CLIENT_INTERNAL, kNullKey);
}

}  // namespace

SearchResult::SearchResult(bool withProperties) : GenRespRecord(withProperties) {}
SearchResult::~SearchResult() = default;

SearchResult::SearchResult(const SearchResult& other)
    : GenRespRecord(other),
      score_(other.score_),
      key_(other.key_),
      keyLength_(other.keyLength_),
      block_(other.lender_ != nullptr ? *other.lender_ : other.block_),
      pendingId_(other.pendingId_) {
  if (pendingId_ == nullptr) docId_ = other.docId_;
}

SearchResult& SearchResult::operator=(const SearchResult& other) {
  if (this == &other) return *this;
  score_ = other.score_;
  key_ = other.key_;
  keyLength_ = other.keyLength_;
  used_ = 0;
  capacity_ = 0;
  block_ = other.lender_ != nullptr ? *other.lender_ : other.block_;
  lender_ = nullptr;
  pendingId_ = other.pendingId_;
  if (pendingId_ == nullptr) docId_ = other.docId_;
  return *this;
}

int SearchResult::parseRecordNew(const char* buf, unsigned short len, unsigned short recordType) {
  const tq::oss::TraceScope scope(trace::SearchResultParseRecordNew);
  bytes::Reader reader(buf, len);
  if (recordType == kScoredHit) {
    std::uint16_t score = 0;
    if (reader.readShort(score)) {
      score_ = scoreOf(score);
    } else {
      reader.skip(reader.remaining());
    }
  }
  // The id of the hit before is replaced, so there is no need to settle it.
  pendingId_ = nullptr;
  setKey(reader.data(), static_cast<unsigned int>(reader.remaining()));
  pendingId_ = key_;
  return 0;
}

void SearchResult::reset() {
  const tq::oss::TraceScope scope(trace::SearchResultReset);
  if (getProperties() == nullptr) init(true);
  const tq::util::ExtendedProperties& props = *getProperties();
  const icu::UnicodeString& uri = props.requireProperty(kUri);
  pendingId_ = nullptr;
  docId_ = uri;
  key_ = nullptr;
  const icu::UnicodeString* score = props.findProperty(kScore);
  score_ = score != nullptr && !score->isEmpty() ? tq::oss::Formatter::stringToDouble(*score) : 0.0;
}

const icu::UnicodeString& SearchResult::getDocId() const {
  settleDocId();
  return docId_;
}

// Most hits are compared by key or thrown away unread, so the text is made when it is asked for.
void SearchResult::settleDocId() const {
  if (pendingId_ == nullptr) return;
  docIdToB64(pendingId_, keyLength_, docId_);
  pendingId_ = nullptr;
}

void SearchResult::setKey(const char* bytes, unsigned int len) {
  requireBytes(bytes, len);
  settleDocId();
  // Kept until the bytes are copied: they may be those of the key that the result has.
  std::shared_ptr<char[]> left;
  char* room = reserve(len, left);
  if (len != 0) std::memcpy(room, bytes, len);
  key_ = room;
  keyLength_ = len;
}

char* SearchResult::reserve(unsigned int len, std::shared_ptr<char[]>& left) {
  if (block_ == nullptr || len > capacity_ - used_) {
    const unsigned int larger = std::clamp(capacity_ * 2, kSmallestBlock, kLargestBlock);
    const unsigned int size = std::max(len, larger);
    left = std::make_shared_for_overwrite<char[]>(size);
    left.swap(block_);
    capacity_ = size;
    used_ = 0;
    lender_ = nullptr;
  }
  char* room = block_.get() + used_;
  used_ += len;
  return room;
}

void SearchResult::copyKey(const char* bytes, unsigned int len) {
  settleDocId();
  key_ = bytes;
  keyLength_ = len;
}

// The block stays: the text form of the id may still have to be made from it.
void SearchResult::freeKey() { key_ = nullptr; }

void SearchResult::docIdToB64(const char* key, unsigned int len, icu::UnicodeString& out) {
  const tq::oss::TraceScope scope(trace::SearchResultDocIdToB64);
  requireBytes(key, len);
  const std::size_t units = kIdPrefixLength + tq::util::Base64::encodeSize(len);
  if (units > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
    tq::oss::Converter::throwOutOfMemory();
  }
  // Also makes a bogus string valid.
  out.remove();
  char16_t* text = out.getBuffer(static_cast<std::int32_t>(units));
  if (text == nullptr) tq::oss::Converter::throwOutOfMemory();
  std::copy_n(kIdPrefix, kIdPrefixLength, text);
  tq::util::Base64::encode(key, len, text + kIdPrefixLength);
  out.releaseBuffer(static_cast<std::int32_t>(units));
}

}  // namespace tq::comm
