#include "comm/kruGenRespRecord.h"

#include <cstring>

#include "comm/kruBuiltFirst.h"
#include "comm/kruBytes.h"
#include "comm/kruConversionCache.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruKVPair.h"
#include "comm/kruRecordLengths.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

namespace {

KRU_BUILT_FIRST const icu::UnicodeString kMessageId(u"MsgId");
KRU_BUILT_FIRST const icu::UnicodeString kMessageText(u"MsgText");
KRU_BUILT_FIRST const icu::UnicodeString kServerPrefix(u"ZVK");

// Texts of a record end at a zero byte, whatever length they announce.
icu::UnicodeString readText(const char* p, std::size_t length) {
  const void* zero = length != 0 ? std::memchr(p, 0, length) : nullptr;
  if (zero != nullptr) length = static_cast<std::size_t>(static_cast<const char*>(zero) - p);
  return tq::oss::Converter::fromUTF8(p, length);
}

// Positions are counted in size_t: two lengths of 30 bits and their words do not fit an int.
icu::UnicodeString takeText(const char* buf, std::size_t& pos) {
  const std::size_t length = bytes::loadInt(buf + pos) & kLengthMask;
  const char* text = buf + pos + 4;
  pos += 4 + length;
  return readText(text, length);
}

icu::UnicodeString takeTextNew(const char* buf, std::size_t& pos) {
  const std::size_t length = bytes::loadShort(buf + pos);
  const char* text = buf + pos + 2;
  pos += 2 + length;
  return readText(text, length);
}

tq::oss::Message::Level levelOf(const icu::UnicodeString& id) {
  if (!id.startsWith(kServerPrefix)) return tq::oss::Message::LEVEL_ERROR;
  switch (id.charAt(id.length() - 1)) {
    case u'W':
      return tq::oss::Message::LEVEL_WARNING;
    case u'I':
      return tq::oss::Message::LEVEL_INFO;
    case u'S':
      return tq::oss::Message::LEVEL_SEVERE;
    default:
      return tq::oss::Message::LEVEL_ERROR;
  }
}

// Writes the text after the word that `word(length)` makes of its length.
template <typename Word>
void putText(bytes::Writer& writer, const icu::UnicodeString& text, Word word) {
  tq::oss::Converter::checked(text);
  char* const lengthAt = writer.claim(4);
  const std::size_t length = tq::oss::Converter::writeUTF8(text, writer.claim(0));
  writer.claim(length);
  bytes::storeInt(lengthAt, word(length));
}

}  // namespace

GenRespRecord::GenRespRecord(bool withProperties) { init(withProperties); }
GenRespRecord::GenRespRecord() : GenRespRecord(false) {}
GenRespRecord::GenRespRecord(const GenRespRecord& other)
    : forgetsPreviousRecord_(other.forgetsPreviousRecord_) {}
GenRespRecord& GenRespRecord::operator=(const GenRespRecord&) { return *this; }
GenRespRecord::~GenRespRecord() = default;

void GenRespRecord::init(bool withProperties) {
  properties_.reset();
  if (withProperties) properties_ = std::make_unique<tq::util::ExtendedProperties>();
}

tq::util::ExtendedProperties& GenRespRecord::ownProperties() {
  if (properties_ == nullptr) init(true);
  return *properties_;
}

int GenRespRecord::parseRecord(const char* buf, unsigned int len) {
  const tq::oss::TraceScope scope(trace::GenRespRecordParseRecord);
  tq::util::ExtendedProperties& props = ownProperties();
  if (forgetsPreviousRecord_) props.clear();
  const int consumed = parseRecordIntoProps(buf, len, &props);
  reset();
  return consumed;
}

int GenRespRecord::parseRecordNew(const char* buf, unsigned short len, unsigned short) {
  const tq::oss::TraceScope scope(trace::GenRespRecordParseRecordNew);
  tq::util::ExtendedProperties& props = ownProperties();
  if (forgetsPreviousRecord_) props.clear();
  const int consumed = parseRecordIntoPropsNew(buf, len, &props);
  reset();
  return consumed;
}

int GenRespRecord::parseRecordIntoProps(const char* buf, unsigned int len,
                                        tq::util::ExtendedProperties* props) {
  const tq::oss::TraceScope scope(trace::GenRespRecordParseRecordIntoProps);
  std::size_t consumed = 0;
  while (consumed < len) {
    const icu::UnicodeString key = takeText(buf, consumed);
    const icu::UnicodeString value = takeText(buf, consumed);
    props->putProperty(key, value);
  }
  return static_cast<int>(consumed);
}

int GenRespRecord::parseRecordIntoPropsNew(const char* buf, unsigned short len,
                                           tq::util::ExtendedProperties* props) {
  const tq::oss::TraceScope scope(trace::GenRespRecordParseRecordIntoPropsNew);
  std::size_t consumed = 0;
  while (consumed < len) {
    const icu::UnicodeString key = takeTextNew(buf, consumed);
    const icu::UnicodeString value = takeTextNew(buf, consumed);
    props->putProperty(key, value);
  }
  return static_cast<int>(consumed);
}

int GenRespRecord::parseKeyField(const char* p, icu::UnicodeString& key, int& size) {
  std::size_t pos = 0;
  key = takeText(p, pos);
  size = static_cast<int>(pos);
  return static_cast<int>(bytes::loadInt(p + pos) >> 30);
}

icu::UnicodeString GenRespRecord::getStringValue(const char* p, int& size) {
  std::size_t pos = 0;
  icu::UnicodeString value = takeText(p, pos);
  size = static_cast<int>(pos);
  return value;
}

int GenRespRecord::getInt(const char* buf, int& pos) {
  const auto value = static_cast<int>(bytes::loadInt(buf + pos));
  pos += 4;
  return value;
}

int GenRespRecord::parseKeyFieldNew(const char* p, icu::UnicodeString& key, int& pos) {
  key = getStringValueNew(p, pos);
  return 0;
}

icu::UnicodeString GenRespRecord::getStringValueNew(const char* p, int& pos) {
  std::size_t read = 0;
  icu::UnicodeString value = takeTextNew(p + pos, read);
  pos += static_cast<int>(read);
  return value;
}

unsigned short GenRespRecord::getShort(const char* buf, int& pos) {
  const std::uint16_t value = bytes::loadShort(buf + pos);
  pos += 2;
  return value;
}

bool GenRespRecord::parseMessage(tq::oss::Message& msg, bool required) {
  const tq::oss::TraceScope scope(trace::GenRespRecordParseMessage);
  const tq::util::ExtendedProperties& props = ownProperties();
  const icu::UnicodeString* id =
      required ? &props.requireProperty(kMessageId) : props.findProperty(kMessageId);
  if (id == nullptr || id->isEmpty()) return false;
  fillMessage(msg, *id, props.requireProperty(kMessageText));
  return true;
}

void GenRespRecord::fillMessage(tq::oss::Message& msg, const icu::UnicodeString& id,
                                const icu::UnicodeString& text) {
  msg.setMessageId(id);
  msg.setMessageText(text);
  msg.setLevel(levelOf(id));
}

void GenRespRecord::serializeKVPair(char* out, const KVPair& pair, unsigned int& written) {
  const tq::oss::TraceScope scope(trace::GenRespRecordSerializeKVPair);
  const bool attributed = pair.secondAttribute != 0;
  bytes::Writer writer(out);
  putText(writer, pair.key, [&](std::size_t length) { return keyLengthWord(length, attributed); });
  putText(writer, pair.value, lengthWord);
  if (attributed) writer.putInt(pair.secondAttribute);
  written = static_cast<unsigned int>(writer.written());
}

int GenRespRecord::getSerializeKVPairLength(const KVPair& pair) {
  return getNumberOfBytesOfSerialized(pair.key) + 8 + getNumberOfBytesOfSerialized(pair.value) +
         (pair.secondAttribute != 0 ? 4 : 0);
}

int GenRespRecord::getNumberOfBytesOfSerialized(const icu::UnicodeString& s) {
  return static_cast<int>(ConversionCache::lengthOf(tq::oss::Converter::checked(s)) + 4);
}

void GenRespRecord::AddStringToConversionCache(const icu::UnicodeString& s) {
  const tq::oss::TraceScope scope(trace::GenRespRecordAddStringToConversionCache);
  ConversionCache::add(s);
}

}  // namespace tq::comm
