#pragma once

#include <atomic>
#include <string>

#include "comm/kruClientRequest.h"
#include "infra/util/kruExtendedProperties.h"

namespace tq::comm {

/// The header text of a request that is sent again and again, for as long as it stays the same. It
/// holds the properties that it was made of, so that whoever changes one of them, by whatever
/// reference, makes another one of it, and the text is seen to be out of date.
struct KeptHeader {
  ClientRequest::REQUEST kind;
  tq::util::ExtendedProperties properties;
  // The text around the length of the document, which differs from one document to the next.
  std::string beforeLength;
  std::string afterLength;

  bool isOf(ClientRequest::REQUEST requestKind,
            const tq::util::ExtendedProperties& requestProperties) const noexcept {
    return kind == requestKind && properties.sharesAllWith(requestProperties);
  }
};

/// Whoever has it may use what a request keeps for its messages. Nobody waits for it: what is kept
/// only saves work.
class ClientRequest::UseOfKept {
 public:
  explicit UseOfKept(Kept& kept) noexcept
      : kept_(kept), granted_(!kept.inUse.exchange(true, std::memory_order_acquire)) {}
  ~UseOfKept() {
    if (granted_) kept_.inUse.store(false, std::memory_order_release);
  }
  UseOfKept(const UseOfKept&) = delete;
  UseOfKept& operator=(const UseOfKept&) = delete;
  bool granted() const noexcept { return granted_; }

 private:
  Kept& kept_;
  bool granted_;
};

}  // namespace tq::comm
