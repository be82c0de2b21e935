#include "cli/credentials.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "cli/errors.h"
#include "cli/settings.h"
#include "cli/text.h"
#include "infra/util/kruBase64.h"

namespace corvane {

namespace {

constexpr const char* kEnvironment = "CORVANE_CREDENTIALS";
constexpr std::size_t kLongest = 4096;

// What is not a file, as the pipe that a shell makes for "<(...)", is only seen by whom it is for.
void requirePrivate(const std::string& path) {
  struct stat facts {};
  if (::stat(path.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode)) return;
  if ((facts.st_mode & (S_IRWXG | S_IRWXO)) == 0) return;
  throw OperationError("others than its owner can read or change " + path + "; \"chmod 600\" it");
}

std::string firstLineOf(const std::string& path) {
  requirePrivate(path);
  std::ifstream file(path, std::ios::binary);
  std::string line(kLongest + 1, '\0');
  file.read(line.data(), static_cast<std::streamsize>(line.size()));
  if (!file.is_open() || file.bad() || (file.fail() && !file.eof())) {
    throw OperationError("cannot read " + path + "; check that it is a file that you may read");
  }
  line.resize(static_cast<std::size_t>(file.gcount()));
  line.resize(std::min(line.find('\n'), line.size()));
  if (line.ends_with('\r')) line.pop_back();
  return line;
}

std::string base64(const std::string& bytes) {
  std::string text(tq::util::Base64::encodeSize(bytes.size()), '\0');
  tq::util::Base64::encode(bytes.data(), bytes.size(), text.data());
  return text;
}

// A token is NAME.SECRET, and neither of these has a colon.
icu::UnicodeString authorizationOf(const std::string& credentials, const std::string& from) {
  if (credentials.empty()) {
    throw UsageError(from + " holds no credentials: a token, or NAME:PASSWORD, in its first line");
  }
  if (credentials.size() > kLongest) {
    throw UsageError(fmt::format("{} holds more than {} bytes in its first line", from, kLongest));
  }
  const bool hasPassword = credentials.find(':') != std::string::npos;
  return headerValue("the token in " + from,
                     hasPassword ? "Basic " + base64(credentials) : "Bearer " + credentials);
}

}  // namespace

icu::UnicodeString authorizationFrom(const std::string& file) {
  if (!file.empty()) return authorizationOf(firstLineOf(file), file);
  const char* const present = std::getenv(kEnvironment);
  if (present == nullptr) return {};
  return authorizationOf(present, kEnvironment);
}

void identify(tq::comm::ClientRequest& request, const Settings& settings) {
  if (settings.authorization.isEmpty()) return;
  request.getReqProperties().putProperty(u"authToken", settings.authorization);
}

}  // namespace corvane
