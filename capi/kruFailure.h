#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "capi/kru.h"

namespace tq::comm {
class CorvaneRESTClient;
}

namespace tq::capi {

/// What the face itself has to say against a call: "the query" "is not UTF-8".
struct Failure {
  std::int32_t code;
  const char* what;
  const char* why = "";
};

/// Thrown where a caller has done something wrong.
[[noreturn]] inline void misuse(const char* what, const char* why = "") {
  throw Failure{KRU_MISUSE, what, why};
}

/// An error without content, of which nothing is undefined.
kru_error noError() noexcept;

/// Appends to a text of an error, up to its room and at a character.
void addText(char* text, std::size_t room, std::uint32_t& length, std::string_view ascii) noexcept;
void addText(char* text, std::size_t room, std::uint32_t& length,
             const icu::UnicodeString& addition) noexcept;

/// Says what a caller has done wrong. Needs no memory, as the next one.
void describe(kru_error& report, const Failure& failure) noexcept;
/// Says what the exception that is being handled means.
void describeCurrentException(kru_error& report) noexcept;

/// Names the server.
void nameServer(kru_error& report, const tq::comm::CorvaneRESTClient& client) noexcept;

/// No version's record will be larger: a larger size was never set, and as many bytes of the caller
/// are not there.
constexpr std::uint32_t kLargestRecord = 65536;

/// Whether the caller has told the size of what it handed in, if it handed in anything.
template <typename Record>
bool hasSize(const Record* record) noexcept {
  return record == nullptr || (record->size >= sizeof(Record) && record->size <= kLargestRecord);
}

/// Fills the caller's record, which may be a later version's.
template <typename Record>
void handOut(Record* out, const Record& value) noexcept {
  if (out == nullptr) return;
  const std::uint32_t size = out->size;
  std::memcpy(out, &value, sizeof(Record));
  std::memset(reinterpret_cast<char*>(out) + sizeof(Record), 0, size - sizeof(Record));
  out->size = size;
}

/// What the caller handed in, or the defaults of `value`.
template <typename Record>
Record takeIn(const Record* in, Record value, const char* what) {
  if (in == nullptr) return value;
  if (!hasSize(in)) misuse(what, "has a size that is no version's");
  const char* bytes = reinterpret_cast<const char*>(in);
  for (std::size_t i = sizeof(Record); i < in->size; ++i) {
    if (bytes[i] != 0) misuse(what, "have a field that this version does not know");
  }
  std::memcpy(&value, in, sizeof(Record));
  return value;
}

}  // namespace tq::capi
