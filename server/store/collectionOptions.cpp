#include "server/store/collectionOptions.h"

#include <fcntl.h>
#include <fmt/format.h>

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

std::string encoded(const Refresh& refresh) {
  std::string text = fmt::format("{}{}\n", kRefresh, textOf(refresh));
  return fmt::format("{}{}{:08x}\n", text, kChecksum, checksumOf(text));
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
  std::ifstream file(path, std::ios::binary);
  if (!file) throwSystemError("cannot read", path);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const std::size_t end = text.find('\n');
  if (text.starts_with(kRefresh) && end != std::string::npos) {
    const auto refresh =
        refreshFrom(std::string_view(text).substr(kRefresh.size(), end - kRefresh.size()));
    if (refresh && encoded(*refresh) == text) return *refresh;
  }
  throwDamaged({path, 0, "the options of the collection cannot be read"});
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
