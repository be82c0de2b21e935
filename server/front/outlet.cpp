#include "server/front/outlet.h"

#include <asio/write.hpp>
#include <utility>

namespace corvaned {
namespace {

class PlainOutlet : public Outlet {
 public:
  explicit PlainOutlet(ClientSocket& socket) : socket_(socket) {}

  void asked(const Request&) override {}

  std::unique_ptr<ReplyEncoder> reply(std::unique_ptr<ReplyEncoder> encoder) override {
    return encoder;
  }

  void write(std::string_view bytes, Done done) override {
    asio::async_write(socket_, asio::buffer(bytes),
                      [done = std::move(done)](std::error_code error, std::size_t) {
                        done(error ? Result::Failed : Result::Written);
                      });
  }

  void cancel() override {}

 private:
  ClientSocket& socket_;
};

}  // namespace

std::unique_ptr<Outlet> plainOutlet(ClientSocket& socket) {
  return std::make_unique<PlainOutlet>(socket);
}

}  // namespace corvaned
