#pragma once

#include <unicode/unistr.h>

#include <memory>

#include "comm/kruGenRespRecord.h"
#include "infra/oss/kruMessage.h"

namespace tq::comm {

class ParseFiller;
struct ParseRow;

/// What became of one queued document: which one, and the server's message if there is one. Calls
/// on one object must not overlap; different objects are independent. One object may parse record
/// after record: nothing of a record reaches the next.
class KRU_EXPORT ParseResult : public GenRespRecord {
 public:
  explicit ParseResult(bool withProperties);
  /// Copies the three members; the copy has no property set, an assigned result keeps its own.
  ParseResult(const ParseResult& other);
  ParseResult& operator=(const ParseResult& other);
  ~ParseResult() override;

  /// Takes document (property StaticDefs::DOC) and message from the properties. Throws
  /// tq::oss::NLSException naming the property when the document is missing, or when "MsgId" comes
  /// without "MsgText".
  void reset() override;

  /// Valid, like the message, until the result is changed or ends. Made when it is asked for first:
  /// throws tq::oss::NLSException "TQ_ERR_OUT_OF_MEMORY" or std::bad_alloc when there is no memory.
  const icu::UnicodeString& getDocument() const;
  bool hasMessage() const { return hasMessage_; }
  /// Empty unless `hasMessage()`. Made, and throws, like the document.
  const tq::oss::Message& getMessage() const;

 private:
  // Makes results in their list, straight from a reply.
  friend class ParseFiller;

  ParseRow row() const noexcept;
  void forget() noexcept {
    record_ = nullptr;
    hasMessage_ = false;
    document_.reset();
    message_.reset();
  }

  bool hasMessage_ = false;
  bool narrow_ = false;
  // Null while it is empty or the caller has not asked for it.
  mutable std::unique_ptr<icu::UnicodeString> document_;
  mutable std::unique_ptr<tq::oss::Message> message_;
  // The record that both are made from, in the memory of the list that the result is in, or null.
  // `narrow_` tells its form. A copy has texts of its own.
  const char* record_ = nullptr;
};

}  // namespace tq::comm
