// tarn: the command-line host of the event store.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/cli/Progress.h"
#include "tarn/host/HostLog.h"

namespace {

using namespace Tarn::Tool;

// Arguments no option took, named in the order they were given (the parser
// collects them back to front), with where to look for the right ones.
int ReportExtras(CLI::App& app, int argc, char** argv) {
  std::vector<std::string> left = app.remaining(true);
  std::string names;
  for (int i = 1; i < argc && !left.empty(); ++i) {
    auto it = std::find(left.begin(), left.end(), argv[i]);
    if (it == left.end()) continue;
    left.erase(it);
    names += (names.empty() ? "" : " ") + std::string(argv[i]);
  }
  const std::vector<CLI::App*> commands = app.get_subcommands();
  const std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
  const bool one = names.find(' ') == std::string::npos;
  PrintError(std::string("unexpected ") + (one ? "argument " : "arguments ") + names +
             " (see tarn" + command + " --help)");
  return kUsageError;
}

// The first argument that is no option, when it names no command.
std::string UnknownCommand(const CLI::App& app, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.empty() || word[0] == '-') continue;
    for (const CLI::App* command : app.get_subcommands({})) {
      if (command->get_name() == word) return std::string();
    }
    return word;
  }
  return std::string();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "tarn: the command-line host of the tarn event store. It loads "
      "libtarn_storage.so as the agent does and drives it.",
      "tarn"};
  app.require_subcommand(1);
  app.fallthrough();
  bool verbose = false;
  bool quiet = false;
  app.add_flag("-v,--verbose", verbose,
               "print the store's log records (numeric) to standard error as they come");
  app.add_flag("-q,--quiet", quiet, "no progress bar on a terminal");
  app.footer(
      "The storage module is found in ../lib beside this program, or at "
      "$TARN_MODULE_PATH.");

  std::vector<std::unique_ptr<Command>> commands = AllCommands();
  std::vector<CLI::App*> parsers;
  for (const auto& command : commands) parsers.push_back(command->Add(app));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ExtrasError&) {
    if (const std::string word = UnknownCommand(app, argc, argv); !word.empty()) {
      PrintError("\"" + word + "\" is no command of tarn's (tarn --help lists them)");
      return kUsageError;
    }
    return ReportExtras(app, argc, argv);
  } catch (const CLI::ParseError& e) {
    if (const std::string word = UnknownCommand(app, argc, argv); !word.empty()) {
      PrintError("\"" + word + "\" is no command of tarn's (tarn --help lists them)");
      return kUsageError;
    }
    // Help asked for is no error; anything else the parser refused is.
    return app.exit(e) == 0 ? 0 : kUsageError;
  }

  HostLog::Install(verbose);
  Progress::SetQuiet(quiet);
  for (size_t i = 0; i < commands.size(); ++i) {
    if (parsers[i]->parsed()) return commands[i]->Run();
  }
  return 1;
}
