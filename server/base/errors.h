#pragma once

#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace corvaned {

/// The reasons for which the server refuses a request. Each has its own message id, see
/// messageId().
enum class ErrorKind {
  MalformedRequest,
  RequestTooLarge,
  UnknownAction,
  UnsupportedAction,
  MissingParameter,
  BadParameter,
  UnknownCollection,
  CollectionExists,
  BadCollectionName,
  BadQuery,
  QueryTooBroad,
  BadDocument,
  DocumentTooLarge,
  StorageFailed,
  DocumentsNotIndexed,
  TryAgain,
  OutOfMemory,
  Cancelled,
  TimedOut,
  Unauthorized,
  Forbidden,
  UnknownParameter,
  VersionMismatch,
  BatchRefused,
  OtherBatch,
  OtherMark,
  UnknownBatch,
  UnknownDocument,
  SnapshotGone,
  Internal,
};

/// The id that a client sees as "MsgId". Ids are part of the interface: they are listed in
/// docs/server.md and never change their meaning.
std::string_view messageId(ErrorKind kind);

/// A request that cannot be served. what() is one line of text for a person.
/// Copies share the text, also between threads, and take no memory.
class ServerError : public std::exception {
 public:
  ServerError(ErrorKind kind, const std::string& text)
      : kind_(kind), text_(std::make_shared<const std::string>(text)) {}
  // To move it would leave one without a text.
  ServerError(const ServerError&) = default;
  ServerError& operator=(const ServerError&) = default;
  ~ServerError() override = default;

  ErrorKind kind() const { return kind_; }
  const char* what() const noexcept override { return text_->c_str(); }

 private:
  ErrorKind kind_;
  std::shared_ptr<const std::string> text_;
};

/// Quotes text from outside for an error message: one printable line, at most `limit` bytes, cut
/// between characters.
std::string shown(std::string_view text, std::size_t limit = 120);

/// The same as a value in the log, where a backslash comes before each quotation mark and each
/// backslash of the text: what a client sends must not look like further values.
std::string logged(std::string_view text, std::size_t limit = 120);

/// The longest prefix of `text` that has at most `limit` bytes and does not end inside a UTF-8
/// sequence.
std::string_view cutBetweenCharacters(std::string_view text, std::size_t limit);

}  // namespace corvaned
