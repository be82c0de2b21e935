#pragma once

#include <unicode/unistr.h>

#include <string>
#include <string_view>

namespace tq::oss {
class BaseException;
class Message;
}  // namespace tq::oss
namespace tq::comm {
class ClientResponse;
class ParseResponse;
class SearchResponse;
}  // namespace tq::comm

namespace tq::fuzz {

/// All that a caller sees of one reading of a reply, written down so that two readings can be
/// compared.
class Transcript {
 public:
  enum class Scores { Noted, Ignored };

  explicit Transcript(Scores scores = Scores::Noted) : scores_(scores) {}

  void note(std::string_view label) { text_.append(label).push_back('\n'); }
  void note(std::string_view label, long long value);
  void note(std::string_view label, const icu::UnicodeString& text);

  /// The id and text of an error's first message.
  void noteError(const tq::oss::BaseException& error);
  /// Takes the hits, or rows, that the list still holds.
  void takeHits(tq::comm::SearchResponse& hits);
  void takeRows(tq::comm::ParseResponse& rows);
  /// Return code, status, estimate and content.
  void noteResponse(tq::comm::ClientResponse& response);

  std::size_t hits() const { return hits_; }
  bool operator==(const Transcript& other) const {
    return text_ == other.text_ && results_ == other.results_;
  }

  /// Ends the process when the two differ, after showing both.
  static void requireEqual(const Transcript& whole, const Transcript& cut);

 private:
  void noteMessage(std::string& out, const tq::oss::Message& message);

  // Apart, because an error may be met before or after the results in front of it are taken.
  std::string results_;
  std::string text_;
  Scores scores_;
  std::size_t hits_ = 0;
};

}  // namespace tq::fuzz
