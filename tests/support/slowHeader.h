#pragma once

#include <unicode/unistr.h>

#include <map>
#include <string>

#include "comm/kruClientRequest.h"
#include "comm/kruRESTMessage.h"

/// The header text of a request, made the slow way: through a map and ICU's own conversion, and
/// anew each time.
namespace tq::test {

inline std::string slowHeader(const comm::ClientRequest& request, const std::string& length) {
  std::map<icu::UnicodeString, icu::UnicodeString> lines;
  for (const auto& [name, value] : request.getReqProperties()) lines[name] = value;
  lines[u"Content-Length  "] = icu::UnicodeString::fromUTF8(length);
  const icu::UnicodeString action = comm::RESTMessage::getAction(request.getRequest());
  if (!action.isEmpty()) lines[u"action"] = action;
  lines[u"actionType"] = comm::RESTMessage::getActionType(request.getRequest());
  std::string text;
  for (const auto& [name, value] : lines) {
    (name == u"authToken" ? icu::UnicodeString(u"Authorization") : name).toUTF8String(text);
    text += ": ";
    value.toUTF8String(text);
    text += "\n";
  }
  return text + "\r\n";
}

/// What a message of the request announces as its document's length.
inline std::string announcedLength(const comm::ClientRequest& request,
                                   const comm::RESTMessage& message) {
  if (request.getRequest() == comm::ClientRequest::LAST_DOC_SENT) return "8";
  if (request.getDocKeyLen() == 0) return "";
  const unsigned int prefix = message.getMsgPrefixLen();
  return std::to_string(prefix == 0 ? 0 : prefix + message.getMsgBodyLength());
}

}  // namespace tq::test
