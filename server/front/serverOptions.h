#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "server/front/requestDecoder.h"

namespace corvaned {

class OutletFactory;

struct ServerOptions {
  /// A numeric address. Loopback unless somebody decides otherwise: there is no authentication.
  std::string listen = "127.0.0.1";
  /// 0 picks a free port; no value, no listener.
  std::optional<std::uint16_t> httpPort;
  std::optional<std::uint16_t> binaryPort;

  DecoderLimits limits;
  /// Most bytes of requests that are not answered yet, all connections together. Beyond that, those
  /// that hold much are refused until others are done.
  std::size_t bufferedBytes = std::size_t{2} << 30U;
  /// More connections than that are closed as soon as they are made.
  std::size_t connections = 10000;
  /// A client that is in the middle of a request or a reply and moves no byte for this long is cut
  /// off. 0: never.
  std::chrono::milliseconds stallTimeout{60000};
  /// The same for a client that asks for nothing. 0: never.
  std::chrono::milliseconds idleTimeout{0};
  /// How long stop() waits for requests that are being served.
  std::chrono::milliseconds stopTimeout{10000};

  /// How replies come to the wire. None: as they are.
  std::shared_ptr<OutletFactory> outlets;

  unsigned networkThreads = 2;
  unsigned readThreads = 4;
  unsigned writeThreads = 8;
  unsigned indexThreads = 2;
};

}  // namespace corvaned
