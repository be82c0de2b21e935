#include "comm/kruRESTMessage.h"

#include <array>
#include <limits>
#include <string>

#include "comm/kruBytes.h"
#include "comm/kruConversionCache.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruGenRespRecord.h"
#include "comm/kruKinds.h"
#include "comm/kruMessageTables.h"
#include "comm/kruRaise.h"
#include "comm/kruRecordLengths.h"
#include "comm/kruStaticDefs.h"
#include "comm/kruUnsendable.h"
#include "infra/oss/kruConverter.h"
#include "infra/oss/kruTrace.h"
#include "infra/util/kruBase64.h"

namespace tq::comm {

namespace {

using tq::oss::Converter;

constexpr const char* kFile = "kruRESTMessage";

constexpr unsigned int kTermRecordLength = 8;
constexpr std::uint64_t kPrefixSlack = 2000;
constexpr std::uint64_t kWord = 4;
constexpr std::size_t kMostBytesAUnit = 3;

const icu::UnicodeString& actionOf(ClientRequest::REQUEST kind) {
  const tq::oss::TraceScope scope(trace::RESTMessageGetAction);
  return MessageTables::ensure().actionOf(kind);
}

const icu::UnicodeString& actionTypeOf(ClientRequest::REQUEST kind) {
  const tq::oss::TraceScope scope(trace::RESTMessageGetActionType);
  return *kindOf(kind).actionType;
}

// Counts what GenRespRecord::getSerializeKVPairLength counts, its surplus of 8 included, without
// its limit of an int.
std::uint64_t pairLength(const KVPair& pair) {
  return ConversionCache::lengthOf(Converter::checked(pair.key)) +
         ConversionCache::lengthOf(Converter::checked(pair.value)) + 4 * kWord +
         (pair.secondAttribute != 0 ? kWord : 0);
}

// The renaming happens on output, so that the line keeps its place in the order.
const icu::UnicodeString& outputNameOf(const icu::UnicodeString& name) {
  return name == StaticDefs::PARAM_AUTHENTICATION_TOKEN ? StaticDefs::PARAM_AUTHENTICATION : name;
}

// Most comparisons are decided by the first letter.
bool comesBefore(const icu::UnicodeString& a, const icu::UnicodeString& b) {
  if (a.isEmpty() || b.isEmpty() || a.charAt(0) == b.charAt(0)) return a < b;
  return a.charAt(0) < b.charAt(0);
}

// What a header line needs besides name and value. Both pieces are ASCII.
std::size_t lineOverhead() {
  return static_cast<std::size_t>(StaticDefs::COLON_SPACE.length()) +
         static_cast<std::size_t>(StaticDefs::NEWLINE.length());
}

// Headers are nearly all ASCII: narrowed in one go, and converted properly only if that shows that
// they are not.
char* putText(char* out, const icu::UnicodeString& text) {
  const char16_t* units = text.getBuffer();
  const auto length = static_cast<std::size_t>(text.length());
  unsigned int seen = 0;
  for (std::size_t i = 0; i < length; ++i) {
    seen |= units[i];
    out[i] = static_cast<char>(units[i]);
  }
  return out + (seen < 0x80 ? length : Converter::writeUTF8(text, out));
}

void appendDecimal(icu::UnicodeString& out, std::uint64_t n) {
  std::array<char16_t, 20> digits;
  auto first = digits.end();
  do {
    *--first = static_cast<char16_t>(u'0' + n % 10);
    n /= 10;
  } while (n != 0);
  Converter::checked(out.append(first, 0, static_cast<std::int32_t>(digits.end() - first)));
}

void putTag(bytes::Writer& writer, const std::string& tag) {
  writer.putInt(lengthWord(tag.size()));
  writer.putBytes(tag.data(), tag.size());
}

}  // namespace

RESTMessage::RESTMessage(const icu::UnicodeString& host, ClientRequest& request) : host_(host) {
  const tq::oss::TraceScope scope(trace::RESTMessageConstruct);
  Converter::checked(host_);
  initUrls();
  initMessage(request);
}

void RESTMessage::initUrls() {
  const tq::oss::TraceScope scope(trace::RESTMessageInitUrls);
  MessageTables::ensure();
}

void RESTMessage::initMessage(ClientRequest& request) {
  const tq::oss::TraceScope scope(trace::RESTMessageInitMessage);
  properties_ = request.getReqProperties();
  action_ = nullptr;
  actionType_ = nullptr;
  lengthText_.remove();
  bodyLength_ = request.getContentLength();
  body_ = bodyLength_ != 0 ? request.getContent() : nullptr;
  prefixLength_ = 0;
  if (request.getRequest() == ClientRequest::LAST_DOC_SENT) {
    serializeTermRecord();
    convertNumberToString(lengthText_, termRecordLength_);
  } else if (request.getDocKeyLen() != 0) {
    initPrefix(request);
  }
  request_ = request.getRequest();
}

void RESTMessage::initPrefix(ClientRequest& request) {
  unsigned int keyLength = 0;
  const char* key = request.getDocKey(keyLength);
  const std::list<KVPair>& metadata = request.getMetadata();
  const std::uint64_t block = getSerializeMetadataLength(metadata, key, keyLength);
  if (block != 0 && bodyLength_ != 0 && body_ == nullptr) {
    raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, __LINE__, kNullContent);
  }
  const std::uint64_t size = block - (block != 0 ? bodyLength_ : 0) + kPrefixSlack;
  if (size > std::numeric_limits<std::uint32_t>::max()) {
    raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, __LINE__,
          u"the document's key and metadata are longer than a request can carry");
  }
  if (!prefixBuffer_.resize(size)) Converter::throwOutOfMemory();
  const std::uint64_t total = serializeMetadata(prefixBuffer_.data(), metadata, key, keyLength);
  appendDecimal(lengthText_, total);
  // Without a metadata pair there is no block, and nothing but the header is sent.
  if (total != 0) prefixLength_ = static_cast<unsigned int>(total - bodyLength_);
}

icu::UnicodeString RESTMessage::getAction(ClientRequest::REQUEST kind) { return actionOf(kind); }

icu::UnicodeString RESTMessage::getActionType(ClientRequest::REQUEST kind) {
  return actionTypeOf(kind);
}

// Hands over name and value of each property in the order of the names, the message's own ones in
// their places and instead of a caller's property of the same name.
template <typename Emit>
void RESTMessage::forEachProperty(Emit emit) const {
  const std::array<Added, 3> added{{{&StaticDefs::HTTP_CONTENT_LEN, &lengthText_},
                                    {&StaticDefs::PARAM_ACTION, action_},
                                    {&StaticDefs::PARAM_ACTION_TYPE, actionType_}}};
  auto next = added.begin();
  const auto emitAdded = [&] {
    if (next->value != nullptr) emit(*next->name, *next->value);
    ++next;
  };
  for (const auto& [name, value] : properties_) {
    while (next != added.end() && comesBefore(*next->name, name)) emitAdded();
    if (next != added.end() && next->value != nullptr && *next->name == name) {
      emitAdded();
    } else {
      emit(name, value);
    }
  }
  while (next != added.end()) emitAdded();
}

icu::UnicodeString RESTMessage::getParamString(bool asHeaders) const {
  const tq::oss::TraceScope scope(trace::RESTMessageGetParamString);
  icu::UnicodeString text;
  forEachProperty([&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
    if (!asHeaders) text.append(text.isEmpty() ? StaticDefs::QUESTIONMARK : StaticDefs::AMPERSAND);
    text.append(outputNameOf(name));
    text.append(asHeaders ? StaticDefs::COLON_SPACE : StaticDefs::EQUALS).append(value);
    if (asHeaders) text.append(StaticDefs::NEWLINE);
  });
  Converter::checked(text);
  return text;
}

void RESTMessage::buildProtocolMsg(icu::UnicodeString& out, ClientRequest::REQUEST kind) {
  buildHeader(
      kind, [&] { Converter::checked(out.append(getParamString(true)).append(StaticDefs::CRLF)); });
}

// The steps of a header text, whether it is written as UTF-16 text or as the bytes that are sent.
template <typename Write>
void RESTMessage::buildHeader(ClientRequest::REQUEST kind, Write write) {
  const tq::oss::TraceScope scope(trace::RESTMessageBuildProtocolMsg);
  const icu::UnicodeString& action = actionOf(kind);
  if (!action.isEmpty()) action_ = &action;
  actionType_ = &actionTypeOf(kind);
  write();
}

char* RESTMessage::getSerializedHeader() {
  const tq::oss::TraceScope scope(trace::RESTMessageGetSerializedHeader);
  buildHeader(request_, [this] { writeHeader(); });
  return headerBuffer_.data();
}

void RESTMessage::writeHeader() {
  const tq::oss::TraceScope scope(trace::RESTMessageGetParamString);
  std::size_t units = 1 + static_cast<std::size_t>(StaticDefs::CRLF.length());
  forEachProperty([&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
    units += static_cast<std::size_t>(outputNameOf(name).length()) +
             static_cast<std::size_t>(value.length()) + lineOverhead();
  });
  // One check for the worst case instead of one a piece; a longer header is measured exactly.
  if (units * kMostBytesAUnit > headerBuffer_.capacity()) makeHeaderRoom();
  char* out = headerBuffer_.data();
  forEachProperty([&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
    out = putText(out, outputNameOf(name));
    out = putText(out, StaticDefs::COLON_SPACE);
    out = putText(out, value);
    out = putText(out, StaticDefs::NEWLINE);
  });
  *putText(out, StaticDefs::CRLF) = '\0';
}

void RESTMessage::makeHeaderRoom() {
  std::size_t size = 1 + Converter::utf8Length(StaticDefs::CRLF);
  forEachProperty([&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
    size +=
        Converter::utf8Length(outputNameOf(name)) + Converter::utf8Length(value) + lineOverhead();
  });
  if (!headerBuffer_.grow(size, 0)) Converter::throwOutOfMemory();
}

void RESTMessage::serializeTermRecord() {
  const tq::oss::TraceScope scope(trace::RESTMessageSerializeTermRecord);
  bytes::Writer writer(termRecordBuffer_.data());
  writer.putInt(0);
  writer.putInt(0);
  termRecordLength_ = kTermRecordLength;
}

const char* RESTMessage::getTerminateRecord(unsigned int& length) const {
  length = termRecordLength_;
  return termRecordBuffer_.data();
}

std::uint64_t RESTMessage::getSerializeMetadataLength(const std::list<KVPair>& metadata,
                                                      const char*, unsigned int keyLength) const {
  const tq::oss::TraceScope scope(trace::RESTMessageGetSerializeMetadataLength);
  if (metadata.empty()) return 0;
  const MessageTables& tables = MessageTables::ensure();
  std::uint64_t length = kWord;
  for (const KVPair& pair : metadata) length += pairLength(pair);
  length += kWord + tables.utf8RowId().size() + kWord + keyLength + kWord;
  if (bodyLength_ != 0) length += kWord + tables.utf8DocData().size() + kWord + bodyLength_;
  return length;
}

std::uint64_t RESTMessage::serializeMetadata(char* out, const std::list<KVPair>& metadata,
                                             const char* key, unsigned int keyLength) const {
  const tq::oss::TraceScope scope(trace::RESTMessageSerializeMetadata);
  if (metadata.empty()) return 0;
  if (key == nullptr && keyLength != 0) {
    raise(StaticDefs::ERR_CLIENT_INTERNAL, kFile, __LINE__, kNullKey);
  }
  const MessageTables& tables = MessageTables::ensure();
  bytes::Writer writer(out + 2 * kWord);
  for (const KVPair& pair : metadata) {
    unsigned int written = 0;
    GenRespRecord::serializeKVPair(writer.claim(0), pair, written);
    writer.claim(written);
  }
  putTag(writer, tables.utf8RowId());
  writer.putInt(lengthWord(keyLength));
  writer.putBytes(key, keyLength);
  if (bodyLength_ != 0) {
    putTag(writer, tables.utf8DocData());
    writer.putInt(lengthWord(bodyLength_));
  }
  const std::uint64_t following = writer.written() + bodyLength_;
  bytes::Writer start(out);
  start.putInt(0);
  start.putInt(static_cast<std::uint32_t>(following));
  return following + 2 * kWord;
}

void RESTMessage::toB64(const icu::UnicodeString& in, icu::UnicodeString& out) {
  const tq::oss::TraceScope scope(trace::RESTMessageToB64);
  const std::string utf8 = Converter::toUTF8(in);
  std::u16string encoded(tq::util::Base64::encodeSize(utf8.size()), u'\0');
  tq::util::Base64::encode(utf8.data(), utf8.size(), encoded.data());
  Converter::checked(out.append(encoded.data(), 0, static_cast<std::int32_t>(encoded.size())));
}

void convertNumberToString(icu::UnicodeString& out, unsigned int n) { appendDecimal(out, n); }

}  // namespace tq::comm
