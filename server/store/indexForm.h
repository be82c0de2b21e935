#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "server/store/store.h"

namespace corvaned {

/// The highest number of databases that share the documents of an index.
constexpr std::size_t kMostParts = 16;

/// What an index knows of how its collection was created.
struct IndexForm {
  std::string language;
  TextOptions options;
  /// How many databases share the documents, at most kMostParts.
  std::size_t parts = 1;
  /// How changes become searchable, as textOf() says it, unless on request only. Empty also if the
  /// collection was made before this was noted.
  std::string refresh{};

  bool operator==(const IndexForm&) const = default;
};

/// The options as lines of text, of which the default has none. Throws ServerError(BadParameter) if
/// a stop word could not be read again.
std::string linesOf(const TextOptions& options);
/// Nothing if one of the lines is unknown.
std::optional<TextOptions> optionsFrom(const std::string& lines);

}  // namespace corvaned
