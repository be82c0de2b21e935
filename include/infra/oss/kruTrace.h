#pragma once

#include <atomic>

#include "infra/oss/kruExport.h"

namespace tq::oss {

/// The host's trace facility, as the library sees it. Implemented and owned by the host; its
/// operations are called on the caller's thread, from several threads at once where the host uses
/// several, and must not throw. The thread is not cancelled meanwhile: a cancellation waits until
/// they have returned.
///
/// They are called in the middle of an operation, so they must not use or change what that is
/// about: its client, socket, parser, request or response. Other objects are free to use, but a
/// document that is sent while the library fills its tables of words, at its first message, lacks
/// the tags before its key and its content.
class KRU_EXPORT TraceFacility {
 public:
  virtual ~TraceFacility() = default;

  /// The trace flags of a component, asked for once an operation, as it begins: those that change
  /// in its course hold from the next one on. Entry records are wanted when any bit of 0x20001 is
  /// set; exit records when the flags share a bit with each of 0x20082 and 0x20002.
  virtual unsigned long getComponentTraceFlags(unsigned int component) = 0;
  virtual void traceEntry(unsigned int functionId) = 0;
  virtual void traceExit(unsigned int functionId, long returnCode) = 0;
};

/// Registers the host's facility; null removes it. Not owned: it must outlive every later call into
/// the libraries. Without one an operation pays one load and one branch. Safe from any thread.
KRU_EXPORT void setTraceFacility(TraceFacility* facility) noexcept;

/// The registered facility or null.
KRU_EXPORT TraceFacility* getTraceFacility() noexcept;

/// Brackets one operation of the library with an entry and an exit record. The return code is 0
/// unless `setReturnCode` says otherwise, and -1 when the operation leaves by an exception.
class TraceScope {
 public:
  explicit TraceScope(unsigned int functionId) noexcept
      : facility_(facility.load(std::memory_order_acquire)) {
    if (facility_ != nullptr) [[unlikely]]
      enter(functionId);
  }
  ~TraceScope() {
    if (facility_ != nullptr) [[unlikely]]
      leave();
  }
  TraceScope(const TraceScope&) = delete;
  TraceScope& operator=(const TraceScope&) = delete;

  void setReturnCode(long code) noexcept { returnCode_ = code; }

 private:
  friend void setTraceFacility(TraceFacility*) noexcept;
  friend TraceFacility* getTraceFacility() noexcept;

  KRU_EXPORT void enter(unsigned int functionId) noexcept;
  KRU_EXPORT void leave() noexcept;

  KRU_EXPORT static std::atomic<TraceFacility*> facility;

  TraceFacility* facility_;
  // Set by `enter` alone: without a facility nothing would read what is stored.
  unsigned int functionId_;
  int exceptionsAtEntry_;
  unsigned long flags_;
  long returnCode_;
};

}  // namespace tq::oss
