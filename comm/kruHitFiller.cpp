#include "comm/kruHitFiller.h"

#include "comm/kruRecordFields.h"

namespace tq::comm {

bool readNamedHit(std::string_view record, NamedHit& hit) noexcept {
  bytes::Reader left(record.data(), record.size());
  bool named = false;
  while (left.remaining() != 0) {
    std::string_view name;
    std::string_view value;
    if (!fields::takeText(left, fields::Form::Wide, name)) return false;
    if (!fields::takeText(left, fields::Form::Wide, value)) return false;
    if (name == "URI") {
      // As in a set of properties, a later field replaces an earlier one of its name.
      hit.uri = fields::upToZero(value);
      named = true;
    } else if (name == "SCORE") {
      // A number ends at a zero byte by itself.
      hit.score = value;
    } else {
      return false;
    }
  }
  return named;
}

}  // namespace tq::comm
