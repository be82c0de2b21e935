#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "server/base/errors.h"

namespace corvaned::test {

/// Why the work is refused, which has to be by an error of this kind.
inline std::string refusal(ErrorKind kind, const std::function<void()>& work) {
  try {
    work();
  } catch (const ServerError& error) {
    EXPECT_EQ(messageId(error.kind()), messageId(kind)) << error.what();
    return error.what();
  }
  ADD_FAILURE() << "not refused";
  return {};
}

}  // namespace corvaned::test
