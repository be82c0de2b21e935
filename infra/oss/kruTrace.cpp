#include "infra/oss/kruTrace.h"

#include <exception>

#include "infra/oss/kruUncancellable.h"

namespace tq::oss {

namespace {
constexpr unsigned int kComponent = 155;
constexpr unsigned long kEntryMask = 0x20001;
constexpr unsigned long kExitMask = 0x20082;
constexpr unsigned long kExitRecordMask = 0x20002;
}  // namespace

std::atomic<TraceFacility*> TraceScope::facility{nullptr};

void setTraceFacility(TraceFacility* facility) noexcept {
  TraceScope::facility.store(facility, std::memory_order_release);
}

TraceFacility* getTraceFacility() noexcept {
  return TraceScope::facility.load(std::memory_order_acquire);
}

void TraceScope::enter(unsigned int functionId) noexcept {
  functionId_ = functionId;
  returnCode_ = 0;
  exceptionsAtEntry_ = std::uncaught_exceptions();
  // A facility writes its records, which may cancel a thread, and nothing unwinds from here.
  const Uncancellable whole;
  flags_ = facility_->getComponentTraceFlags(kComponent);
  if ((flags_ & kEntryMask) != 0) facility_->traceEntry(functionId_);
}

void TraceScope::leave() noexcept {
  if ((flags_ & kExitMask) == 0 || (flags_ & kExitRecordMask) == 0) return;
  const bool failed = std::uncaught_exceptions() > exceptionsAtEntry_;
  const Uncancellable whole;
  facility_->traceExit(functionId_, failed ? -1 : returnCode_);
}

}  // namespace tq::oss
