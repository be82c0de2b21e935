#pragma once

#include <unicode/unistr.h>

#include <cstddef>
#include <functional>
#include <string>

#include "cli/jsonLines.h"
#include "cli/session.h"

namespace tq::comm {
class ParseResult;
}
namespace tq::oss {
class Message;
}

namespace corvane {

/// Hands over one result of the request after the other. Returns how many there were.
std::size_t takeResults(Session& session, tq::comm::ClientRequest& request,
                        const std::function<void(const tq::comm::ParseResult&)>& take);

/// Asks the server what became of the documents that `client` has queued in the collection, or, if
/// that is empty, of those that nobody in particular has, and hands over one result after the
/// other. The server tells each only once.
void takeOutcomes(Session& session, const icu::UnicodeString& collection,
                  const icu::UnicodeString& client,
                  const std::function<void(const tq::comm::ParseResult&)>& take);

/// What the server calls the document in a result: its key where that can be read as text.
std::string nameOf(const tq::comm::ParseResult& result);

/// False also of a document with a warning or an information: it is in the collection.
bool isRefusal(const tq::comm::ParseResult& result);

/// The server's words and, in brackets, its id.
std::string reasonOf(const tq::oss::Message& message);

/// Prints why a document was refused: a line for a person, an object of the result as JSON.
void report(Session& session, const Refusal& refusal);

}  // namespace corvane
