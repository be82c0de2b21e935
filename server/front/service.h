#pragma once

#include <functional>
#include <string>

#include "server/store/store.h"

namespace corvaned {

/// What an action works on.
struct Service {
  Store& store;
  const std::string& version;
  /// Ends the server; none if requests cannot.
  const std::function<void()>& shutDown;
};

}  // namespace corvaned
