#pragma once

#include <cstddef>
#include <string_view>

namespace tq::fuzz {

/// The envelopes of a binary reply's body, read by other means than the library's.
class Envelopes {
 public:
  /// True when a reply announces envelopes.
  static bool isSuccess(std::string_view reply) { return reply.size() >= 2 && shortAt(reply) == 1; }

  /// True when the first envelope is an error. A server's content never is; the parser looks for
  /// the error record after the envelope too, and what is there depends on the cut.
  static bool beginsWithError(std::string_view body) {
    return body.size() >= 2 && shortAt(body) == 6;
  }

  explicit Envelopes(std::string_view body) {
    while (body.size() >= 4) {
      const std::size_t status = shortAt(body);
      const std::size_t length = shortAt(body.substr(2));
      if (length > body.size() - 4 || (status == 1 && length == 0)) return;
      if (status == 5 && length < 2) return;
      if (status == kMarksCut) {
        callsItselfCut_ = true;
        return;
      }
      ++hits_;
      (status == 5 ? scored_ : plain_) = true;
      body.remove_prefix(4 + length);
    }
  }

  /// Those in front of the end mark and of the first that is cut or too short for its score.
  std::size_t hits() const { return hits_; }
  /// True when an envelope has the status that the parser keeps for cut ones. No server sends it;
  /// the parser stops after its header, so that what follows depends on the cut.
  bool callsItselfCut() const { return callsItselfCut_; }
  /// True when hits with and without a score are mixed. A hit without one keeps the score of the
  /// hit before it in the same block; servers do not mix the two, because what a hit says would
  /// then depend on the cut.
  bool mixesScores() const { return scored_ && plain_; }

 private:
  static std::size_t shortAt(std::string_view bytes) {
    return static_cast<std::size_t>(static_cast<unsigned char>(bytes[0])) * 256 +
           static_cast<unsigned char>(bytes[1]);
  }

  static constexpr std::size_t kMarksCut = 9;

  std::size_t hits_ = 0;
  bool callsItselfCut_ = false;
  bool scored_ = false;
  bool plain_ = false;
};

}  // namespace tq::fuzz
