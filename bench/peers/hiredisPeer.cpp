// hiredis: a command of eight names and values, and its short answer.

#include <hiredis/hiredis.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "bench/peers/peer.h"

namespace {

void exchange(const bench::Options& options) {
  const std::unique_ptr<redisContext, void (*)(redisContext*)> context(
      redisConnect("127.0.0.1", static_cast<int>(options.number("port", 0))), redisFree);
  if (!context || context->err != 0) throw std::runtime_error("cannot connect");
  std::vector<const char*> words{"HSET", "c1"};
  for (const auto& field : bench::kStatusFields) {
    words.insert(words.end(), {field.name, field.value});
  }
  bench::measure(options, 1, [&] {
    auto* reply = static_cast<redisReply*>(
        redisCommandArgv(context.get(), static_cast<int>(words.size()), words.data(), nullptr));
    if (reply == nullptr || reply->type != REDIS_REPLY_STATUS) throw std::runtime_error("no reply");
    freeReplyObject(reply);
  });
}

}  // namespace

int main(int argc, char** argv) {
  return bench::runPeer("hiredisPeer", argc, argv, {{"exchange", exchange}});
}
