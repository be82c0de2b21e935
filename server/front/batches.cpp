#include "server/front/batches.h"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "server/base/errors.h"
#include "server/front/documentBlock.h"
#include "server/front/parameters.h"
#include "server/front/replyText.h"
#include "server/front/requestValues.h"
#include "server/front/vocabulary.h"

namespace corvaned {
namespace {

constexpr const char* kAppliedLine = "ZVK0110I";

constexpr std::array<Word, 3> kOfBatches{&Words::expectedMark, &Words::newMark, &Words::mustExist};

std::string nameOf(const Request& request) {
  std::string name = require(request, words().batch);
  if (name.size() <= kMaxBatchName) return name;
  refuseValue(request, words().batch, fmt::format("longer than {} bytes", kMaxBatchName));
}

std::string markIn(const Request& request, const std::string& parameter) {
  std::string mark(request.header(parameter));
  if (mark.size() <= kMaxMark) return mark;
  refuseValue(request, parameter, fmt::format("longer than {} bytes", kMaxMark));
}

std::string newMarkOf(const Request& request) {
  std::string mark = markIn(request, words().newMark);
  if (mark != kNoMark) return mark;
  refuseValue(request, words().newMark, "which stands for a collection without a mark");
}

Batch batchOf(Request& request) {
  Batch batch;
  batch.name = nameOf(request);
  batch.expectedMark = markIn(request, words().expectedMark);
  batch.changes.newMark = newMarkOf(request);
  batch.keysMustExist = chooses(request, words().mustExist, words().yes, words().no);
  if (request.content.empty()) return batch;
  const DocumentBlock outer = parseDocumentBlock(std::move(request.content));
  if (outer.terminate) {
    throw ServerError(ErrorKind::BadDocument,
                      "the request carries an end-of-documents record in place of a batch");
  }
  BatchBlocks blocks = parseBatchBlocks(outer.document.content);
  batch.changes.documents = std::move(blocks.documents);
  batch.changes.deletions = std::move(blocks.deletions);
  batch.refused = std::move(blocks.refused);
  return batch;
}

std::string lineOf(const ParseOutcome& refused) {
  return fmt::format("{}: {} {}", refused.key.empty() ? "?" : documentId(refused.key),
                     refused.messageId, refused.messageText);
}

std::string refusalText(const std::string& batch, const Refusals& refusals) {
  std::string text = fmt::format("the batch {} is refused, {} of its changes cannot be taken",
                                 shown(batch), refusals.count);
  for (const ParseOutcome& refused : refusals.first) text += "; " + lineOf(refused);
  return text;
}

}  // namespace

bool bringsBatch(const Request& request) {
  if (!request.header(words().batch).empty()) return true;
  for (const Word name : kOfBatches) {
    if (!request.header(words().*name).empty()) {
      refuseWithout(request, words().*name, words().batch);
    }
  }
  return false;
}

// Whoever repeats a batch sends the same bytes, which may be read in another way by then. What is
// impossible already is missing among the changes, so that these do not tell the batch.
Reply applyBatch(const Service& service, Request& request, const BatchReading& reading) {
  const std::string collection = collectionOf(request);
  Batch batch = batchOf(request);
  if (batch.refused.count == 0) batch.digest = digestOf(batch.changes, reading.said);
  for (Document& document : batch.changes.documents) {
    try {
      reading.prepare(document);
    } catch (const ServerError& error) {
      batch.refused.add({document.key, std::string(messageId(error.kind())), error.what()});
    }
  }
  const std::string name = batch.name;
  const BatchOutcome outcome = service.store.apply(collection, std::move(batch));
  if (outcome.refused.count == 0) return DoneReply{};
  throw ServerError(ErrorKind::BatchRefused, refusalText(name, outcome.refused));
}

Reply batchOutcome(const Service& service, const Request& request) {
  const std::string collection = collectionOf(request);
  const std::string name = nameOf(request);
  const BatchOutcome outcome = service.store.batchOutcome(collection, name);
  ReportReply reply;
  if (outcome.refused.count == 0) {
    reply.lines.push_back({name, kAppliedLine,
                           fmt::format("documents={} deletions={} unknown={}", outcome.documents,
                                       outcome.deletions, outcome.unknown)});
    if (!outcome.leftOut.empty()) {
      const std::string_view id = messageId(ErrorKind::DocumentsNotIndexed);
      reply.lines.push_back({name, std::string(id), outcome.leftOut});
    }
    return reply;
  }
  reply.lines.push_back({name, std::string(messageId(ErrorKind::BatchRefused)),
                         fmt::format("refused={}", outcome.refused.count)});
  for (const ParseOutcome& refused : outcome.refused.first) {
    reply.lines.push_back({documentId(refused.key), refused.messageId, refused.messageText});
  }
  return reply;
}

}  // namespace corvaned
