#pragma once

#include <span>
#include <string>

#include "server/front/vocabulary.h"

namespace corvaned {

/// One of the protocol's words.
using Word = std::string Words::*;

/// A parameter that an action takes.
struct Parameter {
  Word name;
  /// The values that it may have, where they only say what the server does in any case. None: the
  /// action reads the value.
  std::span<const Word> only{};
};

using Parameters = std::span<const Parameter>;

}  // namespace corvaned
