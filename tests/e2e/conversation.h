#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruCorvaneRESTClient.h"
#include "comm/kruKVPair.h"
#include "tests/support/corvanedProcess.h"
#include "tests/support/replyCorpus.h"

// Talking to a real server with the library as an application would.
namespace tq::test {

enum class Protocol { Http, Binary };
std::ostream& operator<<(std::ostream& out, Protocol protocol);

/// A client of the server, its connection kept from request to request. The binary one puts
/// together replies that arrive in pieces. No wait is endless.
std::unique_ptr<tq::comm::CorvaneRESTClient> newClient(Protocol protocol,
                                                       const CorvanedProcess& server);

using Parameters = std::vector<std::pair<std::string, std::string>>;

/// A request to a collection. Names and values are UTF-8.
tq::comm::ClientRequest requestTo(std::string_view collection, int kind,
                                  const Parameters& parameters = {});

/// Gives the request a document. Key and text are pointed at and must outlive its sending.
void attachDocument(tq::comm::ClientRequest& request, const std::string& key, std::string_view text,
                    const std::list<tq::comm::KVPair>& metadata = {{u"title", u"untitled"}});

/// How a search's hits are taken.
enum class Taking {
  Looping,  // the pulling operation that receives as long as there is nothing to take
  Singly,   // one receive after the other
};

inline constexpr std::size_t kAllHits = std::numeric_limits<std::size_t>::max();

/// One message of a failure.
struct Said {
  std::string id;
  std::string text;
  int level = 0;
  bool operator==(const Said&) const = default;
};

/// Everything that a caller learns from one request.
struct Answer {
  std::vector<Said> failure{};  // empty: the exchange succeeded
  bool success = false;
  unsigned int statusCode = 0;
  std::string content{};
  std::vector<Hit> hits{};
  std::vector<Parsed> parsed{};
  std::vector<std::int64_t> selectivity{1, 1, 100};
  bool complete = false;     // the end of the stream was reached, and nothing is missing
  std::size_t portions = 0;  // that brought hits or parse results
  tq::comm::RequestOutcome outcome = tq::comm::RequestOutcome::NotSent;

  /// The keys of the hits, in order.
  std::vector<std::string> keys() const;
};
std::ostream& operator<<(std::ostream& out, const Answer& answer);

/// Runs the exchange and takes what it brings, of a search's hits at most `most`; the rest of the
/// stream is then left where it is.
Answer ask(tq::comm::CorvaneRESTClient& client, tq::comm::ClientRequest& request,
           Taking taking = Taking::Looping, std::size_t most = kAllHits);

std::string toUtf8(const icu::UnicodeString& text);
icu::UnicodeString fromUtf8(std::string_view bytes);

/// How replies name a document.
std::string docIdOf(std::string_view key);
/// The key that a document id stands for.
std::string keyOf(const std::string& docId);

}  // namespace tq::test
