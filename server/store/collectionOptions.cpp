#include "server/store/collectionOptions.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "server/store/checksum.h"
#include "server/store/damage.h"
#include "server/store/files.h"

namespace corvaned {
namespace {

constexpr std::string_view kRefresh = "refresh = ";
constexpr std::string_view kChecksum = "checksum = ";

constexpr std::string_view kType = "docType = ";
constexpr std::string_view kCharset = "charset = ";
constexpr std::string_view kLanguage = "docLang = ";
constexpr std::string_view kHtml = "html";
constexpr std::string_view kXml = "xml";

std::string withChecksum(const std::string& text) {
  return fmt::format("{}{}{:08x}\n", text, kChecksum, checksumOf(text));
}

std::string encoded(const Refresh& refresh) {
  return withChecksum(fmt::format("{}{}\n", kRefresh, textOf(refresh)));
}

std::string encoded(const DocumentReading& defaults) {
  std::string text;
  const auto add = [&](std::string_view name, std::string_view value) {
    if (!value.empty()) text += fmt::format("{}{}\n", name, value);
  };
  const TextType type = defaults.form.type;
  if (type != TextType::Plain) add(kType, type == TextType::Html ? kHtml : kXml);
  add(kCharset, defaults.charset);
  add(kLanguage, defaults.form.language);
  return withChecksum(text);
}

DocumentReading decoded(std::string_view text) {
  DocumentReading defaults;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const auto isAbout = [&](std::string_view name) { return line.starts_with(name); };
    if (isAbout(kCharset)) defaults.charset = line.substr(kCharset.size());
    if (isAbout(kLanguage)) defaults.form.language = line.substr(kLanguage.size());
    if (!isAbout(kType)) continue;
    defaults.form.type = line.substr(kType.size()) == kHtml ? TextType::Html : TextType::Xml;
  }
  return defaults;
}

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throwSystemError("cannot read", path);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

std::filesystem::path optionsPath(const std::filesystem::path& collection) {
  return collection / "options";
}

void writeOptions(const std::filesystem::path& collection, const Refresh& refresh) {
  const std::filesystem::path path = optionsPath(collection);
  const FileHandle file = openFile(path, O_WRONLY | O_CREAT | O_EXCL);
  writeAll(file, encoded(refresh), path);
  syncFile(file, path);
}

Refresh readOptions(const std::filesystem::path& collection) {
  const std::filesystem::path path = optionsPath(collection);
  if (!std::filesystem::exists(path)) return {};
  const std::string text = contentOf(path);
  const std::size_t end = text.find('\n');
  if (text.starts_with(kRefresh) && end != std::string::npos) {
    const auto refresh =
        refreshFrom(std::string_view(text).substr(kRefresh.size(), end - kRefresh.size()));
    if (refresh && encoded(*refresh) == text) return *refresh;
  }
  throwDamaged({path, 0, "the options of the collection cannot be read"});
}

std::filesystem::path documentDefaultsPath(const std::filesystem::path& collection) {
  return collection / "document-defaults";
}

void writeDocumentDefaults(const std::filesystem::path& collection,
                           const DocumentReading& defaults) {
  const std::filesystem::path path = documentDefaultsPath(collection);
  if (defaults != DocumentReading{}) return replaceFile(path, encoded(defaults));
  if (!std::filesystem::exists(path)) return;
  if (::unlink(path.c_str()) != 0) throwSystemError("cannot remove", path);
  syncDirectory(collection);
}

DocumentReading readDocumentDefaults(const std::filesystem::path& collection) {
  const std::filesystem::path path = documentDefaultsPath(collection);
  if (!std::filesystem::exists(path)) return {};
  const std::string text = contentOf(path);
  DocumentReading defaults = decoded(text);
  // Whatever has another form, or another checksum, was not written so.
  if (encoded(defaults) == text) return defaults;
  throwDamaged({path, 0, "how documents are read cannot be read"});
}

std::string textOf(const Refresh& refresh) {
  if (refresh.mode == Refresh::Mode::Manual) return "manual";
  if (refresh.mode == Refresh::Mode::Immediate) return "immediate";
  return std::to_string(refresh.interval.count());
}

std::optional<Refresh> refreshFrom(std::string_view text) {
  constexpr std::int64_t kDay = 86400000;
  if (text == "manual") return Refresh{};
  if (text == "immediate") return Refresh{Refresh::Mode::Immediate, {}};
  std::int64_t milliseconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), milliseconds);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  if (milliseconds < 1 || milliseconds > kDay) return std::nullopt;
  return Refresh{Refresh::Mode::Interval, std::chrono::milliseconds(milliseconds)};
}

}  // namespace corvaned
