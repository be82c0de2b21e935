#pragma once

#include <unicode/unistr.h>

#include <memory>
#include <string>

#include "cli/settings.h"

namespace corvane {

/// How far a server is with the update of an index, asked over a connection of its own: that of the
/// update waits for its end. Used by one thread at a time.
class IndexProgress {
 public:
  IndexProgress(const Settings& settings, icu::UnicodeString collection);
  ~IndexProgress();
  IndexProgress(const IndexProgress&) = delete;
  IndexProgress& operator=(const IndexProgress&) = delete;

  /// What the server last said, such as "1200 of 50000 changes are indexed"; empty if nothing.
  const std::string& text() const { return text_; }
  /// Asks anew, for a second at most. A server that refuses to tell is asked no more.
  void ask() noexcept;

 private:
  void askServer();

  const Settings settings_;
  const icu::UnicodeString collection_;
  std::unique_ptr<tq::comm::CorvaneRESTClient> client_;
  bool refused_ = false;
  std::string text_;
};

}  // namespace corvane
