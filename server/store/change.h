#pragma once

#include <cstdint>

#include "server/store/store.h"

namespace corvaned {

enum class ChangeKind : std::uint8_t { Put = 1, Remove = 2 };

/// One change of a collection. A removal has only a key.
struct Change {
  ChangeKind kind = ChangeKind::Put;
  Document document;
};

}  // namespace corvaned
