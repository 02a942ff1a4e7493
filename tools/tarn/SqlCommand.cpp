// tarn sql: SQL over a store. The store is opened through the module as the
// agent's host opens it, and SQLite asks it table queries as a requester on
// the message bus would.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <iterator>

#include "tarn/Commands.h"
#include "tarn/ResultPrinter.h"
#include "tarn/SqlSession.h"
#include "tarn/SqlShell.h"
#include "tarn/TextForms.h"

namespace Tarn::Tool {
namespace {

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

}  // namespace

int RunSql(const SqlOptions& options) {
  ResultFormat format;
  if (!ParseResultFormat(options.format, format)) {
    PrintError("--format takes table, csv or json, not \"" + options.format + "\"");
    return 1;
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
    return 1;
  }
  if (!std::filesystem::is_directory(options.host.store)) {
    PrintError("there is no store in " + options.host.store);
    return 1;
  }
  const int64_t started = RealNowMs();
  SqlSession session;
  std::string error;
  if (!session.Open(options.host, options.limits, error)) {
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
  if (options.stats) {
    PrintStats(session.Stats(), static_cast<double>(RealNowMs() - started) / 1000.0);
  }
  if (!session.Close(error)) {
    PrintError(error);
    ok = false;
  }
  return ok ? 0 : 1;
}

}  // namespace Tarn::Tool
