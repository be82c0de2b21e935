#include "tests/comm/encodesInStaticConstructor.h"

#include <unicode/rep.h>
#include <unistd.h>

#include <typeinfo>

#include "comm/kruRESTMessage.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruMessageList.h"

namespace tq::test {

std::string encodedDocument() {
  tq::util::ExtendedProperties properties;
  properties.putProperty(comm::StaticDefs::PARAM_LANGUAGE,
                         comm::StaticDefs::PARAM_DEFAULT_LANGUAGE);
  comm::ClientRequest request;
  request.buildRequest(u"c1", comm::ClientRequest::ADD_DOCUMENT, properties);
  request.setContent({{u"title", u"one"}}, "content", 7);
  request.setDocKey("key", 3);
  comm::RESTMessage message(u"host", request);
  return std::string(message.getSerializedHeader())
      .append(message.getMsgPrefix(), message.getMsgPrefixLen())
      .append(message.getMsgBody(), message.getMsgBodyLength());
}

namespace {

struct EarlyHost {
  EarlyHost() {
    comm::RESTMessage::initUrls();
    document = encodedDocument();
  }
  // It was built before the objects that the library makes at their first use, and ends after them.
  ~EarlyHost() {
    const icu::Replaceable& id = oss::MessageList().front().getMessageId();
    if (typeid(id) != typeid(icu::UnicodeString)) ::_exit(1);
  }
  EarlyHost(const EarlyHost&) = delete;
  EarlyHost& operator=(const EarlyHost&) = delete;
  std::string document;
} const kEarlyHost;

}  // namespace

const std::string& documentEncodedBeforeMain() { return kEarlyHost.document; }

}  // namespace tq::test
