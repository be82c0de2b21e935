#include "cli/commands.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "cli/errors.h"
#include "cli/indexProgress.h"
#include "cli/keyForms.h"
#include "cli/outcomes.h"
#include "cli/request.h"
#include "cli/text.h"
#include "cli/ticker.h"
#include "comm/kruClientResponse.h"
#include "comm/kruParseResult.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruBaseException.h"

namespace corvane {

namespace {

using tq::comm::ClientRequest;
using tq::comm::ClientResponse;
using tq::comm::KVPair;

icu::UnicodeString collectionName(const std::string& collection) {
  return headerValue("the collection's name", collection);
}

// What takes minutes shows at a terminal that it has not died, and how far it is if that is known.
void exchangeVisibly(Session& session, ClientRequest& request, ClientResponse& response,
                     IndexProgress* progress = nullptr) {
  std::optional<Ticker> alive;
  if (session.printer.showsProgress()) {
    alive.emplace([&session, progress](unsigned int seconds) {
      std::string line = "the server is working, " + counted(seconds, "second");
      if (progress && !progress->text().empty()) line += ", " + progress->text();
      session.printer.progress(line);
      if (progress) progress->ask();
    });
  }
  exchange(session, request, response);
}

// A command that names a collection and has no results.
ExitCode runOn(Session& session, ClientRequest::REQUEST kind, const std::string& collection,
               const char* done, const char* doubt,
               const tq::util::ExtendedProperties& properties = {}) {
  setDoubt(session, fmt::format("{}, which 'corvane status {}' tells", doubt, collection));
  ClientRequest request = collectionRequest(kind, collectionName(collection), properties);
  ClientResponse response;
  IndexProgress progress(session.settings, collectionName(collection));
  exchangeVisibly(session, request, response,
                  kind == ClientRequest::UPDATE_INDEX ? &progress : nullptr);
  session.printer.result(fmt::format("{} {}", done, collection),
                         {{"collection", collection}, {"done", done}});
  return ExitCode::Ok;
}

// The server knows which values there are.
void putIfGiven(tq::util::ExtendedProperties& properties, const icu::UnicodeString& name,
                const char* what, const std::optional<std::string>& value) {
  if (value) properties.putProperty(name, headerValue(what, *value));
}

tq::util::ExtendedProperties optionsOf(const CreateArguments& arguments) {
  tq::util::ExtendedProperties properties;
  putIfGiven(properties, u"refresh", "the value after --refresh", arguments.refresh);
  putIfGiven(properties, u"docLang", "the language", arguments.language);
  putIfGiven(properties, u"stopWords", "the list of stop words", arguments.stopWords);
  if (arguments.withoutText) properties.putProperty(u"storeText", u"false");
  if (arguments.withoutPositions) properties.putProperty(u"storePositions", u"false");
  if (arguments.withoutStemming) properties.putProperty(u"stemming", u"false");
  if (arguments.markedMetadata) properties.putProperty(u"searchableMetadata", u"marked");
  return properties;
}

// What the server shall do with the backup of that name.
ClientRequest backupRequest(ClientRequest::REQUEST kind, const std::string& name,
                            const std::optional<std::string>& collection,
                            tq::util::ExtendedProperties properties = {}) {
  properties.putProperty(u"backup", headerValue("the backup's name", name));
  if (collection) return collectionRequest(kind, collectionName(*collection), properties);
  ClientRequest request;
  request.buildRequest(kind, properties);
  return request;
}

nlohmann::ordered_json backupResult(const char* done, const std::string& backup,
                                    const std::optional<std::string>& collection) {
  nlohmann::ordered_json object = {{"backup", backup}};
  if (collection) object["collection"] = *collection;
  object["done"] = done;
  return object;
}

// The server says how many documents an update left out, and tells each when it is asked.
void tellWhatWasLeftOut(Session& session, const std::string& collection,
                        const icu::UnicodeString& client, const tq::oss::BaseException& failure) {
  session.answered = true;
  session.printer.error(describeFailure(failure, session.settings, session.answered),
                        failureId(failure));
  std::vector<icu::UnicodeString> clients;
  if (!client.isEmpty()) clients.push_back(client);
  clients.emplace_back();
  for (const auto& each : clients) {
    takeOutcomes(session, collectionName(collection), each,
                 [&](const tq::comm::ParseResult& result) {
                   if (!isRefusal(result)) return;
                   report(session, {0, nameOf(result), reasonOf(result.getMessage())});
                 });
    if (session.client.isTruncated()) {
      session.printer.error("the server broke off the list of these documents", "TRUNCATED");
    }
  }
}

KVPair metadataPair(const std::string& argument) {
  const auto equals = argument.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw UsageError(
        fmt::format("--meta takes NAME=VALUE, and \"{}\" is not that", printable(argument)));
  }
  const auto name = fromUtf8(std::string_view(argument).substr(0, equals));
  const auto value = fromUtf8(std::string_view(argument).substr(equals + 1));
  if (!name || !value) throw UsageError("--meta is not valid UTF-8");
  return {*name, *value};
}

void deleteOne(Session& session, const std::string& collection, const std::string& key,
               const std::string& shown) {
  ClientRequest request =
      collectionRequest(ClientRequest::DELETE_DOCUMENT, collectionName(collection));
  attachDocument(request, key, {}, {});
  ClientResponse response;
  exchange(session, request, response);
  session.printer.result(fmt::format("deleted {}", printable(shown)),
                         {{"collection", collection}, {"deleted", shown}});
}

const char* statusMeaning(unsigned int code) {
  switch (code) {
    case 0:
      return "ready, every change is searchable";
    case 1:
      return "ready, changes wait for an update of the index";
    case 2:
      return "not available";
    default:
      return "unknown to this program";
  }
}

// Why a server or collection is not available; only the binary protocol's reply tells.
std::string statusReason(const ClientResponse& response) {
  const tq::oss::Message message = response.getStatusMessage();
  if (message.getMessageId().isEmpty()) return {};
  return fmt::format("{} ({})", printable(message.getMessageText()),
                     printable(message.getMessageId()));
}

}  // namespace

ExitCode createCollection(Session& session, const CreateArguments& arguments) {
  return runOn(session, ClientRequest::CREATE_COLLECTION, arguments.collection, "created",
               "the collection may have been created all the same (the request was not repeated)",
               optionsOf(arguments));
}

ExitCode configureCollection(Session& session, const ConfigureArguments& arguments) {
  tq::util::ExtendedProperties properties;
  putIfGiven(properties, u"docType", "the type", arguments.type);
  putIfGiven(properties, u"charset", "the charset", arguments.charset);
  putIfGiven(properties, u"docLang", "the language", arguments.language);
  setDoubt(session, "the collection may have been configured; doing it again does no harm");
  ClientRequest request = collectionRequest(ClientRequest::SET_CONSTRUCTOR_CONFIGURATION,
                                            collectionName(arguments.collection), properties);
  ClientResponse response;
  exchange(session, request, response);
  session.printer.result(fmt::format("configured {}", arguments.collection),
                         {{"collection", arguments.collection}, {"done", "configured"}});
  return ExitCode::Ok;
}

ExitCode dropCollection(Session& session, const std::string& collection) {
  return runOn(session, ClientRequest::DROP_COLLECTION, collection, "dropped",
               "the collection may have been deleted all the same (the request was not repeated)");
}

ExitCode updateIndex(Session& session, const std::string& collection,
                     const icu::UnicodeString& client) try {
  return runOn(session, ClientRequest::UPDATE_INDEX, collection, "updated",
               "the server may still be updating");
} catch (const tq::oss::BaseException& failure) {
  if (!leavesDocumentsOut(failure)) throw;
  tellWhatWasLeftOut(session, collection, client, failure);
  return ExitCode::PartlyLoaded;
}

ExitCode addDocument(Session& session, const AddArguments& arguments) {
  const std::string key = keyFrom(arguments.key, false);
  std::list<KVPair> metadata;
  for (const auto& pair : arguments.metadata) metadata.push_back(metadataPair(pair));
  ClientRequest request =
      collectionRequest(ClientRequest::ADD_DOCUMENT, collectionName(arguments.collection));
  attachDocument(request, key, arguments.text, std::move(metadata));
  setDoubt(session, "the document may have been added; adding it again does no harm");
  ClientResponse response;
  exchange(session, request, response);
  session.printer.result(
      fmt::format("added {} to {}", printable(arguments.key), arguments.collection),
      {{"collection", arguments.collection}, {"added", arguments.key}});
  return ExitCode::Ok;
}

ExitCode deleteDocuments(Session& session, const std::string& collection,
                         const std::vector<std::string>& keys, bool base64) {
  std::vector<std::string> decoded;
  decoded.reserve(keys.size());
  for (const auto& key : keys) decoded.push_back(keyFrom(key, base64));
  setDoubt(session, "more documents may have been deleted; deleting them again does no harm");
  for (std::size_t i = 0; i < keys.size(); ++i) deleteOne(session, collection, decoded[i], keys[i]);
  return ExitCode::Ok;
}

ExitCode estimate(Session& session, const std::string& collection, const std::string& query) {
  // The library reports fixed numbers there, which nobody should take for an estimate.
  if (session.settings.protocol == Protocol::Http) {
    throw UsageError(
        "the http protocol carries no estimate; use --protocol binary with the server's port for "
        "it");
  }
  tq::util::ExtendedProperties properties;
  properties.putProperty(tq::comm::StaticDefs::PARAM_QUERY, headerValue("the query", query));
  ClientRequest request =
      collectionRequest(ClientRequest::SELECTIVITY, collectionName(collection), properties);
  ClientResponse response;
  exchange(session, request, response);
  const auto& info = response.getSelectivityInfo();
  session.printer.result(
      fmt::format("about {}, at most {}, of {}",
                  counted(static_cast<std::uint64_t>(info.getFirst()), "hit"), info.getSecond(),
                  counted(static_cast<std::uint64_t>(info.getThird()), "document")),
      {{"hits", info.getFirst()}, {"atMost", info.getSecond()}, {"documents", info.getThird()}});
  return ExitCode::Ok;
}

ExitCode backup(Session& session, const BackupArguments& arguments) {
  setDoubt(session,
           "the server gives up a backup that nobody waits for, unless it was complete already");
  ClientRequest request =
      backupRequest(ClientRequest::BACKUP, arguments.backup, arguments.collection);
  ClientResponse response;
  exchangeVisibly(session, request, response);
  session.printer.result("made the backup " + arguments.backup,
                         backupResult("made", arguments.backup, arguments.collection));
  return ExitCode::Ok;
}

ExitCode restore(Session& session, const RestoreArguments& arguments) {
  setDoubt(session,
           "the collection may have been restored all the same (the request was not repeated)");
  tq::util::ExtendedProperties properties;
  if (arguments.from) {
    properties.putProperty(u"from", headerValue("the collection's name", *arguments.from));
  }
  if (arguments.replace) properties.putProperty(u"replace", tq::comm::StaticDefs::STRING_true);
  ClientRequest request =
      backupRequest(ClientRequest::RESTORE, arguments.backup, arguments.collection, properties);
  ClientResponse response;
  exchangeVisibly(session, request, response);
  session.printer.result(
      fmt::format("restored {} from the backup {}",
                  arguments.collection.value_or("all collections"), arguments.backup),
      backupResult("restored", arguments.backup, arguments.collection));
  return ExitCode::Ok;
}

ExitCode status(Session& session, const std::string& collection) {
  ClientRequest request;
  if (collection.empty()) {
    request.buildRequest(ClientRequest::GET_STATUS, {});
  } else {
    request = collectionRequest(ClientRequest::GET_STATUS, collectionName(collection));
  }
  ClientResponse response;
  exchange(session, request, response);
  const unsigned int code = response.getStatusCode();
  const std::string reason = statusReason(response);
  nlohmann::ordered_json object = {{"status", code}, {"meaning", statusMeaning(code)}};
  if (!reason.empty()) object["reason"] = reason;
  session.printer.result(
      fmt::format("{} ({}){}{}", statusMeaning(code), code, reason.empty() ? "" : ": ", reason),
      object);
  return code == 0 || code == 1 ? ExitCode::Ok : ExitCode::Failed;
}

ExitCode serverVersion(Session& session) {
  ClientRequest request;
  request.buildRequest(ClientRequest::GET_SERVER_VERSION, {});
  ClientResponse response;
  exchange(session, request, response);
  const auto& text = response.getContent();
  if (session.settings.protocol == Protocol::Http && text.isEmpty()) {
    session.printer.result("the server answers; the http protocol's reply carries no version text",
                           {{"version", nullptr}});
  } else {
    session.printer.result(printable(text), {{"version", toUtf8(text)}});
  }
  return ExitCode::Ok;
}

}  // namespace corvane
