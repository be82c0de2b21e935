#include "cli/commandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/load.h"

namespace corvane {

namespace {

constexpr const char* footer =
    "Exit codes: 0 done; 1 the server, the connection or a file failed; 2 the command line is\n"
    "wrong, nothing was sent; 3 the result was cut off; 4 loaded, but some documents were "
    "refused.\n"
    "Each COMMAND has a --help of its own.";

// A command's arguments live as long as the function that was made of them.
template <typename Arguments>
std::shared_ptr<Arguments> makeArguments() {
  return std::make_shared<Arguments>();
}

// The parser would take a negative number, and one that does not fit, for a very large one.
CLI::Validator wholeNumber() {
  return CLI::Validator(
      [](const std::string& text) {
        const bool digits = text.find_first_not_of("0123456789") == std::string::npos;
        return digits && text.size() <= 18 ? "" : "\"" + text + "\" is no number of documents";
      },
      "NUMBER");
}

std::string contentsOf(std::istream& input, const std::string& name) {
  std::string bytes;
  try {
    bytes.assign(std::istreambuf_iterator<char>(input), {});
  } catch (const std::ios_base::failure& failure) {
    throw OperationError("cannot read " + name + ": " + failure.code().message());
  }
  constexpr std::size_t most = 0x3FFFFFFF;
  if (bytes.size() > most) throw OperationError(name + " is too long for a document");
  return bytes;
}

std::ifstream openFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  // Opening a directory succeeds, and its first read fails.
  if (file) file.peek();
  if (!file.is_open() || file.bad()) {
    throw OperationError("cannot read " + path + "; check that it is a file that you may read");
  }
  file.clear();
  return file;
}

class Builder {
 public:
  Builder(CLI::App& app, CommandLine& result, std::istream& in)
      : app_(app), result_(result), in_(in) {}

  void build() {
    addSettings();
    addCollectionCommand("create", "Create a collection", createCollection);
    addCollectionCommand("drop", "Delete a collection with everything in it", dropCollection);
    addAdd();
    addLoad();
    addCollectionCommand("update", "Make all added documents searchable", updateIndex);
    addSearch();
    addEstimate();
    addDelete();
    addStatus();
    addVersion();
  }

 private:
  using Action = ExitCode (*)(Session&, const std::string&);

  void addSettings() {
    Settings& settings = result_.settings;
    app_.add_option("--host", settings.host, "Host of the server")
        ->envname("CORVANE_HOST")
        ->capture_default_str();
    app_.add_option("--port", settings.port, "Port of the server for the chosen protocol")
        ->envname("CORVANE_PORT")
        ->check(CLI::Range(1, 65535))
        ->required();
    app_.add_option("--timeout", settings.timeOut,
                    "Milliseconds for connecting and for each wait for an answer; 0 waits for ever")
        ->capture_default_str();
    app_.add_option("--protocol", settings.protocol, "binary (the default) or http")
        ->transform(CLI::CheckedTransformer(std::map<std::string, Protocol>{
            {"binary", Protocol::binary}, {"http", Protocol::http}}))
        ->type_name("NAME");
    app_.add_flag("--json", result_.json, "Print JSON Lines");
    app_.set_version_flag("--version", std::string("corvane ") + CORVANE_VERSION);
    app_.footer(footer);
    app_.require_subcommand(1);
    app_.fallthrough();
  }

  CLI::App* addCommand(const char* name, const char* help,
                       const std::function<ExitCode(Session&)>& command) {
    CLI::App* sub = app_.add_subcommand(name, help);
    sub->callback([this, command] { result_.command = command; });
    return sub;
  }

  void addCollectionCommand(const char* name, const char* help, Action action) {
    auto collection = makeArguments<std::string>();
    addCommand(name, help, [=](Session& session) { return action(session, *collection); })
        ->add_option("COLLECTION", *collection, "Name of the collection")
        ->required();
  }

  void addAdd() {
    auto arguments = makeArguments<AddArguments>();
    auto file = makeArguments<std::string>();
    std::istream& in = in_;
    auto* sub = addCommand("add", "Add one document, or replace the one that has its key",
                           [=, &in](Session& session) {
                             if (*file == "-") {
                               arguments->text = contentsOf(in, "standard input");
                             } else if (!file->empty()) {
                               std::ifstream stream = openFile(*file);
                               arguments->text = contentsOf(stream, *file);
                             }
                             return addDocument(session, *arguments);
                           });
    sub->add_option("COLLECTION", arguments->collection, "Name of the collection")->required();
    sub->add_option("KEY", arguments->key, "The document's key, 1 to 128 bytes")->required();
    auto* text = sub->add_option("TEXT", arguments->text, "The document's text");
    sub->add_option("--file", *file, "Take the text from a file; - is standard input")
        ->excludes(text);
    sub->add_option("--meta", arguments->metadata, "NAME=VALUE of the metadata; repeatable")
        ->allow_extra_args(false);
  }

  void addLoad() {
    auto collection = makeArguments<std::string>();
    auto file = makeArguments<std::string>();
    std::istream& in = in_;
    auto* sub =
        addCommand("load", "Add many documents from JSON Lines", [=, &in](Session& session) {
          if (*file == "-") return loadDocuments(session, *collection, in);
          std::ifstream stream = openFile(*file);
          return loadDocuments(session, *collection, stream);
        });
    sub->add_option("COLLECTION", *collection, "Name of the collection")->required();
    sub->add_option("FILE", *file,
                    "One JSON object a line with \"key\", \"text\" and other fields, which become "
                    "metadata; - is standard input")
        ->required();
    sub->footer(
        "A document that is refused is reported with its line, key and reason; the rest is "
        "loaded. Documents are searchable after the command update.");
  }

  void addSearch() {
    auto arguments = makeArguments<SearchArguments>();
    auto* sub = addCommand("search", "Print rank, score and key of the documents that match best",
                           [=](Session& session) { return search(session, *arguments); });
    sub->add_option("COLLECTION", arguments->collection, "Name of the collection")->required();
    sub->add_option("QUERY", arguments->query, "What to look for")->required();
    sub->add_option("--limit", arguments->limit, "Print at most so many hits (default: all)")
        ->check(wholeNumber());
    sub->add_option("--start", arguments->start, "Leave out so many of the best hits")
        ->check(wholeNumber());
  }

  void addEstimate() {
    auto arguments = makeArguments<SearchArguments>();
    auto* sub = addCommand("estimate", "Estimate how many documents match", [=](Session& session) {
      return estimate(session, arguments->collection, arguments->query);
    });
    sub->add_option("COLLECTION", arguments->collection, "Name of the collection")->required();
    sub->add_option("QUERY", arguments->query, "What to look for")->required();
  }

  void addDelete() {
    auto collection = makeArguments<std::string>();
    auto keys = makeArguments<std::vector<std::string>>();
    auto base64 = makeArguments<bool>();
    auto* sub = addCommand(
        "delete", "Delete documents; a key that is not there is no error",
        [=](Session& session) { return deleteDocuments(session, *collection, *keys, *base64); });
    sub->add_option("COLLECTION", *collection, "Name of the collection")->required();
    sub->add_option("KEY", *keys, "Keys of the documents")->required();
    sub->add_flag("--base64", *base64, "The keys are Base64, as search shows unprintable ones");
  }

  void addStatus() {
    auto collection = makeArguments<std::string>();
    addCommand("status", "Ask whether the server, or a collection, is ready",
               [=](Session& session) { return status(session, *collection); })
        ->add_option("COLLECTION", *collection, "Name of a collection");
  }

  void addVersion() { addCommand("version", "Print the server's version", serverVersion); }

  CLI::App& app_;
  CommandLine& result_;
  std::istream& in_;
};

}  // namespace

ParsedCommandLine parseCommandLine(int argc, const char* const* argv, const Streams& streams) {
  ParsedCommandLine parsed;
  CLI::App app("Command line for a Corvane full-text search server", "corvane");
  // What it has built calls back into it while the command line is read.
  Builder builder(app, parsed.commandLine, streams.in);
  builder.build();
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {
    app.exit(asked, streams.out, streams.err);
    parsed.exit = ExitCode::ok;
  } catch (const CLI::ParseError& wrong) {
    // How far the options were understood cannot be told.
    const bool json = std::any_of(argv, argv + argc,
                                  [](const char* word) { return std::string(word) == "--json"; });
    Printer(streams.out, streams.err, {json})
        .error(std::string(wrong.what()) + "; see corvane --help");
    parsed.exit = ExitCode::usage;
  }
  return parsed;
}

}  // namespace corvane
