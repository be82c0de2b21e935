#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvaned {

/// What somebody may do with a collection. Each right includes those before it.
enum class Right { Read, Write, Admin };

/// The right's name in a users file. Nothing for a word that names none.
std::optional<Right> rightNamed(std::string_view name);
std::string_view nameOf(Right right);

/// Somebody who has proved who they are.
class Identity {
 public:
  struct Grant {
    Right right = Right::Read;
    /// A collection's name, in which each "*" stands for any text.
    std::string pattern;
  };

  Identity(std::string name, std::vector<Grant> grants)
      : name_(std::move(name)), grants_(std::move(grants)) {}

  const std::string& name() const { return name_; }
  /// Whether this is allowed. No collection stands for the server as a whole, for which one needs
  /// the right to every collection.
  bool may(Right right, std::optional<std::string_view> collection) const;

 private:
  std::string name_;
  std::vector<Grant> grants_;
};

/// Who may do what, from a file of users. May be used from any thread.
///
/// The file has one line per fact; "#" begins a comment:
///
///     user NAME HASH        may say "Authorization: Basic ..." with the password of that hash
///     token NAME HASH       may say "Authorization: Bearer NAME.SECRET"
///     allow NAME RIGHT PATTERN
///
/// A password is checked with a hash that is slow on purpose, once; then the answer is remembered
/// under a keyed digest of what was said.
class AccessControl {
 public:
  /// Throws std::runtime_error that names file and line if the file cannot be read, if others than
  /// its owner can read it, or if a line is wrong.
  explicit AccessControl(std::filesystem::path file);

  /// Reads the file again. If it throws, everything stays as it is.
  void reload();

  /// Who says this, null if nobody may: at once, or not at all if it has to be checked first. What
  /// no account could say needs no check.
  std::optional<std::shared_ptr<const Identity>> remembered(std::string_view authorization) const;
  /// Checks it, which takes a tenth of a second and 16 MiB of memory, and remembers the answer.
  void check(std::string_view authorization);

 private:
  struct Account {
    bool token = false;
    std::string hash;
    std::shared_ptr<const Identity> identity;
  };
  using Accounts = std::map<std::string, Account, std::less<>>;
  using Digest = std::array<unsigned char, 32>;
  using Answers = std::map<Digest, std::shared_ptr<const Identity>>;

  static Accounts read(const std::filesystem::path& file);
  static std::shared_ptr<const Identity> prove(const Accounts& accounts,
                                               std::string_view authorization);
  Digest digestOf(std::string_view authorization) const;

  const std::filesystem::path file_;
  Digest key_{};

  mutable std::mutex mutex_;
  // Guarded by mutex_. A check that was begun before the file was read again is not remembered.
  std::shared_ptr<const Accounts> accounts_;
  // Right answers and wrong ones are remembered apart: however often somebody guesses, those who
  // have proved who they are need not wait behind the guesses.
  Answers proved_;
  Answers refused_;
};

/// The hash of a password or of a token's secret, with a salt of its own.
std::string hashOf(std::string_view secret);

/// Whether an account may be called so.
bool isAccountName(std::string_view name);

/// 32 random bytes as text.
std::string freshSecret();

/// Adds an account to a users file or gives an existing one another secret, keeping all other
/// lines; creates the file if there is none. Throws std::runtime_error if the name cannot be an
/// account's, or the file cannot be written. `beforeItCounts` is called when nothing but the file's
/// last step is left to do, and may throw: then the file stays as it was.
void putAccount(const std::filesystem::path& file, bool token, const std::string& name,
                std::string_view secret, const std::vector<Identity::Grant>& grants,
                const std::function<void()>& beforeItCounts = {});

}  // namespace corvaned
