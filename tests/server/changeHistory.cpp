#include "tests/server/changeHistory.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <exception>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace corvaned::test {
namespace {

using Kind = Step::Kind;

// Few, so that keys are replaced and deleted often and collections are made again.
constexpr std::array<const char*, 3> kCollections{"a", "b", "once"};
constexpr std::uint64_t kKeys = 3;

const char* nameOf(Kind kind) {
  constexpr std::array<const char*, 8> kNames{"create", "drop",   "add",    "queue",
                                              "report", "remove", "update", "batch"};
  return kNames.at(static_cast<std::size_t>(kind));
}

bool putsDocument(const Step& step) { return step.kind == Kind::Add || step.kind == Kind::Queue; }

std::string fieldOf(const std::string& word) { return std::string("f") + word.back(); }

std::ostream& operator<<(std::ostream& out, const Words& words) {
  for (const auto& [key, word] : words) out << " " << key << "=" << word;
  return out;
}

// Searches may still find what they found before a change that was begun; and changes wait until
// the index has been brought to rest.
void allowBeforeLastChange(Collections& found, const Model& before, const Model& model) {
  for (auto& [name, contents] : found) {
    if (!isSearchableAtOnce(name)) continue;
    contents.pending = false;
    const auto old = before.collections().find(name);
    const auto now = model.collections().find(name);
    if (old == before.collections().end() || now == model.collections().end()) continue;
    if (contents.searchable == old->second.searchable) {
      contents.searchable = now->second.searchable;
    }
  }
}

std::set<std::string> wordsOf(const Model& model, const Steps& steps) {
  std::set<std::string> words;
  for (const auto& [name, contents] : model.collections()) {
    for (const auto& [key, word] : contents.documents) words.insert(word);
    for (const auto& [key, word] : contents.searchable) words.insert(word);
  }
  for (const Step& step : steps) {
    if (!step.word.empty()) words.insert(step.word);
  }
  return words;
}

// Which document a key has, by the words that find it. What the one word that all documents have
// does not find with them, or finds alone, has a wrong text.
Words documentsIn(Subject& subject, const std::string& collection,
                  const std::set<std::string>& words) {
  Words found;
  std::set<std::string> keys;
  for (const std::string& word : words) {
    const std::set<std::string> byText = subject.search(collection, word);
    if (subject.search(collection, fieldOf(word) + ":" + word) != byText) {
      throw std::runtime_error("text and field of " + word + " are of different documents");
    }
    for (const std::string& key : byText) {
      if (!found.emplace(key, word).second) throw std::runtime_error(key + " has two texts");
      keys.insert(key);
    }
  }
  if (subject.search(collection, "every") != keys) {
    throw std::runtime_error("there is a document in " + collection + " that nobody added");
  }
  return found;
}

// After a restart, changes that nobody waited for may become searchable between two searches.
Words searchableIn(Subject& subject, const std::string& collection,
                   const std::set<std::string>& words) {
  for (int again = subject.refreshesByItself(collection) ? 100 : 0;; --again) {
    try {
      return documentsIn(subject, collection, words);
    } catch (const std::exception&) {
      if (again == 0) throw;
    }
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Step& step) {
  out << nameOf(step.kind) << " " << step.collection;
  if (!step.key.empty()) out << " " << step.key;
  for (const std::string& key : step.added) out << " +" << key;
  for (const std::string& key : step.removed) out << " -" << key;
  return step.word.empty() ? out : out << "=" << step.word;
}

std::ostream& operator<<(std::ostream& out, const Collections& collections) {
  for (const auto& [name, contents] : collections) {
    out << name << (contents.pending ? " (pending)" : "") << ":" << contents.documents
        << "; searchable:" << contents.searchable << "\n";
  }
  return out;
}

Document documentOf(const Step& step) {
  return {step.key, {{fieldOf(step.word), step.word}}, "every " + step.word};
}

Batch batchOf(const Step& step) {
  Batch batch;
  batch.name = step.word;
  for (const std::string& key : step.added) {
    batch.changes.documents.push_back(documentOf({Kind::Add, step.collection, key, step.word}));
  }
  batch.changes.deletions = step.removed;
  return batch;
}

bool isSearchableAtOnce(const std::string& collection) { return collection == "once"; }

void Model::apply(const Step& step) {
  if (step.kind == Kind::Create) {
    collections_[step.collection];
    candidates_[step.collection];
    return;
  }
  if (step.kind == Kind::Drop) {
    collections_.erase(step.collection);
    candidates_.erase(step.collection);
    return;
  }
  if (step.kind == Kind::Batch) {
    for (const std::string& key : step.added) apply({Kind::Add, step.collection, key, step.word});
    for (const std::string& key : step.removed) apply({Kind::Remove, step.collection, key, {}});
    collections_.at(step.collection).pending = !isSearchableAtOnce(step.collection);
    return;
  }
  Contents& contents = collections_.at(step.collection);
  auto& candidates = candidates_[step.collection];
  const bool atOnce = isSearchableAtOnce(step.collection);
  if (putsDocument(step)) {
    contents.documents[step.key] = step.word;
    if (atOnce) contents.searchable[step.key] = step.word;
    contents.pending = !atOnce;
    candidates[step.key].insert(step.word);
  } else if (step.kind == Kind::Remove) {
    contents.documents.erase(step.key);
    contents.searchable.erase(step.key);
    contents.pending = !atOnce;
    candidates.erase(step.key);
  } else if (step.kind == Kind::Update) {
    contents.searchable = contents.documents;
    contents.pending = false;
    candidates.clear();
    for (const auto& [key, word] : contents.documents) candidates[key] = {word};
  }
}

void Model::settle() {
  for (const auto& [name, contents] : Collections(collections_)) {
    apply({Kind::Update, name, {}, {}});
  }
}

void Model::forgiveUpdates(Collections& found, const std::set<std::string>& updated) const {
  for (auto& [name, contents] : found) {
    const auto mine = collections_.find(name);
    if (mine == collections_.end() || !updated.contains(name)) continue;
    const auto& candidates = candidates_.at(name);
    const auto isCandidate = [&](const auto& document) {
      const auto place = candidates.find(document.first);
      return place != candidates.end() && place->second.contains(document.second);
    };
    if (!std::all_of(contents.searchable.begin(), contents.searchable.end(), isCandidate)) continue;
    contents.searchable = mine->second.searchable;
    contents.pending = mine->second.pending;
  }
}

bool Model::allowsDuringUpdate(const std::string& collection, const Collections& found) const {
  const auto theirs = found.find(collection);
  if (theirs == found.end()) return false;
  const Contents& mine = collections_.at(collection);
  const auto wordIn = [](const Words& words, const std::string& key) {
    const auto place = words.find(key);
    return place == words.end() ? std::string() : place->second;
  };
  std::set<std::string> keys;
  for (const Words& words : {mine.documents, mine.searchable, theirs->second.searchable}) {
    for (const auto& [key, word] : words) keys.insert(key);
  }
  for (const std::string& key : keys) {
    const std::string word = wordIn(theirs->second.searchable, key);
    if (word != wordIn(mine.searchable, key) && word != wordIn(mine.documents, key)) return false;
  }
  Collections same = found;
  same[collection].searchable = mine.searchable;
  same[collection].pending = mine.pending;
  return same == collections_;
}

std::uint64_t StepSource::number(std::uint64_t most) {
  return std::uniform_int_distribution<std::uint64_t>(0, most)(random_);
}

Step StepSource::next(const Collections& collections) {
  Step step;
  step.collection = kCollections.at(number(kCollections.size() - 1));
  if (!collections.contains(step.collection)) return step;
  constexpr std::array<Kind, 24> kInds{
      Kind::Batch,  Kind::Batch,  Kind::Batch,  Kind::Batch,  Kind::Add,    Kind::Add,
      Kind::Add,    Kind::Add,    Kind::Add,    Kind::Queue,  Kind::Queue,  Kind::Queue,
      Kind::Report, Kind::Report, Kind::Remove, Kind::Remove, Kind::Remove, Kind::Remove,
      Kind::Remove, Kind::Update, Kind::Update, Kind::Update, Kind::Update, Kind::Drop};
  step.kind = kInds.at(number(kInds.size() - 1));
  // A queued document is never acknowledged.
  if (step.kind == Kind::Queue && isSearchableAtOnce(step.collection)) step.kind = Kind::Add;
  if (putsDocument(step) || step.kind == Kind::Remove) {
    step.key = "k" + std::to_string(number(kKeys - 1));
  }
  if (putsDocument(step) || step.kind == Kind::Batch) step.word = "w" + std::to_string(++words_);
  if (step.kind == Kind::Batch) chooseKeys(step);
  return step;
}

void StepSource::chooseKeys(Step& batch) {
  for (std::uint64_t key = 0; key < kKeys; ++key) {
    const std::uint64_t choice = number(2);
    if (choice == 1) batch.added.push_back("k" + std::to_string(key));
    if (choice == 2) batch.removed.push_back("k" + std::to_string(key));
  }
}

Steps StepSource::make(Model model, std::size_t count) {
  Steps steps;
  while (steps.size() < count) {
    steps.push_back(next(model.collections()));
    model.apply(steps.back());
  }
  return steps;
}

Progress carryOut(Subject& subject, const Steps& steps) {
  Progress progress;
  for (const Step& step : steps) {
    ++progress.sent;
    if (subject.apply(step)) {
      progress.acknowledged = progress.sent;
    } else if (step.kind != Kind::Queue) {
      break;
    }
  }
  return progress;
}

Collections lookAt(Subject& subject, const Model& model, const Steps& steps) {
  const std::set<std::string> words = wordsOf(model, steps);
  Collections found;
  for (const std::string name : kCollections) {
    const auto state = subject.state(name);
    if (!state) continue;
    Contents& contents = found[name];
    contents.pending = *state == CollectionState::ChangesPending;
    contents.searchable = searchableIn(subject, name, words);
    subject.apply({Kind::Update, name, {}, {}});
    contents.documents = documentsIn(subject, name, words);
  }
  return found;
}

std::optional<Model> explain(const Model& before, const Steps& steps, Progress progress,
                             const Collections& found, const std::set<std::string>& updated) {
  Model model = before;
  for (std::size_t done = 0; done <= progress.sent; ++done) {
    const Model previous = model;
    if (done > 0) model.apply(steps[done - 1]);
    if (done < progress.acknowledged) continue;
    const bool updating = done < progress.sent && steps[done].kind == Kind::Update;
    Collections seen = found;
    allowBeforeLastChange(seen, done > progress.acknowledged ? previous : model, model);
    model.forgiveUpdates(seen, updated);
    if (model.collections() == seen ||
        (updating && model.allowsDuringUpdate(steps[done].collection, seen))) {
      model.settle();
      return model;
    }
  }
  return std::nullopt;
}

Words documentsOfCopy(Subject& subject, const std::string& copy, const Model& before,
                      const Steps& steps) {
  subject.apply({Kind::Update, copy, {}, {}});
  return documentsIn(subject, copy, wordsOf(before, steps));
}

bool explainsCopy(const Model& before, const Steps& steps, Progress progress,
                  const std::string& collection, const Words& documents) {
  Model model = before;
  for (std::size_t done = 0; done <= progress.sent; ++done) {
    if (done > 0) model.apply(steps[done - 1]);
    const auto place = model.collections().find(collection);
    if (done < progress.acknowledged || place == model.collections().end()) continue;
    if (place->second.documents == documents) return true;
  }
  return false;
}

bool repeatsHarmlessly(Subject& subject, Model& model, const Steps& steps, Progress progress) {
  std::set<std::string> dropped;
  for (std::size_t i = progress.sent; i-- > 0;) {
    const Step& step = steps[i];
    if (step.kind == Kind::Drop) dropped.insert(step.collection);
    if (step.kind != Kind::Batch || dropped.contains(step.collection)) continue;
    if (i < progress.acknowledged && !subject.knows(step)) return false;
    if (!subject.apply(step)) return false;
    // Only of the last step is it unknown whether it was done.
    if (i + 1 == progress.sent) model.apply(step);
    subject.apply({Kind::Update, step.collection, {}, {}});
    model.settle();
    return explain(model, {}, {}, lookAt(subject, model, steps), {}).has_value();
  }
  return true;
}

std::string describe(const Model& before, const Steps& steps, Progress progress,
                     const Collections& found) {
  std::ostringstream out;
  out << "before:\n" << before.collections();
  for (std::size_t i = 0; i < progress.sent; ++i) {
    out << (i < progress.acknowledged ? "done: " : "begun: ") << steps[i] << "\n";
  }
  out << "found:\n" << found;
  return out.str();
}

bool isLongForm() { return std::getenv("KRUCOMM_LONG") != nullptr; }

std::vector<std::uint64_t> seeds(std::uint64_t count) {
  if (const char* seed = std::getenv("KRUCOMM_SEED")) return {std::stoull(seed)};
  if (isLongForm()) count *= 10;
  std::vector<std::uint64_t> list;
  for (std::uint64_t seed = 1; seed <= count; ++seed) list.push_back(seed);
  return list;
}

}  // namespace corvaned::test
