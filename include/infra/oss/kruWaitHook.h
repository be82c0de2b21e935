#pragma once

namespace tq::oss {

/// What a wait hook answers. Any other number counts as `GiveUp`.
enum class WaitResult {
  Ready,     // look again; it does no harm when nothing is there
  TimedOut,  // counts only once the time is really over; until then the hook is called again
  GiveUp,    // the operation that waits ends with `SocketCancelledException`
};

/// Waits in place of `poll`, so that a process that the library is a guest of can wait for its own
/// events too, and can end a wait.
///
/// Waits until the descriptor is ready for one of `events` (as `poll` names them) or has failed, or
/// until `timeoutMillis` MILLISECONDS are over; -1 means without a limit. A pause has the
/// descriptor -1 and no events, and lasts until its time is over.
///
/// A hook is called on the thread of the operation that waits, in the middle of it. So it must not
/// call the library on the same client or socket; other ones are free to use. It must not read from
/// or close the descriptor, throw or jump out (`longjmp`): it answers `GiveUp`, and the caller does
/// what it wants to do once the operation has returned. Its thread is not cancelled meanwhile: a
/// cancellation waits until the hook has returned, and then ends the operation. After a jump the
/// thread cannot be cancelled any more.
using WaitHook = WaitResult (*)(void* host, int fd, short events, int timeoutMillis) noexcept;

}  // namespace tq::oss
