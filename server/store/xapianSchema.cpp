#include "server/store/xapianSchema.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <utility>

#include "server/base/base64.h"
#include "server/base/bytes.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

constexpr std::size_t kLetters = 26;
constexpr std::size_t kMaxFields = kLetters * kLetters;

// The last word of one text and the first word of the next must not form a phrase.
constexpr Xapian::termcount kTextGap = 100;

// "X" and two capital letters: no prefix is the beginning of another one, and no word looks like a
// prefix, since words are in lower case.
std::string prefixOf(std::size_t field) {
  return {'X', static_cast<char>('A' + field / kLetters),
          static_cast<char>('A' + field % kLetters)};
}

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool canBeSpelled(const std::string& name) {
  return !name.empty() && name.size() <= 64 && isLetter(name.front()) &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return isLetter(c) || c == '_' || (c >= '0' && c <= '9'); });
}

// Clients mark names that they want to be indexed or sorted by. The mark is not part of the name.
std::string withoutMark(const std::string& name) {
  for (const std::string_view mark : {"Indexable:", "[sortable]"}) {
    if (name.starts_with(mark)) return withoutMark(name.substr(mark.size()));
  }
  return name;
}

std::string serialized(const Document& document) {
  std::string bytes;
  appendU32(bytes, static_cast<std::uint32_t>(document.metadata.size()));
  const auto append = [&](const std::string& text) {
    appendU32(bytes, static_cast<std::uint32_t>(text.size()));
    bytes += text;
  };
  for (const auto& [name, value] : document.metadata) {
    append(name);
    append(value);
  }
  append(document.content);
  return bytes;
}

constexpr std::string_view kPlainIdentity = "Q";
constexpr std::string_view kEncodedIdentity = "Rbase64:";

std::optional<std::string> takeText(ByteReader& reader) {
  const auto length = reader.u32();
  const auto bytes = length ? reader.take(*length) : std::nullopt;
  return bytes ? std::optional<std::string>(*bytes) : std::nullopt;
}

}  // namespace

std::string identityTerm(const std::string& key) {
  const bool plain = key.find('\0') == std::string::npos;
  return plain ? std::string(kPlainIdentity) + key : std::string(kEncodedIdentity) + base64(key);
}

std::optional<std::string> keyOfIdentity(const std::string& term) {
  if (term.starts_with(kPlainIdentity)) return term.substr(kPlainIdentity.size());
  if (!term.starts_with(kEncodedIdentity)) return std::nullopt;
  const std::string text = term.substr(kEncodedIdentity.size());
  std::string key;
  if (!tq::util::Base64::decode(text.data(), text.size(), key)) return std::nullopt;
  return key;
}

Xapian::Stem stemmerFor(const std::string& language) {
  std::string code = language.substr(0, language.find_first_of("_-"));
  std::transform(code.begin(), code.end(), code.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  try {
    return Xapian::Stem(code);
  } catch (const Xapian::InvalidArgumentError&) {
    return Xapian::Stem();
  }
}

Fields::Fields(const std::string& stored) {
  std::istringstream lines(stored);
  for (std::string name; std::getline(lines, name);) names_.push_back(name);
}

std::optional<std::string> Fields::prefixFor(const std::string& metadataName) {
  const std::string name = withoutMark(metadataName);
  const auto found = std::find(names_.begin(), names_.end(), name);
  if (found != names_.end()) return prefixOf(static_cast<std::size_t>(found - names_.begin()));
  if (!canBeSpelled(name) || names_.size() == kMaxFields) return std::nullopt;
  names_.push_back(name);
  return prefixOf(names_.size() - 1);
}

std::string Fields::stored() const {
  std::string lines;
  for (const std::string& name : names_) lines += name + "\n";
  return lines;
}

void Fields::registerAt(Xapian::QueryParser& parser) const {
  for (std::size_t i = 0; i < names_.size(); ++i) parser.add_prefix(names_[i], prefixOf(i));
}

Xapian::Document makeDocument(const Document& document, const Xapian::Stem& stemmer,
                              Fields& fields) {
  Xapian::Document result;
  Xapian::TermGenerator generator;
  generator.set_stemmer(stemmer);
  generator.set_flags(Xapian::TermGenerator::FLAG_CJK_NGRAM);
  generator.set_document(result);
  generator.index_text(normalizeText(document.content));
  for (const auto& [name, value] : document.metadata) {
    if (const auto prefix = fields.prefixFor(name)) {
      generator.increase_termpos(kTextGap);
      generator.index_text(normalizeText(value), 1, *prefix);
    }
  }
  result.add_boolean_term(identityTerm(document.key));
  result.add_value(kKeySlot, document.key);
  result.set_data(serialized(document));
  return result;
}

std::optional<Document> readDocument(const std::string& key, const std::string& data) {
  ByteReader reader(data);
  Document document{key, {}, {}};
  const auto pairs = reader.u32();
  if (!pairs) return std::nullopt;
  for (std::uint32_t i = 0; i < *pairs; ++i) {
    auto name = takeText(reader);
    auto value = takeText(reader);
    if (!name || !value) return std::nullopt;
    document.metadata.emplace_back(std::move(*name), std::move(*value));
  }
  auto content = takeText(reader);
  if (!content || !reader.empty()) return std::nullopt;
  document.content = std::move(*content);
  return document;
}

}  // namespace corvaned
