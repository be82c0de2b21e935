#pragma once

#include <unicode/unistr.h>

#include <string>

#include "comm/kruClientRequest.h"

namespace corvane {

struct Settings;

/// What a request says about who asks: that of the token, or of "NAME:PASSWORD", in the first line
/// of a file; or, if there is no such file, of what the environment's CORVANE_CREDENTIALS holds;
/// empty if that is not set either. Neither can be read from the command line, which all users of a
/// machine see.
///
/// Throws OperationError if the file cannot be read, and UsageError if it holds no credentials.
icu::UnicodeString authorizationFrom(const std::string& file);

/// Makes the request say who asks.
void identify(tq::comm::ClientRequest& request, const Settings& settings);

}  // namespace corvane
