#pragma once

namespace tq::test {

/// Blocks that ICU has taken in this thread and not given back. Texts that share a block count
/// once.
long liveTexts();

/// While one lives, ICU gets no memory for this thread's texts, apart from the first `granted`
/// blocks. A short text needs none: it lies within its object. For executables that have
/// scarceTexts.cpp among their sources.
class ScarceTexts {
 public:
  explicit ScarceTexts(long granted = 0);
  ~ScarceTexts();
  ScarceTexts(const ScarceTexts&) = delete;
  ScarceTexts& operator=(const ScarceTexts&) = delete;
};

}  // namespace tq::test
