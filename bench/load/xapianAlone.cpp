// The same documents and searches with the engine alone, called in this process, without a journal,
// checksums or a network.
//
//   xapianAlone fill|search|parts --path=DIRECTORY [--texts=FILE] [--documents=N] [--clients=N]
//               [--seconds=N]
//
// "parts" asks each query in turn as the engine does it by default and with what the server adds:
// an order of hits with the same weight, and a way to be stopped.

#include <xapian.h>

#include <array>
#include <cstdio>
#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/load/corpus.h"
#include "bench/load/latencies.h"
#include "bench/measure.h"
#include "server/base/requestContext.h"
#include "server/store/interruption.h"

namespace {

using bench::Options;
using load::Corpus;
using load::Latencies;
using Clock = Latencies::Clock;

constexpr Xapian::doccount kPage = 10;
constexpr Xapian::valueno kKeySlot = 0;
// As many documents as the server brings into its index at a time.
constexpr std::uint64_t kTransaction = 1000;

Xapian::Document documentOf(const load::Text& text, const Xapian::Stem& stemmer) {
  Xapian::Document document;
  Xapian::TermGenerator generator;
  generator.set_stemmer(stemmer);
  generator.set_document(document);
  generator.index_text(text.content);
  generator.increase_termpos();
  generator.index_text(text.title, 1, "XT");
  document.add_boolean_term("Q" + text.key);
  document.add_value(kKeySlot, text.key);
  document.set_data(text.content);
  return document;
}

void fill(const Options& options, const Corpus& corpus, Latencies&) {
  Xapian::WritableDatabase database(options.text("path", ""), Xapian::DB_CREATE);
  const Xapian::Stem stemmer("english");
  for (std::uint64_t i = 0; i < corpus.size(); ++i) {
    const load::Text text = corpus.document(i);
    database.replace_document("Q" + text.key, documentOf(text, stemmer));
    if ((i + 1) % kTransaction == 0) database.commit();
  }
  database.commit();
}

/// What the server has beyond the engine's default.
struct Additions {
  const char* name;
  bool orderOfEqualWeights = false;
  bool canBeStopped = false;
};

void searchOnce(Xapian::Database& database, Xapian::QueryParser& parser, const std::string& query,
                const Additions& additions = {"search"}) {
  const unsigned flags = Xapian::QueryParser::FLAG_DEFAULT | Xapian::QueryParser::FLAG_WILDCARD;
  Xapian::Enquire enquire(database);
  corvaned::RequestContext request({});
  std::optional<corvaned::RequestContext::Scope> served;
  if (additions.canBeStopped) served.emplace(request);
  const corvaned::Interruptible interruptible(parser.parse_query(query, flags));
  enquire.set_query(interruptible.query());
  if (additions.orderOfEqualWeights) enquire.set_sort_by_relevance_then_value(kKeySlot, false);
  const Xapian::MSet hits = enquire.get_mset(0, kPage);
  for (auto hit = hits.begin(); hit != hits.end(); ++hit) {
    if (hit.get_document().get_value(kKeySlot).empty()) {
      throw std::runtime_error("a hit without a key");
    }
  }
}

void search(const Options& options, const Corpus& corpus, Latencies& all) {
  const auto begin = Clock::now();
  const auto end = begin + std::chrono::seconds(options.number("seconds", 10));
  std::mutex mutex;
  std::vector<std::thread> threads;
  for (std::uint64_t number = 0; number < options.number("clients", 1); ++number) {
    threads.emplace_back([&, number] {
      Xapian::Database database(options.text("path", ""));
      Xapian::QueryParser parser;
      parser.set_database(database);
      parser.set_stemmer(Xapian::Stem("english"));
      parser.set_stemming_strategy(Xapian::QueryParser::STEM_SOME);
      load::Random random(number);
      Latencies latencies;
      while (Clock::now() < end) {
        const std::string query = corpus.query(random);
        latencies.take("search", begin, [&] { searchOnce(database, parser, query); });
      }
      const std::lock_guard lock(mutex);
      all.add(latencies);
    });
  }
  for (auto& thread : threads) thread.join();
}

// Each query is asked in all ways before the next one, with another one first each time.
void parts(const Options& options, const Corpus& corpus, Latencies& all) {
  constexpr std::array<Additions, 4> kWays{
      {{"plain"}, {"ordered", true, false}, {"stoppable", false, true}, {"both", true, true}}};
  const auto begin = Clock::now();
  const auto end = begin + std::chrono::seconds(options.number("seconds", 10));
  Xapian::Database database(options.text("path", ""));
  Xapian::QueryParser parser;
  parser.set_database(database);
  parser.set_stemmer(Xapian::Stem("english"));
  parser.set_stemming_strategy(Xapian::QueryParser::STEM_SOME);
  load::Random random(0);
  std::array<double, kWays.size()> nanos{};
  for (std::size_t count = 0; Clock::now() < end; ++count) {
    const std::string query = corpus.query(random);
    for (std::size_t i = 0; i < kWays.size(); ++i) {
      const std::size_t way = (i + count) % kWays.size();
      const double before = bench::nanosOf(CLOCK_THREAD_CPUTIME_ID);
      all.take(kWays[way].name, begin, [&] { searchOnce(database, parser, query, kWays[way]); });
      nanos[way] += bench::nanosOf(CLOCK_THREAD_CPUTIME_ID) - before;
    }
  }
  for (std::size_t way = 0; way < kWays.size(); ++way) {
    std::fprintf(stderr, "%-10s %.3f of the CPU of plain\n", kWays[way].name,
                 nanos[way] / nanos[0]);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options(argc, argv);
    const Corpus corpus(options.text("texts", ""), options.number("documents", 0));
    Latencies latencies;
    const auto begin = Clock::now();
    const double cpu = bench::nanosOf(CLOCK_PROCESS_CPUTIME_ID);
    if (options.work() == "fill") {
      fill(options, corpus, latencies);
    } else if (options.work() == "search") {
      search(options, corpus, latencies);
    } else if (options.work() == "parts") {
      parts(options, corpus, latencies);
    } else {
      throw std::runtime_error("there is no work '" + options.work() + "'");
    }
    const std::chrono::duration<double> taken = Clock::now() - begin;
    std::printf("{\"seconds\": %.3f, \"cpuSeconds\": %.3f, \"operations\": ", taken.count(),
                (bench::nanosOf(CLOCK_PROCESS_CPUTIME_ID) - cpu) / 1e9);
    latencies.print(10);
    std::printf("}\n");
    return 0;
  } catch (const Xapian::Error& error) {
    std::fprintf(stderr, "xapianAlone: %s\n", error.get_description().c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "xapianAlone: %s\n", error.what());
  }
  return 1;
}
