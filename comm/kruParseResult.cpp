#include "comm/kruParseResult.h"

#include <utility>

#include "comm/kruFunctionIds.h"
#include "comm/kruParseFiller.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

namespace {

/// Where there is no memory, ICU's own `new` gives null and a copied text turns bogus.
std::unique_ptr<icu::UnicodeString> copyOf(const icu::UnicodeString& text) {
  auto copy = std::make_unique<icu::UnicodeString>(text);
  if (copy == nullptr || copy->isBogus()) tq::oss::Converter::throwOutOfMemory();
  return copy;
}

}  // namespace

ParseResult::ParseResult(bool withProperties) : GenRespRecord(withProperties) {
  // One object serves a whole reply, in which a record without a message may follow one with.
  forgetsPreviousRecord_ = true;
}

ParseResult::ParseResult(const ParseResult& other)
    : GenRespRecord(other),
      hasMessage_(other.hasMessage_),
      document_(copyOf(other.getDocument())),
      message_(hasMessage_ ? std::make_unique<tq::oss::Message>(other.getMessage()) : nullptr) {}

ParseResult& ParseResult::operator=(const ParseResult& other) {
  if (this == &other) return *this;
  auto document = copyOf(other.getDocument());
  std::unique_ptr<tq::oss::Message> message;
  if (other.hasMessage_) message = std::make_unique<tq::oss::Message>(other.getMessage());
  record_ = nullptr;
  hasMessage_ = other.hasMessage_;
  document_ = std::move(document);
  message_ = std::move(message);
  return *this;
}

ParseResult::~ParseResult() = default;

ParseRow ParseResult::row() const noexcept {
  return ParseRow::stored(record_, narrow_ ? fields::Form::Narrow : fields::Form::Wide);
}

void ParseResult::reset() {
  const tq::oss::TraceScope scope(trace::ParseResultReset);
  forget();
  if (getProperties() == nullptr) init(true);
  document_ = copyOf(getProperties()->requireProperty(StaticDefs::DOC));
  auto message = std::make_unique<tq::oss::Message>();
  hasMessage_ = parseMessage(*message, false);
  if (hasMessage_) message_ = std::move(message);
}

const icu::UnicodeString& ParseResult::getDocument() const {
  if (document_ != nullptr) return *document_;
  if (record_ == nullptr) return StaticDefs::STRING_empty;
  const std::string_view text = row().document;
  auto document = std::make_unique<icu::UnicodeString>();
  if (document == nullptr) tq::oss::Converter::throwOutOfMemory();
  tq::oss::Converter::assignUTF8(*document, text.data(), text.size());
  document_ = std::move(document);
  return *document_;
}

const tq::oss::Message& ParseResult::getMessage() const {
  if (message_ != nullptr) return *message_;
  // As an empty list of messages gives, which outlives every object of the host.
  if (record_ == nullptr || !hasMessage_) return tq::oss::MessageList().front();
  const ParseRow texts = row();
  auto message = std::make_unique<tq::oss::Message>();
  fillMessage(*message,
              tq::oss::Converter::fromUTF8(texts.messageId.data(), texts.messageId.size()),
              tq::oss::Converter::fromUTF8(texts.messageText.data(), texts.messageText.size()));
  message_ = std::move(message);
  return *message_;
}

}  // namespace tq::comm
