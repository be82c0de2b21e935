#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "server/front/request.h"
#include "server/store/store.h"

namespace corvaned {

// The values of a request's parameters. Each function throws ServerError that names the parameter.

/// Refuses the value that the request has; `why` goes on from it.
[[noreturn]] void refuseValue(const Request& request, const std::string& name,
                              const std::string& why);

/// Refuses a parameter that the action takes only with another one, or only without it.
[[noreturn]] void refuseWithout(const Request& request, const std::string& name,
                                const std::string& other);
[[noreturn]] void refuseBeside(const Request& request, const std::string& name,
                               const std::string& other);

/// The value, which must not be missing or empty.
std::string require(const Request& request, const std::string& name);

/// The collection that a request names, empty if it names none.
std::string_view collectionNamedBy(const Request& request);

/// The collection, which the request must name.
std::string collectionOf(const Request& request);

/// How many collections a request may name to be searched together.
constexpr std::size_t kMostTogether = 32;

/// The collections that are to be searched together with the one that the request names, as they
/// stand there: perhaps too many, or one of them twice.
std::vector<std::string> collectionsBeside(const Request& request);

/// All collections that are to be searched together, of which the request must name one.
std::vector<std::string> collectionsOf(const Request& request);

/// Leaves `value` unchanged if the parameter is missing.
void readNumber(const Request& request, const std::string& name, std::uint64_t& value);

/// True if the parameter is `first`; false if it is `second` or missing. Refuses any other value.
bool chooses(const Request& request, const std::string& name, std::string_view first,
             std::string_view second);

/// The order of hits that a search asks for.
void readOrder(const Request& request, SearchQuery& query);

/// Whether the result is to be taken in pages, and where the page begins.
void readPlace(const Request& request, SearchQuery& query);

/// What stands apart by commas or blanks.
std::vector<std::string> listIn(std::string_view text);

/// The key that is written as replies name documents; empty if the parameter is missing.
std::string keyIn(const Request& request, const std::string& name);

/// Keys in Base64 with commas between them; none if the parameter is missing.
std::vector<std::string> keysIn(const Request& request, const std::string& name);

}  // namespace corvaned
