#pragma once

#include "infra/oss/kruDeadline.h"

namespace tq::oss {
class Socket;
}

namespace tq::comm {

/// How often and when a failed exchange is repeated. One object serves one thread.
class RetryPolicy {
 public:
  /// What is known of an attempt that has failed.
  struct Failure {
    /// The communication failed, as opposed to a refusal, a broken protocol or misuse.
    bool ofCommunication;
    /// The server may have acted on the request.
    bool mayBeApplied;
    /// Sending the request twice leaves the server as sending it once does.
    bool repeatable;
  };

  unsigned int retries = 0;
  /// Repeat as well what may have been applied and does not bear sending twice.
  bool retryUnsafe = true;
  /// MILLISECONDS; 0 for no pause.
  unsigned int firstPause = 0;
  unsigned int longestPause = 0;

  /// True when a failed attempt may be repeated, unless the retries are used up.
  bool allows(const Failure& failure) const noexcept;

  /// Pauses before the attempt of this number, from 1 on, and no longer than until the deadline.
  /// The wait is the socket's: a hook takes part in it. Throws tq::oss::SocketException.
  void pauseBefore(unsigned int attempt, tq::oss::Socket& socket,
                   const tq::oss::Deadline& deadline) const;
};

}  // namespace tq::comm
