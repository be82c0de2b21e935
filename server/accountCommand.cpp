#include "server/accountCommand.h"

#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "server/access/accessControl.h"
#include "server/printedOutput.h"

namespace corvaned {
namespace {

constexpr std::size_t kMaxPassword = 1024;
constexpr int kFailed = 1;
constexpr int kMisused = 2;

/// Arguments that can never be right.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Account {
  std::string name;
  std::string users;
  std::vector<std::string> allowed;
  int passwordDescriptor = STDIN_FILENO;
};

volatile sig_atomic_t interrupted = 0;

void noteInterruption(int) { interrupted = 1; }

/// What is typed at the terminal is not shown while this object exists. A signal that would end the
/// program, and leave a terminal that shows nothing any more, ends the waiting instead.
class HiddenInput {
 public:
  explicit HiddenInput(int terminal) : terminal_(terminal) {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : kEnding) sigaddset(&ending, signal);
    ::sigprocmask(SIG_BLOCK, &ending, &mask_);
    struct sigaction noted {};
    noted.sa_handler = noteInterruption;
    for (std::size_t i = 0; i < kEnding.size(); ++i) {
      ::sigaction(kEnding[i], &noted, &actions_[i]);
      // Whoever started the program wants it to go on.
      if (actions_[i].sa_handler == SIG_IGN) ::sigaction(kEnding[i], &actions_[i], nullptr);
    }
    ::tcgetattr(terminal_, &before_);
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    // A program that is stopped leaves the terminal as it is, and some shells make it show again
    // what is typed once the program goes on.
    silent.c_cc[VSUSP] = _POSIX_VDISABLE;
    ::tcsetattr(terminal_, TCSAFLUSH, &silent);
  }
  ~HiddenInput() {
    ::tcsetattr(terminal_, TCSAFLUSH, &before_);
    for (std::size_t i = 0; i < kEnding.size(); ++i) {
      ::sigaction(kEnding[i], &actions_[i], nullptr);
    }
    ::sigprocmask(SIG_SETMASK, &mask_, nullptr);
  }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;

  /// Returns when something can be read.
  void await() const {
    pollfd wanted{terminal_, POLLIN, 0};
    while (::ppoll(&wanted, 1, nullptr, &mask_) < 0) {
      if (interrupted != 0) {
        std::cerr << "\n";
        throw std::runtime_error("interrupted, no password was set");
      }
      if (errno != EINTR) throw std::runtime_error("the password cannot be read");
    }
  }

 private:
  static constexpr std::array<int, 4> kEnding{SIGINT, SIGTERM, SIGHUP, SIGQUIT};

  const int terminal_;
  termios before_{};
  sigset_t mask_{};
  std::array<struct sigaction, kEnding.size()> actions_{};
};

// `hidden`: null if the descriptor is no terminal.
std::string readLine(int descriptor, const HiddenInput* hidden) {
  std::string line;
  for (char c = 0; line.size() <= kMaxPassword;) {
    if (hidden) hidden->await();
    const ssize_t count = ::read(descriptor, &c, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::runtime_error("the password cannot be read");
    if (count == 0 || c == '\n') return line;
    line += c;
  }
  throw std::runtime_error("the password is too long");
}

std::string readPassword(int descriptor) {
  std::optional<HiddenInput> hidden;
  if (::isatty(descriptor) == 1) {
    hidden.emplace(descriptor);
    std::cerr << "Password: " << std::flush;
  }
  std::string password = readLine(descriptor, hidden ? &*hidden : nullptr);
  if (hidden) std::cerr << "\n";
  if (password.empty()) throw std::runtime_error("the password is empty");
  return password;
}

Identity::Grant grantOf(const std::string& text) {
  const std::size_t colon = text.find(':');
  const auto right = rightNamed(text.substr(0, colon));
  if (!right || colon == std::string::npos || colon + 1 == text.size() ||
      text.find_first_of(" \t\n#") != std::string::npos) {
    throw UsageError("--allow " + text + " is not read:PATTERN, write:PATTERN or admin:PATTERN");
  }
  return {*right, text.substr(colon + 1)};
}

void put(const Account& account, bool token) {
  if (!isAccountName(account.name)) {
    throw UsageError("a name has 1 to 64 letters, digits, \"_\", \"-\" and \"@\"");
  }
  std::vector<Identity::Grant> grants;
  for (const std::string& text : account.allowed) grants.push_back(grantOf(text));
  const std::string secret = token ? freshSecret() : readPassword(account.passwordDescriptor);
  // A token that nobody could read must not take the place of one that somebody has.
  const auto print = [&] {
    if (!token) return;
    std::cout << account.name << "." << secret << "\n";
    requirePrinted();
  };
  putAccount(account.users, token, account.name, secret, grants, print);
}

CLI::App* declare(CLI::App& app, const char* command, const char* text, Account& account) {
  CLI::App* part = app.add_subcommand(command, text);
  part->add_option("name", account.name, "the account's name")->required();
  part->add_option("--users", account.users, "the file of users")->required();
  part->add_option("--allow", account.allowed,
                   "RIGHT:PATTERN, the right being read, write or admin; these take the place of "
                   "what was allowed before");
  return part;
}

}  // namespace

bool isAccountCommand(std::string_view word) { return word == "user" || word == "token"; }

int runAccountCommand(int argc, char** argv) {
  CLI::App app("corvaned, a full-text search server");
  Account account;
  CLI::App* user = declare(
      app, "user", "put a user, whose password is read from a terminal or a descriptor", account);
  user->add_option("--password-fd", account.passwordDescriptor,
                   "descriptor to read the password from, up to the end of its line")
      ->capture_default_str();
  CLI::App* token = declare(app, "token", "put a token and print it, this once", account);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& answer) {
    return app.exit(answer) == 0 ? 0 : kMisused;
  }
  try {
    put(account, token->parsed());
    return 0;
  } catch (const UsageError& error) {
    std::cerr << "corvaned: " << error.what() << "\n";
    return kMisused;
  } catch (const std::exception& error) {
    std::cerr << "corvaned: " << error.what() << "\n";
    return kFailed;
  }
}

}  // namespace corvaned
