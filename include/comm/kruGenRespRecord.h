#pragma once

#include <unicode/unistr.h>

#include <memory>

#include "infra/oss/kruExport.h"

namespace tq::oss {
class Message;
}
namespace tq::util {
class ExtendedProperties;
}

namespace tq::comm {

class HitFiller;
struct KVPair;

/// The base of every result: the codec of the server's records, with the set of properties that a
/// parsed record fills. Calls on one object must not overlap; different objects are independent.
///
/// Integers are big-endian. Texts are UTF-8 and end where their length says, or at a NUL before
/// that. A field is
///   32-bit form: 4-byte key length (two top bits ignored), key, 4-byte value length (two top bits
///                are a type tag without effect), value;
///   16-bit form: 2-byte key length, key, 2-byte value length, value.
///
/// The codec trusts the lengths in the bytes: all that they announce must be readable, even beyond
/// the given length of the record, which only says where no further field begins. A last field that
/// is longer makes the returned count larger than that length. Check bytes from outside before they
/// come here.
class KRU_EXPORT GenRespRecord {
 public:
  /// With an empty property set, or with none.
  explicit GenRespRecord(bool withProperties);
  GenRespRecord();
  /// Drops the property set and, when asked, begins a new one.
  void init(bool withProperties);

  /// Fills the property set from one record of the 16-bit form and calls `reset()`; returns the
  /// bytes consumed. `recordType` is not used here. A record of length 0 has no fields.
  virtual int parseRecordNew(const char* buf, unsigned short len, unsigned short recordType);
  /// Takes the parsed properties into the members of the derived class.
  virtual void reset() = 0;
  virtual ~GenRespRecord();

  /// Parses one record with 4-byte lengths into the property set, which is made if there is none,
  /// and calls `reset()`. Returns the bytes consumed.
  int parseRecord(const char* buf, unsigned int len);
  /// The same into `props`, without `reset()`.
  int parseRecordIntoProps(const char* buf, unsigned int len, tq::util::ExtendedProperties* props);
  /// The key of the field that begins at `p`, and in `size` 4 + its length. Returns the type
  /// tag of the value that follows.
  int parseKeyField(const char* p, icu::UnicodeString& key, int& size);
  /// Reads the value at `p`; `size` becomes 4 + its length in bytes.
  icu::UnicodeString getStringValue(const char* p, int& size);
  /// Reads 4 bytes at `buf + pos` and advances `pos` by 4.
  int getInt(const char* buf, int& pos);

  /// The 16-bit form of `parseRecordIntoProps`.
  int parseRecordIntoPropsNew(const char* buf, unsigned short len,
                              tq::util::ExtendedProperties* props);
  /// Reads the key at `p + pos` and advances `pos` over it; returns 0.
  int parseKeyFieldNew(const char* p, icu::UnicodeString& key, int& pos);
  /// Reads the value at `p + pos` and advances `pos` over it.
  icu::UnicodeString getStringValueNew(const char* p, int& pos);
  /// Reads 2 bytes at `buf + pos` and advances `pos` by 2.
  unsigned short getShort(const char* buf, int& pos);

  /// Fills `msg` from the properties "MsgId" and "MsgText": id, text, and the level that the id's
  /// last letter gives (4 for W, 8 for I, 1 for S, else 2) when it begins with "ZVK", else 2.
  /// Returns false and leaves `msg` alone when the id is empty. Throws tq::oss::NLSException naming
  /// the property when "MsgId" is missing and `required`, or when an id comes without "MsgText".
  bool parseMessage(tq::oss::Message& msg, bool required);

  /// The property set, owned by the record, or null.
  tq::util::ExtendedProperties* getProperties() const { return properties_.get(); }

  /// Writes a metadata pair to `out` and sets `written` to its length in bytes:
  ///   4-byte key length, key, 4-byte value length, value, 4-byte second attribute unless 0.
  /// Lengths are masked with 0x3FFFFFFF, the key's with 0x7FFFFFFF when there is an attribute; no
  /// flag bit is set.
  static void serializeKVPair(char* out, const KVPair& pair, unsigned int& written);
  /// 8 bytes more than `serializeKVPair` writes; meant for sizing buffers.
  static int getSerializeKVPairLength(const KVPair& pair);
  /// The length of `s` in UTF-8 bytes, plus 4.
  static int getNumberOfBytesOfSerialized(const icu::UnicodeString& s);

  /// Keeps the UTF-8 form of a frequent text for the life of the process. Meant for start-up; safe
  /// from any thread, and readers never wait for it.
  static void AddStringToConversionCache(const icu::UnicodeString& s);

 protected:
  /// A copy has no property set of its own, and assignment leaves the target's alone: what a result
  /// keeps of a record stands in its members.
  GenRespRecord(const GenRespRecord&);
  GenRespRecord& operator=(const GenRespRecord&);

  /// Fills `msg` as `parseMessage` does, with an id that is not empty.
  static void fillMessage(tq::oss::Message& msg, const icu::UnicodeString& id,
                          const icu::UnicodeString& text);

  /// When set, each record is parsed into an emptied property set, so that no property of an
  /// earlier record shows through.
  bool forgetsPreviousRecord_ = false;

 private:
  friend class HitFiller;

  tq::util::ExtendedProperties& ownProperties();

  std::unique_ptr<tq::util::ExtendedProperties> properties_;
};

}  // namespace tq::comm
