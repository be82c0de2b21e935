#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "server/base/errors.h"

namespace corvaned {

/// A place where a file of a collection is not as it was written.
struct Damage {
  std::filesystem::path file;
  std::uint64_t place = 0;
  std::string what;
};

/// One line for a person: the file, the place, and what is wrong there.
std::string describe(const Damage& damage);

/// Files are not as they were written. It does not pass by itself.
class DamageError : public ServerError {
 public:
  explicit DamageError(const std::string& text) : ServerError(ErrorKind::StorageFailed, text) {}
};

/// Throws DamageError that describes the damage and says what to do about it.
[[noreturn]] void throwDamaged(const Damage& damage);

}  // namespace corvaned
