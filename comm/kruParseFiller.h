#pragma once

#include <string_view>

#include "comm/kruClientResponse.h"
#include "comm/kruListFiller.h"
#include "comm/kruRecordFields.h"

namespace tq::comm {

/// The texts of a record that says what became of a document.
struct ParseRow {
  std::string_view document;
  std::string_view messageId;
  std::string_view messageText;

  /// False when the record has other fields, lacks one that it needs, or one runs past its end.
  bool read(std::string_view record, fields::Form form) noexcept;
  /// The row of a record that was read before. It begins with the word of its length.
  static ParseRow stored(const char* record, fields::Form form) noexcept;
};

/// Makes the parse results of one portion in the list of the response: the same as those of a
/// ParseResult that parses each record and is added to the response. Only the bytes are kept; most
/// results are asked for nothing but whether they have a message.
class ParseFiller : private ListFiller<ParseResult> {
 public:
  ParseFiller(ClientResponse& response, std::string_view portion)
      : ListFiller(response.parseResponse_.list(), response.resultCount_, portion),
        response_(response) {}

  /// Adds the result of a record, which has the word of its length in front of it. False, and
  /// nothing is added, when it has to be decoded in the general way.
  bool add(std::string_view record, fields::Form form) {
    ParseRow row;
    if (!row.read(record, form)) return false;
    const std::size_t word = form == fields::Form::Wide ? 4 : 2;
    const char* const kept = keep({record.data() - word, record.size() + word});
    ParseResult& result = element();
    if (result.getProperties() != nullptr) result.init(false);
    result.forget();
    result.record_ = kept;
    result.narrow_ = form == fields::Form::Narrow;
    result.hasMessage_ = !row.messageId.empty();
    take(record.size());
    return true;
  }

  /// Adds a result that was decoded in the general way.
  void add(const ParseResult& result) {
    commit();
    response_.addParseResult(result);
  }

 private:
  ClientResponse& response_;
};

}  // namespace tq::comm
