#pragma once

#include <unicode/unistr.h>

#include "infra/oss/kruBaseException.h"
#include "infra/oss/kruExport.h"

namespace tq::oss {

/// A connection could not be made, or broke. The first message has the id "TQ_ERR_SOCKET", the
/// operating system's own words as its text, and two arguments: what was being done ("connect to
/// db1 port 8080") and the system's error number. Calls on one object must not overlap; different
/// objects are independent.
class KRU_EXPORT SocketException : public BaseException {
 public:
  SocketException();
  explicit SocketException(const MessageList& messages);
  /// The text is the system's for `errorNumber` (an errno value).
  SocketException(const icu::UnicodeString& what, int errorNumber);
  /// For failures that have words of their own, such as those of name resolution.
  SocketException(const icu::UnicodeString& what, int errorNumber, const icu::UnicodeString& text);
  SocketException(const SocketException& other);
  SocketException& operator=(const SocketException& other);
  ~SocketException() override;

  /// "oss::SocketException".
  const char* name() const noexcept override;

  /// The errno value, or the resolver's (negative) code; 0 when none was given.
  int getErrorNumber() const noexcept { return errorNumber_; }

 private:
  int errorNumber_ = 0;
};

/// The time that was allowed for a wait is over. Nothing that had arrived is lost, and the
/// connection is still there; whether it is worth keeping is the caller's decision.
class KRU_EXPORT SocketTimeoutException : public SocketException {
 public:
  /// The error number is ETIMEDOUT.
  explicit SocketTimeoutException(const icu::UnicodeString& what);
  SocketTimeoutException(const SocketTimeoutException& other);
  SocketTimeoutException& operator=(const SocketTimeoutException& other);
  ~SocketTimeoutException() override;

  /// "oss::SocketTimeoutException".
  const char* name() const noexcept override;
};

/// The wait hook gave a wait up. Nothing that had arrived is lost, and the connection is still
/// there, but the operation is not done; whether part of it is cannot be told.
class KRU_EXPORT SocketCancelledException : public SocketException {
 public:
  /// The error number is ECANCELED.
  explicit SocketCancelledException(const icu::UnicodeString& what);
  SocketCancelledException(const SocketCancelledException& other);
  SocketCancelledException& operator=(const SocketCancelledException& other);
  ~SocketCancelledException() override;

  /// "oss::SocketCancelledException".
  const char* name() const noexcept override;
};

}  // namespace tq::oss
