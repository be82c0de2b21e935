#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/exchange.h"
#include "tests/support/replyCorpus.h"

namespace tq::comm {
class DrestoPerfClient;
}

namespace tq::test {

// Pieces of a reply of the binary protocol.
std::string word16(unsigned int value);
std::string envelope(unsigned int status, const std::string& payload);
/// A hit's envelope: with its score in thousandths, or without.
std::string scoredHit(unsigned int thousandths, const std::string& key);
std::string plainHit(const std::string& key);
std::string endOfResults();
/// A record in the form with 2-byte lengths.
std::string record16(const std::vector<std::pair<std::string, std::string>>& fields);
/// The same after its own length, as the body of an error reply.
std::string errorRecord(const std::vector<std::pair<std::string, std::string>>& fields);
std::string estimate(std::uint32_t first, std::uint32_t third, std::uint32_t second);
/// The text by which a hit names its key.
std::string idOfKey(const std::string& key);

/// What a caller sees of one exchange and of everything that can be pulled after it.
struct BinaryOutcome {
  Outcome seen;
  unsigned long errorLine = 0;
  std::string content{};
  std::string statusMessageId{};
  std::string statusMessageText{};
  bool operator==(const BinaryOutcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const BinaryOutcome& outcome);

/// A whole reply and what it means.
struct BinaryReply {
  std::string name;  // letters and digits
  int kind;
  std::string text;
  BinaryOutcome expected{};

  // Where the envelopes begin, the end mark's included, and, last, where the text ends; empty for a
  // reply without envelopes.
  std::vector<std::size_t> envelopes{};
  // Where a length of two bytes stands.
  std::vector<std::size_t> lengths{};
  // Whether the client knows where the reply ends, and goes on with the connection.
  bool keepsConnection = true;

  unsigned int code() const;
  /// An error envelope in place of the server's version.
  bool refusesVersion() const;
};
std::ostream& operator<<(std::ostream& out, const BinaryReply& reply);

/// Every kind with every code.
const std::vector<BinaryReply>& binaryReplies();
const BinaryReply& binaryReplyNamed(const std::string& name);
/// A reply that no other resembles: what the exchange after gets. It means the same however it is
/// cut.
const BinaryReply& nextBinaryReply();

/// A stream of this many hits, each with a key of its own.
BinaryReply longSearch(int kind, std::size_t hits);

/// Runs an exchange and pulls everything that it brings.
BinaryOutcome runBinary(tq::comm::DrestoPerfClient& client, int kind, Pull pull = Pull::Looping);

/// The outcome of a failure that the client or its parser reports.
BinaryOutcome binaryFailure(const std::string& id, const std::string& file, unsigned long line,
                            const std::vector<std::string>& arguments = {});
/// The outcome of an exchange whose first portion held nothing whole and which does not read on.
BinaryOutcome finishedTooEarly();

}  // namespace tq::test
