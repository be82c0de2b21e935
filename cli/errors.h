#pragma once

#include <unicode/unistr.h>

#include <stdexcept>
#include <string>

#include "cli/settings.h"

namespace tq::oss {
class BaseException;
}
namespace tq::comm {
enum class RequestOutcome;
}

namespace corvane {

/// The command line asks for something that cannot be sent. Nothing has been sent.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The operation failed for a reason that the library does not know: a file, a missing answer.
class OperationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The id of the failure's first message, empty when there is none.
std::string failureId(const tq::oss::BaseException& failure);

/// True when the server has read the request and refused it. An answer that is not a Corvane
/// server's is not a verdict.
bool isVerdict(const tq::oss::BaseException& failure, tq::comm::RequestOutcome outcome);

/// True for the id of a request that the server could not read. A server says so on the port of the
/// other protocol, too.
bool isUnreadable(const icu::UnicodeString& id);

/// True for the id of a document that the server has taken and the index has refused.
bool isLeftOut(const icu::UnicodeString& id);

/// True when an update of the index left documents out, and all others are searchable.
bool leavesDocumentsOut(const tq::oss::BaseException& failure);

/// True when the failure may have come of speaking the wrong protocol on this port.
bool suggestsOtherProtocol(const tq::oss::BaseException& failure);

/// One line for a person: what failed, on which host and port, and what to do about it. A server
/// that has `answered` before speaks the chosen protocol.
std::string describeFailure(const tq::oss::BaseException& failure, const Settings& settings,
                            bool answered);

}  // namespace corvane
