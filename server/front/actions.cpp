#include "server/front/actions.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "server/base/errors.h"
#include "server/front/batches.h"
#include "server/front/documentBlock.h"
#include "server/front/documentText.h"
#include "server/front/reports.h"
#include "server/front/requestValues.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

constexpr std::array<Word, 4> kTypes{&Words::text, &Words::html, &Words::xml,
                                     &Words::undefinedType};
constexpr std::array<Word, 4> kMimeTypes{&Words::plainText, &Words::htmlText, &Words::xmlText,
                                         &Words::xmlApplication};

// The parameters that say how a document is to be read.
constexpr std::array<Parameter, 6> kDocument{{{&Words::language},
                                              {&Words::documentType, kTypes},
                                              {&Words::knownDocumentType, kTypes},
                                              {&Words::charset},
                                              {&Words::knownCharset},
                                              {&Words::mimeType, kMimeTypes}}};

void requireNoScores(const Request& request) {
  for (const std::string& name : {words().scoreWanted, words().scoreType}) {
    const std::string_view value = request.header(name);
    if (value.empty() || value == words().no) continue;
    refuseValue(request, name,
                "but hits have scores only if " + shown(words().sortField) + " is " +
                    shown(words().byScore));
  }
}

SearchQuery searchQueryOf(const Request& request) {
  SearchQuery query;
  readOrder(request, query);
  if (query.order != HitOrder::Score) requireNoScores(request);
  query.everything = query.order != HitOrder::Score && request.header(words().query).empty();
  if (!query.everything) query.text = require(request, words().query);
  query.after = keyIn(request, words().after);
  query.upTo = keyIn(request, words().upTo);
  query.keys = keysIn(request, words().keys);
  readNumber(request, words().start, query.start);
  readNumber(request, words().size, query.size);
  readNumber(request, words().resultLimit, query.limit);
  const bool raw = chooses(request, words().scoreType, "raw", "normalized");
  query.scale = raw ? ScoreScale::Raw : ScoreScale::Normalized;
  readPlace(request, query);
  return query;
}

DocumentBlock requireBlock(Request& request) {
  if (request.refusal) throw *request.refusal;
  if (request.content.empty()) {
    throw ServerError(ErrorKind::BadDocument, "the request carries no document");
  }
  return parseDocumentBlock(std::move(request.content));
}

// The charset of a document's content; metadata is always UTF-8. Empty if none is given.
std::string charsetOf(const Request& request) {
  std::string charset;
  for (const std::string& name : {words().charset, words().knownCharset}) {
    const std::string value(request.header(name));
    if (value.empty()) continue;
    if (!isCharset(value)) refuseValue(request, name, "and there is no such charset");
    if (!charset.empty() && value != charset) {
      refuseValue(request, name, "and " + shown(words().charset) + " is " + shown(charset));
    }
    charset = value;
  }
  return charset;
}

// Nothing if it is no type.
std::optional<TextType> typeNamed(std::string_view name) {
  const Words& w = words();
  if (name == w.text || name == w.plainText) return TextType::Plain;
  if (name == w.html || name == w.htmlText) return TextType::Html;
  if (name == w.xml || name == w.xmlText || name == w.xmlApplication) return TextType::Xml;
  return std::nullopt;
}

// Nothing if the request names none.
std::optional<TextType> typeOf(const Request& request) {
  std::optional<TextType> type;
  for (const std::string& name :
       {words().documentType, words().knownDocumentType, words().mimeType}) {
    const auto said = typeNamed(request.header(name));
    if (!said) continue;
    if (type && *type != *said) refuseValue(request, name, "which contradicts another parameter");
    type = said;
  }
  return type;
}

// Empty if the request names none.
std::string languageOf(const Request& request) {
  std::string language(request.header(words().language));
  if (language.empty() || isLanguage(language)) return language;
  refuseValue(request, words().language, "and there is no such language");
}

// What a request says of the documents that it carries.
struct SaidOfDocuments {
  std::optional<TextType> type;
  std::string language;
  std::string charset;

  bool isAll() const { return type && !language.empty() && !charset.empty(); }
  bool isNothing() const { return !type && language.empty() && charset.empty(); }
};

SaidOfDocuments saidIn(const Request& request) {
  return {typeOf(request), languageOf(request), charsetOf(request)};
}

// What the request does not say is as in the whole collection.
DocumentReading completed(const SaidOfDocuments& said, const Service& service,
                          const Request& request) {
  DocumentReading reading;
  if (!said.isAll()) reading = service.store.documentDefaults(collectionOf(request));
  if (said.type) reading.form.type = *said.type;
  if (!said.language.empty()) reading.form.language = said.language;
  if (!said.charset.empty()) reading.charset = said.charset;
  return reading;
}

// Tells two requests apart that carry the same bytes and mean something else.
std::string textOf(const SaidOfDocuments& said) {
  if (said.isNothing()) return {};
  const int type = said.type ? static_cast<int>(*said.type) : -1;
  return fmt::format("{} {} {}", type, said.charset, said.language);
}

Document requireDocument(Request& request) {
  DocumentBlock block = requireBlock(request);
  if (block.terminate) {
    throw ServerError(ErrorKind::BadDocument,
                      "the request carries an end-of-documents record in place of a document");
  }
  return std::move(block.document);
}

// The documents that a request wants to be matched.
std::vector<Document> documentsToMatch(const Service& service, Request& request) {
  const bool several =
      chooses(request, words().match, words().severalDocuments, words().oneDocument);
  Document document = requireDocument(request);
  std::vector<Document> documents;
  if (several) {
    documents = parseDocumentBlocks(document.content);
  } else {
    documents.push_back(std::move(document));
  }
  const DocumentReading reading = completed(saidIn(request), service, request);
  for (Document& each : documents) prepare(each, reading);
  return documents;
}

// What says how to read documents says nothing without them.
void requireDocumentsFor(const Request& request) {
  if (!request.header(words().match).empty()) return;
  for (const Parameter& parameter : kDocument) {
    const std::string& name = words().*parameter.name;
    if (!request.header(name).empty()) refuseWithout(request, name, words().match);
  }
}

Reply search(const Service& service, Request& request) {
  HitsReply reply;
  const std::string collection = collectionOf(request);
  reply.streaming = chooses(request, words().mode, words().modeStreaming, words().modeScalar);
  reply.withScore = chooses(request, words().scoreWanted, words().yes, words().no);
  const bool matches = !request.header(words().match).empty();
  for (const std::string& name : {words().keys, words().searchAfter}) {
    if (matches && !request.header(name).empty()) refuseBeside(request, name, words().match);
  }
  const SearchQuery query = searchQueryOf(request);
  if (!matches) {
    reply.hits = service.store.search(collection, query);
    return reply;
  }
  reply.hits = service.store.match(collection, query, documentsToMatch(service, request));
  return reply;
}

Reply selectivity(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  std::uint64_t exactHits = kExactHits;
  readNumber(request, words().exactHits, exactHits);
  return EstimateReply{
      service.store.estimate(collection, require(request, words().query), exactHits)};
}

Refresh refreshOf(const Request& request) {
  const std::string_view text = request.header(words().refresh);
  if (text.empty()) return {};
  if (const auto refresh = refreshFrom(text)) return *refresh;
  throw ServerError(ErrorKind::BadParameter,
                    "the parameter " + shown(words().refresh) + " is " + shown(text) +
                        ", not \"manual\", \"immediate\" or a number of milliseconds from 1 to "
                        "86400000");
}

TextOptions textOptionsOf(const Request& request) {
  const auto isFalse = [&](const std::string& name) {
    return chooses(request, name, words().no, words().yes);
  };
  TextOptions options;
  options.keepsText = !isFalse(words().storeText);
  options.keepsPositions = !isFalse(words().storePositions);
  options.stems = !isFalse(words().stemming);
  options.onlyMarkedMetadata =
      chooses(request, words().searchableMetadata, words().marked, words().all);
  options.stopWords = listIn(request.header(words().stopWords));
  return options;
}

Reply createCollection(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  std::string language = languageOf(request);
  if (language.empty()) language = words().defaultLanguage;
  service.store.createCollection(collection, language, refreshOf(request), textOptionsOf(request));
  return DoneReply{};
}

// ICU reads over what is neither a letter nor a digit, and a report has blanks between its facts.
std::string withoutBlanks(std::string charset) {
  std::erase_if(charset, [](char c) { return c <= ' ' || c > '~'; });
  return charset;
}

Reply setConfiguration(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  const SaidOfDocuments said = saidIn(request);
  service.store.setDocumentDefaults(
      collection,
      {{said.type.value_or(TextType::Plain), said.language}, withoutBlanks(said.charset)});
  return DoneReply{};
}

/// The actions that need nothing but a collection.
template <void (Store::*operation)(const std::string&)>
Reply onCollection(const Service& service, Request& request) {
  (service.store.*operation)(collectionOf(request));
  return DoneReply{};
}

// Each of these checks the collection's name first, so that a request with several errors is always
// refused for the same one.
Reply addDocument(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  const SaidOfDocuments said = saidIn(request);
  if (bringsBatch(request)) {
    const DocumentReading reading = completed(said, service, request);
    return applyBatch(service, request,
                      {textOf(said), [&](Document& document) { prepare(document, reading); }});
  }
  Document document = requireDocument(request);
  prepare(document, completed(said, service, request));
  service.store.addDocument(collection, document);
  return DoneReply{};
}

Reply deleteDocument(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  const bool mustExist = chooses(request, words().mustExist, words().yes, words().no);
  service.store.deleteDocument(collection, requireDocument(request).key, mustExist);
  return DoneReply{};
}

// Whose outcomes they are; empty if the request does not say.
std::string clientOf(const Request& request) {
  std::string client(request.header(words().client));
  if (client.size() <= kMaxClientName) return client;
  refuseValue(request, words().client, fmt::format("longer than {} bytes", kMaxClientName));
}

// The client expects no reply, so a refusal is reported among the outcomes of queued documents.
Reply queueDocument(const Service& service, Request& request) {
  const std::string collection = collectionOf(request);
  const std::string key = keyInBlock(request.content);
  // A name that is too long is refused below, where that can be told.
  const std::string_view named = request.header(words().client);
  const std::string client(named.size() > kMaxClientName ? std::string_view() : named);
  try {
    if (request.unopened) throw *request.unopened;
    DocumentBlock block = requireBlock(request);
    clientOf(request);
    requireParameters(*findAction(request.header(words().action)), request);
    const SaidOfDocuments said = saidIn(request);
    if (block.terminate) return NoReply{};
    prepare(block.document, completed(said, service, request));
    service.store.queueDocument(collection, block.document, client);
  } catch (const ServerError& error) {
    if (error.kind() == ErrorKind::UnknownCollection) throw;
    service.store.reportOutcome(
        collection, ParseOutcome{key, std::string(messageId(error.kind())), error.what()}, client);
    // The operator has to be told, too, and the reply is none in any case.
    throw;
  }
  return NoReply{};
}

Reply parseResult(const Service& service, Request& request) {
  if (asksForReport(request)) return report(service, request);
  const std::string collection = collectionOf(request);
  const std::string client = clientOf(request);
  if (request.header(words().batch).empty()) {
    return OutcomesReply{service.store.takeParseOutcomes(collection, client)};
  }
  if (!client.empty()) refuseBeside(request, words().client, words().batch);
  return batchOutcome(service, request);
}

Reply backup(const Service& service, Request& request) {
  service.store.backup(require(request, words().backup), std::string(collectionNamedBy(request)));
  return DoneReply{};
}

Reply restore(const Service& service, Request& request) {
  Restoration restoration;
  restoration.backup = require(request, words().backup);
  restoration.collection = collectionNamedBy(request);
  restoration.from = request.header(words().from);
  if (!restoration.from.empty() && restoration.collection.empty()) {
    refuseValue(request, words().from, "but the request does not name what it is to become");
  }
  restoration.replace = chooses(request, words().replace, words().yes, words().no);
  service.store.restore(restoration);
  return DoneReply{};
}

// A collection that cannot be opened has a status, too.
Reply status(const Service& service, Request& request) {
  if (collectionNamedBy(request).empty()) return StatusReply{};
  try {
    if (request.unopened) throw *request.unopened;
    const CollectionState state = service.store.state(collectionOf(request));
    return StatusReply{state == CollectionState::Current ? 0U : 1U, {}};
  } catch (const ServerError& error) {
    return StatusReply{2, {std::string(messageId(error.kind())), error.what()}};
  }
}

Reply version(const Service& service, Request&) { return TextReply{service.version}; }

Reply notSupported(const Service&, Request& request) {
  throw ServerError(
      ErrorKind::UnsupportedAction,
      "the action " + shown(request.header(words().action)) + " is not supported by this server");
}

// Without accounts everybody on this machine may do everything, and nobody elsewhere should end the
// server.
Reply shutDown(const Service& service, Request& request) {
  if (!service.shutDown) return notSupported(service, request);
  if (!request.identified && !request.fromThisMachine) {
    throw ServerError(
        ErrorKind::Forbidden,
        "a server without accounts is only shut down from its own machine; ask there, "
        "or give the server --users");
  }
  service.shutDown();
  return DoneReply{};
}

std::string_view withoutBuild(std::string_view version) {
  return version.substr(0, version.find(words().buildSeparator));
}

std::string_view majorOf(std::string_view version) { return version.substr(0, version.find('.')); }

bool lists(std::string_view versions, std::string_view wanted) {
  for (;;) {
    const std::size_t end = versions.find(words().versionsSeparator);
    std::string_view version = withoutBuild(versions.substr(0, end));
    while (version.starts_with(' ')) version.remove_prefix(1);
    while (version.ends_with(' ')) version.remove_suffix(1);
    if (version == wanted) return true;
    if (end == std::string_view::npos) return false;
    versions.remove_prefix(end + words().versionsSeparator.size());
  }
}

// A major version is what the wire formats are promised for.
Reply validateVersions(const Service& service, Request& request) {
  const std::string_view own = withoutBuild(service.version);
  const std::string_view client = request.header(words().implementationVersion);
  const std::string_view servers = request.header(words().supportedServerVersions);
  if (client.empty() && servers.empty()) require(request, words().implementationVersion);
  if (!client.empty() && majorOf(client) != majorOf(own)) {
    throw ServerError(ErrorKind::VersionMismatch, "the client has the version " + shown(client) +
                                                      ", and the server " + shown(own) +
                                                      " serves clients of the same major version");
  }
  if (!servers.empty() && !lists(servers, own)) {
    throw ServerError(ErrorKind::VersionMismatch, "the server has the version " + shown(own) +
                                                      ", and the client works with " +
                                                      shown(servers));
  }
  return DoneReply{};
}

constexpr auto kAlways = Action::Answer::Always;
constexpr auto kNever = Action::Answer::Never;

// The values that say what the server does in any case.
constexpr std::array<Word, 5> kActionTypes{&Words::actionUnknown, &Words::actionUpdate,
                                           &Words::actionMonitor, &Words::actionSelect,
                                           &Words::actionAdmin};
constexpr std::array<Word, 3> kEnglish{&Words::english, &Words::americanEnglish,
                                       &Words::defaultLanguage};
constexpr std::array<Word, 1> kYes{&Words::yes};
constexpr std::array<Word, 1> kNo{&Words::no};
constexpr std::array<Word, 1> kProtocol11{&Words::protocol11};
constexpr std::array<Word, 1> kRecords{&Words::formatRdx};
constexpr std::array<Word, 1> kOneCollection{&Words::collectionScope};
constexpr std::array<Word, 1> kWholeServer{&Words::systemScope};
constexpr std::array<Word, 2> kEitherScope{&Words::collectionScope, &Words::systemScope};
constexpr std::array<Word, 1> kSelectivityMode{&Words::modeSelectivity};

// The parameters that actions have in common.
constexpr std::array<Parameter, 8> kEnvelope{{
    {&Words::action},
    {&Words::contentLength},
    {&Words::authorization},
    {&Words::actionType, kActionTypes},
    {&Words::protocolVersion, kProtocol11},
    {&Words::connectionPersists, kYes},
    {&Words::replyFormat, kRecords},
    {&Words::locale, kEnglish},
}};
constexpr std::array<Parameter, 3> kCollection{
    {{&Words::collection}, {&Words::collectionName}, {&Words::scope, kOneCollection}}};
// The parameters of single actions.
constexpr std::array<Parameter, 7> kCreate{{{&Words::language},
                                            {&Words::refresh},
                                            {&Words::storeText},
                                            {&Words::storePositions},
                                            {&Words::stemming},
                                            {&Words::searchableMetadata},
                                            {&Words::stopWords}}};
constexpr std::array<Parameter, 5> kAdd{{{&Words::useQueue, kNo},
                                         {&Words::batch},
                                         {&Words::expectedMark},
                                         {&Words::newMark},
                                         {&Words::mustExist}}};
constexpr std::array<Parameter, 2> kQueue{{{&Words::useQueue, kYes}, {&Words::client}}};
constexpr std::array<Parameter, 1> kDelete{{{&Words::mustExist}}};
constexpr std::array<Parameter, 1> kUpdate{{{&Words::incremental, kYes}}};
constexpr std::array<Parameter, 13> kSearch{{{&Words::query},
                                             {&Words::keys},
                                             {&Words::mode},
                                             {&Words::start},
                                             {&Words::size},
                                             {&Words::resultLimit},
                                             {&Words::scoreWanted},
                                             {&Words::scoreType},
                                             {&Words::sortField},
                                             {&Words::match},
                                             {&Words::after},
                                             {&Words::upTo},
                                             {&Words::searchAfter}}};
constexpr std::array<Parameter, 3> kSelectivity{
    {{&Words::query}, {&Words::mode, kSelectivityMode}, {&Words::exactHits}}};
constexpr std::array<Parameter, 16> kReport{{{&Words::report},
                                             {&Words::alsoIn},
                                             {&Words::keys},
                                             {&Words::client},
                                             {&Words::batch},
                                             {&Words::query},
                                             {&Words::after},
                                             {&Words::upTo},
                                             {&Words::size},
                                             {&Words::every},
                                             {&Words::sortField},
                                             {&Words::start},
                                             {&Words::resultLimit},
                                             {&Words::searchAfter},
                                             {&Words::values},
                                             {&Words::snippet}}};
constexpr std::array<Parameter, 1> kBackup{{{&Words::backup}}};
constexpr std::array<Parameter, 3> kRestore{{{&Words::backup}, {&Words::from}, {&Words::replace}}};
// Actions that are about a collection or about all.
constexpr std::array<Parameter, 3> kEitherWay{
    {{&Words::collection}, {&Words::collectionName}, {&Words::scope, kEitherScope}}};
// A client that always names a collection may do so here; the right to it is then asked for.
constexpr std::array<Parameter, 3> kVersion{
    {{&Words::collection}, {&Words::collectionName}, {&Words::scope, kWholeServer}}};
constexpr std::array<Parameter, 1> kServer{{{&Words::scope, kWholeServer}}};
constexpr std::array<Parameter, 2> kVersions{
    {{&Words::implementationVersion}, {&Words::supportedServerVersions}}};

// The client library's vocabulary has no action names; this table is their only place in the
// server.
constexpr std::array<Action, 19> kActions{{
    {"createCollection",
     Workload::Write,
     kAlways,
     Right::Admin,
     {kCollection, kCreate},
     createCollection,
     false},
    {"openCollection",
     Workload::Read,
     kAlways,
     Right::Read,
     {kCollection},
     onCollection<&Store::openCollection>},
    {"closeCollection",
     Workload::Write,
     kAlways,
     Right::Read,
     {kCollection},
     onCollection<&Store::closeCollection>,
     false},
    {"deleteCollection",
     Workload::Delete,
     kAlways,
     Right::Admin,
     {kCollection},
     onCollection<&Store::deleteCollection>,
     false},
    {"addDocument",
     Workload::Write,
     kAlways,
     Right::Write,
     {kCollection, kDocument, kAdd},
     addDocument},
    {"asyncAddDocument",
     Workload::Write,
     kNever,
     Right::Write,
     {kCollection, kDocument, kQueue},
     queueDocument},
    {"deleteDocument",
     Workload::Write,
     kAlways,
     Right::Write,
     {kCollection, kDelete},
     deleteDocument},
    {"updateIndex",
     Workload::Index,
     kAlways,
     Right::Write,
     {kCollection, kUpdate},
     onCollection<&Store::updateIndex>},
    {"search", Workload::Read, kAlways, Right::Read, {kCollection, kSearch, kDocument}, search},
    {"selectivity", Workload::Read, kAlways, Right::Read, {kCollection, kSelectivity}, selectivity},
    {"getParseResult", Workload::Write, kAlways, Right::Write, {kEitherWay, kReport}, parseResult},
    {"getStatus", Workload::Status, kAlways, Right::Read, {kEitherWay}, status},
    {"getServerVersion", Workload::Status, kAlways, Right::Read, {kVersion}, version},
    {"backup", Workload::Status, kAlways, Right::Admin, {kEitherWay, kBackup}, backup, false},
    {"restore", Workload::Status, kAlways, Right::Admin, {kEitherWay, kRestore}, restore, false},
    {"takeover", Workload::Status, kAlways, Right::Admin, {}, notSupported},
    {"shutdown", Workload::Status, kAlways, Right::Admin, {kServer}, shutDown},
    {"setConstructorConfiguration",
     Workload::Write,
     kAlways,
     Right::Admin,
     {kCollection, kDocument},
     setConfiguration},
    {"versionsValidation",
     Workload::Status,
     kAlways,
     Right::Read,
     {kServer, kVersions},
     validateVersions},
}};

const Parameter* find(Parameters parameters, std::string_view name) {
  const auto found =
      std::find_if(parameters.begin(), parameters.end(),
                   [&](const Parameter& parameter) { return words().*parameter.name == name; });
  return found == parameters.end() ? nullptr : &*found;
}

const Parameter* find(const Action& action, std::string_view name) {
  if (const Parameter* common = find(kEnvelope, name)) return common;
  for (const Parameters group : action.parameters) {
    if (const Parameter* own = find(group, name)) return own;
  }
  return nullptr;
}

void requireValue(const Parameter& parameter, std::string_view value) {
  const auto has = [&](Word word) { return words().*word == value; };
  if (parameter.only.empty() || std::any_of(parameter.only.begin(), parameter.only.end(), has)) {
    return;
  }
  std::string choices;
  for (const Word word : parameter.only) {
    choices += (choices.empty() ? "" : " or ") + shown(words().*word);
  }
  throw ServerError(ErrorKind::BadParameter, "the parameter " + shown(words().*parameter.name) +
                                                 " is " + shown(value) + ", and can only be " +
                                                 choices + " here");
}

// The name that a person knows a collection by would be a second one to keep.
void requireOneCollection(const Request& request) {
  const std::string_view name = request.header(words().collection);
  const std::string_view other = request.header(words().collectionName);
  if (name.empty() || other.empty() || name == other) return;
  throw ServerError(ErrorKind::BadParameter, "the parameters " + shown(words().collection) +
                                                 " and " + shown(words().collectionName) +
                                                 " name two collections, " + shown(name) + " and " +
                                                 shown(other));
}

void requireScope(const Request& request) {
  const bool ofServer = collectionNamedBy(request).empty();
  const std::string_view scope = request.header(words().scope);
  if (scope.empty() || (scope == words().systemScope) == ofServer) return;
  refuseValue(request, words().scope,
              std::string("but the request names ") + (ofServer ? "no" : "a") + " collection");
}

}  // namespace

bool makesReports(const Action& action) { return action.serve == parseResult; }

bool bringsDocuments(const Action& action, const Request& request) {
  if (action.serve == search) return !request.header(words().match).empty();
  return action.serve == addDocument || action.serve == queueDocument;
}

void requireParameters(const Action& action, const Request& request) {
  if (action.serve == notSupported) return;
  if (action.serve == search) requireDocumentsFor(request);
  for (const auto& [name, value] : request.headers) {
    if (value.empty()) continue;
    const Parameter* parameter = find(action, name);
    if (!parameter) {
      throw ServerError(
          ErrorKind::UnknownParameter,
          "the action " + shown(action.name) + " does not take the parameter " + shown(name));
    }
    requireValue(*parameter, value);
  }
  requireOneCollection(request);
  requireScope(request);
}

const Action* findAction(std::string_view name) {
  for (const Action& action : kActions) {
    if (action.name == name) return &action;
  }
  return nullptr;
}

}  // namespace corvaned
