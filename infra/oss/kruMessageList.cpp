#include "infra/oss/kruMessageList.h"

#include <new>

namespace tq::oss {

MessageList::MessageList() = default;
MessageList::MessageList(const MessageList& other) = default;
MessageList::MessageList(MessageList&& other) noexcept = default;
MessageList& MessageList::operator=(const MessageList& other) = default;
MessageList& MessageList::operator=(MessageList&& other) noexcept = default;
MessageList::~MessageList() = default;

void MessageList::add(const Message& message) { messages_.push_back(message); }

void MessageList::join(const MessageList& other) {
  // The count is taken first and the room made, so that joining a list with itself neither runs on
  // into the new messages nor reads through a reference that growing has moved.
  const std::size_t count = other.messages_.size();
  messages_.reserve(messages_.size() + count);
  for (std::size_t i = 0; i < count; ++i) messages_.push_back(other.messages_[i]);
}

void MessageList::clear() noexcept { messages_.clear(); }

const Message& MessageList::front() const {
  // Never destroyed: objects of the host that were built before may ask while the process ends.
  alignas(Message) static unsigned char place[sizeof(Message)];
  static const Message& none = *new (place) Message;
  return messages_.empty() ? none : messages_.front();
}

}  // namespace tq::oss
