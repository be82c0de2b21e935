#pragma once

#include <cstddef>
#include <vector>

#include "infra/oss/kruExport.h"
#include "infra/oss/kruMessage.h"

namespace tq::oss {

/// Messages in the order in which they were added, the most important one first. A value: copies
/// share nothing. Calls on one object must not overlap.
class KRU_EXPORT MessageList {
 public:
  using const_iterator = std::vector<Message>::const_iterator;
  using iterator = std::vector<Message>::iterator;

  MessageList();
  MessageList(const MessageList& other);
  MessageList(MessageList&& other) noexcept;
  MessageList& operator=(const MessageList& other);
  MessageList& operator=(MessageList&& other) noexcept;
  ~MessageList();

  void add(const Message& message);
  /// Appends copies of the other list's messages; a list joined with itself doubles.
  void join(const MessageList& other);
  void clear() noexcept;

  bool empty() const noexcept { return messages_.empty(); }
  std::size_t size() const noexcept { return messages_.size(); }
  /// The first message; an empty message when there is none. Valid until the list is changed or
  /// destroyed.
  const Message& front() const;

  iterator begin() noexcept { return messages_.begin(); }
  iterator end() noexcept { return messages_.end(); }
  const_iterator begin() const noexcept { return messages_.begin(); }
  const_iterator end() const noexcept { return messages_.end(); }

 private:
  std::vector<Message> messages_;
};

}  // namespace tq::oss
