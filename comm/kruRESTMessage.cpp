#include "comm/kruRESTMessage.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "comm/kruBytes.h"
#include "comm/kruConversionCache.h"
#include "comm/kruFunctionIds.h"
#include "comm/kruGenRespRecord.h"
#include "comm/kruKeptHeader.h"
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

constexpr Raiser fail("kruRESTMessage");

constexpr unsigned int kTermRecordLength = 8;
constexpr std::uint64_t kPrefixSlack = 2000;
constexpr std::uint64_t kWord = 4;
constexpr std::size_t kMaxBytesPerUnit = 3;
// An upper bound for the lengths and tags of a block that belong to no pair.
constexpr std::uint64_t kBlockOverhead = 100;

// A longer header is not kept, so that a kept one and the length fit into the message's buffer.
constexpr std::size_t kMaxKeptHeader = 16000;
// How many messages a request sends before its header is kept: doubled each time that a kept header
// turns out to be stale, up to this.
constexpr unsigned int kMaxPatience = 64;

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
std::uint64_t maxBytesOfPair(const KVPair& pair) {
  return kMaxBytesPerUnit * (static_cast<std::uint64_t>(Converter::checked(pair.key).length()) +
                             static_cast<std::uint64_t>(Converter::checked(pair.value).length())) +
         5 * kWord;
}

std::uint64_t pairLength(const KVPair& pair) {
  return ConversionCache::lengthOf(Converter::checked(pair.key)) +
         ConversionCache::lengthOf(Converter::checked(pair.value)) + 4 * kWord +
         (pair.secondAttribute != 0 ? kWord : 0);
}

// The renaming happens on output, so that the line keeps its place in the order.
const icu::UnicodeString& outputNameOf(const icu::UnicodeString& name) {
  return name == StaticDefs::PARAM_AUTHENTICATION_TOKEN ? StaticDefs::PARAM_AUTHENTICATION : name;
}

// What a header line needs besides name and value: ": " and LF.
constexpr std::size_t kLineOverhead = 3;
constexpr std::string_view kHeaderEnd{"\r\n\0", 3};

char* putBytes(char* out, std::string_view bytes) {
  return static_cast<char*>(std::memcpy(out, bytes.data(), bytes.size())) + bytes.size();
}

char* putLine(char* out, const icu::UnicodeString& name, const icu::UnicodeString& value) {
  out += Converter::writeUTF8(name, out);
  *out++ = ':';
  *out++ = ' ';
  out += Converter::writeUTF8(value, out);
  *out++ = '\n';
  return out;
}

std::size_t maxBytesOfLine(const icu::UnicodeString& name, const icu::UnicodeString& value) {
  return kMaxBytesPerUnit *
             (static_cast<std::size_t>(name.length()) + static_cast<std::size_t>(value.length())) +
         kLineOverhead;
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

// The values of the properties that a message adds, in the order of their names; null for one that
// it does not add.
struct RESTMessage::Added {
  const icu::UnicodeString* length;
  const icu::UnicodeString* action;
  const icu::UnicodeString* actionType;
};

namespace {

// Hands over name and value of each line in the order of the properties' names, the added ones in
// their places and instead of a caller's property of the same name.
template <typename Added, typename Emit>
void forEachLine(const tq::util::ExtendedProperties& properties, const Added& added, Emit emit) {
  struct Line {
    // Decides most comparisons.
    char16_t first;
    const icu::UnicodeString* name;
    const icu::UnicodeString* value;
  };
  const Line lines[] = {{u'C', &StaticDefs::HTTP_CONTENT_LEN, added.length},
                        {u'a', &StaticDefs::PARAM_ACTION, added.action},
                        {u'a', &StaticDefs::PARAM_ACTION_TYPE, added.actionType}};
  const Line* next = std::begin(lines);
  const auto emitAdded = [&] {
    if (next->value != nullptr) emit(*next->name, *next->value);
    ++next;
  };
  for (const auto& [name, value] : properties) {
    // An empty name comes first, as one that begins with a zero does among those that are not.
    const char16_t first = name.isEmpty() ? u'\0' : name.getBuffer()[0];
    const auto order = [&, &text = name] {
      return next->first != first ? next->first - first : next->name->compare(text);
    };
    while (next != std::end(lines) && order() < 0) emitAdded();
    // The added one of that name comes with what follows.
    const bool replaced = next != std::end(lines) && next->value != nullptr && order() == 0;
    if (!replaced) emit(first == u'a' ? outputNameOf(name) : name, value);
  }
  while (next != std::end(lines)) emitAdded();
}

// Writes header lines into room that may turn out to be too small: then it writes no more.
class LineWriter {
 public:
  LineWriter(char* room, std::size_t size)
      : begin_(room), at_(room), end_(room + size - kHeaderEnd.size()) {}

  void put(const icu::UnicodeString& name, const icu::UnicodeString& value) {
    fitted_ = fitted_ && maxBytesOfLine(name, value) <= static_cast<std::size_t>(end_ - at_);
    if (fitted_) at_ = putLine(at_, name, value);
  }
  void end() { at_ = putBytes(at_, kHeaderEnd); }

  bool fitted() const { return fitted_; }
  std::size_t written() const { return static_cast<std::size_t>(at_ - begin_); }

 private:
  char* begin_;
  char* at_;
  const char* end_;
  bool fitted_ = true;
};

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
  takeProperties(request);
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

const tq::util::ExtendedProperties& RESTMessage::properties() const noexcept {
  if (kept_ != nullptr) return kept_->properties;
  return properties_;
}

void RESTMessage::takeProperties(ClientRequest& request) {
  const tq::util::ExtendedProperties& properties = std::as_const(request).getReqProperties();
  takeKept(request);
  if (kept_ == nullptr) {
    properties_ = properties;
  } else {
    properties_.clear();
  }
}

void RESTMessage::takeKept(ClientRequest& request) {
  ClientRequest::Kept& held = request.kept_;
  // Another client may send the request at this moment.
  const ClientRequest::UseOfKept use(held);
  if (!use.granted()) return kept_.reset();
  kept_ = held.header;
  if (kept_ != nullptr &&
      !kept_->isOf(request.getRequest(), std::as_const(request).getReqProperties())) {
    kept_.reset();
    held.header.reset();
    held.madeWithout = 0;
    held.patience = std::min(2 * held.patience, kMaxPatience);
  }
  if (kept_ == nullptr && held.madeWithout++ >= held.patience) keepHeader(request);
}

/// Keeps the header text with the request where that can be done; nothing fails where it cannot.
void RESTMessage::keepHeader(ClientRequest& request) {
  const icu::UnicodeString& action = MessageTables::ensure().actionOf(request.getRequest());
  // Without an action of its own the text depends on what the message was asked for before.
  if (action.isEmpty()) return;
  const icu::UnicodeString noLength;
  const Added added{&noLength, &action, kindOf(request.getRequest()).actionType};
  try {
    auto kept = std::make_shared<KeptHeader>();
    kept->kind = request.getRequest();
    kept->properties = std::as_const(request).getReqProperties();
    LineWriter lines(headerBuffer_.data(), kMaxKeptHeader);
    std::size_t lengthAt = 0;
    forEachLine(kept->properties, added,
                [&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
                  lines.put(name, value);
                  if (&value == &noLength) lengthAt = lines.written() - 1;
                });
    if (!lines.fitted()) return;
    lines.end();
    kept->beforeLength.assign(headerBuffer_.data(), lengthAt);
    kept->afterLength.assign(headerBuffer_.data() + lengthAt, lines.written() - lengthAt);
    request.kept_.header = kept_ = std::move(kept);
  } catch (const std::bad_alloc&) {
    // It is written each time then.
  }
}

void RESTMessage::initPrefix(ClientRequest& request) {
  unsigned int keyLength = 0;
  const char* key = request.getDocKey(keyLength);
  const std::list<KVPair>& metadata = request.getMetadata();
  const std::uint64_t block = roomForBlock(metadata, key, keyLength);
  if (block != 0 && bodyLength_ != 0 && body_ == nullptr) {
    fail(StaticDefs::ERR_CLIENT_INTERNAL, kNullContent);
  }
  const std::uint64_t size = block - (block != 0 ? bodyLength_ : 0) + kPrefixSlack;
  if (size > std::numeric_limits<std::uint32_t>::max()) {
    fail(StaticDefs::ERR_CLIENT_INTERNAL,
         u"the document's key and metadata are longer than a request can carry");
  }
  if (!prefixBuffer_.resize(size)) Converter::throwOutOfMemory();
  const std::uint64_t total = serializeMetadata(prefixBuffer_.data(), metadata, key, keyLength);
  appendDecimal(lengthText_, total);
  // Without a metadata pair there is no block, and nothing but the header is sent.
  if (total != 0) prefixLength_ = static_cast<unsigned int>(total - bodyLength_);
}

/// At least what the block needs. A short document's is not counted to the byte, since it fits
/// into the message anyway.
std::uint64_t RESTMessage::roomForBlock(const std::list<KVPair>& metadata, const char* key,
                                        unsigned int keyLength) const {
  constexpr std::uint64_t kShort = 8000;
  std::uint64_t most = keyLength;
  for (const KVPair& pair : metadata) {
    most += maxBytesOfPair(pair);
    if (most > kShort) return getSerializeMetadataLength(metadata, key, keyLength);
  }
  const tq::oss::TraceScope scope(trace::RESTMessageGetSerializeMetadataLength);
  if (metadata.empty()) return 0;
  return most + kBlockOverhead + bodyLength_;
}

icu::UnicodeString RESTMessage::getAction(ClientRequest::REQUEST kind) { return actionOf(kind); }

icu::UnicodeString RESTMessage::getActionType(ClientRequest::REQUEST kind) {
  return actionTypeOf(kind);
}

icu::UnicodeString RESTMessage::getParamString(bool asHeaders) const {
  const tq::oss::TraceScope scope(trace::RESTMessageGetParamString);
  icu::UnicodeString text;
  const auto append = [&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
    if (!asHeaders) text.append(text.isEmpty() ? StaticDefs::QUESTIONMARK : StaticDefs::AMPERSAND);
    text.append(name);
    text.append(asHeaders ? StaticDefs::COLON_SPACE : StaticDefs::EQUALS).append(value);
    if (asHeaders) text.append(StaticDefs::NEWLINE);
  };
  forEachLine(properties(), added(), append);
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

RESTMessage::Added RESTMessage::added() const noexcept {
  return {&lengthText_, action_, actionType_};
}

char* RESTMessage::getSerializedHeader() {
  const tq::oss::TraceScope scope(trace::RESTMessageGetSerializedHeader);
  buildHeader(request_, [this] {
    const tq::oss::TraceScope writing(trace::RESTMessageGetParamString);
    if (kept_ != nullptr) {
      writeKeptHeader();
    } else {
      writeHeader();
    }
  });
  return headerBuffer_.data();
}

void RESTMessage::writeKeptHeader() {
  char* out = putBytes(headerBuffer_.data(), kept_->beforeLength);
  out += Converter::writeUTF8(lengthText_, out);
  putBytes(out, kept_->afterLength);
}

void RESTMessage::writeHeader() {
  LineWriter lines(headerBuffer_.data(), headerBuffer_.capacity());
  forEachLine(properties_, added(),
              [&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
                lines.put(name, value);
              });
  if (!lines.fitted()) return writeMeasuredHeader();
  lines.end();
}

/// For a header that might not fit: whether it does is known once its bytes are counted.
void RESTMessage::writeMeasuredHeader() {
  std::size_t size = kHeaderEnd.size();
  forEachLine(properties_, added(),
              [&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
                size += Converter::utf8Length(name) + Converter::utf8Length(value) + kLineOverhead;
              });
  if (!headerBuffer_.grow(size, 0)) Converter::throwOutOfMemory();
  char* out = headerBuffer_.data();
  forEachLine(properties_, added(),
              [&](const icu::UnicodeString& name, const icu::UnicodeString& value) {
                out = putLine(out, name, value);
              });
  putBytes(out, kHeaderEnd);
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
    fail(StaticDefs::ERR_CLIENT_INTERNAL, kNullKey);
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
