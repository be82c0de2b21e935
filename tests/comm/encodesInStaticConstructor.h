#pragma once

#include <string>

namespace tq::test {

/// The header text, prefix and content of an added document, as they are sent.
std::string encodedDocument();

/// The same, encoded by a static constructor, which ran before `main`.
const std::string& documentEncodedBeforeMain();

}  // namespace tq::test
