#pragma once

#include "comm/kruClientRequest.h"

namespace tq::comm {

/// Why the request's document cannot be sent, or null when it can or when there is none to send: a
/// key without metadata would send nothing, a null pointer with a length has no bytes, and the word
/// for the length of either holds 30 bits.
const char16_t* whyUnsendable(ClientRequest& request);

/// What is said of a key and of a content that are null.
inline constexpr char16_t kNullKey[] = u"the document's key is null although it has a length";
inline constexpr char16_t kNullContent[] =
    u"the document's content is null although it has a length";

/// What is said of either when it is too long.
inline constexpr char16_t kLongKey[] = u"the document's key is longer than a request can announce";
inline constexpr char16_t kLongContent[] =
    u"the document's content is longer than a request can announce";

}  // namespace tq::comm
