#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "server/access/accessControl.h"
#include "server/base/memoryBudget.h"
#include "server/front/requestDecoder.h"

namespace corvaned {

class OutletFactory;

struct ServerOptions {
  /// A numeric address. Loopback by default, because without `access` everybody may do everything.
  std::string listen = "127.0.0.1";
  /// 0: any free port. No value: no listener.
  std::optional<std::uint16_t> httpPort;
  std::optional<std::uint16_t> binaryPort;

  DecoderLimits limits;
  /// What requests and replies take their memory from. None: without a limit.
  std::shared_ptr<MemoryBudget> memory;
  /// Who may do what. None: everybody may do everything.
  std::shared_ptr<AccessControl> access;
  /// How long a request waits for memory before it is refused.
  std::chrono::milliseconds memoryTimeout{5000};
  /// Maximum number of connections; further ones are told so and closed.
  std::size_t connections = 10000;
  /// A client that moves no byte for this long within a request or a reply is cut off. 0: never.
  std::chrono::milliseconds stallTimeout{60000};
  /// A client that sends no request for this long is cut off. 0: never.
  std::chrono::milliseconds idleTimeout{0};
  /// A request that is not complete after this long is refused, even if its bytes keep coming.
  /// 0: never.
  std::chrono::milliseconds requestTimeout{600000};
  /// How long the content of a request is discarded that was refused because of who sent it. 0: for
  /// as long as its bytes keep coming.
  std::chrono::milliseconds discardTimeout{10000};
  /// A search that is not done this long after its arrival is refused. 0: never.
  std::chrono::milliseconds searchTimeout{60000};
  /// How many documents a search may look at. 0: any number.
  std::uint64_t searchCost = 0;
  /// How long a search goes on after the client has ended its sending side, which may mean that it
  /// has gone or that it has asked all it wants to.
  std::chrono::milliseconds hangupGrace{1000};
  /// How long stop() waits for requests that are being served.
  std::chrono::milliseconds stopTimeout{10000};

  /// How replies are sent. None: unchanged.
  std::shared_ptr<OutletFactory> outlets;

  unsigned networkThreads = 2;
  unsigned readThreads = 4;
  unsigned writeThreads = 8;
  unsigned lookUpThreads = 8;
  unsigned indexThreads = 2;
  unsigned deleteThreads = 8;
  unsigned statusThreads = 2;
};

}  // namespace corvaned
