#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace corvaned {

/// Keeps several databases that change together from being opened on the way, when some are newer
/// than others. May be used from any thread.
class ChangeGate {
 public:
  /// None of the databases changes while it lives.
  class Opening {
   public:
    /// Waits for the end of a change. Throws ServerError if the current request has to end before.
    explicit Opening(ChangeGate& gate);
    ~Opening();
    Opening(const Opening&) = delete;
    Opening& operator=(const Opening&) = delete;

   private:
    ChangeGate& gate_;
  };

  /// Nobody opens one of them while it lives. Only one may exist at a time.
  class Change {
   public:
    explicit Change(ChangeGate& gate);
    ~Change();
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

   private:
    ChangeGate& gate_;
  };

 private:
  void await(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::condition_variable ended_;
  // Guarded by mutex_.
  bool changing_ = false;
  std::size_t openings_ = 0;
};

}  // namespace corvaned
