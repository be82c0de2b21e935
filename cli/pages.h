#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "cli/exitCode.h"
#include "cli/session.h"

namespace tq::comm {
class ParseResult;
}

namespace corvane {

/// Says that a result ends early after `shown`, such as "2 hits", and why.
ExitCode cutOff(Session& session, const std::string& shown, const std::string& cause);

/// What a list consists of, in the singular, and what to say to a person when it is empty.
struct ListWords {
  const char* noun;
  const char* none;
};

/// Asks for a page, counts what it prints of it, and returns behind what the next one begins;
/// nothing when there is no further one.
using PagePrinter = std::function<std::optional<std::string>(std::uint64_t& printed)>;

/// Prints a list that the server tells page by page, in the byte order of names or keys. A list
/// that breaks off before its first line fails as any other request does; later it is cut off.
/// Throws OperationError when a page does not lead further, as the list would have no end.
ExitCode printPages(Session& session, const ListWords& words, const PagePrinter& printPage);

/// The same for a report of the server that lists things in the order of their names.
ExitCode printReport(Session& session, const icu::UnicodeString& report, const ListWords& words,
                     const std::function<void(const tq::comm::ParseResult&)>& print);

}  // namespace corvane
