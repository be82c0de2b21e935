#pragma once

#include <unicode/unistr.h>

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace corvane {

/// The key's bytes that an argument stands for: its own or, when it is in Base64, perhaps with
/// "base64:" in front, those that it tells. Throws UsageError when no document can have that key.
std::string keyFrom(const std::string& argument, bool base64);

/// What the server calls the document that has the key.
icu::UnicodeString docIdOf(const std::string& key);

/// The key of a document as a person reads it: the server's name for the document where the key is
/// no text that can be printed.
std::string shownKey(const icu::UnicodeString& docId);

/// Adds "key", when the document's key is UTF-8, and "docId".
void addKey(nlohmann::ordered_json& object, const icu::UnicodeString& docId);

}  // namespace corvane
