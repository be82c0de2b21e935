#include "cli/keyForms.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "cli/errors.h"
#include "cli/text.h"
#include "infra/util/kruBase64.h"

namespace corvane {

namespace {

constexpr std::string_view kPrefix = "base64:";

std::string decodedKey(std::string_view argument) {
  const bool prefixed = argument.compare(0, kPrefix.size(), kPrefix) == 0;
  auto key = decodeBase64(prefixed ? argument.substr(kPrefix.size()) : argument);
  if (!key) throw UsageError(fmt::format("\"{}\" is not Base64", printable(argument)));
  return *std::move(key);
}

}  // namespace

std::string keyFrom(const std::string& argument, bool base64) {
  std::string key = base64 ? decodedKey(argument) : argument;
  if (auto reason = whyNoKey(key)) throw UsageError(*reason);
  return key;
}

icu::UnicodeString docIdOf(const std::string& key) {
  std::string digits(tq::util::Base64::encodeSize(key.size()), '\0');
  tq::util::Base64::encode(key.data(), key.size(), digits.data());
  return icu::UnicodeString::fromUTF8(std::string(kPrefix) + digits);
}

std::string shownKey(const icu::UnicodeString& docId) {
  const auto bytes = keyOfDocId(docId);
  const auto key = bytes ? fromUtf8(*bytes) : std::nullopt;
  return key && isPrintable(*key) ? *bytes : printable(docId);
}

void addKey(nlohmann::ordered_json& object, const icu::UnicodeString& docId) {
  const auto bytes = keyOfDocId(docId);
  if (bytes && fromUtf8(*bytes)) object["key"] = *bytes;
  object["docId"] = toUtf8(docId);
}

}  // namespace corvane
