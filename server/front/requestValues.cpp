#include "server/front/requestValues.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

#include "server/base/base64.h"
#include "server/base/errors.h"
#include "server/front/replyText.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

// Names of metadata begin with a letter, so the mark of the descending order is not part of one.
bool isMetadataName(std::string_view name) {
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  return !name.empty() && isLetter(name.front()) &&
         std::all_of(name.begin(), name.end(),
                     [&](char c) { return isLetter(c) || c == '_' || (c >= '0' && c <= '9'); });
}

[[noreturn]] void refuseParameter(const Request& request, const std::string& name,
                                  const std::string& relation, const std::string& other) {
  throw ServerError(ErrorKind::UnknownParameter, "the action " +
                                                     shown(request.header(words().action)) +
                                                     " does not take the parameter " + shown(name) +
                                                     " " + relation + " " + shown(other));
}

}  // namespace

void refuseValue(const Request& request, const std::string& name, const std::string& why) {
  throw ServerError(ErrorKind::BadParameter, "the parameter " + shown(name) + " is " +
                                                 shown(request.header(name)) + ", " + why);
}

void refuseWithout(const Request& request, const std::string& name, const std::string& other) {
  refuseParameter(request, name, "without", other);
}

void refuseBeside(const Request& request, const std::string& name, const std::string& other) {
  refuseParameter(request, name, "beside", other);
}

std::string require(const Request& request, const std::string& name) {
  const std::string_view value = request.header(name);
  if (value.empty()) {
    throw ServerError(ErrorKind::MissingParameter,
                      "the parameter " + shown(name) + " is missing or empty");
  }
  return std::string(value);
}

std::string_view collectionNamedBy(const Request& request) {
  const std::string_view name = request.header(words().collection);
  return name.empty() ? request.header(words().collectionName) : name;
}

std::string collectionOf(const Request& request) {
  const std::string_view name = collectionNamedBy(request);
  return name.empty() ? require(request, words().collection) : std::string(name);
}

// Names may have blanks.
std::vector<std::string> collectionsBeside(const Request& request) {
  std::vector<std::string> names;
  for (std::string_view rest = request.header(words().alsoIn); !rest.empty();) {
    const std::string_view name = rest.substr(0, rest.find(','));
    if (!name.empty()) names.emplace_back(name);
    rest.remove_prefix(std::min(name.size() + 1, rest.size()));
  }
  return names;
}

std::vector<std::string> collectionsOf(const Request& request) {
  const std::string first = collectionOf(request);
  std::vector<std::string> names = collectionsBeside(request);
  const std::string& parameter = words().alsoIn;
  if (names.empty() && !request.header(parameter).empty()) {
    refuseValue(request, parameter, "which names no collection");
  }
  names.insert(names.begin(), first);
  if (names.size() > kMostTogether) {
    refuseValue(request, parameter,
                fmt::format("but at most {} collections are searched together", kMostTogether));
  }
  for (auto name = names.begin(); name != names.end(); ++name) {
    if (std::find(names.begin(), name, *name) == name) continue;
    refuseValue(request, parameter, "and the request names " + shown(*name) + " twice");
  }
  return names;
}

void readNumber(const Request& request, const std::string& name, std::uint64_t& value) {
  const std::string_view text = request.header(name);
  if (text.empty()) return;
  std::uint64_t parsed = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (error != std::errc{} || end != text.data() + text.size()) {
    refuseValue(request, name, "not a number from 0 on");
  }
  value = parsed;
}

bool chooses(const Request& request, const std::string& name, std::string_view first,
             std::string_view second) {
  const std::string_view value = request.header(name);
  if (value == first) return true;
  if (value.empty() || value == second) return false;
  refuseValue(request, name, "not " + shown(first) + " or " + shown(second));
}

void readOrder(const Request& request, SearchQuery& query) {
  std::string_view field = request.header(words().sortField);
  if (field.empty() || field == words().byScore) return;
  if (field == words().byKey) {
    query.order = HitOrder::Key;
  } else if (field == words().unsorted) {
    query.order = HitOrder::Any;
  } else {
    query.order = HitOrder::Value;
    query.descending = field.starts_with('-');
    if (query.descending) field.remove_prefix(1);
    query.sortBy = field;
    if (isMetadataName(field)) return;
    refuseValue(request, words().sortField,
                "not " + shown(words().byScore) + ", " + shown(words().byKey) + ", " +
                    shown(words().unsorted) +
                    " or the name of metadata, with \"-\" before it for "
                    "the descending order");
  }
}

void readPlace(const Request& request, SearchQuery& query) {
  const std::string_view text = request.header(words().searchAfter);
  query.inPages = !text.empty();
  if (!query.inPages || text == words().begin) return;
  query.from = placeFrom(text);
  if (query.from) return;
  refuseValue(request, words().searchAfter,
              "not " + shown(words().begin) + " or a place as the server has told it");
}

std::vector<std::string> listIn(std::string_view text) {
  constexpr std::string_view kBetween = ", \t";
  std::vector<std::string> list;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find_first_of(kBetween), text.size());
    if (end > 0) list.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return list;
}

std::string keyIn(const Request& request, const std::string& name) {
  const std::string_view id = request.header(name);
  if (id.empty()) return {};
  auto key = keyOfDocumentId(id);
  if (!key || key->empty()) {
    refuseValue(request, name, "not \"base64:\" and the Base64 form of a key");
  }
  return std::move(*key);
}

std::vector<std::string> keysIn(const Request& request, const std::string& name) {
  std::vector<std::string> keys;
  for (std::string_view rest = request.header(name); !rest.empty();) {
    const std::string_view text = rest.substr(0, rest.find(','));
    std::string key;
    if (!tq::util::Base64::decode(text.data(), text.size(), key) || key.empty()) {
      refuseValue(request, name, "and " + shown(text) + " is not the Base64 form of a key");
    }
    keys.push_back(std::move(key));
    rest.remove_prefix(std::min(text.size() + 1, rest.size()));
  }
  return keys;
}

}  // namespace corvaned
