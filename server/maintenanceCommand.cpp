#include "server/maintenanceCommand.h"

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "server/base/base64.h"
#include "server/base/errors.h"
#include "server/printedOutput.h"
#include "server/store/maintenance.h"
#include "server/store/textNormalizer.h"

namespace corvaned {
namespace {

constexpr int kFailed = 1;
constexpr int kMisused = 2;
constexpr int kDamaged = 3;

struct Arguments {
  std::string directory;
  std::string collection;
  bool json = false;
};

// The names of files are arbitrary bytes, too; in those that are no text each byte is a character.
std::string jsonText(std::string_view text) {
  const bool plain = isUtf8(text);
  std::string result = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      result += '\\';
      result += c;
    } else if (byte < 0x20 || byte == 0x7F || (byte > 0x7F && !plain)) {
      result += fmt::format("\\u{:04x}", static_cast<unsigned>(byte));
    } else {
      result += c;
    }
  }
  return result + "\"";
}

std::string joined(const std::vector<std::string>& objects) {
  return fmt::format("[{}]", fmt::join(objects, ","));
}

std::string jsonOf(const Damage& damage) {
  return fmt::format("\"file\":{},\"byte\":{},\"what\":{}", jsonText(damage.file.string()),
                     damage.place, jsonText(damage.what));
}

// Keys are arbitrary bytes, so they are Base64 text, as in the replies of the server.
std::string jsonOf(const JournalFault& fault) {
  std::string object = "{" + jsonOf(fault.damage);
  if (fault.firstLost != 0) {
    object += fmt::format(",\"firstLost\":{},\"lastLost\":{}", fault.firstLost, fault.lastLost);
  }
  if (!fault.key.empty()) object += ",\"key\":" + jsonText("base64:" + base64(fault.key));
  return object + "}";
}

std::string jsonOf(const CollectionCheck& check) {
  std::vector<std::string> journal;
  for (const JournalFault& fault : check.journal) journal.push_back(jsonOf(fault));
  std::vector<std::string> index;
  for (const Damage& damage : check.index) index.push_back("{" + jsonOf(damage) + "}");
  std::vector<std::string> setAside;
  for (const std::filesystem::path& file : check.setAside) {
    setAside.push_back(jsonText(file.string()));
  }
  return fmt::format(
      "\"collection\":{},\"sound\":{},\"changes\":{},\"journal\":{},\"index\":{},"
      "\"unfinishedBytes\":{},\"setAside\":{},\"engineLeftOut\":{}",
      jsonText(check.name), check.isSound(), check.changes, joined(journal), joined(index),
      check.unfinishedBytes, joined(setAside), check.engineLeftOut);
}

std::string jsonOf(const Repair& repair) {
  std::vector<std::string> lost;
  for (const LostDocument& document : repair.documentsLost) {
    std::string object = fmt::format("{{\"number\":{}", document.number);
    if (!document.database.empty()) object += ",\"database\":" + jsonText(document.database);
    if (!document.key.empty()) object += ",\"key\":" + jsonText("base64:" + base64(document.key));
    lost.push_back(object + "}");
  }
  return fmt::format(
      "{{{},\"original\":{},\"documentsKept\":{},\"changesKept\":{},\"documentsLost\":{},"
      "\"languageLost\":{},"
      "\"complete\":{}}}",
      jsonOf(repair.found), jsonText(repair.original.string()), repair.documentsKept,
      repair.changesKept, joined(lost), repair.languageLost, repair.losesNothing());
}

void print(const CollectionCheck& check) {
  std::cout << fmt::format("{}: {}, {} changes wait for updateIndex\n", shown(check.name),
                           check.isSound() ? "sound" : "damaged", check.changes);
  for (const JournalFault& fault : check.journal) {
    std::cout << "  " << describe(fault.damage);
    if (!fault.key.empty()) std::cout << ", key " << shown(fault.key);
    std::cout << "\n";
  }
  for (const Damage& damage : check.index) std::cout << "  " << describe(damage) << "\n";
  if (check.unfinishedBytes > 0) {
    std::cout << fmt::format(
        "  note: the last {} bytes of the journal were being written when the server stopped; its "
        "next start sets them aside\n",
        check.unfinishedBytes);
  }
  if (check.engineLeftOut) {
    std::cout
        << "  note: Xapian's own check was left out: it needs the right to write to the files\n";
  }
  for (const std::filesystem::path& file : check.setAside) {
    std::cout << "  note: " << file.string()
              << " holds what was being written when the server stopped\n";
  }
}

void printLosses(const Repair& repair) {
  for (const JournalFault& fault : repair.found.journal) {
    if (fault.firstLost != 0) {
      std::cout << (fault.firstLost == fault.lastLost
                        ? fmt::format("  lost: change {}", fault.firstLost)
                        : fmt::format("  lost: changes {} to {}", fault.firstLost, fault.lastLost));
    } else {
      std::cout << "  lost: what stood at byte " << fault.damage.place << " of "
                << fault.damage.file.string();
    }
    if (!fault.key.empty()) std::cout << ", key " << shown(fault.key);
    std::cout << "\n";
  }
  for (const LostDocument& document : repair.documentsLost) {
    std::cout << fmt::format("  lost: document {}{}, key {}\n", document.number,
                             document.database.empty() ? "" : " of " + document.database,
                             document.key.empty() ? "unknown" : shown(document.key));
  }
  if (repair.languageLost)
    std::cout << "  lost: language and options; words are not stemmed any more\n";
}

void print(const Repair& repair) {
  print(repair.found);
  if (repair.original.empty()) return;
  std::cout << fmt::format("repaired; as it was, the collection is in {}\n",
                           repair.original.string());
  std::cout << fmt::format("  kept: {} documents of the index, {} changes\n", repair.documentsKept,
                           repair.changesKept);
  if (!repair.losesNothing()) printLosses(repair);
}

/// What is said of each collection, and how the program ends.
class CheckReport {
 public:
  explicit CheckReport(bool json) : json_(json) {}

  void add(const CollectionCheck& result) {
    damaged_ = damaged_ || !result.isSound();
    if (json_)
      objects_.push_back("{" + jsonOf(result) + "}");
    else
      print(result);
  }

  void addUnchecked(const std::string& name, const std::string& reason) {
    unchecked_ = true;
    if (json_) {
      objects_.push_back(fmt::format("{{\"collection\":{},\"sound\":false,\"unchecked\":{}}}",
                                     jsonText(name), jsonText(reason)));
    } else {
      std::cout << shown(name) << ": cannot be checked: " << reason << "\n";
    }
  }

  int finish() const {
    if (json_) std::cout << joined(objects_) << "\n";
    if (damaged_) return kDamaged;
    return unchecked_ ? kFailed : 0;
  }

 private:
  const bool json_;
  std::vector<std::string> objects_;
  bool damaged_ = false;
  bool unchecked_ = false;
};

// One that cannot be checked must not keep the damage of the others from being named.
int check(const Arguments& arguments) {
  const Maintenance maintenance(arguments.directory);
  CheckReport report(arguments.json);
  if (!arguments.collection.empty()) {
    report.add(maintenance.check(arguments.collection));
    return report.finish();
  }
  for (const std::string& name : maintenance.collections()) {
    try {
      report.add(maintenance.check(name));
    } catch (const std::exception& error) {
      report.addUnchecked(name, error.what());
    }
  }
  return report.finish();
}

int repair(const Arguments& arguments) {
  const Repair result = Maintenance(arguments.directory).repair(arguments.collection);
  if (arguments.json)
    std::cout << jsonOf(result) << "\n";
  else
    print(result);
  return result.losesNothing() ? 0 : kDamaged;
}

std::string shownMegabytes(std::uint64_t bytes) {
  return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
}

int compact(const Arguments& arguments) {
  const Compaction result = Maintenance(arguments.directory).compact(arguments.collection);
  if (arguments.json) {
    std::cout << fmt::format("{{\"collection\":{},\"bytesBefore\":{},\"bytesAfter\":{}}}\n",
                             jsonText(arguments.collection), result.before, result.after);
  } else {
    std::cout << fmt::format("{}: the index took {}, and now takes {}\n",
                             shown(arguments.collection), shownMegabytes(result.before),
                             shownMegabytes(result.after));
  }
  return 0;
}

CLI::App* declare(CLI::App& app, const std::string& name, const std::string& help,
                  const std::string& place, Arguments& arguments, bool needsCollection) {
  CLI::App* command = app.add_subcommand(name, help);
  command->add_option("DIR", arguments.directory, place)->required();
  // Left out it stands for all of them; a variable that is empty by mistake must not.
  auto* collection = command->add_option("COLLECTION", arguments.collection, "the collection")
                         ->check([](const std::string& word) {
                           return std::string(word.empty() ? "it has no name" : "");
                         });
  if (needsCollection) collection->required();
  command->add_flag("--json", arguments.json, "print JSON");
  return command;
}

}  // namespace

bool isMaintenanceCommand(std::string_view word) {
  return word == "check" || word == "repair" || word == "compact";
}

int runMaintenanceCommand(int argc, char** argv) {
  // What is dropped or left out is part of the report.
  spdlog::set_level(spdlog::level::off);
  CLI::App app("corvaned, a full-text search server");
  app.footer(
      "Exit codes: 0 sound, compacted, or repaired without a loss; 1 failed; 2 wrong arguments; "
      "3 damaged, or repaired with losses");
  Arguments arguments;
  const std::string data = "the data directory of a server that is stopped";
  const CLI::App* checking =
      declare(app, "check", "say whether collections are damaged, and change none",
              data + ", or a backup", arguments, false);
  const CLI::App* compacting =
      declare(app, "compact", "give back the room that the index of a collection does not need",
              data, arguments, true);
  declare(app, "repair", "replace a damaged collection by what can be read of it", data, arguments,
          true)
      ->footer("The damaged collection is kept in DIR/before-repair.");
  app.require_subcommand(1);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& answer) {
    return app.exit(answer) == 0 ? 0 : kMisused;
  }
  try {
    const int code = checking->parsed()     ? check(arguments)
                     : compacting->parsed() ? compact(arguments)
                                            : repair(arguments);
    requirePrinted();
    return code;
  } catch (const std::exception& error) {
    std::cerr << "corvaned: " << error.what() << "\n";
    return kFailed;
  }
}

}  // namespace corvaned
