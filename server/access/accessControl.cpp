#include "server/access/accessControl.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sodium.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace corvaned {
namespace {

// Argon2id: three passes over 16 MiB. More memory would be a lever for whoever sends wrong
// passwords; they are checked one at a time.
constexpr unsigned long long kHashPasses = 3;
constexpr std::size_t kHashMemory = std::size_t{16} << 20U;
constexpr std::size_t kSecretBytes = 32;
// How many right answers and how many wrong ones are remembered. Guesses must not take all memory.
constexpr std::size_t kMaxRemembered = 10000;
constexpr std::size_t kMaxAuthorization = 4096;

void startSodium() {
  if (sodium_init() < 0) throw std::runtime_error("the cryptographic library does not start");
}

// Each "*" of the pattern stands for any text, the empty one included. What stands between two of
// them can be taken where it comes first, since that leaves most for the rest. So nothing is tried
// twice, whatever a client calls its collection.
bool matches(std::string_view pattern, std::string_view name) {
  std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return pattern == name;
  if (!name.starts_with(pattern.substr(0, star))) return false;
  name.remove_prefix(star);
  for (;;) {
    pattern.remove_prefix(star + 1);
    star = pattern.find('*');
    if (star == std::string_view::npos) return name.ends_with(pattern);
    const std::size_t found = name.find(pattern.substr(0, star));
    if (found == std::string_view::npos) return false;
    name.remove_prefix(found + star);
  }
}

bool isCorrect(const std::string& hash, std::string_view secret) {
  return crypto_pwhash_str_verify(hash.c_str(), secret.data(), secret.size()) == 0;
}

// A name that nobody has must take as long to refuse as a wrong password.
const std::string& hashOfNobody() {
  static const std::string hash = hashOf(freshSecret());
  return hash;
}

struct Claim {
  bool token = false;
  std::string name;
  std::string secret;
};

std::optional<Claim> split(std::string_view text, char separator, bool token) {
  const std::size_t at = text.find(separator);
  if (at == std::string_view::npos) return std::nullopt;
  return Claim{token, std::string(text.substr(0, at)), std::string(text.substr(at + 1))};
}

std::optional<std::string> decoded(std::string_view base64) {
  std::string bytes(base64.size(), '\0');
  std::size_t size = 0;
  const int failed =
      sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), base64.data(),
                        base64.size(), nullptr, &size, nullptr, sodium_base64_VARIANT_ORIGINAL);
  if (failed != 0) return std::nullopt;
  bytes.resize(size);
  return bytes;
}

std::optional<Claim> claimOf(std::string_view authorization) {
  constexpr std::string_view kBasic = "Basic ";
  constexpr std::string_view kBearer = "Bearer ";
  if (authorization.size() > kMaxAuthorization) return std::nullopt;
  if (authorization.starts_with(kBearer)) {
    return split(authorization.substr(kBearer.size()), '.', true);
  }
  if (!authorization.starts_with(kBasic)) return std::nullopt;
  const auto text = decoded(authorization.substr(kBasic.size()));
  return text ? split(*text, ':', false) : std::nullopt;
}

[[noreturn]] void failOn(const std::filesystem::path& file, const std::string& what) {
  throw std::runtime_error(file.string() + ": " + what);
}

std::ifstream openPrivate(const std::filesystem::path& file) {
  struct stat facts {};
  if (::stat(file.c_str(), &facts) != 0) {
    failOn(file, std::generic_category().message(errno));
  }
  if ((facts.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    failOn(file, "others than its owner can read or change this file of users; \"chmod 600\" it");
  }
  std::ifstream stream(file);
  if (!stream) failOn(file, "the file of users cannot be read");
  return stream;
}

/// What a users file is to become. Only one program at a time has it: whoever comes meanwhile waits
/// until it has been put in place, and reads the file after that.
class Replacement {
 public:
  explicit Replacement(const std::filesystem::path& file)
      : file_(file), passing_(file.string() + ".new") {
    do {
      close();
      descriptor_ =
          ::open(passing_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
      if (descriptor_ < 0) fail(passing_);
      while (::flock(descriptor_, LOCK_EX) != 0) {
        if (errno != EINTR) fail(passing_);
      }
    } while (!isInPlace());
  }
  ~Replacement() {
    if (!finished_) ::unlink(passing_.c_str());
    close();
  }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  // Renamed into place, so that the file is never half written and never readable by others.
  void finish(std::string_view text) {
    const bool written =
        ::ftruncate(descriptor_, 0) == 0 &&
        ::write(descriptor_, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        ::fsync(descriptor_) == 0;
    if (!written) fail(passing_);
    std::filesystem::rename(passing_, file_);
    finished_ = true;
    // What is printed now has to be known after a power failure, too.
    syncDirectory();
  }

 private:
  [[noreturn]] void fail(const std::filesystem::path& path) const {
    failOn(path, std::generic_category().message(errno));
  }

  // Whoever had the lock before has renamed the file that was opened here.
  bool isInPlace() const {
    struct stat mine {};
    struct stat now {};
    if (::fstat(descriptor_, &mine) != 0) fail(passing_);
    return ::stat(passing_.c_str(), &now) == 0 && mine.st_ino == now.st_ino &&
           mine.st_dev == now.st_dev;
  }

  void syncDirectory() const {
    const std::filesystem::path directory = std::filesystem::absolute(file_).parent_path();
    const int opened = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool synced = opened >= 0 && ::fsync(opened) == 0;
    const int reason = errno;
    if (opened >= 0) ::close(opened);
    if (!synced) failOn(directory, std::generic_category().message(reason));
  }

  void close() {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  }

  const std::filesystem::path file_;
  const std::filesystem::path passing_;
  int descriptor_ = -1;
  bool finished_ = false;
};

/// One line of the file, taken apart.
struct Line {
  std::string kind, name, third, fourth;

  explicit Line(std::string text) {
    text = text.substr(0, text.find('#'));
    std::istringstream words(text);
    std::string fifth;
    words >> kind >> name >> third >> fourth >> fifth;
    tooLong = !fifth.empty();
  }
  bool blank() const { return kind.empty(); }
  bool account() const { return (kind == "user" || kind == "token") && fourth.empty(); }
  bool grant() const { return kind == "allow" && !fourth.empty(); }
  bool wellFormed() const { return !tooLong && !third.empty() && (account() || grant()); }

  bool tooLong = false;
};

/// The lines of the file as far as they are read.
struct Draft {
  struct Account {
    bool token = false;
    std::string hash;
  };
  std::map<std::string, Account, std::less<>> accounts;
  std::map<std::string, std::vector<Identity::Grant>, std::less<>> grants;

  // What is wrong with the line; empty if nothing is.
  std::string take(const Line& line) {
    if (!line.wellFormed()) {
      return "expected \"user NAME HASH\", \"token NAME HASH\" or \"allow NAME RIGHT PATTERN\"";
    }
    if (!isAccountName(line.name)) return "a name has letters, digits, \"_\", \"-\" and \"@\"";
    if (line.account()) {
      const Account account{line.kind == "token", line.third};
      return accounts.emplace(line.name, account).second ? "" : "the name stands here twice";
    }
    const auto right = rightNamed(line.third);
    if (!right) return "the right must be \"read\", \"write\" or \"admin\"";
    grants[line.name].push_back({*right, line.fourth});
    return {};
  }
};

}  // namespace

std::string_view nameOf(Right right) {
  switch (right) {
    case Right::Read:
      return "read";
    case Right::Write:
      return "write";
    case Right::Admin:
      break;
  }
  return "admin";
}

std::optional<Right> rightNamed(std::string_view name) {
  for (const Right right : {Right::Read, Right::Write, Right::Admin}) {
    if (name == nameOf(right)) return right;
  }
  return std::nullopt;
}

bool Identity::may(Right right, std::optional<std::string_view> collection) const {
  return std::any_of(grants_.begin(), grants_.end(), [&](const Grant& grant) {
    if (grant.right < right) return false;
    return collection ? matches(grant.pattern, *collection) : grant.pattern == "*";
  });
}

std::string hashOf(std::string_view secret) {
  startSodium();
  std::array<char, crypto_pwhash_STRBYTES> hash{};
  if (crypto_pwhash_str(hash.data(), secret.data(), secret.size(), kHashPasses, kHashMemory) != 0) {
    throw std::runtime_error("there is not enough memory to hash a password");
  }
  return hash.data();
}

bool isAccountName(std::string_view name) {
  return !name.empty() && name.size() <= 64 && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '@';
  });
}

std::string freshSecret() {
  startSodium();
  std::array<unsigned char, kSecretBytes> bytes{};
  randombytes_buf(bytes.data(), bytes.size());
  constexpr int kVariant = sodium_base64_VARIANT_URLSAFE_NO_PADDING;
  std::string text(sodium_base64_ENCODED_LEN(kSecretBytes, kVariant), '\0');
  sodium_bin2base64(text.data(), text.size(), bytes.data(), bytes.size(), kVariant);
  // The length counts the zero at the end.
  text.pop_back();
  return text;
}

AccessControl::AccessControl(std::filesystem::path file) : file_(std::move(file)) {
  startSodium();
  randombytes_buf(key_.data(), key_.size());
  hashOfNobody();
  reload();
}

void AccessControl::reload() {
  auto accounts = std::make_shared<const Accounts>(read(file_));
  const std::lock_guard lock(mutex_);
  accounts_ = std::move(accounts);
  proved_.clear();
  refused_.clear();
}

AccessControl::Accounts AccessControl::read(const std::filesystem::path& file) {
  std::ifstream stream = openPrivate(file);
  Draft draft;
  std::size_t number = 0;
  for (std::string text; std::getline(stream, text);) {
    ++number;
    const Line line(text);
    if (line.blank()) continue;
    const std::string wrong = draft.take(line);
    if (!wrong.empty()) failOn(file, fmt::format("line {}: {}", number, wrong));
  }
  Accounts accounts;
  for (const auto& [name, account] : draft.accounts) {
    accounts[name] = {account.token, account.hash,
                      std::make_shared<const Identity>(name, draft.grants[name])};
  }
  for (const auto& [name, grants] : draft.grants) {
    if (!accounts.contains(name)) failOn(file, "\"allow " + name + "\" names no account");
  }
  return accounts;
}

std::optional<std::shared_ptr<const Identity>> AccessControl::remembered(
    std::string_view authorization) const {
  if (authorization.empty()) return std::shared_ptr<const Identity>();
  const Digest digest = digestOf(authorization);
  {
    const std::lock_guard lock(mutex_);
    for (const Answers* answers : {&proved_, &refused_}) {
      const auto found = answers->find(digest);
      if (found != answers->end()) return found->second;
    }
  }
  if (claimOf(authorization)) return std::nullopt;
  return std::shared_ptr<const Identity>();
}

void AccessControl::check(std::string_view authorization) {
  std::shared_ptr<const Accounts> accounts;
  {
    const std::lock_guard lock(mutex_);
    accounts = accounts_;
  }
  std::shared_ptr<const Identity> identity = prove(*accounts, authorization);
  const Digest digest = digestOf(authorization);
  const std::lock_guard lock(mutex_);
  if (accounts != accounts_) return;
  Answers& answers = identity ? proved_ : refused_;
  // Digests are as good as random, so nobody can choose which one has to go, and each is as likely.
  if (answers.size() >= kMaxRemembered) {
    const auto next = answers.lower_bound(digest);
    answers.erase(next != answers.end() ? next : answers.begin());
  }
  answers[digest] = std::move(identity);
}

std::shared_ptr<const Identity> AccessControl::prove(const Accounts& accounts,
                                                     std::string_view authorization) {
  const std::optional<Claim> claim = claimOf(authorization);
  if (!claim) return nullptr;
  const auto found = accounts.find(claim->name);
  const bool known = found != accounts.end() && found->second.token == claim->token;
  const bool correct = isCorrect(known ? found->second.hash : hashOfNobody(), claim->secret);
  return known && correct ? found->second.identity : nullptr;
}

// The key is made at random when the server starts, so nobody can choose what meets in the map, and
// what somebody said is not kept.
AccessControl::Digest AccessControl::digestOf(std::string_view authorization) const {
  Digest digest{};
  crypto_generichash(digest.data(), digest.size(),
                     reinterpret_cast<const unsigned char*>(authorization.data()),
                     authorization.size(), key_.data(), key_.size());
  return digest;
}

void putAccount(const std::filesystem::path& file, bool token, const std::string& name,
                std::string_view secret, const std::vector<Identity::Grant>& grants,
                const std::function<void()>& beforeItCounts) {
  if (!isAccountName(name)) {
    throw std::runtime_error("a name has 1 to 64 letters, digits, \"_\", \"-\" and \"@\"");
  }
  Replacement replacement(file);
  std::string text;
  if (std::filesystem::exists(file)) {
    std::ifstream stream = openPrivate(file);
    for (std::string line; std::getline(stream, line);) {
      const Line facts(line);
      // New grants take the place of the old ones.
      const bool replaced =
          facts.name == name && (facts.account() || (facts.grant() && !grants.empty()));
      if (!replaced) text += line + "\n";
    }
  }
  text += fmt::format("{} {} {}\n", token ? "token" : "user", name, hashOf(secret));
  for (const Identity::Grant& grant : grants) {
    text += fmt::format("allow {} {} {}\n", name, nameOf(grant.right), grant.pattern);
  }
  if (beforeItCounts) beforeItCounts();
  replacement.finish(text);
}

}  // namespace corvaned
