#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "server/store/change.h"

namespace corvaned {

/// How many different numbers there are among some, as well as can be told by a bit for each of
/// their remainders: exact for few, within a tenth for five million, and too few beyond.
class DistinctCount {
 public:
  /// False if the number seems to be known.
  bool add(std::uint64_t number);
  std::size_t count() const;
  /// Takes as long as adding the numbers took.
  void clear();

 private:
  static constexpr unsigned kBits = 20;

  std::vector<std::uint64_t> bits_ = std::vector<std::uint64_t>((std::size_t{1} << kBits) / 64);
  std::size_t set_ = 0;
  // Which elements have any.
  std::vector<std::uint32_t> used_;
};

/// What a transaction takes while it gathers the words of its changes. The engine keeps a list for
/// each word, and in that an entry for each document; so a text of which no word comes twice takes
/// several times as much as an ordinary one. Words are told apart roughly, without reading texts as
/// the index does; those of HTML and XML are the words of what a reader sees.
class IndexingMemory {
 public:
  void add(const Change& change);
  /// The same with markup counted as text, which costs little and says roughly how large the change
  /// is: to read HTML or XML takes about as long as to index it.
  void addAsSent(const Change& change);
  /// What add() takes in memory until it returns.
  static std::size_t bytesToAdd(const Change& change);
  std::size_t bytes() const;
  /// The same without the allowance by bytes, which is several times too much for a long text whose
  /// words come again.
  std::size_t leastBytes() const;
  void clear();

 private:
  void addWith(const std::string& content, const Change& change);
  void addText(std::string_view text, std::string_view name);
  void addWord(std::uint64_t word, std::size_t length);
  std::size_t ofWords() const;

  std::size_t textBytes_ = 0;
  std::size_t places_ = 0;
  // Words of all documents together, each once; of each document once; and of the one that has
  // most. Each with the bytes of these words.
  DistinctCount words_;
  DistinctCount ofDocument_;
  std::size_t wordBytes_ = 0;
  std::size_t entries_ = 0;
  std::size_t documentWordBytes_ = 0;
  std::size_t largestDocument_ = 0;
};

}  // namespace corvaned
