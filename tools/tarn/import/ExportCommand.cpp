// tarn export: the stored events as JSON lines, walked through the store's
// reader (IEventStorage) as another module of the agent would walk them.

#include <CLI/CLI.hpp>

#include <google/protobuf/arena.h>
#include <google/protobuf/message.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

#include "Keel/OS/Time.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "osquery/Columns.h"
#include "osquery/Converter.h"
#include "osquery/Tables.h"
#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/cli/Progress.h"
#include "tarn/import/RowJson.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

struct ExportOptions {
  HostOptions host;
  std::vector<std::string> tables;
  std::string from;
  std::string to;
  std::string out;  // empty or "-": standard output
};


using Comm::Interface::IEventStorage;

// Rows are made on an arena that is emptied every so many rows.
constexpr uint32_t kRowsPerArena = 1024;
// Day and block of a position (bits 0-39), without the event.
constexpr uint64_t kBlockKeyMask = (1ull << 40) - 1;

struct Range {
  bool has_from = false;
  bool has_to = false;
  int64_t from_ms = 0;
  int64_t to_ms = 0;
};

bool ReadRange(const ExportOptions& options, Range& range, std::string& error) {
  if (!options.from.empty()) {
    if (!ParseTime(options.from, false, range.from_ms)) {
      error = "--from takes a date or time such as 2026-11-21 or 2026-11-21T08:00:00Z";
      return false;
    }
    range.has_from = true;
  }
  if (!options.to.empty()) {
    if (!ParseTime(options.to, true, range.to_ms)) {
      error = "--to takes a date or time such as 2026-11-21 or 2026-11-21T08:00:00Z";
      return false;
    }
    range.has_to = true;
  }
  if (range.has_from && range.has_to && range.to_ms < range.from_ms) {
    error = "--to lies before --from";
    return false;
  }
  return true;
}

bool ReadTables(const ExportOptions& options, std::set<uint32_t>& ids, std::string& error) {
  for (const std::string& name : options.tables) {
    uint32_t id = Storage::OSQuery::TableIdByName(name);
    if (id == 0) {
      error = "unknown table \"" + name + "\" (the tables are named like edr_process_create)";
      return false;
    }
    ids.insert(id);
  }
  return true;
}

struct Counts {
  uint64_t written = 0;
  uint64_t unreadable = 0;  // events whose block could not be read
  uint64_t untabled = 0;    // events of types that have no table
  // Blocks that could not be read (day and block bits of a position), and
  // the events of each that were passed over.
  std::map<uint64_t, uint64_t> unreadable_blocks;
};

// Walks from the first event at or after the range's start to its end.
bool Walk(IEventStorage& storage, const Range& range, const std::set<uint32_t>& tables,
          std::FILE* out, Counts& counts) {
  uint64_t position = range.has_from ? storage.GetIterVal(Keel::OS::DateTime(range.from_ms / 1000),
                                                          Comm::Interface::AtOrAfter)
                                     : storage.GetFirstIterVal();
  uint32_t size = storage.GetSize();
  Progress progress("export", range.has_from || range.has_to || size == 0xFFFFFFFFu ? 0 : size,
                    "events");
  google::protobuf::Arena arena;
  const Storage::OSQuery::ColumnSelection every = Storage::OSQuery::SplitColumns("");
  Events::GenericEventHolder holder;
  uint64_t seen = 0;
  uint32_t on_arena = 0;
  uint64_t broken_block = ~0ull;
  for (; storage.IsValid(position); storage.Increment(position)) {
    progress.Update(++seen);
    // A block that did not read is not tried again for each of its events.
    const uint64_t block = position & kBlockKeyMask;
    if (block == broken_block || !storage.GetEvent(position, &holder)) {
      broken_block = block;
      ++counts.unreadable;
      ++counts.unreadable_blocks[block];
      continue;
    }
    Events::Objects::Base event = holder.Event();
    const int64_t time_ms = static_cast<int64_t>(event.Header().TimeStampMs());
    // The store is in order of the seconds it recorded, not of the events'
    // own milliseconds: the walk ends past the range's last recorded second,
    // and an event of its own time outside the range is passed over.
    Keel::OS::DateTime recorded;
    if (range.has_to && storage.GetTime(position, recorded) &&
        recorded.ToSecondsSinceEpoch() > range.to_ms / 1000) {
      break;
    }
    if (range.has_to && time_ms > range.to_ms) continue;
    if (range.has_from && time_ms < range.from_ms) continue;
    if (!tables.empty() && tables.count(event.TypeId()) == 0) continue;
    const google::protobuf::Message* row = Storage::OSQuery::ConvertEvent(&arena, event, every);
    if (row == nullptr) {
      ++counts.untabled;
      continue;
    }
    std::string line = RowJson::Write(*row);
    line.push_back('\n');
    if (std::fwrite(line.data(), 1, line.size(), out) != line.size()) return false;
    ++counts.written;
    if (++on_arena == kRowsPerArena) {
      arena.Reset();
      on_arena = 0;
    }
  }
  return true;
}


int RunExport(const ExportOptions& options) {
  Range range;
  std::set<uint32_t> tables;
  std::string error;
  if (!ReadRange(options, range, error) || !ReadTables(options, tables, error)) {
    PrintError(error);
    return kUsageError;
  }
  if (!std::filesystem::is_directory(options.host.store)) {
    PrintError("there is no store in " + options.host.store);
    return 1;
  }
  const bool to_stdout = options.out.empty() || options.out == "-";
  std::FILE* out = to_stdout ? stdout : std::fopen(options.out.c_str(), "wb");
  if (out == nullptr) {
    PrintError("cannot write " + options.out);
    return 1;
  }
  ModuleHost host;
  if (!host.Open(options.host, error)) {
    PrintError(error);
    if (!to_stdout) std::fclose(out);
    return 1;
  }
  IEventStorage* storage = host.Storage();
  Counts counts;
  bool written = false;
  if (storage != nullptr) {
    storage->Flush();  // the block the store took back at start becomes readable
    written = Walk(*storage, range, tables, out, counts);
  }
  // Rows and arenas are gone by now: closing the store shuts protobuf down.
  bool closed = host.Close(error);
  written = std::fflush(out) == 0 && written;
  if (!to_stdout) written = std::fclose(out) == 0 && written;
  if (!written) PrintError("could not write the events out");
  if (!closed) PrintError(error);
  // Every block passed over is named: the walk read around it.
  for (const auto& [block, events] : counts.unreadable_blocks) {
    PrintError("block " + std::to_string((block >> 16) & 0xFFFFFF) + " of " +
               FormatDay(static_cast<uint16_t>(block & 0xFFFF)) + " could not be read: " +
               Counted(events, "event") + " left out");
  }
  if (counts.unreadable != 0) {
    PrintError(Counted(counts.unreadable, "event") +
               " could not be read (their blocks are damaged; `tarn verify` tells more)");
  }
  if (counts.untabled != 0) {
    std::fprintf(stderr, "tarn: %s of types without a table left out\n",
                 Counted(counts.untabled, "event").c_str());
  }
  if (!to_stdout || isatty(STDERR_FILENO) == 1) {
    std::fprintf(stderr, "exported %s%s%s\n", Counted(counts.written, "event").c_str(),
                 to_stdout ? "" : " to ", to_stdout ? "" : options.out.c_str());
  }
  return written && closed && counts.unreadable == 0 ? 0 : 1;
}

class ExportCommand : public Command {
 public:
  CLI::App* Add(CLI::App& app) override {
    CLI::App* command = app.add_subcommand(
        "export", "Write stored events as JSON lines, the form `tarn ingest --from` reads");
    command->footer(
        "Reads through the storage module's reader. Unless limits are given the "
        "store opens with the widest ones, so that opening it evicts nothing.");
    AddStoreOption(command, options_.host.store);
    command->add_option("--table", options_.tables, "only this table (repeatable)");
    command->add_option("--from", options_.from, "first moment (a date or ISO 8601 time)");
    command->add_option("--to", options_.to, "last moment; a date alone includes that day");
    command->add_option("-o,--out", options_.out, "file to write (standard output)");
    AddLimits(command, limits_);
    return command;
  }

  int Run() override {
    options_.host.limits.widest_by_default = true;
    return ReadHostOptions(options_.host, limits_) ? RunExport(options_) : kUsageError;
  }

 private:
  ExportOptions options_;
  LimitTexts limits_;
};

}  // namespace

std::unique_ptr<Command> MakeExportCommand() { return std::make_unique<ExportCommand>(); }

}  // namespace Tarn::Tool
