#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace load {

/// A reproducible stream of numbers; equal seeds give equal streams.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint64_t next() {
    state_ += 0x9e3779b97f4a7c15U;
    std::uint64_t mixed = state_;
    mixed = (mixed ^ (mixed >> 30U)) * 0xbf58476d1ce4e5b9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94d049bb133111ebU;
    return mixed ^ (mixed >> 31U);
  }
  /// Less than `end`, which is not 0.
  std::uint64_t below(std::uint64_t end) { return next() % end; }
  /// From 0, which is possible, to 1, which is not.
  double part() { return static_cast<double>(next() >> 11U) * 0x1.0p-53; }

 private:
  std::uint64_t state_;
};

struct Text {
  std::string key;
  std::string title;
  std::string content;
};

/// The documents and queries of a load: texts from a file, and after them as many generated ones
/// as asked for, in which the word of rank r occurs in proportion to 1/r, as in natural text. Any
/// thread can make any of them at any time; the same one is always the same.
class Corpus {
 public:
  /// `path` names a file with a text in each line: key, tab, and the text, in which tabs stand for
  /// the ends of lines. Empty for none.
  Corpus(const std::string& path, std::uint64_t generated);

  std::uint64_t size() const { return texts_.size() + generated_; }
  /// Each version of a document has another text and the same key. It contains the word of mark().
  Text document(std::uint64_t number, std::uint32_t version = 0) const;
  /// A word that only this version of this document contains.
  static std::string mark(std::uint64_t number, std::uint32_t version);
  /// Half of them are single words; the others are two words that must both occur, phrases, and
  /// beginnings of words.
  std::string query(Random& random) const;

 private:
  std::size_t rank(Random& random) const;
  std::string words(Random& random, std::uint64_t count) const;

  std::vector<Text> texts_;
  std::uint64_t generated_;
  std::vector<std::string> vocabulary_;
  // For each rank the share of all words that are of this rank or a lower one.
  std::vector<double> shares_;
};

}  // namespace load
