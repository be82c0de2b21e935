#include "server/store/damage.h"

#include <fmt/format.h>

namespace corvaned {

std::string describe(const Damage& damage) {
  return fmt::format("{} is damaged at byte {}: {}", damage.file.string(), damage.place,
                     damage.what);
}

void throwDamaged(const Damage& damage) {
  throw DamageError(describe(damage) +
                    "; restore the collection, or stop the server and run corvaned repair");
}

}  // namespace corvaned
