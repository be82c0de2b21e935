#pragma once

#include <unicode/unistr.h>

namespace tq::oss {
class MessageList;
}

namespace tq::comm {

/// Throws a RESTException with one message of the given id. `file` is the name of the source, not
/// copied, so a literal; null and 0 where callers know the message by having no position.
[[noreturn]] void raise(const icu::UnicodeString& id, const char* file = nullptr,
                        unsigned long line = 0);

/// With one argument that says what is wrong.
[[noreturn]] void raise(const icu::UnicodeString& id, const char* file, unsigned long line,
                        const icu::UnicodeString& argument);

/// The same, followed by the first of the messages that tell the cause, if there is one.
[[noreturn]] void raise(const icu::UnicodeString& id, const char* file, unsigned long line,
                        const icu::UnicodeString& argument, const tq::oss::MessageList& cause);

/// With the server's host and port as arguments.
[[noreturn]] void raise(const icu::UnicodeString& id, const char* file, unsigned long line,
                        const icu::UnicodeString& host, unsigned int port);

/// The same, followed by the first of the messages that tell the cause, if there is one.
[[noreturn]] void raise(const icu::UnicodeString& id, const char* file, unsigned long line,
                        const icu::UnicodeString& host, unsigned int port,
                        const tq::oss::MessageList& cause);

/// Throws a fresh RESTException that carries these messages.
[[noreturn]] void rethrow(const tq::oss::MessageList& messages);

}  // namespace tq::comm
