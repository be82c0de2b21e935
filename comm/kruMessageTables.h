#pragma once

#include <unicode/unistr.h>

#include <array>
#include <atomic>
#include <string>

#include "comm/kruClientRequest.h"

namespace tq::comm {

/// What all messages of the process share: the actions of the kinds and the UTF-8 forms of two
/// tags. Filled once, by whichever thread comes first, together with the conversion cache; read
/// without a lock afterwards, for the life of the process.
class MessageTables {
 public:
  /// The filled tables. Filling calls the host's trace facility, which may come back here on the
  /// same thread: it then gets the tables as far as they are filled.
  static const MessageTables& ensure() {
    const MessageTables* const tables = filled.load(std::memory_order_acquire);
    return tables != nullptr ? *tables : fillOnce();
  }

  /// Empty for a kind that has no action.
  const icu::UnicodeString& actionOf(ClientRequest::REQUEST kind) const noexcept;
  const std::string& utf8RowId() const noexcept { return utf8RowId_; }
  const std::string& utf8DocData() const noexcept { return utf8DocData_; }

  MessageTables(const MessageTables&) = delete;
  MessageTables& operator=(const MessageTables&) = delete;

 private:
  MessageTables() = default;

  static const MessageTables& fillOnce();
  void fill();
  void fillActions();

  static std::atomic<const MessageTables*> filled;

  std::array<icu::UnicodeString, ClientRequest::VERSIONS_VALIDATION + 1> actionMap_;
  std::string utf8RowId_;
  std::string utf8DocData_;
};

}  // namespace tq::comm
