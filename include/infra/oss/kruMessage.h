#pragma once

#include <unicode/unistr.h>

#include <optional>
#include <string>
#include <vector>

#include "infra/oss/kruExport.h"

namespace tq::oss {

/// One diagnostic: an id that programs compare, a text that people read, arguments that name what
/// it is about, a level, and the place in the source that raised it. A value: copies share nothing,
/// and everything handed in is copied. Calls on one object must not overlap.
///
/// A text or argument that ICU got no memory for is kept and reads as empty, because the message
/// still tells by its id and level what happened.
class KRU_EXPORT Message {
 public:
  /// How bad it is. The numbers are part of the interface.
  enum Level : int { LEVEL_SEVERE = 1, LEVEL_ERROR = 2, LEVEL_WARNING = 4, LEVEL_INFO = 8 };

  /// Empty id and text, no arguments, level 2, no file name, line 0.
  Message();
  Message(const icu::UnicodeString& id, const icu::UnicodeString& text, Level level = LEVEL_ERROR);
  Message(const Message& other);
  Message(Message&& other) noexcept;
  Message& operator=(const Message& other);
  Message& operator=(Message&& other) noexcept;
  ~Message();

  /// Takes over everything that `other` holds; the same as an assignment.
  void setMessage(const Message& other) { *this = other; }

  void setMessageId(const icu::UnicodeString& id) { id_ = id; }
  const icu::UnicodeString& getMessageId() const noexcept { return id_; }

  void setMessageText(const icu::UnicodeString& text) { text_ = text; }
  const icu::UnicodeString& getMessageText() const noexcept { return text_; }

  void addArgument(const icu::UnicodeString& argument);
  /// Adds one argument, "name=value". Both are UTF-8 and end at their zero byte; null reads as
  /// empty.
  void addArgument(const char* name, const char* value);
  /// Adds the number in plain decimal digits, without separators.
  void addArgument(unsigned long number);
  /// In the order in which they were added. Valid until the message is changed or destroyed.
  const std::vector<icu::UnicodeString>& getArguments() const noexcept { return arguments_; }

  void setLevel(Level level) noexcept { level_ = level; }
  Level getLevel() const noexcept { return level_; }

  /// Copies the name; null means that there is none.
  void setFileName(const char* name);
  /// Null when there is none. Valid until the next `setFileName` or the message's end.
  const char* getFileName() const noexcept { return fileName_ ? fileName_->c_str() : nullptr; }

  void setLineNumber(unsigned long line) noexcept { lineNumber_ = line; }
  unsigned long getLineNumber() const noexcept { return lineNumber_; }

 private:
  icu::UnicodeString id_;
  icu::UnicodeString text_;
  std::vector<icu::UnicodeString> arguments_;
  Level level_ = LEVEL_ERROR;
  std::optional<std::string> fileName_;
  unsigned long lineNumber_ = 0;
};

}  // namespace tq::oss
