// tarn info: the numbers of a store, read from its files directly. It only
// reads, and the index file is replaced whole when the store saves it, so it
// also works while a store runs (showing its last saved index).

#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "Keel/Utils/TreeContainer.h"
#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/offline/StoreFiles.h"
#include "tarn/offline/StoreStats.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {

namespace {

struct InfoOptions {
  std::string store;
  bool json = false;
  bool tables = true;
  // When given: how the store stands against them, and what a store opened
  // with them would evict.
  std::optional<uint64_t> max_size;
  std::optional<uint32_t> max_days;
};


// What counts toward the size limit: every day file, indexed or not, and
// the files the store set aside.
uint64_t DayFileBytes(const StoreStats& stats) {
  uint64_t total = stats.loose_bytes;
  for (const DayStats& day : stats.days) total += day.file_bytes;
  for (const AsideEntry& aside : stats.listing.aside) {
    if (aside.original != Storage::Index::FILENAME) total += aside.size;
  }
  return total;
}

// The oldest days a store opened with the given limits evicts: days past
// the day limit, then days while its files pass the size limit.
std::vector<uint16_t> DaysPastLimits(const StoreStats& stats, const InfoOptions& options) {
  uint64_t total = DayFileBytes(stats);
  std::vector<uint16_t> evicted;
  size_t kept = stats.days.size();
  for (const DayStats& day : stats.days) {
    const bool too_many = options.max_days && kept > *options.max_days;
    const bool too_big = options.max_size && total > *options.max_size;
    if (!too_many && !too_big) break;
    evicted.push_back(day.day);
    total -= day.file_bytes;
    --kept;
  }
  return evicted;
}

std::string LimitsText(const StoreStats& stats, const InfoOptions& options) {
  std::string text = "limits       ";
  if (options.max_size) {
    text += FormatBytes(DayFileBytes(stats)) + " of " + FormatBytes(*options.max_size);
  }
  if (options.max_size && options.max_days) text += ", ";
  if (options.max_days) {
    text += std::to_string(stats.days.size()) + " of " + std::to_string(*options.max_days) +
            " days";
  }
  const std::vector<uint16_t> evicted = DaysPastLimits(stats, options);
  if (evicted.empty()) return text + ": within them\n";
  text += ": opened with these limits, the store evicts " + Counted(evicted.size(), "day") + " (";
  for (size_t i = 0; i < evicted.size(); ++i) text += (i ? ", " : "") + FormatDay(evicted[i]);
  return text + ")\n";
}

nlohmann::ordered_json LimitsJson(const StoreStats& stats, const InfoOptions& options) {
  nlohmann::ordered_json limits;
  if (options.max_size) limits["max_size"] = *options.max_size;
  if (options.max_days) limits["max_days"] = *options.max_days;
  limits["evicted_days"] = nlohmann::json::array();
  for (uint16_t day : DaysPastLimits(stats, options)) {
    limits["evicted_days"].push_back(FormatDay(day));
  }
  return limits;
}


int RunInfo(const InfoOptions& options) {
  if (!std::filesystem::is_directory(options.store)) {
    PrintError("there is no store in " + options.store);
    return 1;
  }
  StoreStats stats;
  std::string error;
  if (!GatherStats(options.store, options.tables, stats, error)) {
    PrintError(error);
    return 1;
  }
  const bool limits = options.max_size || options.max_days;
  std::string text;
  if (options.json) {
    text = StatsJson(options.store, stats);
    if (limits) {
      nlohmann::ordered_json document = nlohmann::ordered_json::parse(text);
      document["limits"] = LimitsJson(stats, options);
      text = document.dump(2);
    }
    text += "\n";
  } else {
    text = FormatStats(options.store, stats, 0);
    if (limits) text += "\n" + LimitsText(stats, options);
  }
  std::fputs(text.c_str(), stdout);
  return 0;
}

class InfoCommand : public Command {
 public:
  CLI::App* Add(CLI::App& app) override {
    CLI::App* command = app.add_subcommand(
        "info", "Days, blocks, events, size, compression, time window, events per table");
    command->footer(std::string(kOfflineNote) +
                    " Safe while the store runs: it shows the last saved index.");
    AddStoreOption(command, options_.store);
    command->add_flag("--json", options_.json, "print JSON");
    command->add_flag("--no-tables", no_tables_,
                      "skip decoding the blocks for events per table");
    command->add_option("--max-size", max_size_,
                        "show how the store stands against this size limit, e.g. 200M");
    command->add_option("--max-days", options_.max_days,
                        "show how the store stands against this day limit");
    return command;
  }

  int Run() override {
    options_.store = AbsoluteStore(options_.store);
    options_.tables = !no_tables_;
    std::string error;
    if (!ReadMaxSize(max_size_, options_.max_size, error)) {
      PrintError(error);
      return kUsageError;
    }
    return RunInfo(options_);
  }

 private:
  InfoOptions options_;
  bool no_tables_ = false;
  std::string max_size_;
};

}  // namespace

std::unique_ptr<Command> MakeInfoCommand() { return std::make_unique<InfoCommand>(); }

}  // namespace Tarn::Tool
