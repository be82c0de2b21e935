#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "cli/exitCode.h"
#include "cli/jsonLines.h"
#include "cli/session.h"

namespace tq::comm {
class ParseResult;
}

namespace corvane {

/// How much is queued before the server is asked what became of it.
struct WindowLimits {
  std::size_t documents = 2000;
  std::size_t bytes = std::size_t{8} << 20;
};

/// Sends documents to a collection, a window at a time: the whole window is queued without waiting,
/// then the server's results for it are collected. A document that the server says nothing about,
/// because a connection broke for instance, is sent once more; that is harmless, since a document
/// replaces the one that has its key. So that it never replaces a later one, no key stands twice in
/// a window.
class BatchLoader {
 public:
  BatchLoader(Session& session, icu::UnicodeString collection, WindowLimits limits);

  /// Takes the document and, when the window is full, delivers it. Throws what the client throws
  /// when the server cannot be reached; documents of the window may then be in the collection or
  /// not.
  void add(Document document);

  /// Delivers what is left.
  void finish();

  std::uint64_t taken() const { return taken_; }

  /// Documents that are neither taken nor refused yet.
  std::size_t pending() const { return window_.size(); }

  /// Those of the delivered windows that the server did not take, in the order of its answers; the
  /// list is emptied.
  std::vector<Refusal> takeRefusals();

 private:
  void deliver();
  void deliverOnce();
  void queue(const Document& document);
  void collect();
  void giveUp();
  void settle(const tq::comm::ParseResult& result);

  Session& session_;
  icu::UnicodeString collection_;
  WindowLimits limits_;

  // What has not been answered yet, in the order of the input.
  std::list<Document> window_;
  std::unordered_map<std::string, std::list<Document>::iterator> byKey_;
  std::size_t windowBytes_ = 0;

  std::uint64_t taken_ = 0;
  std::vector<Refusal> refusals_;
};

/// Loads every document of `input`, reports each refusal as it comes and the sums at the end.
ExitCode loadDocuments(Session& session, const std::string& collection, std::istream& input,
                       WindowLimits limits = {});

}  // namespace corvane
