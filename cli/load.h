#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
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
/// then the server's results for it are collected. Each loader asks for its own by a name that no
/// other has. A server that does not look at the name keeps the results for the collection, so
/// another client that loads into it may take them, and some that arrive here may be about another
/// client's document of the same key. Therefore
/// documents that no result names are queued again while that settles some of them, and the last
/// ones, like those that a result refuses, are added by requests with answers of their own. Sending
/// a document again does no harm: it replaces the one that has its key. So that it never replaces a
/// later one, no key stands twice in a window.
///
/// Where the index is updated while the load goes on, it may refuse a document of any window
/// before. Only a server that looks at the name tells that at all.
class BatchLoader {
 public:
  /// `changed` is called when a window is about to be sent and when results have come.
  BatchLoader(Session& session, icu::UnicodeString collection, WindowLimits limits,
              std::function<void()> changed);

  /// Takes the document and, when the window is full, delivers it. Throws what the client throws
  /// when the server cannot be reached; documents of the window may then be in the collection or
  /// not.
  void add(Document document);

  /// Delivers what is left, and asks once more what the index has refused.
  void finish();

  /// Without those that the index has refused since.
  std::uint64_t taken() const;

  /// What this load is called where several share a collection.
  const icu::UnicodeString& client() const { return client_; }

  /// Documents that have been sent and are neither taken nor refused yet.
  std::size_t pending() const;

  /// The documents that the server has refused since the last call.
  std::vector<Refusal> takeRefusals();

 private:
  struct Entry {
    Document document;
    bool accepted = false;
    bool refused = false;
    /// By the index, before it was known to be taken.
    bool leftOut = false;
  };
  using Entries = std::list<Entry>;

  void deliver();
  void deliverOnce();
  void queue(const Document& document);
  void collect();
  void note(const tq::comm::ParseResult& result);
  void noteLeftOut(const tq::comm::ParseResult& result);
  void settle();
  void countTaken(const Entry& entry);
  void confirm();
  bool isTaken(const Document& document);

  Session& session_;
  icu::UnicodeString collection_;
  const icu::UnicodeString client_;
  WindowLimits limits_;
  std::function<void()> changed_;

  // What has not been settled yet, in the order of the input.
  Entries window_;
  std::unordered_map<std::string, Entries::iterator> byKey_;
  std::size_t windowBytes_ = 0;
  bool sent_ = false;

  // Named by a result that refuses it, perhaps another client's.
  Entries disputed_;

  std::uint64_t taken_ = 0;
  // Keys of documents that the index has refused, each until another one of the same key is sent,
  // and how many of the documents had been taken.
  std::unordered_set<std::string> leftOut_;
  std::uint64_t takenAndLeftOut_ = 0;
  // Whether the server has not been asked since the last window.
  bool mayHaveMore_ = false;
  std::vector<Refusal> refusals_;
};

struct LoadArguments {
  std::string collection;
  /// How many refusals end the load; nothing: however many there are, it goes on.
  std::optional<std::uint64_t> maxErrors;
  /// Make the documents searchable at the end.
  bool update = false;
  WindowLimits limits{};
};

/// Loads every document of `input`, reports each refusal as it comes and the sums at the end.
ExitCode loadDocuments(Session& session, const LoadArguments& arguments, std::istream& input);

}  // namespace corvane
