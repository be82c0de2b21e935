#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "comm/kruClientRequest.h"
#include "comm/kruCorvaneRESTClient.h"
#include "tests/comm/faultNetwork.h"
#include "tests/support/replyCorpus.h"

namespace tq::test {

enum class Protocol { Http, Binary, BinaryReassembled };
std::string nameOf(Protocol protocol);

/// A request whose reply nobody can take for another's: the peer puts its mark into the reply.
struct MarkedRequest {
  int kind = kGetStatus;
  unsigned int mark = 1;
  bool refused = false;          // the peer answers with an error
  std::size_t contentSize = 19;  // of the kinds that carry a document
  // Texts of the request and of its reply are so long that ICU needs memory for each.
  bool longTexts = false;
};

/// Builds it; the bytes of its document live as long as the object.
class BuiltRequest {
 public:
  explicit BuiltRequest(const MarkedRequest& marked);
  BuiltRequest(const BuiltRequest&) = delete;
  BuiltRequest& operator=(const BuiltRequest&) = delete;

  tq::comm::ClientRequest request;

 private:
  std::string content_;
};

/// What a peer of the protocol answers to whatever it is asked.
Answerer answererOf(Protocol protocol);

/// Whether a request with long texts carries each of them whole.
bool hasItsLongTexts(const std::string& request);

/// How often the journal holds the request with the mark.
std::size_t timesSeen(const std::vector<std::string>& journal, unsigned int mark);

/// Everything that a caller saw of one request.
struct Ran {
  std::string errorId;  // empty: none
  std::vector<std::string> errorArguments{};
  std::string foreignError{};          // what an exception of another type says
  bool pulling = false;                // the exchange itself returned
  std::vector<std::string> results{};  // of every kind, each with the request's mark in it
  int returnCode = -1;
  bool endOfStream = false;
  bool truncated = false;
  tq::comm::RequestOutcome outcome = tq::comm::RequestOutcome::NotSent;
  std::uint64_t longestMillis = 0;  // of the exchange and of each pull, the longest
};

std::unique_ptr<tq::comm::CorvaneRESTClient> clientOf(Protocol protocol, bool persistent = true,
                                                      unsigned int port = 7);

/// Runs the exchange and pulls everything after it. The clock is the network's.
Ran runMarked(tq::comm::CorvaneRESTClient& client, const MarkedRequest& marked);

/// The results of the request when nothing goes wrong.
std::vector<std::string> resultsOf(Protocol protocol, const MarkedRequest& marked);

std::ostream& operator<<(std::ostream& out, const Ran& ran);

}  // namespace tq::test
