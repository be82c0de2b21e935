#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvaned {

/// A state of a collection, as searches see it. A query has the same hits in the same order as long
/// as the state is the same.
struct Snapshot {
  /// Which index, of all that any server has opened; different after a restart, too.
  std::uint64_t index = 0;
  /// That of the index's last transaction.
  std::uint64_t revision = 0;
  /// Which deleted keys are hidden.
  std::uint64_t hidden = 0;

  bool operator==(const Snapshot&) const = default;
};

/// Where a result is gone on with: behind some of its hits. It says all that is to be known of
/// them, so that the server need not remember anything.
struct ResultPlace {
  Snapshot snapshot;
  /// What was searched for, see queryDigest().
  std::string query{};
  /// How many hits come before.
  std::uint64_t rank = 0;
  /// Of the last of them; by what it was sorted among those of equal weight is its key, or what
  /// stands for it in another order.
  double weight = 0;
  std::string sortedBy{};
};

/// Throws: a result cannot be gone on with, and has to be begun again.
[[noreturn]] void throwSnapshotGone();

/// The place as a text for clients, and back. Nothing if the text is none of these. That of another
/// process is one in no state that there is.
std::string textOf(const ResultPlace& place);
std::optional<ResultPlace> placeFrom(std::string_view text);

}  // namespace corvaned
