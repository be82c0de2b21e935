#include "capi/kruFailure.h"

#include <algorithm>
#include <array>
#include <exception>
#include <new>

#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruStaticDefs.h"
#include "infra/oss/kruConverter.h"

namespace tq::capi {

namespace {

using tq::comm::StaticDefs;
using tq::oss::Converter;

constexpr char kOutOfMemoryId[] = "TQ_ERR_OUT_OF_MEMORY";

void setId(kru_error& report, std::string_view id) noexcept {
  addText(report.id, sizeof report.id, report.id_length, id);
}

void addMessage(kru_error& report, std::string_view text) noexcept {
  addText(report.message, sizeof report.message, report.message_length, text);
}

void addMessage(kru_error& report, const icu::UnicodeString& text) noexcept {
  if (text.isEmpty()) return;
  if (report.message_length != 0) addMessage(report, std::string_view(": "));
  addText(report.message, sizeof report.message, report.message_length, text);
}

struct Meaning {
  const icu::UnicodeString& id;
  std::int32_t code;
};

/// The library says where it raised a failure, but for three ids. Whatever else has no place is in
/// the server's own words, which may spell an id of the library's.
bool isTheServers(const tq::oss::Message& message) noexcept {
  const icu::UnicodeString& id = message.getMessageId();
  return message.getFileName() == nullptr && !id.isEmpty() &&
         id != StaticDefs::ERR_SERVER_INVALID_AUTH && id != StaticDefs::ERR_SERVER_PROTOCOL &&
         id != StaticDefs::ERR_CLIENT_RESP_PARSING;
}

/// What no message of the library's begins with is the server's own.
std::int32_t codeOf(const icu::UnicodeString& id) noexcept {
  const std::array meanings = {
      Meaning{StaticDefs::ERR_CONNECT_SERVER, KRU_CONNECT},
      Meaning{StaticDefs::ERR_SERVER_COMM_SEND, KRU_SEND},
      Meaning{StaticDefs::ERR_SERVER_COMM_RECV, KRU_RECEIVE},
      Meaning{StaticDefs::ERR_SERVER_COMM_TIMEOUT, KRU_TIMEOUT},
      Meaning{StaticDefs::ERR_CLIENT_CANCELLED, KRU_CANCELLED},
      Meaning{StaticDefs::ERR_SERVER_INVALID_AUTH, KRU_UNAUTHORIZED},
      Meaning{StaticDefs::ERR_SERVER_PROTOCOL, KRU_PROTOCOL},
      Meaning{StaticDefs::ERR_CLIENT_RESP_PARSING, KRU_PROTOCOL},
      Meaning{StaticDefs::ERR_CLIENT_INTERNAL, KRU_INTERNAL},
      Meaning{StaticDefs::ERR_INVALID_STATE, KRU_MISUSE},
  };
  for (const Meaning& meaning : meanings) {
    if (id == meaning.id) return meaning.code;
  }
  if (id == u"TQ_ERR_OUT_OF_MEMORY") return KRU_OUT_OF_MEMORY;
  // A record that cannot be what it should be.
  if (id == u"TQ_ERR_PROPERTY_MISSING" || id == u"TQ_ERR_PROPERTY_NUMBER") return KRU_PROTOCOL;
  return id.isEmpty() || id.startsWith(u"TQ_ERR_", 7) ? KRU_INTERNAL : KRU_REFUSED;
}

void describe(kru_error& report, const tq::oss::MessageList& messages) noexcept {
  const icu::UnicodeString& id = messages.front().getMessageId();
  report.code = isTheServers(messages.front()) ? KRU_REFUSED : codeOf(id);
  addText(report.id, sizeof report.id, report.id_length, id);
  for (const auto& message : messages) addMessage(report, message.getMessageText());
  if (report.message_length != 0 || messages.front().getArguments().size() != 1) return;
  // Failures that are older than the texts have their reason as their one argument.
  addMessage(report, messages.front().getArguments().front());
}

}  // namespace

void describe(kru_error& report, const Failure& failure) noexcept {
  report.code = failure.code;
  setId(report, kru_code_name(failure.code));
  addMessage(report, std::string_view(failure.what));
  if (failure.why[0] != '\0') addMessage(report, std::string_view(" "));
  addMessage(report, std::string_view(failure.why));
}

kru_error noError() noexcept {
  kru_error error;
  std::memset(&error, 0, sizeof error);
  error.size = sizeof error;
  return error;
}

void addText(char* text, std::size_t room, std::uint32_t& length, std::string_view ascii) noexcept {
  const std::size_t count = std::min(ascii.size(), room - 1 - length);
  std::memcpy(text + length, ascii.data(), count);
  length += static_cast<std::uint32_t>(count);
  text[length] = '\0';
}

void addText(char* text, std::size_t room, std::uint32_t& length,
             const icu::UnicodeString& addition) noexcept {
  for (std::int32_t i = 0; i < addition.length();) {
    const std::int32_t next = addition.moveIndex32(i, 1);
    // Only looks at the text it is a part of.
    const icu::UnicodeString character = addition.tempSubString(i, next - i);
    if (Converter::utf8Length(character) > room - 1 - length) break;
    length += static_cast<std::uint32_t>(Converter::writeUTF8(character, text + length));
    i = next;
  }
  text[length] = '\0';
}

void describeCurrentException(kru_error& report) noexcept {
  try {
    throw;
  } catch (const Failure& failure) {
    describe(report, failure);
  } catch (const tq::oss::BaseException& e) {
    describe(report, e.getMessageList());
  } catch (const std::bad_alloc&) {
    report.code = KRU_OUT_OF_MEMORY;
    setId(report, kOutOfMemoryId);
  } catch (const std::exception& e) {
    report.code = KRU_INTERNAL;
    setId(report, "ERR_CLIENT_INTERNAL");
    addMessage(report, std::string_view(e.what()));
  } catch (...) {
    report.code = KRU_INTERNAL;
    setId(report, "ERR_CLIENT_INTERNAL");
  }
}

void nameServer(kru_error& report, const tq::comm::CorvaneRESTClient& client) noexcept {
  addText(report.host, sizeof report.host, report.host_length, client.getHost());
  report.port = client.getPort();
}

}  // namespace tq::capi

const char* kru_code_name(int32_t code) {
  switch (code) {
    case KRU_OK:
      return "KRU_OK";
    case KRU_END:
      return "KRU_END";
    case KRU_MISUSE:
      return "KRU_MISUSE";
    case KRU_OUT_OF_MEMORY:
      return "KRU_OUT_OF_MEMORY";
    case KRU_CONNECT:
      return "KRU_CONNECT";
    case KRU_SEND:
      return "KRU_SEND";
    case KRU_RECEIVE:
      return "KRU_RECEIVE";
    case KRU_TIMEOUT:
      return "KRU_TIMEOUT";
    case KRU_CANCELLED:
      return "KRU_CANCELLED";
    case KRU_REFUSED:
      return "KRU_REFUSED";
    case KRU_UNAUTHORIZED:
      return "KRU_UNAUTHORIZED";
    case KRU_PROTOCOL:
      return "KRU_PROTOCOL";
    case KRU_INTERNAL:
      return "KRU_INTERNAL";
    case KRU_TRUNCATED:
      return "KRU_TRUNCATED";
    case KRU_CURSOR_LOST:
      return "KRU_CURSOR_LOST";
    case KRU_UNSUPPORTED:
      return "KRU_UNSUPPORTED";
    default:
      return "";
  }
}
