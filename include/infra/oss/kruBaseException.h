#pragma once

#include <exception>

#include "infra/oss/kruExport.h"
#include "infra/oss/kruMessageList.h"

namespace tq::oss {

/// The root of every exception that the libraries throw: a list of messages, the most important one
/// first. Thrown by value, caught by reference; a copy shares nothing with its original. Calls on
/// one object must not overlap; different objects, copies included, are independent.
class KRU_EXPORT BaseException : public std::exception {
 public:
  BaseException();
  explicit BaseException(const MessageList& messages);
  BaseException(const BaseException& other);
  BaseException& operator=(const BaseException& other);
  ~BaseException() override;

  /// What `name()` returns; the messages tell what happened.
  const char* what() const noexcept override;
  /// The class's name, "oss::BaseException" here. A string that lives as long as the library.
  virtual const char* name() const noexcept;

  const MessageList& getMessageList() const noexcept { return messages_; }
  MessageList& getMessageList() noexcept { return messages_; }

 private:
  MessageList messages_;
};

}  // namespace tq::oss
