#pragma once

namespace tq::oss {

/// Refuses bytes that are null although they have a length. `file` is the literal name of the
/// source that refuses them.
[[noreturn]] void throwNullBytes(const char* file, unsigned long line = __builtin_LINE());

}  // namespace tq::oss
