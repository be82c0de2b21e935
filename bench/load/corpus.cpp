#include "bench/load/corpus.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace load {
namespace {

constexpr std::size_t kVocabulary = 200000;
constexpr std::uint64_t kFewestWords = 20;
constexpr std::uint64_t kMostWords = 100;
// The commonest words are all in nearly every document; people leave them out of their queries.
constexpr std::size_t kNeverAsked = 20;

// Every number has a word of its own; small numbers, which are the common words, have short ones.
std::string wordOf(std::size_t number) {
  static constexpr const char* kBeginnings[] = {"b", "d", "f", "g", "k", "l", "m",
                                                "n", "p", "r", "s", "t", "v", "z"};
  static constexpr const char* kEnds[] = {"a", "e", "i", "o", "u", "an", "er", "in", "ol", "un"};
  std::string word;
  do {
    word += kBeginnings[number % std::size(kBeginnings)];
    number /= std::size(kBeginnings);
    word += kEnds[number % std::size(kEnds)];
    number /= std::size(kEnds);
  } while (number > 0);
  return word;
}

}  // namespace

Corpus::Corpus(const std::string& path, std::uint64_t generated) : generated_(generated) {
  std::ifstream file(path);
  if (!path.empty() && !file) throw std::runtime_error("cannot read " + path);
  for (std::string line; std::getline(file, line);) {
    const std::size_t tab = std::min(line.find('\t'), line.size());
    std::string content = line.substr(std::min(tab + 1, line.size()));
    std::replace(content.begin(), content.end(), '\t', '\n');
    texts_.push_back({line.substr(0, tab), line.substr(0, tab), std::move(content)});
  }
  double sum = 0;
  for (std::size_t i = 0; i < kVocabulary; ++i) {
    vocabulary_.push_back(wordOf(i));
    sum += 1.0 / static_cast<double>(i + 1);
    shares_.push_back(sum);
  }
  for (double& share : shares_) share /= sum;
}

std::string Corpus::mark(std::uint64_t number, std::uint32_t version) {
  std::string word("mark");
  return word.append(std::to_string(number)).append("v").append(std::to_string(version));
}

Text Corpus::document(std::uint64_t number, std::uint32_t version) const {
  Text text;
  if (number < texts_.size()) {
    text = texts_[number];
  } else {
    Random random((number << 20U) + version);
    text.key.append("doc-").append(std::to_string(number));
    text.title = words(random, 4);
    text.content = words(random, kFewestWords + random.below(kMostWords - kFewestWords));
  }
  text.content.append(" ").append(mark(number, version));
  return text;
}

std::size_t Corpus::rank(Random& random) const {
  const auto found = std::upper_bound(shares_.begin(), shares_.end(), random.part());
  return std::min(static_cast<std::size_t>(found - shares_.begin()), kVocabulary - 1);
}

std::string Corpus::words(Random& random, std::uint64_t count) const {
  std::string text;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (i > 0) text += ' ';
    text += vocabulary_[rank(random)];
  }
  return text;
}

std::string Corpus::query(Random& random) const {
  const auto word = [&] { return vocabulary_[std::max(rank(random), kNeverAsked)]; };
  const std::uint64_t form = random.below(10);
  if (form < 5) return word();
  if (form < 8) return word().append(" AND ").append(word());
  if (form < 9) return std::string("\"").append(word()).append(" ").append(word()).append("\"");
  // A long word's beginning has few continuations.
  const std::string& whole = vocabulary_[kVocabulary / 2 + random.below(kVocabulary / 2)];
  return whole.substr(0, whole.size() - 1) + "*";
}

}  // namespace load
