#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace tq::test {

/// Everything that one message of a failure says.
struct SeenMessage {
  std::string id;
  std::string file = "(null)";
  unsigned long line = 0;
  std::vector<std::string> arguments{};
  std::string text{};
  int level = 2;
  bool operator==(const SeenMessage&) const = default;
};
std::ostream& operator<<(std::ostream& out, const SeenMessage& message);

/// The messages of a failure, first to last.
using Raised = std::vector<SeenMessage>;

/// What the library raises in the call; empty when the call returns. Exceptions of other types pass
/// through.
Raised raisedBy(const std::function<void()>& call);

}  // namespace tq::test
