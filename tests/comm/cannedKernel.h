#pragma once

#include <string>

namespace tq::test {

/// In place of the operating system while it lives: one connection, whose peer answers every
/// message with the same reply, all of which is there as soon as it is looked for. Nothing of it
/// depends on the machine or its load, so that what a client does can be counted.
class CannedKernel {
 public:
  explicit CannedKernel(std::string reply);
  ~CannedKernel();
  CannedKernel(const CannedKernel&) = delete;
  CannedKernel& operator=(const CannedKernel&) = delete;

  /// System calls so far; reading the clock is none.
  long systemCalls() const;
};

}  // namespace tq::test
