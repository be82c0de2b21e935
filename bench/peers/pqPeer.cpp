// libpq: a prepared statement that gives one number, and a result of many rows, a 16-byte key and a
// score each, row by row in the binary format.

#include <libpq-fe.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "bench/peers/peer.h"

namespace {

using bench::Options;
using Connection = std::unique_ptr<PGconn, void (*)(PGconn*)>;
using Result = std::unique_ptr<PGresult, void (*)(PGresult*)>;

Connection connectionOf(const Options& options) {
  const std::string target =
      "host=127.0.0.1 dbname=postgres user=" + options.text("user", "bench") +
      " port=" + options.text("port", "0");
  Connection connection(PQconnectdb(target.c_str()), PQfinish);
  if (PQstatus(connection.get()) != CONNECTION_OK) {
    throw std::runtime_error(PQerrorMessage(connection.get()));
  }
  return connection;
}

void prepare(const Connection& connection, const std::string& statement) {
  const Result result(PQprepare(connection.get(), "it", statement.c_str(), 0, nullptr), PQclear);
  if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
    throw std::runtime_error(PQerrorMessage(connection.get()));
  }
}

void exchange(const Options& options) {
  const Connection connection = connectionOf(options);
  prepare(connection, "SELECT 1");
  bench::measure(options, 1, [&] {
    const Result result(PQexecPrepared(connection.get(), "it", 0, nullptr, nullptr, nullptr, 1),
                        PQclear);
    if (PQntuples(result.get()) != 1) throw std::runtime_error("no row");
  });
}

void hits(const Options& options) {
  const Connection connection = connectionOf(options);
  const std::uint64_t count = options.number("count", 1000000);
  prepare(connection,
          "SELECT decode(md5(n::text), 'hex'), (n % 65536)::int4 FROM generate_series(1, " +
              std::to_string(count) + ") AS n");
  bench::measure(options, count, [&] {
    std::uint64_t seen = 0;
    std::uint64_t sum = 0;
    if (PQsendQueryPrepared(connection.get(), "it", 0, nullptr, nullptr, nullptr, 1) == 0 ||
        PQsetSingleRowMode(connection.get()) == 0) {
      throw std::runtime_error("cannot ask");
    }
    for (Result row(PQgetResult(connection.get()), PQclear); row;
         row.reset(PQgetResult(connection.get()))) {
      if (PQntuples(row.get()) == 0) continue;
      ++seen;
      sum += static_cast<unsigned char>(*PQgetvalue(row.get(), 0, 0));
      sum += static_cast<unsigned char>(PQgetvalue(row.get(), 0, 1)[3]);
    }
    if (seen != count || sum == 0) throw std::runtime_error("rows are missing");
  });
}

}  // namespace

int main(int argc, char** argv) {
  return bench::runPeer("pqPeer", argc, argv, {{"exchange", exchange}, {"hits", hits}});
}
