// tarn: the command-line host of the event store.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tarn/Commands.h"
#include "tarn/HostLog.h"
#include "tarn/Progress.h"
#include "tarn/TextForms.h"

namespace {

using namespace Tarn::Tool;

constexpr const char* kStoreHelp =
    "the storage directory itself: its day files, index and lock lie directly in it";
constexpr const char* kOfflineNote =
    "Reads the store's files directly with the store's own format code, not through the "
    "storage module.";

// The limits as typed; sizes take K, M and G suffixes.
struct LimitTexts {
  std::string max_size;
  std::string block_size;
  uint32_t max_days = 0;
};

void AddLimits(CLI::App* command, LimitTexts& limits) {
  command->add_option("--max-size", limits.max_size,
                      "most bytes the store keeps on disk, e.g. 200M or 1G (store default 200M)");
  command->add_option("--max-days", limits.max_days,
                      "most days the store keeps, 2-511 (store default 60)");
  command->add_option("--block-size", limits.block_size,
                      "bytes of events per compressed block, e.g. 256K or 10M (store default "
                      "10M); smaller blocks compress faster");
}

// A --max-size as typed; unset when not given.
bool ReadMaxSize(const std::string& text, std::optional<uint64_t>& bytes, std::string& error) {
  if (text.empty()) return true;
  uint64_t value = 0;
  if (!ParseSize(text, value)) {
    error = "--max-size takes a size such as 200M or 1G, not \"" + text + "\"";
    return false;
  }
  bytes = value;
  return true;
}

bool ReadLimits(const LimitTexts& texts, StoreLimits& limits, std::string& error) {
  if (!ReadMaxSize(texts.max_size, limits.max_size, error)) return false;
  uint64_t bytes = 0;
  if (!texts.block_size.empty()) {
    if (!ParseSize(texts.block_size, bytes) || bytes > 0xFFFFFFFFu) {
      error = "--block-size takes a size such as 256K or 10M, not \"" + texts.block_size + "\"";
      return false;
    }
    limits.block_size = static_cast<uint32_t>(bytes);
  }
  if (texts.max_days != 0) limits.max_days = texts.max_days;
  return CheckLimits(limits, error);
}

// The query limits as typed; the answer size takes K, M and G suffixes.
struct QueryLimitTexts {
  std::string size_limit;
  uint32_t row_limit = 0;
  uint32_t aux_limit = 0;
};

void AddQueryLimits(CLI::App* command, QueryLimitTexts& limits, const std::string& unset) {
  command->add_option("--size-limit", limits.size_limit,
                      "bytes of one answer (a page), 10M to 250,000,000; " + unset);
  command->add_option("--row-limit", limits.row_limit,
                      "rows of one answer, 1,000 to 49,999,999; " + unset);
  command->add_option("--aux-limit", limits.aux_limit,
                      "pages one query may take, 1 to 1,023; " + unset);
}

bool ReadQueryLimits(const QueryLimitTexts& texts, QueryLimits& limits, std::string& error) {
  if (!texts.size_limit.empty()) {
    uint64_t bytes = 0;
    if (!ParseSize(texts.size_limit, bytes) || bytes > 0xFFFFFFFFu) {
      error = "--size-limit takes a size such as 50M, not \"" + texts.size_limit + "\"";
      return false;
    }
    limits.size_limit = static_cast<uint32_t>(bytes);
  }
  if (texts.row_limit != 0) limits.row_limit = texts.row_limit;
  if (texts.aux_limit != 0) limits.aux_limit = texts.aux_limit;
  return CheckQueryLimits(limits, error);
}

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
  PrintError(std::string("unexpected ") + (one ? "argument " : "arguments ") + names + " (see tarn" +
             command + " --help)");
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "tarn: the command-line host of the tarn event store. It loads "
      "libtarn_storage.so as the agent does and drives it.",
      "tarn"};
  app.require_subcommand(1);
  app.fallthrough();
  GlobalOptions global;
  app.add_flag("-v,--verbose", global.verbose,
               "print the store's log records (numeric) to standard error as they come");
  app.add_flag("-q,--quiet", global.quiet, "no progress bar on a terminal");
  app.footer(
      "The storage module is found in ../lib beside this program, or at "
      "$TARN_MODULE_PATH.");

  IngestOptions ingest;
  LimitTexts ingest_limits;
  CLI::App* ingest_cmd = app.add_subcommand(
      "ingest", "Put events into a store: synthetic ones, or JSON lines from a file");
  ingest_cmd->footer(
      "Events go in through the storage module, each filed on its own day and "
      "second. Times must lie in the past and not before the newest stored "
      "event. Limits apply to this run; give the same ones each time.");
  ingest_cmd->add_option("--store", ingest.host.store, kStoreHelp)->required();
  CLI::Option* synthetic =
      ingest_cmd->add_flag("--synthetic", ingest.synthetic,
                           "events of a simulated endpoint (all 135 tables), ending now or at "
                           "--end");
  ingest_cmd->add_option("--days", ingest.days, "days the synthetic events span (7)");
  ingest_cmd->add_option("--events", ingest.events, "how many synthetic events (100000)");
  ingest_cmd->add_option("--seed", ingest.seed, "the same seed gives the same events (1)");
  ingest_cmd->add_option("--end", ingest.end,
                         "last moment of the synthetic span (a date or ISO 8601 time; now)");
  CLI::Option* from = ingest_cmd->add_option(
      "--from", ingest.from,
      "JSON lines to import, as `tarn export` writes them or Windows event logs (\"-\": "
      "standard input)");
  synthetic->excludes(from);
  ingest_cmd
      ->add_option("--format", ingest.format,
                   "what the file holds: tarn (rows as `tarn export` writes them), windows "
                   "(Windows event logs as JSON lines: Sysmon, Security, System, PowerShell) "
                   "or auto (known by its first line; the default)")
      ->check(CLI::IsMember({"auto", "tarn", "windows"}));
  ingest_cmd->add_flag("--sort", ingest.sort, "order the file's events by time before storing");
  ingest_cmd->add_flag("--skip-bad", ingest.skip_bad,
                       "report refused lines and go on (without it the first one stops the "
                       "import)");
  ingest_cmd->add_flag("--telemetry", ingest.telemetry,
                       "print the store's telemetry report for this ingest at the end");
  ingest_cmd->add_option("--report-dir", ingest.host.report_dir,
                         "write telemetry reports into this directory instead of printing them");
  AddLimits(ingest_cmd, ingest_limits);

  ExportOptions exporting;
  LimitTexts export_limits;
  CLI::App* export_cmd = app.add_subcommand(
      "export", "Write stored events as JSON lines, the form `tarn ingest --from` reads");
  export_cmd->footer(
      "Reads through the storage module's reader. Unless limits are given the "
      "store opens with the widest ones, so that opening it evicts nothing.");
  export_cmd->add_option("--store", exporting.host.store, kStoreHelp)->required();
  export_cmd->add_option("--table", exporting.tables, "only this table (repeatable)");
  export_cmd->add_option("--from", exporting.from, "first moment (a date or ISO 8601 time)");
  export_cmd->add_option("--to", exporting.to, "last moment; a date alone includes that day");
  export_cmd->add_option("-o,--out", exporting.out, "file to write (standard output)");
  AddLimits(export_cmd, export_limits);

  InfoOptions info;
  bool no_tables = false;
  CLI::App* info_cmd = app.add_subcommand(
      "info", "Days, blocks, events, size, compression, time window, events per table");
  info_cmd->footer(std::string(kOfflineNote) +
                   " Safe while the store runs: it shows the last saved index.");
  info_cmd->add_option("--store", info.store, kStoreHelp)->required();
  info_cmd->add_flag("--json", info.json, "print JSON");
  info_cmd->add_flag("--no-tables", no_tables, "skip decoding the blocks for events per table");
  std::string info_max_size;
  info_cmd->add_option("--max-size", info_max_size,
                       "show how the store stands against this size limit, e.g. 200M");
  info_cmd->add_option("--max-days", info.max_days,
                       "show how the store stands against this day limit");

  std::string verify_store;
  CLI::App* verify_cmd = app.add_subcommand(
      "verify", "Decode every block and check it and the index against the files");
  verify_cmd->footer(std::string("Checks entry tables, records, block sizes and seconds, and "
                                 "that every indexed file is there; exits with 1 on a fault. ") +
                     kOfflineNote + " The store must be closed.");
  verify_cmd->add_option("--store", verify_store, kStoreHelp)->required();

  std::string recover_store;
  CLI::App* recover_cmd =
      app.add_subcommand("recover", "Rebuild storage.index.db from the day files");
  recover_cmd->footer(std::string("Only the index file is written. ") + kOfflineNote +
                      " The store must be closed.");
  recover_cmd->add_option("--store", recover_store, kStoreHelp)->required();

  TelemetryOptions telemetry;
  CLI::App* telemetry_cmd =
      app.add_subcommand("telemetry", "Open the store and print the module's telemetry report");
  telemetry_cmd->add_option("--store", telemetry.host.store, kStoreHelp)->required();
  telemetry_cmd->add_option("--report-dir", telemetry.host.report_dir,
                            "write the report into this directory instead of printing it");

  DumpIndexOptions dump;
  CLI::App* dump_cmd = app.add_subcommand("dump-index", "Print the day index as JSON");
  dump_cmd->footer(kOfflineNote);
  dump_cmd->add_option("--store", dump.store, kStoreHelp)->required();
  dump_cmd->add_option("-o,--out", dump.out,
                       "write to this file instead of standard output");

  SqlOptions sql;
  QueryLimitTexts sql_limits;
  CLI::App* sql_cmd = app.add_subcommand("sql", "Run SQL over the store's 135 tables (SQLite)");
  sql_cmd->footer(
      "Each table (edr_process_create, edr_file_write, ...) is a SQLite virtual table "
      "answered by the storage module, as a requester on the message bus is answered. Terms "
      "on date_time (milliseconds since 1970) narrow the time the store scans, and =, <, <=, "
      ">, >= and LIKE go to the store as its query's constraints; SQLite checks every term "
      "again; ts('2023-08-16 14:00') writes a time. Numbers are INTEGER (64-bit ids UNSIGNED "
      "BIGINT, shown unsigned), the rest TEXT. Unless limits are given the store opens with the "
      "widest ones, and its answers may be as large as it allows.");
  sql_cmd->add_option("--store", sql.host.store, kStoreHelp)->required();
  sql_cmd->add_option("statements", sql.statements,
                      "SQL to run in turn, each one statement or several separated by \";\" "
                      "(\"-\": standard input; none: the interactive shell on a terminal, "
                      "else standard input)");
  sql_cmd->add_option("-f,--format", sql.format, "table, csv or json (table)");
  sql_cmd->add_option("--width", sql.max_width,
                      "characters a table cell shows before it is cut (60; 0: all)");
  sql_cmd->add_flag("--stats", sql.stats,
                    "print on standard error what the statements asked of the store: queries, "
                    "pages, rows, bytes read from its files, time");
  AddQueryLimits(sql_cmd, sql_limits, "unset: the widest the store accepts");

  QueryOptions query;
  QueryLimitTexts query_limits;
  CLI::App* query_cmd = app.add_subcommand(
      "query", "Send one raw table query and print the answer as JSON lines");
  query_cmd->footer(
      "The first line holds the answer's status, row count and, for a partial answer "
      "(status 8), the token and page to send back for the rest; one line per row follows. "
      "Constraints are the store's JSON: {\"pid\": {\"affinity\": \"bigint\", \"list\": "
      "[{\"op\": 4, \"expr\": \"1000\"}]}} with operators 2 =, 4 >, 8 <=, 16 <, 32 >=, "
      "65 LIKE; date_time takes milliseconds since 1970.");
  query_cmd->add_option("--store", query.host.store, kStoreHelp)->required();
  query_cmd->add_option("--table", query.table, "the table, e.g. edr_process_create")
      ->required();
  query_cmd->add_option("--columns", query.columns, "columns joined by \",\" (all)");
  query_cmd->add_option("--constraints", query.constraints, "the constraints JSON (none)");
  query_cmd->add_option("--token", query.token, "the token an earlier answer gave (hexadecimal)");
  query_cmd->add_option("--page", query.page, "the page an earlier answer gave (0)");
  AddQueryLimits(query_cmd, query_limits, "unset: the store's default");

  DemoOptions demo;
  CLI::App* demo_cmd = app.add_subcommand(
      "demo", "Fill a temporary store with a few days of a synthetic endpoint and show it");
  demo_cmd->add_option("--store", demo.store, "use this directory and keep it");
  demo_cmd->add_option("--days", demo.days, "days of events (3)");
  demo_cmd->add_option("--events", demo.events, "how many events (60000)");
  demo_cmd->add_option("--seed", demo.seed, "the same seed gives the same events (1)");
  demo_cmd->add_flag("--keep", demo.keep, "keep the temporary store");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ExtrasError&) {
    return ReportExtras(app, argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }

  HostLog::Install(global.verbose);
  Progress::SetQuiet(global.quiet);
  std::string error;
  if (ingest_cmd->parsed()) {
    ingest.host.store = AbsoluteStore(ingest.host.store);
    if (!ReadLimits(ingest_limits, ingest.host.limits, error)) {
      PrintError(error);
      return 1;
    }
    return RunIngest(ingest);
  }
  if (export_cmd->parsed()) {
    exporting.host.store = AbsoluteStore(exporting.host.store);
    exporting.host.limits.widest_by_default = true;
    if (!ReadLimits(export_limits, exporting.host.limits, error)) {
      PrintError(error);
      return 1;
    }
    return RunExport(exporting);
  }
  if (info_cmd->parsed()) {
    info.store = AbsoluteStore(info.store);
    info.tables = !no_tables;
    if (!ReadMaxSize(info_max_size, info.max_size, error)) {
      PrintError(error);
      return 1;
    }
    return RunInfo(info);
  }
  if (verify_cmd->parsed()) return RunVerify(AbsoluteStore(verify_store));
  if (recover_cmd->parsed()) return RunRecover(AbsoluteStore(recover_store));
  if (telemetry_cmd->parsed()) {
    telemetry.host.store = AbsoluteStore(telemetry.host.store);
    telemetry.host.limits.widest_by_default = true;
    return RunTelemetry(telemetry);
  }
  if (dump_cmd->parsed()) {
    dump.store = AbsoluteStore(dump.store);
    return RunDumpIndex(dump);
  }
  if (sql_cmd->parsed()) {
    sql.host.store = AbsoluteStore(sql.host.store);
    if (!ReadQueryLimits(sql_limits, sql.limits, error)) {
      PrintError(error);
      return 1;
    }
    return RunSql(sql);
  }
  if (query_cmd->parsed()) {
    query.host.store = AbsoluteStore(query.host.store);
    if (!ReadQueryLimits(query_limits, query.limits, error)) {
      PrintError(error);
      return 1;
    }
    return RunQuery(query);
  }
  if (demo_cmd->parsed()) return RunDemo(demo);
  return 1;
}
