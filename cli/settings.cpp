#include "cli/settings.h"

#include <fmt/format.h>

#include "cli/text.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruDrestoPerfClient.h"

namespace corvane {

const char* protocolName(Protocol protocol) {
  return protocol == Protocol::Http ? "http" : "binary";
}

std::string address(const Settings& settings) {
  const bool literal = settings.host.find(':') != std::string::npos;
  return literal ? fmt::format("[{}]:{}", settings.host, settings.port)
                 : fmt::format("{}:{}", settings.host, settings.port);
}

namespace {

std::unique_ptr<tq::comm::CorvaneRESTClient> binaryClient(const icu::UnicodeString& host,
                                                          unsigned int port) {
  auto client = std::make_unique<tq::comm::DrestoPerfClient>(host, port);
  client->setReassembly(true);
  // Only queueing documents is affected: the client writes what it holds back before it waits for
  // a reply.
  client->useBufferedConnection(true);
  return client;
}

}  // namespace

std::unique_ptr<tq::comm::CorvaneRESTClient> makeClient(const Settings& settings) {
  const icu::UnicodeString host = headerValue("the host", settings.host);
  auto client = settings.protocol == Protocol::Binary
                    ? binaryClient(host, settings.port)
                    : std::make_unique<tq::comm::CorvaneRESTClient>(host, settings.port, true);
  client->setDeadline(settings.timeOut);
  // A person is told that a request may have been carried out; repeating it would report that it
  // failed for what it has done itself.
  client->setRetryUnsafe(false);
  return client;
}

}  // namespace corvane
