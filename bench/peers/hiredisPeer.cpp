// hiredis: a command of eight names and values, and its short answer.

#include <hiredis/hiredis.h>

#include <cstdio>
#include <exception>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "bench/measure.h"

namespace {

void exchange(const bench::Options& options) {
  const std::unique_ptr<redisContext, void (*)(redisContext*)> context(
      redisConnect("127.0.0.1", static_cast<int>(options.number("port", 0))), redisFree);
  if (!context || context->err != 0) throw std::runtime_error("cannot connect");
  const char* words[] = {"HSET",        "c1",   "query",       "speed AND light",
                         "resultLimit", "1000", "index",       "c1",
                         "scoreType",   "0",    "scoreWanted", "true",
                         "size",        "100",  "start",       "0",
                         "ver",         "1.1"};
  bench::measure(options, 1, [&] {
    auto* reply = static_cast<redisReply*>(
        redisCommandArgv(context.get(), static_cast<int>(std::size(words)), words, nullptr));
    if (reply == nullptr || reply->type != REDIS_REPLY_STATUS) throw std::runtime_error("no reply");
    freeReplyObject(reply);
  });
}

}  // namespace

int main(int argc, char** argv) {
  try {
    exchange(bench::Options(argc, argv));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "hiredisPeer: %s\n", error.what());
    return 1;
  }
}
