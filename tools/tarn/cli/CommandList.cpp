#include "tarn/cli/Command.h"

#include <CLI/CLI.hpp>

#include "tarn/cli/CommonOptions.h"

namespace Tarn::Tool {
namespace {

class StoreCommand : public Command {
 public:
  StoreCommand(const char* name, const char* description, std::string footer,
               int (*run)(const std::string&))
      : name_(name), description_(description), footer_(std::move(footer)), run_(run) {}

  CLI::App* Add(CLI::App& app) override {
    CLI::App* command = app.add_subcommand(name_, description_);
    command->footer(footer_);
    AddStoreOption(command, store_);
    return command;
  }

  int Run() override { return run_(AbsoluteStore(store_)); }

 private:
  const char* name_;
  const char* description_;
  std::string footer_;
  int (*run_)(const std::string&);
  std::string store_;
};

}  // namespace

std::unique_ptr<Command> MakeStoreCommand(const char* name, const char* description,
                                          std::string footer, int (*run)(const std::string&)) {
  return std::make_unique<StoreCommand>(name, description, std::move(footer), run);
}

std::vector<std::unique_ptr<Command>> AllCommands() {
  std::vector<std::unique_ptr<Command>> commands;
  for (auto make : {MakeIngestCommand, MakeExportCommand, MakeInfoCommand, MakeVerifyCommand,
                    MakeRecoverCommand, MakeTelemetryCommand, MakeDumpIndexCommand, MakeSqlCommand,
                    MakeQueryCommand, MakeDemoCommand}) {
    commands.push_back(make());
  }
  return commands;
}

}  // namespace Tarn::Tool
