// Both forms of a record and the error records, checked against a decoder of its own.
//
// Input: the form, the record's type, where error records are cut, then the bytes of the record.

#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "comm/kruClientResponse.h"
#include "comm/kruDrestoPerfResponse.h"
#include "comm/kruKVPair.h"
#include "comm/kruOpenResult.h"
#include "comm/kruRESTException.h"
#include "comm/kruRecordBounds.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/memoryMeter.h"
#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"
#include "infra/oss/kruNLSException.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::fuzz {

namespace {

using tq::comm::GenRespRecord;
using tq::util::ExtendedProperties;

constexpr MemoryBounds kMemory{8192, 8, 65536, 64};
constexpr std::size_t kLongestNew = 65535;

enum class Form { Wide, Narrow };

/// Bytes in memory of exactly their size, so that a look beyond their end is seen.
class Exact {
 public:
  explicit Exact(std::string_view bytes)
      : size_(bytes.size()), copy_(std::make_unique_for_overwrite<char[]>(bytes.size())) {
    if (size_ != 0) std::memcpy(copy_.get(), bytes.data(), size_);
  }
  const char* data() const { return copy_.get(); }
  int size() const { return static_cast<int>(size_); }
  unsigned short shortSize() const { return static_cast<unsigned short>(size_); }
  unsigned int wordSize() const { return static_cast<unsigned int>(size_); }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> copy_;
};

class PlainRecord : public GenRespRecord {
 public:
  PlainRecord() : GenRespRecord(true) {}
  void reset() override {}
};

/// The next text of a record, or nothing when it does not fit.
std::optional<std::string_view> takeText(std::string_view& bytes, Form form) {
  const std::size_t width = form == Form::Wide ? 4 : 2;
  if (bytes.size() < width) return std::nullopt;
  std::size_t length = 0;
  for (std::size_t i = 0; i < width; ++i) {
    length = length * 256 + static_cast<unsigned char>(bytes[i]);
  }
  if (form == Form::Wide) length %= std::size_t{1} << 30;
  bytes.remove_prefix(width);
  if (length > bytes.size()) return std::nullopt;
  const std::string_view text = bytes.substr(0, length);
  bytes.remove_prefix(length);
  return text;
}

using Fields = std::map<icu::UnicodeString, icu::UnicodeString>;

icu::UnicodeString decode(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

/// What the record says, or nothing when a field runs past its end.
std::optional<Fields> decodeFields(std::string_view bytes, Form form) {
  Fields fields;
  while (!bytes.empty()) {
    const auto key = takeText(bytes, form);
    if (!key) return std::nullopt;
    const auto value = takeText(bytes, form);
    if (!value) return std::nullopt;
    fields[decode(*key)] = decode(*value);
  }
  return fields;
}

void requireSame(const ExtendedProperties& properties, const Fields& fields) {
  require(properties.size() == fields.size(), "a record has the fields that were sent");
  auto expected = fields.begin();
  for (const auto& [name, value] : properties) {
    require(name == expected->first && value == expected->second, "a field says what was sent");
    ++expected;
  }
}

int parse(GenRespRecord& record, const Exact& bytes, Form form, unsigned short type) {
  return form == Form::Wide ? record.parseRecord(bytes.data(), bytes.wordSize())
                            : record.parseRecordNew(bytes.data(), bytes.shortSize(), type);
}

/// The type takes the record or refuses it by naming what is missing.
template <typename Record>
std::unique_ptr<Record> parseAs(const Exact& bytes, Form form, unsigned short type) {
  auto record = std::make_unique<Record>(true);
  try {
    parse(*record, bytes, form, type);
  } catch (const tq::oss::NLSException& error) {
    require(!error.getMessageList().empty(), "an error says what happened");
    return nullptr;
  }
  return record;
}

const icu::UnicodeString* find(const Fields& fields, const char16_t* name) {
  const auto at = fields.find(icu::UnicodeString(name));
  return at == fields.end() ? nullptr : &at->second;
}

void checkHit(const Exact& bytes, Form form, unsigned short type, const Fields& fields) {
  const auto hit = parseAs<tq::comm::SearchResult>(bytes, form, type);
  if (form == Form::Wide) {
    const icu::UnicodeString* uri = find(fields, u"URI");
    require((hit != nullptr) == (uri != nullptr), "a hit is taken when it names its document");
    if (hit != nullptr) require(hit->getDocId() == *uri, "a hit names the document that was sent");
    return;
  }
  const std::size_t skipped = type == 5 ? 2 : 0;
  require(hit != nullptr, "every compact hit is taken");
  const std::size_t size = static_cast<std::size_t>(bytes.size());
  const std::size_t expected = size < skipped ? 0 : size - skipped;
  require(hit->getKeyLen() == expected, "a key has the length that was sent");
  tq::comm::SearchResult copy(*hit);
  require(expected == 0 || std::memcmp(copy.getKey(), bytes.data() + skipped, expected) == 0,
          "a key has the bytes that were sent");
  hit->freeKey();
  require(copy.getDocId() == hit->getDocId(), "a copy outlives the key of its original");
}

void checkRow(const Exact& bytes, Form form, const Fields& fields) {
  const auto row = parseAs<tq::comm::ParseResult>(bytes, form, 1);
  const icu::UnicodeString* document = find(fields, u"Doc");
  const icu::UnicodeString* id = find(fields, u"MsgId");
  const bool message = id != nullptr && !id->isEmpty();
  const bool whole = document != nullptr && (!message || find(fields, u"MsgText") != nullptr);
  require((row != nullptr) == whole, "a parse result is taken when it is whole");
  if (row == nullptr) return;
  require(row->getDocument() == *document, "a parse result names its document");
  require(row->hasMessage() == message, "a parse result has the message that was sent");
  if (message) require(row->getMessage().getMessageId() == *id, "a message has its id");
}

void checkException(const Exact& bytes, Form form, const Fields& fields) {
  const auto error = parseAs<tq::comm::RESTException>(bytes, form, 1);
  const icu::UnicodeString* id = find(fields, u"MsgId");
  const icu::UnicodeString* text = find(fields, u"MsgText");
  const bool whole = id != nullptr && (id->isEmpty() || text != nullptr);
  require((error != nullptr) == whole, "an error record is taken when it is whole");
  if (error == nullptr || id->isEmpty()) return;
  const tq::oss::Message& message = error->getMessageList().front();
  require(message.getMessageId() == *id && message.getMessageText() == *text,
          "an error says what was sent");
}

/// Written as metadata pairs, the fields read back as the record they came from.
void checkPairs(const ExtendedProperties& properties, unsigned int attribute) {
  std::string written;
  for (const auto& [name, value] : properties) {
    const tq::comm::KVPair pair(name, value, 0, 0);
    const tq::comm::KVPair attributed(name, value, 0, attribute);
    const auto room = static_cast<std::size_t>(GenRespRecord::getSerializeKVPairLength(attributed));
    const auto buffer = std::make_unique_for_overwrite<char[]>(room - 8);
    unsigned int length = 0;
    GenRespRecord::serializeKVPair(buffer.get(), attributed, length);
    require(length == room - 8, "a pair has the length that was foretold");
    GenRespRecord::serializeKVPair(buffer.get(), pair, length);
    written.append(buffer.get(), length);
  }
  const Exact bytes(written);
  PlainRecord record;
  require(record.parseRecord(bytes.data(), bytes.wordSize()) == bytes.size(),
          "what was written is read to its end");
  require(record.getProperties()->size() == properties.size(), "every pair is read back");
  auto expected = properties.begin();
  for (const auto& [name, value] : *record.getProperties()) {
    require(name == expected->first && value == expected->second, "a pair is read as written");
    ++expected;
  }
}

void checkRecord(std::string_view bytes, Form form, unsigned short type) {
  const Exact exact(bytes);
  const auto fields = decodeFields(bytes, form);
  const bool fits = form == Form::Wide ? tq::comm::fieldsFit(exact.data(), exact.wordSize())
                                       : tq::comm::fieldsFitNew(exact.data(), exact.shortSize());
  require(fits == fields.has_value(), "fields that run past their record are found");
  if (form == Form::Narrow) checkHit(exact, form, type, {});
  if (form == Form::Narrow && bytes.size() >= 12) {
    parseAs<tq::comm::SelectivityInfo>(exact, form, type);
  }
  if (!fits) return;
  PlainRecord plain;
  require(parse(plain, exact, form, type) == exact.size(), "a record is read to its end");
  requireSame(*plain.getProperties(), *fields);
  if (form == Form::Wide) checkHit(exact, form, type, *fields);
  checkRow(exact, form, *fields);
  checkException(exact, form, *fields);
  parseAs<tq::comm::OpenResult>(exact, form, type);
  checkPairs(*plain.getProperties(), type);
}

/// An error record as a reply carries it, cut anywhere: it replaces the message or leaves it.
template <typename Parser>
void checkErrorReply(Parser& parser, std::string_view bytes) {
  const Exact exact(bytes);
  tq::comm::RESTException error(true);
  tq::oss::Message general;
  general.setMessageId(u"general");
  error.getMessageList().add(general);
  try {
    parser.parseErrorMessage(exact.data(), exact.size(), error);
  } catch (const tq::comm::RESTException& refusal) {
    require(refusal.getMessageList().front().getMessageId() == u"ERR_CLIENT_RESP_PARSING",
            "an error record that cannot be read is refused as such");
  }
  require(error.getMessageList().size() == 1, "an error record gives one message");
  require(!error.getMessageList().front().getMessageId().isEmpty(), "an error keeps an id");
}

void checkErrorReplies(std::string_view bytes) {
  tq::comm::RESTResponse http(tq::comm::ClientRequest::UPDATE_INDEX, false);
  tq::comm::DrestoPerfResponse binary(tq::comm::ClientRequest::UPDATE_INDEX, false);
  checkErrorReply(http, bytes);
  checkErrorReply(binary, bytes);
}

/// The length word that makes an error record of a record.
std::string enveloped(std::string_view bytes, Form form) {
  std::string out;
  for (int shift = form == Form::Wide ? 24 : 8; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>((bytes.size() >> shift) & 0xFF));
  }
  return out.append(bytes);
}

}  // namespace

}  // namespace tq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tq::fuzz;
  Input input(data, size);
  const Form form = input.byte() % 2 == 0 ? Form::Wide : Form::Narrow;
  const auto type = static_cast<unsigned short>(input.byte());
  const unsigned int cut = input.byte();
  const std::string_view bytes = input.rest().substr(0, kLongestNew);
  const MemoryMeter meter;
  checkRecord(bytes, form, type);
  checkErrorReplies(bytes);
  const std::string envelope = enveloped(bytes, form);
  checkErrorReplies(envelope);
  checkErrorReplies(std::string_view(envelope).substr(0, cut));
  requireWithin(meter, kMemory, bytes.size());
  return 0;
}
