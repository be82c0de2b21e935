#pragma once

#include <string>
#include <string_view>

#include "infra/util/kruBase64.h"

namespace corvaned {

inline std::string base64(std::string_view bytes) {
  std::string text(tq::util::Base64::encodeSize(bytes.size()), '\0');
  tq::util::Base64::encode(bytes.data(), bytes.size(), text.data());
  return text;
}

}  // namespace corvaned
