#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/strand.hpp>
#include <functional>
#include <memory>
#include <string_view>

#include "server/front/framing.h"
#include "server/front/replyEncoder.h"
#include "server/front/request.h"

namespace corvaned {

/// A client's socket, whose handlers run one at a time. Its executor is of that one type, since
/// what hides the type would allocate memory for each handler.
using ClientSocket =
    asio::basic_stream_socket<asio::ip::tcp, asio::strand<asio::io_context::executor_type>>;

/// The write side of one connection: sends the bytes of its replies. Belongs to the connection and,
/// like it, is used by one thread at a time.
class Outlet {
 public:
  enum class Result {
    Written,
    /// The connection is broken.
    Failed,
    /// Nothing more is to be sent to this client.
    Ended,
  };
  using Done = std::function<void(Result)>;

  Outlet() = default;
  virtual ~Outlet() = default;
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;

  /// The next reply answers this request.
  virtual void asked(const Request& request) = 0;
  /// Called once per reply. The encoder that it returns is sent in place of `encoder`.
  virtual std::unique_ptr<ReplyEncoder> reply(std::unique_ptr<ReplyEncoder> encoder) = 0;
  /// Writes all of `bytes`, which stay valid until `done` is called.
  virtual void write(std::string_view bytes, Done done) = 0;
  /// The socket is being closed: ends whatever write() still waits for.
  virtual void cancel() = 0;
};

class OutletFactory {
 public:
  OutletFactory() = default;
  virtual ~OutletFactory() = default;
  OutletFactory(const OutletFactory&) = delete;
  OutletFactory& operator=(const OutletFactory&) = delete;

  /// From any thread. The socket outlives the outlet.
  virtual std::unique_ptr<Outlet> make(ClientSocket& socket, Framing framing) = 0;
};

/// Writes the replies unchanged.
std::unique_ptr<Outlet> plainOutlet(ClientSocket& socket);

}  // namespace corvaned
