#pragma once

#include <cstdint>
#include <string_view>

#include "comm/kruClientResponse.h"
#include "comm/kruListFiller.h"
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
class HitFiller : private ListFiller<SearchResult> {
 public:
  HitFiller(ClientResponse& response, std::string_view portion)
      : ListFiller(response.searchResponse_.list(), response.resultCount_, portion),
        response_(response) {}

  /// Adds a hit that is named by its key, which has bytes of the portion in front of it.
  void addKeyed(double score, std::string_view key) {
    const char* const kept = keep(key);
    SearchResult& hit = cleared();
    hit.score_ = score;
    hit.key_ = kept;
    hit.keyLength_ = static_cast<unsigned int>(key.size());
    hit.lender_ = run();
    hit.pendingId_ = kept;
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
  SearchResult& cleared() {
    SearchResult& hit = element();
    // A caller may have given it either.
    if (hit.properties_ != nullptr || hit.block_ != nullptr) strip(hit);
    return hit;
  }

  [[gnu::noinline]] static void strip(SearchResult& hit) {
    hit.init(false);
    hit.block_.reset();
    hit.used_ = 0;
    hit.capacity_ = 0;
  }

  ClientResponse& response_;
};

}  // namespace tq::comm
