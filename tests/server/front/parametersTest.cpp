#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "comm/kruStaticDefs.h"
#include "server/front/dispatcher.h"
#include "tests/server/front/mockStore.h"
#include "tests/server/requestBytes.h"

// Every parameter with every action: what each takes is spelled out here once more, and everything
// else must be refused by its name.
namespace corvaned {
namespace {

using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using tq::comm::StaticDefs;

using Values = std::vector<std::string>;

struct Taken {
  /// Each of them is taken.
  Values good;
  /// Refused by the parameter's name. Empty: the parameter may have any value.
  std::string bad;
};

struct Row {
  std::string action;
  /// What the request needs to be complete.
  test::Headers base;
  std::map<std::string, Taken> takes;
  /// What else may refuse a parameter.
  std::string refusedBy{};
  std::string content = test::documentBlock("k", {{"a", "b"}}, "<text/>");

  const std::string& name() const { return refusedBy.empty() ? action : refusedBy; }
};

std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name(); }

const Taken kAnyText{{"c"}, ""};
const Taken kNumber{{"0", "7"}, "x"};
const Taken kKey{{"base64:azE="}, "k1"};
const Taken kPlace{{"begin", textOf(ResultPlace{})}, "end"};
const Taken kKeys{{"azE=", "azE=,AA==,azE="}, "azE=,k1"};
const Taken kOnlyTrue{{"true"}, "false"};
const Taken kOnlyFalse{{"false"}, "true"};
const Taken kEither{{"true", "false"}, "perhaps"};
const Taken kType{{"text", "html", "xml", "ContentTypeNotDefined"}, "bin"};
const Taken kCharset{{"UTF-8", "utf8", "ISO-8859-1", "windows-1252", "Shift_JIS"}, "klingon"};
const Taken kLanguage{{"de", "en_US", "zh-Hant-TW", "pl", "TLH", "german"}, "englsh"};
const Taken kOfCollection{{"collection"}, "system"};
const Taken kOfServer{{"system"}, "collection"};

using Group = std::map<std::string, Taken>;

Group operator+(Group a, const Group& b) {
  a.insert(b.begin(), b.end());
  return a;
}

const Group kEnvelope{
    {"Authorization", kAnyText},
    {"Content-Length  ", {{"0"}, ""}},
    {"actionType", {{"unknown", "update", "monitor", "select", "admin"}, "destroy"}},
    {"ver", {{"1.1"}, "2.0"}},
    {"conPersist", kOnlyTrue},
    {"output", {{"rdx"}, "json"}},
    {"locale", {{"en", "en_US", "en_us"}, "de_DE"}},
};
const Group kCollection{
    {"index", kAnyText}, {"collectionName", kAnyText}, {"scope", kOfCollection}};
const Group kDocument{
    {"docLang", kLanguage},
    {"docType", kType},
    {"KnownContentType", kType},
    {"charset", kCharset},
    {"KnownCharset", kCharset},
    {"mimeType", {{"text/plain", "text/html", "text/xml", "application/xml"}, "image/png"}}};

std::vector<Row> rows() {
  const test::Headers named{{"index", "c"}};
  const test::Headers searching{{"index", "c"}, {"query", "c"}};
  const Group inCollection = kEnvelope + kCollection;
  const Group query{{"query", kAnyText}};
  return {
      {"createCollection", named,
       inCollection + Group{{"docLang", kLanguage},
                            {"refresh", {{"manual", "immediate", "250"}, "soon"}},
                            {"storeText", kEither},
                            {"storePositions", kEither},
                            {"stemming", kEither},
                            {"searchableMetadata", {{"all", "marked"}, "none"}},
                            {"stopWords", kAnyText}}},
      {"openCollection", named, inCollection},
      {"closeCollection", named, inCollection},
      {"deleteCollection", named, inCollection},
      {"addDocument", named,
       inCollection + kDocument + Group{{"useQueue", kOnlyFalse}, {"batch", {{}, ""}}}},
      {"addDocument",
       {{"index", "c"}, {"batch", "b"}},
       inCollection + kDocument +
           Group{{"useQueue", kOnlyFalse},
                 {"batch", kAnyText},
                 {"expectedMark", kAnyText},
                 {"newMark", {{"c"}, "none"}},
                 {"mustExist", {{"true", "false"}, "maybe"}}},
       "batch",
       {}},
      {"asyncAddDocument", named,
       inCollection + kDocument + Group{{"useQueue", kOnlyTrue}, {"client", kAnyText}}},
      {"deleteDocument", named, inCollection + Group{{"mustExist", {{"true", "false"}, "maybe"}}}},
      {"updateIndex", named, inCollection + Group{{"incremental", kOnlyTrue}}},
      {"search", searching,
       inCollection + query +
           Group{{"mode", {{"streaming", "scalar"}, "selectivity"}},
                 {"start", kNumber},
                 {"size", kNumber},
                 {"resultLimit", kNumber},
                 {"scoreWanted", {{"true", "false"}, "maybe"}},
                 {"scoreType", {{"raw", "normalized"}, "best"}},
                 {"sortField", {{"SCORE", "KEY", "UNSORTED", "year", "-year"}, "1st"}},
                 {"after", kKey},
                 {"upTo", kKey},
                 {"keys", kKeys},
                 {"searchAfter", kPlace},
                 {"match", {{"document"}, "text"}}}},
      {"search",
       {{"index", "c"}, {"query", "c"}, {"match", "document"}},
       inCollection + query + kDocument +
           Group{{"mode", {{"streaming", "scalar"}, "selectivity"}},
                 {"start", kNumber},
                 {"size", kNumber},
                 {"resultLimit", kNumber},
                 {"scoreWanted", {{"true", "false"}, "maybe"}},
                 {"scoreType", {{"raw", "normalized"}, "best"}},
                 {"sortField", {{"SCORE", "KEY", "UNSORTED", "year", "-year"}, "1st"}},
                 {"after", kKey},
                 {"upTo", kKey},
                 {"match", {{"document"}, "text"}}},
       "match"},
      {"selectivity", searching,
       inCollection + query +
           Group{{"mode", {{"selectivity"}, "streaming"}}, {"exactHits", kNumber}}},
      {"getParseResult", named,
       inCollection + Group{{"report", {{"count", "digest"}, "all"}},
                            {"batch", kAnyText},
                            {"client", kAnyText}}},
      {"getParseResult",
       {{"report", "collections"}},
       kEnvelope + Group{{"report", {{"collections"}, "all"}},
                         {"after", kAnyText},
                         {"size", {{"0", "1000"}, "1001"}},
                         {"scope", kOfServer}},
       "collections"},
      {"getParseResult",
       {{"report", "backups"}},
       kEnvelope + Group{{"report", {{"backups"}, "all"}},
                         {"after", kAnyText},
                         {"size", {{"0", "1000"}, "1001"}},
                         {"scope", kOfServer}},
       "backups"},
      {"getParseResult",
       {{"index", "c"}, {"report", "collection"}},
       inCollection + Group{{"report", {{"collection"}, "all"}}},
       "collection"},
      {"getParseResult",
       {{"index", "c"}, {"report", "count"}},
       inCollection + query +
           Group{{"report", {{"count"}, "all"}}, {"after", kKey}, {"upTo", kKey}, {"keys", kKeys}},
       "count"},
      {"getParseResult",
       {{"index", "c"}, {"report", "digest"}},
       inCollection + Group{{"report", {{"digest"}, "all"}},
                            {"after", kKey},
                            {"upTo", kKey},
                            {"size", {{"0", "1000"}, "1001"}},
                            {"every", kNumber}},
       "digest"},
      {"getParseResult",
       {{"index", "c"}, {"report", "hits"}, {"query", "c"}},
       inCollection + query +
           Group{{"report", {{"hits"}, "all"}},
                 {"after", kKey},
                 {"upTo", kKey},
                 {"keys", kKeys},
                 {"resultLimit", kNumber},
                 {"searchAfter", kPlace},
                 {"alsoIn", {{"d", "d,my books,e"}, "d,c"}},
                 {"sortField", {{"SCORE", "KEY", "-year"}, "1st"}},
                 {"start", kNumber},
                 {"size", {{"0", "100"}, "101"}},
                 {"values", {{"title", "title, year"}, ""}},
                 {"snippet", {{"0", "4096"}, "4097"}}},
       "hits"},
      {"getParseResult",
       {{"index", "c"}, {"report", "place"}, {"query", "c"}},
       inCollection + query +
           Group{{"report", {{"place"}, "all"}},
                 {"after", kKey},
                 {"upTo", kKey},
                 {"keys", kKeys},
                 {"sortField", {{"SCORE", "KEY", "-year"}, "1st"}},
                 {"start", kNumber},
                 {"resultLimit", kNumber},
                 {"searchAfter", kPlace}},
       "place"},
      {"getStatus", named, inCollection},
      {"setConstructorConfiguration", named, inCollection + kDocument},
      {"backup", {{"index", "c"}, {"backup", "b"}}, inCollection + Group{{"backup", kAnyText}}},
      {"restore",
       {{"index", "c"}, {"backup", "b"}},
       inCollection + Group{{"backup", kAnyText},
                            {"from", kAnyText},
                            {"replace", {{"true", "false"}, "maybe"}}}},
      {"getServerVersion",
       {},
       kEnvelope + Group{{"index", kAnyText}, {"collectionName", kAnyText}, {"scope", kOfServer}}},
      {"shutdown", {}, kEnvelope + Group{{"scope", kOfServer}}},
      {"versionsValidation",
       {{"Implementation-Version", "9"}},
       kEnvelope + Group{{"Implementation-Version", {{"9.1"}, ""}},
                         {"Supported-Server-Versions", {{"9.8.7"}, ""}},
                         {"scope", kOfServer}}},
  };
}

// Everything that the vocabulary knows as a parameter, and what nobody knows.
std::set<std::string> allNames() {
  std::set<std::string> names{"nonsense",       "Index",     "query ",
                              "Host",           "match",     "after",
                              "upTo",           "exactHits", "report",
                              "every",          "refresh",   "batch",
                              "expectedMark",   "newMark",   "mustExist",
                              "client",         "keys",      "storeText",
                              "storePositions", "stemming",  "searchableMetadata",
                              "values",         "snippet",   "stopWords",
                              "backup",         "from",      "replace",
                              "searchAfter",    "alsoIn"};
  for (const icu::UnicodeString* name : {&StaticDefs::PARAM_COLLECTION_ID,
                                         &StaticDefs::PARAM_DOCUMENT_ID,
                                         &StaticDefs::PARAM_ROWID,
                                         &StaticDefs::PARAM_DOCDATA,
                                         &StaticDefs::PARAM_DISPLAY_NAME,
                                         &StaticDefs::PARAM_COLLECTION_DIR,
                                         &StaticDefs::PARAM_COLLECTION_NAME,
                                         &StaticDefs::PARAM_CONN_PERSIST,
                                         &StaticDefs::PARAM_ACTION_TYPE,
                                         &StaticDefs::PARAM_DOCING_USEQUEUE,
                                         &StaticDefs::PARAM_SEARCH_MODE,
                                         &StaticDefs::PARAM_RESP_FORMAT,
                                         &StaticDefs::PARAM_AUTHENTICATION,
                                         &StaticDefs::PARAM_AUTHENTICATION_TOKEN,
                                         &StaticDefs::PARAM_DOCUMENT_TYPE,
                                         &StaticDefs::PARAM_OPCODE,
                                         &StaticDefs::PARAM_SCOPE,
                                         &StaticDefs::PARAM_COL_CONFIG,
                                         &StaticDefs::PARAM_COL_DATA,
                                         &StaticDefs::PARAM_INCREMENTAL,
                                         &StaticDefs::PARAM_CHECK_VER,
                                         &StaticDefs::PARAM_DB_NAME,
                                         &StaticDefs::PARAM_TAB_NAME,
                                         &StaticDefs::PARAM_TAB_UID,
                                         &StaticDefs::PARAM_TAB_PASSWORD,
                                         &StaticDefs::PARAM_DB_HOST,
                                         &StaticDefs::PARAM_DB_PORT,
                                         &StaticDefs::PARAM_START_OFFSET,
                                         &StaticDefs::PARAM_SEARCH_SIZE,
                                         &StaticDefs::PARAM_QUERY,
                                         &StaticDefs::PARAM_PROTO_VER,
                                         &StaticDefs::PARAM_LANGUAGE,
                                         &StaticDefs::PARAM_FALLBACK_LANGUAGE,
                                         &StaticDefs::PARAM_KNOWN_LANGUAGE,
                                         &StaticDefs::PARAM_MIME_TYPE,
                                         &StaticDefs::PARAM_KNOWN_DOCUMENT_TYPE,
                                         &StaticDefs::PARAM_KNOWN_CHARSET,
                                         &StaticDefs::PARAM_EXTENSION,
                                         &StaticDefs::PARAM_CHARSET,
                                         &StaticDefs::PARAM_DATA_SOURCE_TYPE,
                                         &StaticDefs::PARAM_DATA_SOURCE_NAME,
                                         &StaticDefs::PARAM_CLIENT_LOCALE,
                                         &StaticDefs::PARAM_QUERY_LANGUAGE,
                                         &StaticDefs::PARAM_SCORE_TYPE,
                                         &StaticDefs::PARAM_RESULT_LIMIT,
                                         &StaticDefs::PARAM_SCORE_WANTED,
                                         &StaticDefs::PARAM_SORT_FIELD,
                                         &StaticDefs::PARAM_PAGE_NUMBER,
                                         &StaticDefs::HTTP_CONTENT_LEN,
                                         &StaticDefs::IMPLEMENTATION_VERSION,
                                         &StaticDefs::SUPPORTED_SERVER_VERSIONS,
                                         &StaticDefs::SUPPORTED_CLIENT_VERSIONS}) {
    std::string bytes;
    names.insert(name->toUTF8String(bytes));
  }
  return names;
}

class ParametersTest : public ::testing::TestWithParam<Row> {
 protected:
  ParametersTest() {
    ON_CALL(store_, state).WillByDefault(Return(CollectionState::Current));
    ON_CALL(store_, search).WillByDefault([](const std::string&, const SearchQuery&) {
      return std::make_unique<test::NoHits>();
    });
    ON_CALL(store_, reportOutcome)
        .WillByDefault(Invoke([&](const std::string&, ParseOutcome told, const std::string&) {
          told_ = told.messageId + " " + told.messageText;
        }));
  }

  // What the request is refused for, whether the reply tells it or the outcome; empty if it is
  // served.
  std::string refusal(const std::string& name, const std::string& value) {
    Request request;
    request.headers.insert(GetParam().base.begin(), GetParam().base.end());
    request.headers["action"] = GetParam().action;
    request.headers[name] = value;
    request.content = GetParam().content;
    request.identified = true;
    told_.clear();
    const Reply reply = dispatcher_.handle(std::move(request));
    if (const auto* error = std::get_if<ErrorReply>(&reply)) return error->id + " " + error->text;
    return told_;
  }

  static std::string quoted(const std::string& text) { return "\"" + text + "\""; }

  NiceMock<test::MockStore> store_;
  std::string told_;
  Dispatcher dispatcher_{store_, "9.8.7", [] {}};
};

INSTANTIATE_TEST_SUITE_P(Of, ParametersTest, ::testing::ValuesIn(rows()),
                         [](const auto& test) { return test.param.name(); });

TEST_P(ParametersTest, EachIsTakenOrRefusedByItsName) {
  for (const std::string& name : allNames()) {
    const auto taken = GetParam().takes.find(name);
    if (taken == GetParam().takes.end()) {
      EXPECT_THAT(refusal(name, "c"), AllOf(HasSubstr("ZVK0024E"), HasSubstr(quoted(name)),
                                            AnyOf(HasSubstr(quoted(GetParam().action)),
                                                  HasSubstr(quoted(GetParam().refusedBy)))));
      continue;
    }
    for (const std::string& value : taken->second.good) {
      EXPECT_EQ(refusal(name, value), "") << name << "=" << value;
    }
    const std::string& bad = taken->second.bad;
    if (bad.empty()) continue;
    EXPECT_THAT(refusal(name, bad),
                AllOf(HasSubstr("ZVK0006E"), HasSubstr(quoted(name)), HasSubstr(quoted(bad))));
  }
}

TEST_P(ParametersTest, EmptyValueIsNoValue) {
  for (const std::string& name : allNames()) {
    if (GetParam().base.contains(name)) continue;
    EXPECT_EQ(refusal(name, ""), "") << name;
  }
}

TEST(ParameterRows, HoldOnlyWhatIsTried) {
  std::set<std::string> taken;
  for (const Row& row : rows()) {
    for (const auto& [name, values] : row.takes) taken.insert(name);
  }
  for (const std::string& name : taken) EXPECT_TRUE(allNames().contains(name)) << name;
}

}  // namespace
}  // namespace corvaned
