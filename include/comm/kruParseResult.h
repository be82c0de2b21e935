#pragma once

#include <unicode/unistr.h>

#include "comm/kruGenRespRecord.h"
#include "infra/oss/kruMessage.h"

namespace tq::comm {

/// What became of one queued document: which one, and the server's message if there is one. One
/// object serves one thread at a time; different objects need no locking. One object may parse
/// record after record: nothing of a record reaches the next.
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

  const icu::UnicodeString& getDocument() const { return document_; }
  bool hasMessage() const { return hasMessage_; }
  /// Empty unless `hasMessage()`.
  const tq::oss::Message& getMessage() const { return message_; }

 private:
  icu::UnicodeString document_;
  bool hasMessage_ = false;
  tq::oss::Message message_;
};

}  // namespace tq::comm
