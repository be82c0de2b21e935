#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "comm/kruClientResponse.h"
#include "comm/kruHitList.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruFormatter.h"

namespace tq::comm {

/// What the two bytes of a score say.
inline double scoreOf(std::uint16_t thousandths) noexcept { return thousandths / 1000.0; }

/// The fields of a hit that is named by a text: "URI", and "SCORE" when it was asked for.
struct NamedHit {
  std::string_view uri;
  std::string_view score;
};

/// False when the record is not made of these fields, or one runs past its end.
bool readNamedHit(std::string_view record, NamedHit& hit) noexcept;

/// Makes the hits of one portion in the list of the response, straight from the bytes of the reply:
/// the same hits as a SearchResult that parses each record and is added to the response.
class HitFiller {
 public:
  /// The portion is the bytes of the reply that the keys will be among.
  HitFiller(ClientResponse& response, std::string_view portion)
      : response_(response),
        hits_(response.searchResponse_.list()),
        portionEnd_(portion.data() + portion.size()),
        runStart_(portion.data()),
        runEnd_(portion.data()) {}
  ~HitFiller() { commit(); }
  HitFiller(const HitFiller&) = delete;
  HitFiller& operator=(const HitFiller&) = delete;

  /// Adds a hit that is named by its key, which has bytes of the portion in front of it.
  void addKeyed(double score, std::string_view key) {
    if (key.data() + key.size() > runEnd_) beginRun(key);
    SearchResult& hit = cleared();
    hit.score_ = score;
    hit.key_ = run_->get() + (key.data() - runStart_);
    hit.keyLength_ = static_cast<unsigned int>(key.size());
    hit.lender_ = run_;
    hit.pendingId_ = hit.key_;
    take(key.size());
  }

  /// Adds a hit that is named by a text. False, and nothing is added, for a record that has other
  /// fields than such a hit, or lacks its text: it has to be decoded in the general way.
  bool addNamed(std::string_view record) {
    NamedHit named;
    if (!readNamedHit(record, named)) return false;
    SearchResult& hit = cleared();
    hit.key_ = nullptr;
    hit.keyLength_ = 0;
    hit.lender_ = nullptr;
    hit.pendingId_ = nullptr;
    tq::oss::Converter::assignUTF8(hit.docId_, named.uri.data(), named.uri.size());
    hit.score_ = tq::oss::Formatter::stringToDouble(named.score.data(), named.score.size());
    take(named.uri.size());
    return true;
  }

  /// Adds a hit that was decoded in the general way.
  void add(const SearchResult& hit) {
    commit();
    response_.addSearchResult(hit);
  }

 private:
  // The id of a longer key or text is memory that an element should not hold on to.
  static constexpr std::size_t kLargestKept = 256;

  SearchResult& cleared() {
    if (filled_ == ready_.size()) refill();
    SearchResult& hit = ready_[filled_];
    // A caller may have given it either.
    if (hit.properties_ != nullptr || hit.block_ != nullptr) strip(hit);
    return hit;
  }

  void take(std::size_t size) noexcept {
    if (size > kLargestKept) hits_.keepNothing();
    ++filled_;
  }

  [[gnu::noinline]] static void strip(SearchResult& hit) {
    hit.init(false);
    hit.block_.reset();
    hit.used_ = 0;
    hit.capacity_ = 0;
  }

  [[gnu::noinline]] void refill() {
    commit();
    ready_ = hits_.ready();
  }

  void commit() noexcept {
    hits_.commit(filled_);
    response_.resultCount_ += static_cast<int>(filled_);
    ready_ = {};
    filled_ = 0;
  }

  [[gnu::noinline]] void beginRun(std::string_view key) {
    const auto left = static_cast<std::size_t>(portionEnd_ - key.data());
    run_ = &hits_.keys.begin({key.data(), left}, key.size());
    runStart_ = key.data();
    runEnd_ = runStart_ + hits_.keys.size();
  }

  ClientResponse& response_;
  HitList& hits_;

  // Elements that the list goes on with, and how many of them are hits already.
  std::span<SearchResult> ready_;
  std::size_t filled_ = 0;

  // The run of keys that was begun last, and the bytes of the portion that it is a copy of.
  const char* portionEnd_;
  const KeyRuns::Run* run_ = nullptr;
  const char* runStart_;
  const char* runEnd_;
};

}  // namespace tq::comm
