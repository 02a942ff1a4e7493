// tarn sql: SQL over a store. The store is opened through the module as the
// agent's host opens it, and SQLite asks it table queries as a requester on
// the message bus would.

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <iterator>

#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/sql/ResultPrinter.h"
#include "tarn/sql/SqlSession.h"
#include "tarn/sql/SqlShell.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

struct SqlOptions {
  HostOptions host;
  QueryLimits limits;  // unset: the widest the store accepts
  std::string format = "table";
  uint32_t max_width = 60;  // characters of a table cell; 0: no limit
  bool stats = false;       // what the statements cost, on standard error
  unsigned threads = 0;     // that run a statement's scans; 0: one per core
  // Each runs in turn, one statement or several separated by ";". "-"
  // reads standard input; none reads it too, or opens the interactive shell
  // when standard input is a terminal.
  std::vector<std::string> statements;
};


bool IsBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n;") == std::string::npos;
}

void PrintStats(const SqlStats& stats, double seconds) {
  const QueryStats& q = stats.queries;
  std::string text = FormatCount(q.queries) + (q.queries == 1 ? " query, " : " queries, ") +
                     Counted(q.answers, "answer") + ", " + Counted(q.rows, "row") + " (" +
                     FormatBytes(q.answer_bytes) + ")";
  if (stats.cache.kept_scans != 0 || stats.cache.reuses != 0) {
    text += "; " + Counted(stats.cache.kept_scans, "scan") + " kept (" +
            FormatBytes(stats.cache.kept_bytes) + "), " + Counted(stats.cache.reuses, "lookup") +
            " in kept rows";
  }
  text += "; " + FormatBytes(stats.bytes_read) + " read from the store's files; " +
          FormatSeconds(seconds);
  std::fflush(stdout);  // the results first
  std::fprintf(stderr, "tarn: %s\n", text.c_str());
}


int RunSql(const SqlOptions& options) {
  ResultFormat format;
  if (!ParseResultFormat(options.format, format)) {
    PrintError("--format takes table, csv or json, not \"" + options.format + "\"");
    return kUsageError;
  }
  const bool shell = options.statements.empty() && isatty(STDIN_FILENO) == 1;
  std::vector<std::string> texts = options.statements;
  if (texts.empty()) texts.emplace_back("-");
  for (std::string& sql : texts) {
    if (sql == "-" && !shell) {
      sql.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    }
  }
  if (!shell && std::all_of(texts.begin(), texts.end(), IsBlank)) {
    PrintError("no SQL to run: give a statement, or \"-\" to read them from standard input");
    return kUsageError;
  }
  if (!std::filesystem::is_directory(options.host.store)) {
    PrintError("there is no store in " + options.host.store);
    return 1;
  }
  const int64_t started = RealNowMs();
  SqlSession session;
  std::string error;
  if (!session.Open(options.host, options.limits, options.threads, error)) {
    PrintError(error);
    return 1;
  }
  bool ok = true;
  if (shell) {
    ok = RunShell(session, {options.host.store, format, options.max_width, DefaultHistoryPath()},
                  error);
  } else {
    // Each text in turn, as sqlite3 runs its arguments, up to the first
    // that fails.
    ResultPrinter printer(format, stdout, format == ResultFormat::kTable ? options.max_width : 0);
    for (const std::string& sql : texts) {
      if (!(ok = session.Run(sql, printer, error))) break;
    }
  }
  if (!ok) PrintError(error);
  // The answers hold every row but those of blocks the store could not read.
  for (uint64_t block : session.UnreadableBlocks()) {
    PrintError("block " + std::to_string((block >> 16) & 0xFFFFFF) + " of " +
               FormatDay(static_cast<uint16_t>(block & 0xFFFF)) +
               " could not be read: its rows are left out of the answers (`tarn verify` names " +
               "the damage)");
    ok = false;
  }
  if (options.stats) {
    PrintStats(session.Stats(), static_cast<double>(RealNowMs() - started) / 1000.0);
  }
  if (!session.Close(error)) {
    PrintError(error);
    ok = false;
  }
  return ok ? 0 : 1;
}

class SqlCommand : public Command {
 public:
  CLI::App* Add(CLI::App& app) override {
    CLI::App* command =
        app.add_subcommand("sql", "Run SQL over the store's 135 tables (SQLite)");
    command->footer(
        "Each table (edr_process_create, edr_file_write, ...) is a SQLite virtual table "
        "answered by the storage module, as a requester on the message bus is answered. Terms "
        "on date_time (milliseconds since 1970) narrow the time the store scans, and =, <, <=, "
        ">, >= and LIKE go to the store as its query's constraints; SQLite checks every term "
        "again; ts('2023-08-16 14:00') writes a time. Numbers are INTEGER (64-bit ids UNSIGNED "
        "BIGINT, shown unsigned), the rest TEXT. Unless limits are given the store opens with "
        "the widest ones, and its answers may be as large as it allows.");
    AddStoreOption(command, options_.host.store);
    command->add_option("statements", options_.statements,
                        "SQL to run in turn, each one statement or several separated by \";\" "
                        "(\"-\": standard input; none: the interactive shell on a terminal, "
                        "else standard input)");
    command->add_option("-f,--format", options_.format, "table, csv or json (table)");
    command->add_option("--width", options_.max_width,
                        "characters a table cell shows before it is cut (60; 0: all)");
    command->add_flag("--stats", options_.stats,
                      "print on standard error what the statements asked of the store: queries, "
                      "pages, rows, bytes read from its files, time");
    command->add_option("--threads", options_.threads,
                        "threads that run a statement's scans over slices of the store's time "
                        "(one per core; 1: each scan in turn, as SQLite reaches it)");
    AddQueryLimits(command, limits_, "unset: the widest the store accepts");
    return command;
  }

  int Run() override {
    return ReadHostOptions(options_.host, limits_, options_.limits) ? RunSql(options_)
                                                                    : kUsageError;
  }

 private:
  SqlOptions options_;
  QueryLimitTexts limits_;
};

}  // namespace

std::unique_ptr<Command> MakeSqlCommand() { return std::make_unique<SqlCommand>(); }

}  // namespace Tarn::Tool
