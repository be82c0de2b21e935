#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <string>

#include "server/store/store.h"

// Documents and queries that have much in common, and much that is hard to read.
namespace corvaned::test {

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  // The library's distributions differ from machine to machine.
  std::size_t below(std::size_t count) { return static_cast<std::size_t>(engine_() % count); }
  bool oneIn(std::size_t count) { return below(count) == 0; }
  template <typename Choices>
  std::string pick(const Choices& choices) {
    return std::string(choices[below(std::size(choices))]);
  }

 private:
  std::mt19937_64 engine_;
};

/// May also be one that cannot be understood.
std::string randomQuery(Random& random, int depth = 0);

Document randomDocument(Random& random, const std::string& key);
/// Makes it, at times, a document of its own language or type.
void addForm(Random& random, Document& document);

TextOptions randomOptions(Random& random);

}  // namespace corvaned::test
