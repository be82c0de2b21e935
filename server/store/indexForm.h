#pragma once

#include <optional>
#include <string>

#include "server/store/store.h"

namespace corvaned {

/// What an index knows of how its collection was created.
struct IndexForm {
  std::string language;
  TextOptions options;

  bool operator==(const IndexForm&) const = default;
};

/// The options as lines of text, of which the default has none. Throws ServerError(BadParameter) if
/// a stop word could not be read again.
std::string linesOf(const TextOptions& options);
/// Nothing if one of the lines is unknown.
std::optional<TextOptions> optionsFrom(const std::string& lines);

}  // namespace corvaned
