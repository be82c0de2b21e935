#pragma once

#include <unicode/unistr.h>

#include "infra/oss/kruMessage.h"
#include "infra/oss/kruMessageList.h"

namespace tq::comm {

/// What a failure says beside its id and its place. A raise site fills it in one expression:
///
///     fail(id, Details(u"the reply exceeds the limit").server(host_, port_));
class Details {
 public:
  Details() = default;
  /// The reason becomes the text of the message: it tells failures of one id apart. Arguments
  /// belong to programs, which know them by their position, so a reason is never one of them.
  Details(const char16_t* reason);
  Details& argument(const icu::UnicodeString& argument);
  /// Adds the server's host and port as arguments.
  Details& server(const icu::UnicodeString& host, unsigned int port);
  /// The first of these messages, if there is one, follows the failure's own message.
  Details& cause(const tq::oss::MessageList& messages);

 private:
  friend class Raiser;

  tq::oss::Message message_;
  tq::oss::MessageList cause_;
};

/// Raises the failures of one source file as RESTExceptions. The source has one at file scope, so
/// that a raise site names neither file nor line and cannot forget them:
///
///     constexpr Raiser fail("kruRESTResponse");
///     if (length < 4) fail(StaticDefs::ERR_CLIENT_RESP_PARSING, u"the record has no length");
class Raiser {
 public:
  /// `file` is a literal. Null is for failures that callers know by their having no position; these
  /// have no line either.
  constexpr explicit Raiser(const char* file) noexcept : file_(file) {}

  /// `line` is given only where support tools know a failure by a line that never changes.
  [[noreturn]] void operator()(const icu::UnicodeString& id, Details details = {},
                               unsigned long line = __builtin_LINE()) const;

  /// The message of such a failure, for an exception that carries more than that.
  tq::oss::Message message(const icu::UnicodeString& id, Details details = {},
                           unsigned long line = __builtin_LINE()) const;

 private:
  const char* file_;
};

/// Throws a fresh RESTException that carries these messages.
[[noreturn]] void rethrow(const tq::oss::MessageList& messages);

}  // namespace tq::comm
