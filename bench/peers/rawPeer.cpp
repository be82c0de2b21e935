// The least that a client can do: the same bytes through bare sockets. Replies are received, and of
// their content nothing but the end is looked at.

#include <algorithm>
#include <vector>

#include "bench/peers/connection.h"

namespace {

using bench::Options;
using bench::RawConnection;

bool isBinary(const Options& options) { return options.text("protocol", "binary") == "binary"; }

void exchange(const Options& options) {
  const RawConnection connection(options);
  const std::string request = bench::headerOf(isBinary(options), bench::kStatusLines, 0);
  char reply[1024];
  bench::measure(options, 1, [&] {
    connection.send(request);
    connection.receive(reply, sizeof reply);
  });
}

void document(const Options& options) {
  const RawConnection connection(options);
  std::string body(options.number("bytes", 1024) + 70, 'd');
  std::string header = bench::headerOf(
      isBinary(options), "action: addDocument\nactionType: unknown\nindex: c1\nver: 1.1\n",
      body.size());
  char reply[1024];
  bench::measure(options, 1, [&] {
    connection.send(header, body);
    connection.receive(reply, sizeof reply);
  });
}

/// The library's own system calls and nothing else: a look for what nobody asked for, then the
/// writes whose sizes the protocol fixes.
void documentInPieces(const Options& options) {
  const RawConnection connection(options);
  const bool binary = isBinary(options);
  std::string message =
      bench::headerOf(binary, "action: addDocument\nactionType: unknown\nindex: c1\nver: 1.1\n",
                      options.number("bytes", 1024) + 70);
  const std::size_t first = binary ? message.size() + 70 + 5000 : std::string::npos;
  message.append(options.number("bytes", 1024) + 70, 'd');
  char reply[1024];
  bench::measure(options, 1, [&] {
    if (connection.hasArrived(reply, sizeof reply)) throw std::runtime_error("bytes too many");
    std::string_view rest = message;
    for (std::size_t piece = first; rest.size() > piece; piece = 10000) {
      connection.send(rest.substr(0, piece), MSG_MORE);
      rest.remove_prefix(piece);
    }
    connection.send(rest);
    connection.receive(reply, sizeof reply);
  });
}

/// Fifty messages a write, no replies. The announcement of the last is not sent.
void queued(const Options& options) {
  const RawConnection connection(options);
  const std::uint64_t count = options.number("count", 1000);
  const std::string body(options.number("bytes", 1024) + 70, 'd');
  const std::string one =
      bench::headerOf(isBinary(options),
                      "action: asyncAddDocument\nactionType: update\nindex: c1\nver: 1.1\n",
                      body.size()) +
      body;
  std::string batch;
  for (int i = 0; i < 50; ++i) batch += one;
  bench::measure(options, count, [&] {
    for (std::uint64_t sent = 0; sent < count; sent += 50) {
      connection.send(std::string_view(batch).substr(
          0, static_cast<std::size_t>(std::min<std::uint64_t>(count - sent, 50)) * one.size()));
    }
  });
}

/// What follows the last hit.
std::string_view endOf(bool binary) {
  return binary ? std::string_view("\0\1\0\0", 4) : std::string_view("\r\n0\r\n\r\n", 7);
}

void hits(const Options& options) {
  const RawConnection connection(options);
  const std::uint64_t count = options.number("count", 1000000);
  const std::string request = bench::headerOf(isBinary(options), bench::searchLines(count), 0);
  const std::string_view end = endOf(isBinary(options));
  const std::size_t least = isBinary(options) ? 2 + 22 * count + end.size() : 64 * count;
  std::vector<char> buffer(65536);
  bench::measure(options, count, [&] {
    connection.send(request);
    std::size_t all = 0;
    for (std::string tail; all < least || !tail.ends_with(end);) {
      const std::size_t size = connection.receive(buffer.data(), buffer.size());
      all += size;
      if (all < least) continue;
      tail.append(buffer.data(), size);
    }
  });
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options(argc, argv);
    if (options.work() == "exchange") {
      exchange(options);
    } else if (options.work() == "document") {
      document(options);
    } else if (options.work() == "documentInPieces") {
      documentInPieces(options);
    } else if (options.work() == "queued") {
      queued(options);
    } else if (options.work() == "hits") {
      hits(options);
    } else {
      throw std::runtime_error("usage: rawPeer exchange|document|documentInPieces|queued|hits ...");
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "rawPeer: %s\n", error.what());
    return 1;
  }
}
