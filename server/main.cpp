#include <fcntl.h>
#include <fmt/format.h>
#include <pthread.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "server/access/accessControl.h"
#include "server/accountCommand.h"
#include "server/base/descriptorBudget.h"
#include "server/base/memoryBudget.h"
#include "server/faults/faultPlan.h"
#include "server/faults/faultScript.h"
#include "server/faults/faultyOutlet.h"
#include "server/front/dispatcher.h"
#include "server/front/monitor.h"
#include "server/front/server.h"
#include "server/maintenanceCommand.h"
#include "server/store/files.h"
#include "server/store/indexForm.h"
#include "server/store/localStore.h"

namespace {

using namespace corvaned;

// A transaction of words that are all different takes many times the memory that its text has.
constexpr std::size_t kBatchesPerBudget = 64;

// With a few KiB every request for a collection would be refused, however often it comes again.
constexpr std::size_t kLeastMemory = std::size_t{16} << 20U;
constexpr unsigned kMostSearchThreads = 1024;
// No request is that large, and what is added to it, or taken times a few, still fits.
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 40U;

/// The options contradict each other or the server's safety.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string users;
  bool openToEverybody = false;
  std::string data;
  std::optional<std::string> backups;
  std::string portFile;
  std::string logLevel = "info";
  std::string faultScript;
  ServerOptions server;
  StoreLimits store;
  std::optional<std::uint16_t> monitorPort;
  std::optional<std::uint64_t> contentBytes;
  std::optional<std::size_t> memory;
  std::optional<std::size_t> openFiles;
  unsigned stallSeconds = 60;
  unsigned idleSeconds = 0;
  unsigned requestSeconds = 600;
  unsigned searchSeconds = 60;
  /// Why there are fewer clients than the options say; empty if there are not.
  std::string fewerClients;
  spdlog::level::level_enum fewerClientsLevel = spdlog::level::info;
};

// The parser would take a negative number, and one that does not fit, for another one.
template <typename Number>
CLI::Validator from(Number least, Number most = std::numeric_limits<Number>::max()) {
  return CLI::Validator(
      [=](const std::string& text) -> std::string {
        Number number = 0;
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, number);
        const bool good = error == std::errc{} && stop == end && number >= least && number <= most;
        return good ? "" : fmt::format("'{}' is not a number from {} to {}", text, least, most);
      },
      "");
}

/// Reads the configuration file. What a file says and the server does not know is a mistake, and
/// not left out: the parser by itself would serve without accounts if "users" were misspelt.
class ConfigurationFile : public CLI::ConfigTOML {
 public:
  explicit ConfigurationFile(const CLI::App& app) : app_(app) {}

  std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
    std::vector<CLI::ConfigItem> said = CLI::ConfigTOML::from_config(input);
    for (const CLI::ConfigItem& item : said) {
      if (!item.parents.empty()) refuse("the section [" + item.parents.front() + "]");
      if (!app_.get_option_no_throw("--" + item.name)) refuse("the option \"" + item.name + "\"");
    }
    return said;
  }

 private:
  [[noreturn]] void refuse(const std::string& what) const {
    throw CLI::ConfigError(app_.get_config_ptr()->as<std::string>() + ": corvaned does not know " +
                           what);
  }

  const CLI::App& app_;
};

void declarePlaces(CLI::App& app, Options& options) {
  app.set_version_flag("--version", "corvaned " KRUCOMM_VERSION);
  auto* ports = app.add_option_group("ports", "at least one of");
  ports
      ->add_option("--http-port", options.server.httpPort, "port of the HTTP protocol, 0: any free")
      ->check(from<std::uint16_t>(0));
  ports
      ->add_option("--binary-port", options.server.binaryPort,
                   "port of the binary protocol, 0: any free")
      ->check(from<std::uint16_t>(0));
  ports->require_option(1, 2);
  app.add_option("--data", options.data, "directory that holds the collections")->required();
  app.add_option("--backup-directory", options.backups,
                 "directory where backups are made and looked for; without it they are refused");
  app.add_option("--listen", options.server.listen,
                 "numeric address to listen on; beyond this machine it needs --users")
      ->capture_default_str();
  app.add_option(
      "--users", options.users,
      "file that says who may do what; \"corvaned user\" and \"corvaned token\" write it");
  app.add_flag("--open-to-everybody", options.openToEverybody,
               "listen beyond this machine without --users");
  app.set_config("--config", "", "file with one \"option = value\" a line, without the dashes");
  app.config_formatter(std::make_shared<ConfigurationFile>(app));
  app.add_option("--monitor-port", options.monitorPort,
                 "loopback port for /metrics, /health and /ready, 0: any free")
      ->check(from<std::uint16_t>(0));
  app.add_option("--port-file", options.portFile, "file to write the ready lines to as well");
  app.add_option("--log-level", options.logLevel, "what to say on standard error")
      ->check(CLI::IsMember({"trace", "debug", "info", "warn", "error", "critical", "off"}))
      ->capture_default_str();
  app.add_option("--fault", options.faultScript,
                 "file, or text, that says which replies go wrong and how");
}

void declareLimits(CLI::App& app, Options& options) {
  app.add_option("--max-content", options.contentBytes,
                 "most bytes behind the header block of a request; 1 MiB more than a document has "
                 "if not given")
      ->check(from<std::uint64_t>(0, kMostBytes));
  app.add_option("--max-document", options.store.documentBytes, "largest document in bytes")
      ->check(from<std::uint64_t>(0, kMostBytes))
      ->capture_default_str();
  app.add_option("--max-memory", options.memory,
                 "most bytes of memory for requests, replies, index updates and open collections; "
                 "a quarter of the machine's if not given")
      ->check(from<std::size_t>(kLeastMemory));
  app.add_option("--max-connections", options.server.connections, "most clients at a time")
      ->check(from<std::size_t>(0))
      ->capture_default_str();
  app.add_option(
         "--max-open-files", options.openFiles,
         "most files and connections that the process may have open; what the system allows "
         "if not given")
      ->check(from<std::size_t>(1));
  app.add_option("--max-expansion", options.store.index.expansion,
                 "most words that a word with * may stand for")
      ->check(from<std::size_t>(0))
      ->capture_default_str();
  app.add_option("--max-search-cost", options.server.searchCost,
                 "most documents that a search may look at, 0: no limit")
      ->check(from<std::uint64_t>(0))
      ->capture_default_str();
  app.add_option("--search-threads", options.server.readThreads, "most searches at a time")
      ->check(from<unsigned>(1, kMostSearchThreads))
      ->capture_default_str();
  app.add_option("--shards-per-collection", options.store.parts,
                 "databases that share the documents of a collection that is created")
      ->check(from<std::size_t>(1, kMostParts))
      ->capture_default_str();
}

void declareTimes(CLI::App& app, Options& options) {
  app.add_option("--stall-timeout", options.stallSeconds,
                 "seconds without a byte in the middle of a request or reply, 0: no limit")
      ->check(from<unsigned>(0))
      ->capture_default_str();
  app.add_option("--request-timeout", options.requestSeconds,
                 "seconds after which a request must be complete, 0: no limit")
      ->check(from<unsigned>(0))
      ->capture_default_str();
  app.add_option("--search-timeout", options.searchSeconds,
                 "seconds that a search may take from its arrival on, 0: no limit")
      ->check(from<unsigned>(0))
      ->capture_default_str();
  app.add_option("--idle-timeout", options.idleSeconds, "seconds without a request, 0: no limit")
      ->check(from<unsigned>(0))
      ->capture_default_str();
}

void declareOptions(CLI::App& app, Options& options) {
  declarePlaces(app, options);
  declareLimits(app, options);
  declareTimes(app, options);
}

Options optionsOf(int argc, char** argv) {
  CLI::App app("corvaned, a full-text search server");
  Options options;
  declareOptions(app, options);
  app.parse(argc, argv);
  return options;
}

void loadFaults(Options& options) {
  if (options.faultScript.empty()) return;
  options.server.outlets =
      faultyOutlets(std::make_shared<FaultPlan>(loadFaultScript(options.faultScript)));
}

void startLog(const std::string& level) {
  spdlog::set_default_logger(spdlog::stderr_logger_mt("corvaned"));
  spdlog::set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %l %v");
  spdlog::set_level(spdlog::level::from_str(level));
}

// Thousands of clients and collections need more descriptors than the usual default limit.
std::size_t descriptorLimit(const std::optional<std::size_t>& wanted) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    throw std::runtime_error("cannot tell how many files may be open");
  }
  const rlimit before = limit;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, wanted.value_or(limit.rlim_max));
  return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : before.rlim_cur;
}

void divideDescriptors(Options& options) {
  const std::size_t limit = descriptorLimit(options.openFiles);
  const DescriptorPlan plan = corvaned::divideDescriptors(limit, options.server.connections);
  if (plan.connections < options.server.connections) {
    options.fewerClients = fmt::format(
        "at most {} clients at a time: {} open files allow no more, --max-connections is {}",
        plan.connections, limit, options.server.connections);
    // Nobody has asked for the default.
    options.fewerClientsLevel = options.server.connections == ServerOptions().connections
                                    ? spdlog::level::info
                                    : spdlog::level::warn;
  }
  options.server.connections = plan.connections;
  options.store.index.descriptors = std::make_shared<DescriptorBudget>(plan.collections);
}

// The first connection, or a file of the data directory, would otherwise get the number of a
// standard descriptor that is closed, and the log be written into it.
void openStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // Whoever prints something has to notice that nobody can read it.
    const int mode = descriptor == STDOUT_FILENO ? O_RDONLY : O_RDWR;
    if (::fcntl(descriptor, F_GETFD) == -1) ::open("/dev/null", mode);
  }
}

std::size_t quarterOfTheMachine() {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long bytes = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || bytes <= 0) throw std::runtime_error("cannot tell how much memory there is");
  return static_cast<std::size_t>(pages) / 4 * static_cast<std::size_t>(bytes);
}

// What several of the options say together.
void settle(Options& options) {
  if (!options.users.empty()) {
    options.server.access = std::make_shared<AccessControl>(options.users);
  }
  const auto budget =
      std::make_shared<MemoryBudget>(options.memory.value_or(quarterOfTheMachine()));
  options.server.memory = budget;
  options.store.index.memory = budget;
  options.store.index.batchBytes =
      std::min(options.store.index.batchBytes, budget->limit() / kBatchesPerBudget);
  // The names and lengths of metadata, and the key.
  constexpr std::uint64_t kSlack = std::uint64_t{1} << 20U;
  options.server.limits.contentBytes =
      options.contentBytes.value_or(options.store.documentBytes + kSlack);
  options.server.stallTimeout = std::chrono::seconds(options.stallSeconds);
  options.server.idleTimeout = std::chrono::seconds(options.idleSeconds);
  options.server.requestTimeout = std::chrono::seconds(options.requestSeconds);
  options.server.searchTimeout = std::chrono::seconds(options.searchSeconds);
}

bool isLoopback(const std::string& address) {
  return address.starts_with("127.") || address == "::1";
}

// A server that anybody on the network can read and change is nothing to start by mistake.
void requireAccessControl(const Options& options) {
  if (!options.users.empty() || options.openToEverybody) return;
  if (isLoopback(options.server.listen)) return;
  throw UsageError(
      "--listen " + options.server.listen +
      " lets other machines in; give --users FILE, or --open-to-everybody if everybody "
      "there may read and change everything");
}

// Every thread inherits the mask, so that only sigwait() receives the signals.
sigset_t blockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // A broken pipe or a file at its size limit is an error to report, not a reason to end.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  return signals;
}

std::string readyLines(const Server& server, const std::optional<Monitor>& monitor) {
  std::string lines;
  for (const Server::Listener& listener : server.listeners()) {
    const bool v6 = listener.address.find(':') != std::string::npos;
    lines += fmt::format("listening {} {}:{}\n", nameOf(listener.framing),
                         v6 ? "[" + listener.address + "]" : listener.address, listener.port);
  }
  if (monitor) lines += fmt::format("listening monitor 127.0.0.1:{}\n", monitor->port());
  return lines;
}

std::string metricsText(Dispatcher& dispatcher, const MemoryBudget& memory,
                        const CollectionCounts& collections) {
  std::string text = dispatcher.metrics().text();
  appendMetric(text, "corvaned_memory_budget_bytes", "gauge", "What --max-memory allows.",
               memory.limit());
  appendMetric(text, "corvaned_memory_used_bytes", "gauge",
               "What requests, replies and index updates have set aside of it.", memory.used());
  appendCollections(text, collections);
  return text;
}

// Renamed into place, so that a reader finds the complete file or none.
void writePortFile(const std::string& path, const std::string& lines) {
  if (path.empty()) return;
  const std::filesystem::path passing = path + ".new";
  std::filesystem::remove(passing);
  writeAll(openFile(passing, O_WRONLY | O_CREAT | O_EXCL), lines, passing);
  std::filesystem::rename(passing, path);
}

// A directory that an earlier version made is open to be read.
void closeToOthers(const std::string& directory) {
  std::error_code error;
  std::filesystem::permissions(directory, std::filesystem::perms::owner_all, error);
  if (error) spdlog::warn("cannot keep others out of {}: {}", directory, error.message());
}

// What can change while the server runs: who may do what, and how much is logged.
void reload(const Options& options, const std::function<Options()>& again) {
  try {
    const std::string level = again().logLevel;
    if (options.server.access) options.server.access->reload();
    spdlog::set_level(spdlog::level::from_str(level));
    spdlog::info("the settings were read again");
  } catch (const std::exception& error) {
    spdlog::error("the old settings stay: {}", error.what());
  }
}

void serve(const Options& options, const std::function<Options()>& again) {
  const sigset_t signals = blockStopSignals();
  LocalStore store(options.data, options.store, options.backups);
  closeToOthers(options.data);
  // Requests end the server as an operator does.
  Dispatcher dispatcher(store, KRUCOMM_VERSION, [] { ::kill(::getpid(), SIGTERM); });
  Server server(dispatcher, options.server);
  server.start();
  std::atomic<bool> stopping = false;
  std::optional<Monitor> monitor;
  if (options.monitorPort) {
    monitor.emplace(
        *options.monitorPort,
        Monitor::Sources{
            [&] { return metricsText(dispatcher, *options.server.memory, store.counts()); },
            [&] { return std::string(stopping ? "the server is stopping" : ""); },
            [&] { return noticeOf(store.counts()); }});
  }
  const std::string lines = readyLines(server, monitor);
  writePortFile(options.portFile, lines);
  std::cout << lines << std::flush;
  spdlog::info("serving {}", options.data);
  // Not before: a server that cannot start says one thing.
  if (!options.fewerClients.empty()) {
    spdlog::log(options.fewerClientsLevel, "{}", options.fewerClients);
  }
  if (options.server.outlets) spdlog::warn("replies go wrong as --fault says");
  int signal = 0;
  while (sigwait(&signals, &signal) != 0 || signal == SIGHUP) reload(options, again);
  stopping = true;
  spdlog::info("stopping");
  store.stop();
  server.stop();
}

}  // namespace

int main(int argc, char** argv) {
  openStandardDescriptors();
  // What is stored is nobody else's business, whatever the umask of whoever starts the server.
  ::umask(S_IRWXG | S_IRWXO);
  if (argc > 1 && isAccountCommand(argv[1])) return runAccountCommand(argc, argv);
  if (argc > 1 && isMaintenanceCommand(argv[1])) return runMaintenanceCommand(argc, argv);
  CLI::App app("corvaned, a full-text search server");
  Options options;
  declareOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& answer) {
    const int code = app.exit(answer);
    if (code == 0) return 0;
    const CLI::Option* file = app.get_config_ptr();
    if (file->count() > 0) {
      std::cerr << "The options are also read from " << file->as<std::string>() << ".\n";
    }
    return 2;
  }
  try {
    startLog(options.logLevel);
    requireAccessControl(options);
    loadFaults(options);
    settle(options);
    divideDescriptors(options);
    serve(options, [&] { return optionsOf(argc, argv); });
    return 0;
  } catch (const UsageError& error) {
    std::cerr << "corvaned: " << error.what() << "\n";
    return 2;
  } catch (const FaultScriptError& error) {
    std::cerr << "corvaned: --fault: " << error.what() << "\n";
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "corvaned: " << error.what() << "\n";
    return 1;
  }
}
