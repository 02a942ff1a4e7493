#pragma once

// One subcommand of tarn. Each command adds itself and its own options to
// the parser, and once the parser has chosen it, checks what was typed and
// runs. Its exit status: 0 done, 1 the command ran into a fault (bad input,
// a damaged store, a store in use), kUsageError what was typed is not a
// command of tarn's (an unknown option, a value an option does not take).

#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Tarn::Tool {

// The exit status of a command line tarn does not take, as command-line
// tools have it.
constexpr int kUsageError = 2;

class Command {
 public:
  virtual ~Command() = default;
  // Adds the subcommand with its options to `app` and returns it.
  virtual CLI::App* Add(CLI::App& app) = 0;
  // Runs the command the parser chose; the process exit status.
  virtual int Run() = 0;
};

// A command that takes --store alone and runs `run` on the store's absolute
// path.
std::unique_ptr<Command> MakeStoreCommand(const char* name, const char* description,
                                          std::string footer, int (*run)(const std::string&));

// Every command, in the order `tarn --help` lists them.
std::vector<std::unique_ptr<Command>> AllCommands();

// Each defined in its command's file.
std::unique_ptr<Command> MakeIngestCommand();
std::unique_ptr<Command> MakeExportCommand();
std::unique_ptr<Command> MakeInfoCommand();
std::unique_ptr<Command> MakeVerifyCommand();
std::unique_ptr<Command> MakeRecoverCommand();
std::unique_ptr<Command> MakeTelemetryCommand();
std::unique_ptr<Command> MakeDumpIndexCommand();
std::unique_ptr<Command> MakeSqlCommand();
std::unique_ptr<Command> MakeQueryCommand();
std::unique_ptr<Command> MakeDemoCommand();

}  // namespace Tarn::Tool
