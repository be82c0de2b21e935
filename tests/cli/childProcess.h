#pragma once

#include <sys/types.h>
#include <termios.h>

#include <memory>
#include <string>
#include <vector>

namespace corvane::test {

/// A program that runs until its end, with everything that it printed.
struct Finished {
  int code = -1;  ///< the exit code; 256 and the signal's number when a signal ended it
  std::string out, err;
};

/// A terminal of 80 columns that a program may write to.
class Terminal {
 public:
  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// Where a program writes.
  int descriptor() const { return inner_; }
  /// Returns when this text has been written; throws when the last writer has gone without it.
  void await(const std::string& text);
  /// As a person does at the keyboard.
  void type(const std::string& text) const;
  /// Whether what is typed is shown.
  bool echoes() const;
  /// Whether a key stops the program in the foreground.
  bool stopsPrograms() const;
  /// What await() has read, of programs and, if it was shown, of what was typed.
  const std::string& shown() const { return written_; }

 private:
  termios settings() const;

  int outer_;
  int inner_;
  std::string written_;
};

/// A program that runs beside the test. Killed when the object goes.
class Child {
 public:
  enum class Output {
    /// Kept until the end.
    Kept,
    /// A pipe, which nobody reads before the end.
    Unread,
  };

  explicit Child(const std::vector<std::string>& command, const std::string& input = {},
                 Output output = Output::Kept);
  /// What the program says about itself goes to the terminal and not into `Finished::err`.
  Child(const std::vector<std::string>& command, const Terminal& errors);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t process() const { return process_; }
  void signal(int number) const;
  /// Reads what an unread pipe holds, and waits for the end.
  Finished finish();

 private:
  struct Files;
  std::unique_ptr<Files> files_;
  pid_t process_ = -1;
};

/// Runs a program with `input` at its standard input and waits for its end.
Finished runToEnd(const std::vector<std::string>& command, const std::string& input = {});

}  // namespace corvane::test
