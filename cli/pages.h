#pragma once

#include <unicode/unistr.h>

#include <cstdint>
#include <functional>
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

/// Prints a list that the server tells page by page. `printPage` asks for the next page, counts
/// what it prints, and returns whether there may be another one. A list that breaks off before its
/// first line fails as any other request does; later it is cut off.
ExitCode printPages(Session& session, const ListWords& words,
                    const std::function<bool(std::uint64_t& printed)>& printPage);

/// The same for a report of the server that lists things in the order of their names.
ExitCode printReport(Session& session, const icu::UnicodeString& report, const ListWords& words,
                     const std::function<void(const tq::comm::ParseResult&)>& print);

}  // namespace corvane
