#pragma once

#include <cstddef>
#include <string>

#include "tarn/sql/ResultPrinter.h"

namespace Tarn::Tool {

class SqlSession;

struct ShellSettings {
  std::string store;  // named in the greeting
  ResultFormat format = ResultFormat::kTable;
  size_t max_width = 60;     // of a table cell; 0: no limit
  std::string history_path;  // empty: no history file
};

// The history file: $TARN_HISTORY (empty: none), else ~/.tarn_history.
std::string DefaultHistoryPath();

// The interactive shell of `tarn sql` on a terminal, in sqlite3's manner: a
// prompt with line editing and history, statements that run once a line
// ends one with ";" (a continuation prompt until then), and dot-commands
// (.tables, .schema, .mode, .timer, .help, .quit). Ctrl-C stops the running
// statement, or drops what is being typed, and leaves the shell running;
// Ctrl-D or .quit leaves. A statement that fails is reported and the shell
// goes on. False when the terminal could not be used (said in `error`).
bool RunShell(SqlSession& session, const ShellSettings& settings, std::string& error);

}  // namespace Tarn::Tool
