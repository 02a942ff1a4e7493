// tarn telemetry: opens the store and asks the module for its telemetry
// report (notification 1: send now), which arrives through the host's report
// interface and is printed or written where the user asked.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"

namespace Tarn::Tool {
namespace {

struct TelemetryOptions {
  HostOptions host;
};


constexpr uint32_t kSendReportNow = 1;

// The newest "telemetry.<ms>.json" a store with --telemetry-to-disk left.
std::string NewestSavedReport(const std::string& store) {
  std::string newest;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(store, ec)) {
    std::string name = entry.path().filename().string();
    if (name.rfind("telemetry.", 0) == 0 && name.size() > 15 &&
        name.compare(name.size() - 5, 5, ".json") == 0 && name > newest) {
      newest = name;
    }
  }
  return newest;
}


int RunTelemetry(const TelemetryOptions& options) {
  if (!std::filesystem::is_directory(options.host.store)) {
    PrintError("there is no store in " + options.host.store);
    return 1;
  }
  ModuleHost host;
  std::string error;
  if (!host.Open(options.host, error)) {
    PrintError(error);
    return 1;
  }
  if (auto* storage = host.Storage()) storage->Flush();
  host.module()->OnNotification(kSendReportNow);
  const uint32_t sent = host.reports().SentCount();
  const std::string written = host.reports().LastPath();
  if (!host.Close(error)) PrintError(error);
  if (sent != 0) {
    if (!written.empty()) std::printf("wrote %s\n", written.c_str());
    return 0;
  }
  // A report covers one run of the store and is sent only once that run
  // wrote a block; opening a store to ask writes none.
  std::fprintf(stderr,
               "tarn: this run of the store wrote no block, so it has no report to send "
               "(`tarn ingest ... --telemetry` prints the report of an ingest)\n");
  const std::string saved = NewestSavedReport(options.host.store);
  if (saved.empty()) return 0;
  std::ifstream in(options.host.store + "/" + saved);
  std::stringstream text;
  text << in.rdbuf();
  std::printf("the newest report the store saved (%s):\n%s", saved.c_str(), text.str().c_str());
  return 0;
}

class TelemetryCommand : public Command {
 public:
  CLI::App* Add(CLI::App& app) override {
    CLI::App* command =
        app.add_subcommand("telemetry", "Open the store and print the module's telemetry report");
    AddStoreOption(command, options_.host.store);
    command->add_option("--report-dir", options_.host.report_dir,
                        "write the report into this directory instead of printing it");
    return command;
  }

  int Run() override {
    options_.host.store = AbsoluteStore(options_.host.store);
    options_.host.limits.widest_by_default = true;
    return RunTelemetry(options_);
  }

 private:
  TelemetryOptions options_;
};

}  // namespace

std::unique_ptr<Command> MakeTelemetryCommand() { return std::make_unique<TelemetryCommand>(); }

}  // namespace Tarn::Tool
