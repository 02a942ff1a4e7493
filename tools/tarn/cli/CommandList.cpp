#include "tarn/cli/Command.h"

namespace Tarn::Tool {

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
