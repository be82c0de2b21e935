#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "server/front/dispatcher.h"
#include "tests/server/front/mockStore.h"
#include "tests/server/requestBytes.h"

namespace corvaned {
namespace {

using test::documentBlock;
using ::testing::_;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Return;
using ::testing::SizeIs;
using ::testing::StrictMock;
using ::testing::Throw;

class BatchesTest : public ::testing::Test {
 protected:
  Reply handle(test::Headers headers, const std::string& content = {}) {
    headers.emplace("index", "c");
    Request request;
    request.headers.insert(headers.begin(), headers.end());
    request.content = content;
    return dispatcher_.handle(std::move(request));
  }

  Reply send(test::Headers headers, const std::string& blocks) {
    headers.emplace("action", "addDocument");
    headers.emplace("batch", "b1");
    return handle(std::move(headers), documentBlock("any", {{"-", ""}}, blocks));
  }

  /// The batch that reaches the store.
  Batch sent(const test::Headers& headers, const std::string& blocks) {
    Batch batch;
    EXPECT_CALL(store_, apply("c", _)).WillOnce([&](const std::string&, Batch taken) {
      batch = std::move(taken);
      return BatchOutcome{};
    });
    EXPECT_TRUE(std::holds_alternative<DoneReply>(send(headers, blocks)));
    return batch;
  }

  static std::string error(const Reply& reply) {
    const auto* refused = std::get_if<ErrorReply>(&reply);
    return refused ? refused->id + " " + refused->text : "none";
  }

  StrictMock<test::MockStore> store_;
  Dispatcher dispatcher_{store_, "9.8.7"};
};

TEST_F(BatchesTest, BlocksAreDocumentsAndAfterTheEndOfDocumentsKeysToDelete) {
  const Batch batch =
      sent({}, documentBlock("k1", {{"a", "b"}}, "fox") + documentBlock("k2", {{"-", ""}}, "") +
                   test::terminateRecord() + documentBlock("k3", {{"-", ""}}, "") +
                   documentBlock("k4", {}, ""));
  EXPECT_EQ(batch.name, "b1");
  EXPECT_EQ(batch.expectedMark, "");
  EXPECT_EQ(batch.changes.newMark, "");
  EXPECT_FALSE(batch.keysMustExist);
  EXPECT_EQ(batch.refused.count, 0U);
  ASSERT_THAT(batch.changes.documents, SizeIs(2));
  EXPECT_EQ(batch.changes.documents[0].key, "k1");
  EXPECT_EQ(batch.changes.documents[0].content, "fox");
  EXPECT_EQ(batch.changes.documents[1].key, "k2");
  EXPECT_THAT(batch.changes.deletions, ElementsAre("k3", "k4"));
}

TEST_F(BatchesTest, DeletionsNeedNoDocuments) {
  const Batch batch = sent({}, test::terminateRecord() + documentBlock("k", {}, ""));
  EXPECT_THAT(batch.changes.documents, IsEmpty());
  EXPECT_THAT(batch.changes.deletions, ElementsAre("k"));
}

TEST_F(BatchesTest, MarksAndConditionsReachTheStore) {
  const Batch batch =
      sent({{"expectedMark", "m1"}, {"newMark", std::string(128, 'm')}, {"mustExist", "true"}}, "");
  EXPECT_EQ(batch.expectedMark, "m1");
  EXPECT_EQ(batch.changes.newMark, std::string(128, 'm'));
  EXPECT_TRUE(batch.keysMustExist);
}

TEST_F(BatchesTest, MarkNeedsNoContent) {
  EXPECT_CALL(store_, apply("c", _)).WillOnce([](const std::string&, const Batch& batch) {
    EXPECT_EQ(batch.changes.newMark, "m");
    EXPECT_THAT(batch.changes.documents, IsEmpty());
    return BatchOutcome{};
  });
  handle({{"action", "addDocument"}, {"batch", "b1"}, {"newMark", "m"}});
}

TEST_F(BatchesTest, TextsAreConvertedFromTheirCharset) {
  const Batch batch = sent({{"charset", "ISO-8859-1"}}, documentBlock("k", {}, "caf\xE9"));
  ASSERT_THAT(batch.changes.documents, SizeIs(1));
  EXPECT_EQ(batch.changes.documents[0].content, "caf\xC3\xA9");
}

TEST_F(BatchesTest, DigestIsOfWhatWasSentHoweverItIsRead) {
  const std::string block = documentBlock("k", {}, "<p>caf\xE9</p>");
  store_.defaults.charset = "ISO-8859-1";
  const Batch first = sent({}, block);
  store_.defaults = {{TextType::Html, "de"}, "windows-1251"};
  const Batch again = sent({}, block);
  EXPECT_NE(first.changes.documents[0].content, again.changes.documents[0].content);
  EXPECT_EQ(first.digest, again.digest);
  EXPECT_EQ(first.digest, digestOf({{{"k", {}, "<p>caf\xE9</p>"}}, {}, {}}));
  for (const auto& [name, value] :
       test::Headers{{"docType", "html"}, {"charset", "ISO-8859-1"}, {"docLang", "de"}}) {
    EXPECT_NE(sent({{name, value}}, block).digest, first.digest) << name;
  }
  EXPECT_EQ(sent({}, block + "rest").digest, "") << "what cannot be read is not among the changes";
}

TEST_F(BatchesTest, EachChangeThatIsImpossibleIsFound) {
  const std::string longKey(129, 'k');
  const Batch batch =
      sent({{"charset", "US-ASCII"}},
           documentBlock("k1", {}, "fox") + documentBlock(longKey, {}, "fox") +
               documentBlock("k1", {}, "hound") + documentBlock("k2", {}, "caf\xE9") +
               test::terminateRecord() + documentBlock("k3", {}, "text") + test::terminateRecord() +
               documentBlock("k1", {}, "") + "rest");
  EXPECT_EQ(batch.refused.count, 7U);
  std::vector<std::string> found;
  for (const ParseOutcome& each : batch.refused.first) {
    EXPECT_EQ(each.messageId, "ZVK0012E");
    found.push_back(each.key + ": " + each.messageText);
  }
  EXPECT_THAT(found, ElementsAre(AllOf(HasSubstr(": block 2: "), HasSubstr("129 bytes")),
                                 HasSubstr("k1: block 3: an earlier one has the same key"),
                                 HasSubstr("k3: block 6: it is to be deleted and has content"),
                                 HasSubstr("block 7: there is a second"),
                                 HasSubstr("k1: block 8: an earlier one has the same key"),
                                 HasSubstr("block 9: the document block cannot be read"),
                                 HasSubstr("k2: the document is no text in the charset")));
}

// Eight bytes each; what is said of them must not take more memory than the request has.
TEST_F(BatchesTest, ManyImpossibleChangesAreCountedAndNotAllNamed) {
  std::string blocks;
  for (int i = 0; i < 1000; ++i) blocks += test::terminateRecord();
  const Batch batch = sent({}, blocks);
  EXPECT_EQ(batch.refused.count, 999U);
  EXPECT_THAT(batch.refused.first, SizeIs(Refusals::kNamed));
}

TEST_F(BatchesTest, EveryTruncationHasAnImpossibleChangeOrFewer) {
  const std::string first = documentBlock("k1", {{"a", "b"}}, "fox");
  const std::string documents = first + documentBlock("k2", {}, "hound");
  const std::string toDeletions = documents + test::terminateRecord();
  const std::string whole = toDeletions + documentBlock("k3", {}, "");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Batch batch = sent({}, whole.substr(0, length));
    const bool betweenBlocks = length == 0 || length == first.size() ||
                               length == documents.size() || length == toDeletions.size();
    EXPECT_EQ(batch.refused.count, betweenBlocks ? 0U : 1U) << length;
    EXPECT_THAT(batch.changes.deletions, IsEmpty());
  }
}

TEST_F(BatchesTest, RefusalNamesEachChange) {
  BatchOutcome outcome;
  outcome.refused.add({"k1", "ZVK0013E", "too large"});
  outcome.refused.add({"", "ZVK0012E", "no block"});
  EXPECT_CALL(store_, apply).WillOnce(Return(outcome));
  const std::string text = error(send({}, documentBlock("k1", {}, "fox")));
  EXPECT_EQ(text,
            "ZVK0030E the batch \"b1\" is refused, 2 of its changes cannot be taken; base64:azE=: "
            "ZVK0013E too large; ?: ZVK0012E no block");
}

TEST_F(BatchesTest, StoresRefusalIsTold) {
  EXPECT_CALL(store_, apply).WillOnce(Throw(ServerError(ErrorKind::OtherMark, "it is m2")));
  EXPECT_EQ(error(send({}, "")), "ZVK0032E it is m2");
}

TEST_F(BatchesTest, NamesAndMarksHaveAtMost128Bytes) {
  const std::string longText(129, 'x');
  for (const char* name : {"batch", "expectedMark", "newMark"}) {
    EXPECT_THAT(error(send({{name, longText}}, "")),
                AllOf(HasSubstr("ZVK0006E"), HasSubstr(name), HasSubstr("128")));
  }
  EXPECT_EQ(sent({{"batch", std::string(128, 'x')}}, "").name.size(), 128U);
}

TEST_F(BatchesTest, NoCollectionCanBeGivenTheMarkOfNone) {
  EXPECT_THAT(error(send({{"newMark", "none"}}, "")),
              AllOf(HasSubstr("ZVK0006E"), HasSubstr("newMark")));
  EXPECT_EQ(sent({{"expectedMark", "none"}}, "").expectedMark, "none");
}

TEST_F(BatchesTest, EndOfDocumentsIsNoBatch) {
  EXPECT_THAT(error(handle({{"action", "addDocument"}, {"batch", "b1"}}, test::terminateRecord())),
              HasSubstr("ZVK0012E"));
}

TEST_F(BatchesTest, WhatOnlyBatchesTakeIsRefusedWithoutOne) {
  for (const char* name : {"expectedMark", "newMark", "mustExist"}) {
    EXPECT_THAT(
        error(handle({{"action", "addDocument"}, {name, "true"}}, documentBlock("k", {}, "fox"))),
        AllOf(HasSubstr("ZVK0024E"), HasSubstr(name), HasSubstr("without \"batch\"")));
  }
}

TEST_F(BatchesTest, DeletionMayAskThatTheKeyExists) {
  const std::string block = documentBlock("k", {}, "");
  for (const bool mustExist : {false, true}) {
    EXPECT_CALL(store_, deleteDocument("c", "k", mustExist));
    handle({{"action", "deleteDocument"}, {"mustExist", mustExist ? "true" : "false"}}, block);
  }
  EXPECT_CALL(store_, deleteDocument("c", "k", false));
  handle({{"action", "deleteDocument"}}, block);
}

class BatchOutcomeTest : public BatchesTest {
 protected:
  std::vector<ReportReply::Line> ask() {
    const Reply reply = handle({{"action", "getParseResult"}, {"batch", "b1"}});
    if (const auto* report = std::get_if<ReportReply>(&reply)) return report->lines;
    ADD_FAILURE() << error(reply);
    return {};
  }
};

TEST_F(BatchOutcomeTest, AppliedBatchIsOneLine) {
  EXPECT_CALL(store_, batchOutcome("c", "b1")).WillOnce(Return(BatchOutcome{5, 3, 2}));
  const auto lines = ask();
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_EQ(lines[0].subject, "b1");
  EXPECT_EQ(lines[0].messageId, "ZVK0110I");
  EXPECT_EQ(lines[0].messageText, "documents=5 deletions=3 unknown=2");
}

TEST_F(BatchOutcomeTest, WhatTheIndexLeftOutIsALineOfItsOwn) {
  EXPECT_CALL(store_, batchOutcome("c", "b1")).WillOnce(Return(BatchOutcome{5, 3, 2, {}, "two"}));
  const auto lines = ask();
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[0].messageId, "ZVK0110I");
  EXPECT_EQ(lines[1].subject, "b1");
  EXPECT_EQ(lines[1].messageId, "ZVK0015E");
  EXPECT_EQ(lines[1].messageText, "two");
}

TEST_F(BatchOutcomeTest, RefusedBatchHasALineForEachChange) {
  BatchOutcome outcome;
  outcome.refused.add({"k1", "ZVK0013E", "too large"});
  EXPECT_CALL(store_, batchOutcome("c", "b1")).WillOnce(Return(outcome));
  const auto lines = ask();
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[0].subject, "b1");
  EXPECT_EQ(lines[0].messageId, "ZVK0030E");
  EXPECT_EQ(lines[0].messageText, "refused=1");
  EXPECT_EQ(lines[1].subject, "base64:azE=");
  EXPECT_EQ(lines[1].messageId, "ZVK0013E");
  EXPECT_EQ(lines[1].messageText, "too large");
}

TEST_F(BatchOutcomeTest, ReportTakesNoBatch) {
  EXPECT_THAT(
      error(handle({{"action", "getParseResult"}, {"batch", "b1"}, {"report", "collection"}})),
      AllOf(HasSubstr("ZVK0024E"), HasSubstr("\"collection\""), HasSubstr("\"batch\"")));
}

TEST(BatchRights, OutcomeTakesTheRightToWrite) {
  Request request;
  request.headers = {{"action", "getParseResult"}, {"index", "books-1"}, {"batch", "b1"}};
  EXPECT_THROW(Dispatcher::permit(request, Identity("ada", {{Right::Read, "books-*"}})),
               ServerError);
  EXPECT_NO_THROW(Dispatcher::permit(request, Identity("ada", {{Right::Write, "books-*"}})));
}

}  // namespace
}  // namespace corvaned
