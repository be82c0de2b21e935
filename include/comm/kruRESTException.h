#pragma once

#include "comm/kruGenRespRecord.h"
#include "infra/oss/kruBaseException.h"

namespace tq::comm {

/// The one exception of the library. Its message list says what happened; the first message's id is
/// an ERR_ constant of StaticDefs, or the server's own id when the server sent an error record.
///
/// `name()` and `what()` both give "oss::BaseException". Copies share nothing, so an exception may
/// outlive and be changed apart from the one it was copied from. Calls on one object must not
/// overlap; different objects are independent.
class KRU_EXPORT RESTException : public tq::oss::BaseException, public GenRespRecord {
 public:
  /// An empty message list, no property set.
  RESTException();
  /// With a property set when it is to receive a server's error record.
  explicit RESTException(bool withProperties);
  /// Carrying a copy of `messages`.
  explicit RESTException(const tq::oss::MessageList& messages);

  RESTException(const RESTException& other);
  RESTException& operator=(const RESTException& other);
  ~RESTException() override;

  /// Replaces the message list by the one message of the parsed error record ("MsgId", "MsgText").
  /// An empty "MsgId" leaves the list unchanged; a missing one throws tq::oss::NLSException, as a
  /// missing "MsgText" does.
  void reset() override;
};

}  // namespace tq::comm
