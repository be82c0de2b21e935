#pragma once

#include <cstdint>

#include "server/store/store.h"

namespace corvaned {

enum class ChangeKind : std::uint8_t { put = 1, remove = 2 };

/// One change of a collection. A removal has only a key.
struct Change {
  ChangeKind kind = ChangeKind::put;
  Document document;
};

}  // namespace corvaned
