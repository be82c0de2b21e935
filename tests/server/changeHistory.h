#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "server/store/store.h"

// Random histories of changes, and what a store may hold after one that a crash has cut.
namespace corvaned::test {

/// One request that changes something. A document is told by its word, which only documents of the
/// same batch share.
struct Step {
  enum class Kind { Create, Drop, Add, Queue, Report, Remove, Update, Batch };
  Kind kind = Kind::Create;
  std::string collection, key, word;
  /// Of a batch; it is named after its word.
  std::vector<std::string> added{}, removed{};
};
using Steps = std::vector<Step>;

std::ostream& operator<<(std::ostream& out, const Step& step);

/// Whether changes of the collection become searchable when they are acknowledged.
bool isSearchableAtOnce(const std::string& collection);

/// The document that a step of kind add or queue brings: its word in the text and in a field.
Document documentOf(const Step& step);
Batch batchOf(const Step& step);

using Words = std::map<std::string, std::string>;

/// What can be known of a collection. The words stand under the keys of their documents.
struct Contents {
  Words documents;
  Words searchable;
  /// Changes wait for updateIndex.
  bool pending = false;

  bool operator==(const Contents&) const = default;
};
using Collections = std::map<std::string, Contents>;

std::ostream& operator<<(std::ostream& out, const Collections& collections);

/// What a store holds from which nothing was lost, step by step.
class Model {
 public:
  void apply(const Step& step);
  /// All changes are brought into all indexes.
  void settle();

  const Collections& collections() const { return collections_; }

  /// Takes for found as it is here what searches may find of these collections while somebody else
  /// updates their indexes all the time.
  void forgiveUpdates(Collections& found, const std::set<std::string>& updated) const;
  /// True when `found` is this, but for an updateIndex of the collection that got part of the way.
  bool allowsDuringUpdate(const std::string& collection, const Collections& found) const;

 private:
  Collections collections_;
  // By collection and key, the words that searches may find, whenever an index is updated.
  std::map<std::string, std::map<std::string, std::set<std::string>>> candidates_;
};

/// Makes random steps that a store in the model's state must all carry out.
class StepSource {
 public:
  explicit StepSource(std::uint64_t seed) : random_(seed) {}

  Steps make(Model model, std::size_t count);
  /// From 0 to `most`, both included.
  std::uint64_t number(std::uint64_t most);

 private:
  Step next(const Collections& collections);
  void chooseKeys(Step& batch);

  std::mt19937_64 random_;
  std::uint64_t words_ = 0;
};

/// Where steps are carried out. Throws when a step is refused.
class Subject {
 public:
  Subject() = default;
  virtual ~Subject() = default;
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;

  /// False when it was not told that the step is done; of a step of kind queue it never is.
  virtual bool apply(const Step& step) = 0;
  /// Nothing when there is no such collection.
  virtual std::optional<CollectionState> state(const std::string& collection) = 0;
  virtual std::set<std::string> search(const std::string& collection, const std::string& query) = 0;
  /// Whether the outcome of the batch is known.
  virtual bool knows(const Step& batch) = 0;
  /// Whether changes of the collection become searchable although nobody asks for it.
  virtual bool refreshesByItself(const std::string& collection) const {
    return isSearchableAtOnce(collection);
  }
};

/// How far a history got when the crash came: at least `acknowledged` steps were done, and no more
/// than `sent` ones were begun.
struct Progress {
  std::size_t acknowledged = 0;
  std::size_t sent = 0;
};

/// Carries out the steps until one is not acknowledged that should be.
Progress carryOut(Subject& subject, const Steps& steps);

/// All that can be found out about a subject, which updates every index on the way. `model` and
/// `steps` tell which words there may be.
Collections lookAt(Subject& subject, const Model& model, const Steps& steps);

/// The model with as many of the steps as `found` shows to have been done, all indexes up to date.
/// Nothing when no number of steps from what was acknowledged to what was sent explains it.
/// `updated` are the collections whose indexes somebody else updated all the time.
std::optional<Model> explain(const Model& before, const Steps& steps, Progress progress,
                             const Collections& found, const std::set<std::string>& updated);

/// The documents of a copy of one of the model's collections, whose index is updated first.
Words documentsOfCopy(Subject& subject, const std::string& copy, const Model& before,
                      const Steps& steps);

/// True when a collection had these documents after some number of steps, from what was
/// acknowledged to what was sent.
bool explainsCopy(const Model& before, const Steps& steps, Progress progress,
                  const std::string& collection, const Words& documents);

/// Sends the last batch of the steps once more, if the collection is still the same, as a client
/// does whose reply was lost; and brings all indexes up to date. False if that does more than a
/// first attempt would have done, or if a batch that was acknowledged is not known. The subject has
/// been made anew since the collections were looked at, so that it knows what is on disk.
bool repeatsHarmlessly(Subject& subject, Model& model, const Steps& steps, Progress progress);

/// For a failure's message.
std::string describe(const Model& before, const Steps& steps, Progress progress,
                     const Collections& found);

/// Whether a test is to take its time: KRUCOMM_LONG=1.
bool isLongForm();

/// The seeds of a test: `count` from 1 on, ten times as many in the long form, or KRUCOMM_SEED.
std::vector<std::uint64_t> seeds(std::uint64_t count);

}  // namespace corvaned::test
