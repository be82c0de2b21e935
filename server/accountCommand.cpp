#include "server/accountCommand.h"

#include <sys/types.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "server/access/accessControl.h"

namespace corvaned {
namespace {

constexpr std::size_t kMaxPassword = 1024;

struct Account {
  std::string name;
  std::string users;
  std::vector<std::string> allowed;
  int passwordDescriptor = STDIN_FILENO;
};

/// What is typed is not shown while this object exists.
class HiddenInput {
 public:
  explicit HiddenInput(int terminal) : terminal_(terminal) {
    if (::tcgetattr(terminal_, &before_) != 0) return;
    hidden_ = true;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(terminal_, TCSAFLUSH, &silent);
  }
  ~HiddenInput() {
    if (hidden_) ::tcsetattr(terminal_, TCSAFLUSH, &before_);
  }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;

 private:
  int terminal_;
  bool hidden_ = false;
  termios before_{};
};

std::string readLine(int descriptor) {
  std::string line;
  for (char c = 0; line.size() <= kMaxPassword;) {
    const ssize_t count = ::read(descriptor, &c, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::runtime_error("the password cannot be read");
    if (count == 0 || c == '\n') return line;
    line += c;
  }
  throw std::runtime_error("the password is too long");
}

std::string readPassword(int descriptor) {
  const bool asked = ::isatty(descriptor) == 1;
  if (asked) std::cerr << "Password: " << std::flush;
  const HiddenInput hidden(descriptor);
  std::string password = readLine(descriptor);
  if (asked) std::cerr << "\n";
  if (password.empty()) throw std::runtime_error("the password is empty");
  return password;
}

Identity::Grant grantOf(const std::string& text) {
  const std::size_t colon = text.find(':');
  const auto right = rightNamed(text.substr(0, colon));
  if (!right || colon == std::string::npos || colon + 1 == text.size() ||
      text.find_first_of(" \t\n#") != std::string::npos) {
    throw std::runtime_error("--allow " + text +
                             " is not read:PATTERN, write:PATTERN or admin:PATTERN");
  }
  return {*right, text.substr(colon + 1)};
}

void put(const Account& account, bool token) {
  std::vector<Identity::Grant> grants;
  for (const std::string& text : account.allowed) grants.push_back(grantOf(text));
  const std::string secret = token ? freshSecret() : readPassword(account.passwordDescriptor);
  putAccount(account.users, token, account.name, secret, grants);
  if (token) std::cout << account.name << "." << secret << "\n";
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
    return app.exit(answer) == 0 ? 0 : 2;
  }
  try {
    put(account, token->parsed());
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "corvaned: " << error.what() << "\n";
    return 1;
  }
}

}  // namespace corvaned
