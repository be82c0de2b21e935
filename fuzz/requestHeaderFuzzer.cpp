// The header text of a request, kept and changed in between, checked against one that is made the
// slow way.
//
// Input: steps. Each begins with a byte that says what is done (its low three bits) and to how many
// of the bytes that follow; texts are taken as UTF-16.

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "comm/kruClientRequest.h"
#include "comm/kruRESTMessage.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "tests/support/slowHeader.h"

namespace tq::fuzz {

namespace {

using tq::comm::ClientRequest;
using tq::comm::RESTMessage;

class Steps {
 public:
  explicit Steps(std::string_view bytes) : bytes_(bytes) {}

  bool more() const { return !bytes_.empty(); }
  unsigned int byte() {
    if (bytes_.empty()) return 0;
    const auto value = static_cast<unsigned char>(bytes_.front());
    bytes_.remove_prefix(1);
    return value;
  }
  icu::UnicodeString text() {
    std::u16string units(std::min<std::size_t>(byte() % 64, bytes_.size() / 2), u'\0');
    std::memcpy(units.data(), bytes_.data(), 2 * units.size());
    bytes_.remove_prefix(2 * units.size());
    return {units.data(), static_cast<std::int32_t>(units.size())};
  }

 private:
  std::string_view bytes_;
};

void requireHeader(ClientRequest& request) {
  RESTMessage message(u"server", request);
  const std::string expected =
      tq::test::slowHeader(request, tq::test::announcedLength(request, message));
  const char* header = message.getSerializedHeader();
  require(std::string_view(header, expected.size()) == expected && header[expected.size()] == '\0',
          "a header says what its request holds");
}

void change(ClientRequest& request, unsigned int what, Steps& steps) {
  const auto kind = static_cast<ClientRequest::REQUEST>(what >> 3);
  switch (what & 7U) {
    case 0:
      request.buildRequest(steps.text(), kind, tq::util::ExtendedProperties());
      break;
    case 1:
      request.buildRequest(kind, request.getReqProperties());
      break;
    case 2:
      request.getReqProperties().clear();
      break;
    case 3:
      request.setDocKey("a key", what >> 6);
      break;
    case 4:
      request.setContent({{steps.text(), steps.text()}}, "content", what >> 5);
      break;
    case 5:
      request.getReqProperties().putProperty(u"authToken", steps.text());
      break;
    default: {
      icu::UnicodeString name = steps.text();
      request.getReqProperties().putProperty(std::move(name), steps.text());
    }
  }
}

}  // namespace

}  // namespace tq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tq::fuzz;
  ClientRequest request;
  request.buildRequest(u"c1", ClientRequest::STREAM_SEARCH, tq::util::ExtendedProperties());
  request.setContent({{u"name", u"value"}}, nullptr, 0);
  for (Steps steps(Input(data, size).rest()); steps.more();) {
    change(request, steps.byte(), steps);
    for (int times = 0; times < 3; ++times) requireHeader(request);
  }
  return 0;
}
