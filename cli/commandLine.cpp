#include "cli/commandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>

#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/help.h"
#include "cli/load.h"
#include "cli/misuse.h"

namespace corvane {

namespace {

// A command's function owns the arguments that the parser fills in.
template <typename Arguments>
std::shared_ptr<Arguments> makeArguments() {
  return std::make_shared<Arguments>();
}

// The parser would take a negative number, and one that does not fit, for a very large one.
CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most) {
  return CLI::Validator(
      [=](const std::string& text) -> std::string {
        std::uint64_t number = 0;
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, number);
        const bool good = error == std::errc{} && stop == end && number >= least && number <= most;
        return good ? "" : fmt::format("'{}' is not a number from {} to {}", text, least, most);
      },
      "");
}

CLI::Validator protocolName() {
  return CLI::Validator(
      [](const std::string& text) -> std::string {
        if (text == "binary" || text == "http") return "";
        return fmt::format("'{}' is not a protocol; there are binary and http", text);
      },
      "");
}

// An empty one is most likely a variable that is not set: whom the environment names is not meant.
CLI::Validator fileName() {
  return CLI::Validator(
      [](const std::string& text) -> std::string {
        return text.empty() ? "an empty text is no file's name" : "";
      },
      "");
}

constexpr std::uint64_t kMaxDocuments = 999'999'999'999'999'999;

constexpr const char* kRepeatable =
    "If the connection breaks, the request is repeated once: doing it twice does no\n"
    "harm.";

std::string contentsOf(std::istream& input, const std::string& name) {
  std::string bytes;
  try {
    bytes.assign(std::istreambuf_iterator<char>(input), {});
  } catch (const std::ios_base::failure& failure) {
    throw OperationError("cannot read " + name + ": " + failure.code().message());
  }
  constexpr std::size_t kLongest = 0x3FFFFFFF;
  if (bytes.size() > kLongest) throw OperationError(name + " is too long for a document");
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
    addCreate();
    addConfigure();
    addCollectionCommand(
        "drop", "Delete a collection with everything in it", dropCollection,
        "If the connection breaks once the request is on its way, it is not repeated: the\n"
        "collection may have been deleted, which 'corvane status COLLECTION' tells.");
    addAdd();
    addLoad();
    addCollectionCommand(
        "update", "Make all added documents searchable",
        [](Session& session, const std::string& name) { return updateIndex(session, name); },
        kRepeatable);
    addSearch();
    addEstimate();
    addDelete();
    addBackup();
    addRestore();
    addBackups();
    addList();
    addKeys();
    addDigest();
    addStatus();
    addVersion();
  }

 private:
  using Action = ExitCode (*)(Session&, const std::string&);

  void addSettings() {
    Settings& settings = result_.settings;
    app_.add_option("--host", settings.host,
                    "Host of the server\n(default: CORVANE_HOST, or 127.0.0.1)")
        ->envname("CORVANE_HOST")
        ->option_text("HOST");
    app_.add_option("--port", settings.port,
                    "Port of the server for the chosen protocol\n(default: CORVANE_PORT)")
        ->envname("CORVANE_PORT")
        ->check(wholeNumber(1, 65535))
        ->option_text("PORT");
    app_.add_option(
            "--timeout", settings.timeOut,
            "Milliseconds that a request may take, repetitions\nincluded, or each further part "
            "of a long result;\n0 waits for ever (default: 300000)")
        ->check(wholeNumber(0, std::numeric_limits<unsigned int>::max()))
        ->option_text("MS");
    app_.add_option_function<std::string>(
            "--protocol",
            [&settings](const std::string& name) {
              settings.protocol = name == "http" ? Protocol::Http : Protocol::Binary;
            },
            "binary (the default) or http")
        ->check(protocolName())
        ->option_text("NAME");
    app_.add_option("--credentials", settings.credentials,
                    "File with a token, or NAME:PASSWORD, in its first line\n(default: what "
                    "CORVANE_CREDENTIALS holds)")
        ->check(fileName())
        ->option_text("FILE");
    app_.add_flag("--json", result_.json, "Print JSON Lines");
    app_.set_version_flag("--version", std::string("corvane ") + CORVANE_VERSION,
                          "Print the version of corvane");
    app_.set_help_flag("-h,--help", "Print this help");
    app_.footer("'corvane COMMAND --help' says more about a command.");
    app_.require_subcommand(1);
    app_.fallthrough();
  }

  CLI::App* addCommand(const char* name, const char* help,
                       const std::function<ExitCode(Session&)>& command, const char* details) {
    CLI::App* sub = app_.add_subcommand(name, help);
    sub->group("Commands");
    sub->callback([this, command] { result_.command = command; });
    sub->footer(details);
    return sub;
  }

  static void addCollection(CLI::App* command, std::string& collection) {
    command->add_option("COLLECTION", collection, "Name of the collection")->required();
  }

  void addCollectionCommand(const char* name, const char* help, Action action,
                            const char* details) {
    auto collection = makeArguments<std::string>();
    auto* sub = addCommand(
        name, help, [=](Session& session) { return action(session, *collection); }, details);
    addCollection(sub, *collection);
  }

  void addCreate() {
    auto arguments = makeArguments<CreateArguments>();
    auto* sub = addCommand(
        "create", "Create a collection",
        [=](Session& session) { return createCollection(session, *arguments); },
        "A collection keeps what it was created with. If the connection breaks once the\n"
        "request is on its way, it is not repeated: the collection may have been created,\n"
        "which 'corvane status COLLECTION' tells.");
    addCollection(sub, arguments->collection);
    sub->add_option("--refresh", arguments->refresh,
                    "When changes become searchable: manual (the\ndefault: by the command update), "
                    "immediate, or after\nthat many milliseconds")
        ->option_text("WHEN");
    sub->add_option("--language", arguments->language,
                    "Language of the texts, whose words are stemmed\n(default: en_us)")
        ->option_text("CODE");
    sub->add_option("--stop-words", arguments->stopWords,
                    "Words that queries leave out, apart by commas or\nblanks")
        ->option_text("WORDS");
    sub->add_flag("--without-text", arguments->withoutText,
                  "Store no texts; there are no digests then");
    sub->add_flag("--without-positions", arguments->withoutPositions,
                  "Store no positions of words; there are no phrases then");
    sub->add_flag("--without-stemming", arguments->withoutStemming, "Find words only as they are");
    sub->add_flag(
        "--marked-metadata", arguments->markedMetadata,
        "Make only that metadata searchable whose name comes\nwith 'Indexable:' in front");
  }

  void addConfigure() {
    auto arguments = makeArguments<ConfigureArguments>();
    auto* sub = addCommand(
        "configure", "Say how documents are read that do not say it themselves",
        [=](Session& session) { return configureCollection(session, *arguments); },
        "It holds for documents that are added from then on, and replaces what was said\n"
        "before: what is not given is as in a new collection. If the connection breaks\n"
        "once the request is on its way, it is not repeated; configuring again does no\n"
        "harm.");
    addCollection(sub, arguments->collection);
    sub->add_option("--type", arguments->type, "text (the default), html or xml")
        ->option_text("TYPE");
    sub->add_option("--charset", arguments->charset,
                    "Their charset (default: what a document declares,\nelse UTF-8)")
        ->option_text("NAME");
    sub->add_option("--language", arguments->language, "Their language (default: the collection's)")
        ->option_text("CODE");
  }

  void addAdd() {
    auto arguments = makeArguments<AddArguments>();
    auto file = makeArguments<std::string>();
    std::istream& in = in_;
    auto* sub = addCommand(
        "add", "Add one document, or replace the one that has its key",
        [=, &in](Session& session) {
          if (*file == "-") {
            arguments->text = contentsOf(in, "standard input");
          } else if (!file->empty()) {
            std::ifstream stream = openFile(*file);
            arguments->text = contentsOf(stream, *file);
          }
          return addDocument(session, *arguments);
        },
        kRepeatable);
    addCollection(sub, arguments->collection);
    sub->add_option("KEY", arguments->key, "The document's key, 1 to 128 bytes")->required();
    auto* text =
        sub->add_option("TEXT", arguments->text, "The document's text; '' for an empty one");
    auto* from = sub->add_option("--file", *file, "Take the text from a file; - is standard input")
                     ->excludes(text)
                     ->check(fileName())
                     ->option_text("FILE");
    sub->add_option("--meta", arguments->metadata, "A pair of the metadata; may be repeated")
        ->allow_extra_args(false)
        ->option_text("NAME=VALUE");
    // A forgotten text would replace a document by an empty one.
    sub->parse_complete_callback([=] {
      if (text->count() != 0 || from->count() != 0) return;
      throw CLI::ValidationError(
          "add needs TEXT or --file; to empty the document, give '' as its text");
    });
  }

  void addLoad() {
    auto arguments = makeArguments<LoadArguments>();
    auto file = makeArguments<std::string>();
    std::istream& in = in_;
    auto* sub = addCommand(
        "load", "Add many documents from JSON Lines",
        [=, &in](Session& session) {
          if (*file == "-") return loadDocuments(session, *arguments, in);
          std::ifstream stream = openFile(*file);
          return loadDocuments(session, *arguments, stream);
        },
        "A document that is refused is reported with its line, key and reason; the rest\n"
        "is loaded. A document whose fate the server has not told is sent again, which\n"
        "does no harm. Searches find the documents after the command update, which says\n"
        "what the index leaves out; load --update lists all of these by their keys.");
    addCollection(sub, arguments->collection);
    sub->add_option(
           "FILE", *file,
           "One JSON object per line with \"key\", \"text\" and\nother fields, which become "
           "metadata; - is\nstandard input")
        ->required();
    sub->add_option("--max-errors", arguments->maxErrors,
                    "Stop when this many documents have been refused\n(default: never)")
        ->check(wholeNumber(1, kMaxDocuments))
        ->option_text("N");
    sub->add_flag("--update", arguments->update, "Make the documents searchable at the end");
  }

  void addSearch() {
    auto arguments = makeArguments<SearchArguments>();
    auto* sub = addCommand(
        "search", "Print rank, score and key of the documents that match best",
        [=](Session& session) { return search(session, *arguments); },
        "If the connection breaks before the first hit, the request is repeated once.");
    addCollection(sub, arguments->collection);
    sub->add_option("QUERY", arguments->query, "What to look for, as one argument")->required();
    auto* limit =
        sub->add_option("--limit", arguments->limit, "Print at most N hits (default: all)")
            ->check(wholeNumber(0, kMaxDocuments))
            ->option_text("N");
    sub->add_option("--start", arguments->start, "Leave out the best N hits")
        ->check(wholeNumber(0, kMaxDocuments))
        ->option_text("N");
    auto* pages = sub->add_flag("--pages", arguments->pages, "Print where the next page begins")
                      ->needs(limit);
    auto* after =
        sub->add_option("--after", arguments->after,
                        "Go on there, in the collection as it was when the\nfirst page was printed")
            ->option_text("PLACE");
    sub->add_option("--also", arguments->also,
                    "Search in that collection, too, in one ranking; may be\nrepeated, and needs "
                    "--limit, which is at most 100 then")
        ->allow_extra_args(false)
        ->needs(limit)
        ->excludes(pages)
        ->excludes(after)
        ->option_text("COLLECTION");
  }

  void addEstimate() {
    auto arguments = makeArguments<SearchArguments>();
    auto* sub = addCommand(
        "estimate", "Estimate how many documents match",
        [=](Session& session) {
          return estimate(session, arguments->collection, arguments->query);
        },
        "Only the binary protocol carries an estimate. If the connection breaks, the\n"
        "request is repeated once.");
    addCollection(sub, arguments->collection);
    sub->add_option("QUERY", arguments->query, "What to look for, as one argument")->required();
  }

  void addDelete() {
    auto collection = makeArguments<std::string>();
    auto keys = makeArguments<std::vector<std::string>>();
    auto base64 = makeArguments<bool>();
    auto* sub = addCommand(
        "delete", "Delete documents; a key that is not there is no error",
        [=](Session& session) { return deleteDocuments(session, *collection, *keys, *base64); },
        kRepeatable);
    addCollection(sub, *collection);
    sub->add_option("KEY", *keys, "Keys of the documents")->required();
    sub->add_flag("--base64", *base64,
                  "The keys are Base64, as search shows those that\ncannot be printed");
  }

  void addBackup() {
    auto arguments = makeArguments<BackupArguments>();
    auto* sub = addCommand(
        "backup", "Make a backup on the server's machine, while it serves",
        [=](Session& session) { return backup(session, *arguments); },
        "The server needs --backup-directory. It gives up a backup that nobody waits for,\n"
        "so --timeout has to be long enough for it. The request is not repeated.");
    sub->add_option("BACKUP", arguments->backup, "Name of the backup, which no other one has")
        ->required();
    sub->add_option("COLLECTION", arguments->collection, "Name of the collection (default: all)");
  }

  void addRestore() {
    auto arguments = makeArguments<RestoreArguments>();
    auto* sub = addCommand(
        "restore", "Make collections of a backup",
        [=](Session& session) { return restore(session, *arguments); },
        "A collection that exists is only replaced with --replace; the server keeps it in\n"
        "before-restore of its data directory. The request is not repeated.");
    sub->add_option("BACKUP", arguments->backup, "Name of the backup")->required();
    auto* collection = sub->add_option("COLLECTION", arguments->collection,
                                       "Name of the collection (default: all in the backup)");
    sub->add_option("--from", arguments->from, "What the collection is called in the backup")
        ->needs(collection)
        ->option_text("NAME");
    sub->add_flag("--replace", arguments->replace, "Replace a collection that exists");
  }

  void addBackups() {
    addCommand("backups", "List the backups on the server's machine", listBackups,
               "If the connection breaks, the request is not repeated: ask again.");
  }

  void addList() {
    auto collection = makeArguments<std::optional<std::string>>();
    addCommand(
        "list", "List the collections, and what the server tells of each",
        [=](Session& session) { return listCollections(session, *collection); },
        "Documents are those that searches find, and pending are the changes that wait\n"
        "for the command update. The server opens each collection that it tells of. If\n"
        "the connection breaks, the request is not repeated: ask again.")
        ->add_option("COLLECTION", *collection, "Name of the only one to list (default: all)");
  }

  static void addRange(CLI::App* command, KeyRange& range) {
    command->add_option("--after", range.after, "Begin behind this key")->option_text("KEY");
    command->add_option("--upto", range.upTo, "End with this key")->option_text("KEY");
    command->add_flag("--base64", range.base64,
                      "These keys are Base64, as those are shown that cannot\nbe printed");
  }

  void addKeys() {
    auto arguments = makeArguments<KeysArguments>();
    auto* sub = addCommand(
        "keys", "Print the keys of the documents that searches find",
        [=](Session& session) { return listKeys(session, *arguments); },
        "Keys are in the order of their bytes. If the connection breaks, the request for\n"
        "the next 10000 of them is repeated once.");
    addCollection(sub, arguments->collection);
    addRange(sub, arguments->range);
    sub->add_option("--limit", arguments->limit, "Print at most N keys (default: all)")
        ->check(wholeNumber(0, kMaxDocuments))
        ->option_text("N");
  }

  void addDigest() {
    auto arguments = makeArguments<DigestArguments>();
    auto* sub = addCommand(
        "digest", "Print SHA-256, number and last key of documents in a range",
        [=](Session& session) { return digest(session, *arguments); },
        "Where the digests of two collections differ, a smaller range and a smaller N\n"
        "tell which documents do. The server has to be done within its time limit for\n"
        "searches, so large collections need --every. If the connection breaks, the\n"
        "request is not repeated: ask again.");
    addCollection(sub, arguments->collection);
    addRange(sub, arguments->range);
    sub->add_option("--every", arguments->every,
                    "A digest of every N documents in the order of their\nkeys (default: one of "
                    "all)")
        ->check(wholeNumber(1, kMaxDocuments))
        ->option_text("N");
  }

  void addStatus() {
    auto collection = makeArguments<std::string>();
    addCommand(
        "status", "Ask whether the server, or a collection, is ready",
        [=](Session& session) { return status(session, *collection); }, kRepeatable)
        ->add_option("COLLECTION", *collection, "Name of a collection");
  }

  void addVersion() {
    addCommand("version", "Print the server's version", serverVersion,
               "Only the binary protocol carries the version. If the connection breaks, the\n"
               "request is repeated once.");
  }

  CLI::App& app_;
  CommandLine& result_;
  std::istream& in_;
};

}  // namespace

ParsedCommandLine parseCommandLine(int argc, const char* const* argv, const Streams& streams) {
  ParsedCommandLine parsed;
  CLI::App app("Command line for a Corvane full-text search server", "corvane");
  app.formatter(std::make_shared<HelpFormatter>());
  // The options that the builder declares call back into it while the command line is read.
  Builder builder(app, parsed.commandLine, streams.in);
  builder.build();
  try {
    app.parse(argc, argv);
    // Not the parser's own check, which would come before a misspelt command is found.
    if (parsed.commandLine.settings.port == 0) {
      throw CLI::ValidationError("--port, or CORVANE_PORT, is required");
    }
  } catch (const CLI::Success& asked) {
    app.exit(asked, streams.out, streams.err);
    parsed.exit = ExitCode::Ok;
  } catch (const CLI::ParseError& wrong) {
    // The parser may have stopped before it came to this option.
    const bool json = std::any_of(argv, argv + argc,
                                  [](const char* word) { return std::string(word) == "--json"; });
    Printer(streams.out, streams.err, {json}).error(explainMisuse(app, wrong, argc, argv));
    parsed.exit = ExitCode::Usage;
  }
  return parsed;
}

}  // namespace corvane
