// The least that a client can do: the same bytes through bare sockets. Replies are received, and of
// their content nothing but the end is looked at.

#include <algorithm>
#include <vector>

#include "bench/peers/connection.h"

namespace {

using bench::Options;
using bench::RawConnection;

bool isBinary(const Options& options) { return options.text("protocol", "binary") == "binary"; }

std::string additionLines() { return bench::documentLines("addDocument", "unknown"); }

std::string bodyOf(const Options& options) {
  return std::string(bench::kMetadataBytes + options.number("bytes", 1024), 'd');
}

void exchange(const Options& options) {
  const RawConnection connection(options);
  const std::string request = bench::headerOf(isBinary(options), bench::statusLines(), 0);
  char reply[1024];
  bench::measure(options, 1, [&] {
    connection.send(request);
    connection.receive(reply, sizeof reply);
  });
}

void document(const Options& options) {
  const RawConnection connection(options);
  std::string body = bodyOf(options);
  std::string header = bench::headerOf(isBinary(options), additionLines(), body.size());
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
  const std::string body = bodyOf(options);
  std::string message = bench::headerOf(binary, additionLines(), body.size());
  const std::size_t first =
      binary ? message.size() + bench::kMetadataBytes + 5000 : std::string::npos;
  message += body;
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
  const std::string body = bodyOf(options);
  const std::string one =
      bench::headerOf(isBinary(options), bench::documentLines("asyncAddDocument", "update"),
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
  return bench::runPeer("rawPeer", argc, argv,
                        {{"exchange", exchange},
                         {"document", document},
                         {"documentInPieces", documentInPieces},
                         {"queued", queued},
                         {"hits", hits}});
}
