#pragma once

#include <stdexcept>
#include <string>

#include "cli/settings.h"

namespace tq::oss {
class BaseException;
}

namespace corvane {

/// The command line asks for something that cannot be sent. Nothing has been sent.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The operation failed for a reason that is not the library's to tell: a file, a missing answer.
class OperationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The id of the failure's first message, empty when there is none.
std::string failureId(const tq::oss::BaseException& failure);

/// One line for a person: what failed, on which host and port, and what to do about it.
std::string describeFailure(const tq::oss::BaseException& failure, const Settings& settings);

}  // namespace corvane
