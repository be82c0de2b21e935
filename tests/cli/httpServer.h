#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/support/scriptedServer.h"

namespace corvane::test {

/// A server that the command line speaks to over the HTTP-style protocol. The program may ask it in
/// the binary protocol at any time before the first answer, on connections of its own: these are
/// aside, and get no answer unless one of the asides that are given means them.
class HttpServer : public tq::test::ScriptedServer {
 public:
  explicit HttpServer(std::vector<tq::test::Script> scripts,
                      std::vector<tq::test::Aside> asides = {})
      : ScriptedServer(std::move(scripts), andUnanswered(std::move(asides))) {}
  explicit HttpServer(tq::test::Script script) : HttpServer(std::vector{std::move(script)}) {}

  /// Whether a request is in the binary protocol: there its length is in front, elsewhere a name.
  static bool isBinary(const std::string& request) { return request.front() < ' '; }

 private:
  static std::vector<tq::test::Aside> andUnanswered(std::vector<tq::test::Aside> asides) {
    asides.push_back({isBinary, {tq::test::Script().expectFramedRequest()}});
    return asides;
  }
};

}  // namespace corvane::test
