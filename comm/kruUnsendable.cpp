#include "comm/kruUnsendable.h"

#include "comm/kruRecordLengths.h"

namespace tq::comm {

const char16_t* whyUnsendable(ClientRequest& request) {
  // Neither of the two sends a document.
  if (request.getRequest() == ClientRequest::LAST_DOC_SENT) return nullptr;
  if (request.getDocKeyLen() == 0) return nullptr;
  if (request.getMetadata().empty()) {
    return u"a document key needs at least one metadata pair to be sent with";
  }
  unsigned int length = 0;
  if (request.getDocKey(length) == nullptr && length != 0) return kNullKey;
  if (length > kLengthMask) return kLongKey;
  if (request.getContentLength() > kLengthMask) return kLongContent;
  const bool hasContent = request.getContentLength() != 0;
  return hasContent && request.getContent() == nullptr ? kNullContent : nullptr;
}

}  // namespace tq::comm
