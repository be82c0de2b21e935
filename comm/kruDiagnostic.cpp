#include "comm/kruDiagnostic.h"

#include <cxxabi.h>

#include <iostream>
#include <streambuf>

namespace tq::comm {

void writeDiagnostic(std::string_view text) {
  std::streambuf* out = std::cerr.rdbuf();
  if (out == nullptr) return;
  try {
    out->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    out->pubsync();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // A host's own buffer may throw. No exchange fails for want of a diagnostic.
  }
}

}  // namespace tq::comm
