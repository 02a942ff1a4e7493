#include "tarn/sql/SqlShell.h"

#include <sqlite3.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "osquery/Tables.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/sql/LineEditor.h"
#include "tarn/sql/SqlSession.h"
#include "tarn/sql/SqlTables.h"

namespace Tarn::Tool {
namespace {

using Storage::OSQuery::ColumnInfo;
using Storage::OSQuery::TableInfo;

constexpr char kPrompt[] = "tarn> ";
constexpr char kMorePrompt[] = " ...> ";

constexpr char kHelp[] =
    ".help                  this list\n"
    ".mode table|csv|json   how results are shown\n"
    ".quit                  leave (Ctrl-D does too)\n"
    ".schema [TABLE]        the columns of the tables LIKE TABLE, and their types\n"
    ".tables [PATTERN]      the tables, or those LIKE PATTERN\n"
    ".timer on|off          how long each statement took\n"
    "Statements end with \";\" and may span lines. Ctrl-C stops a statement.\n"
    "date_time is milliseconds since 1970 (UTC): ts('2023-08-16 14:00') writes one,\n"
    "iso(date_time) reads one.\n";

volatile std::sig_atomic_t g_stop = 0;

void OnInterrupt(int) { g_stop = 1; }

// SIGINT for the shell's lifetime. Without SA_RESTART, so that it ends the
// read of a line being typed as well as a running statement.
class InterruptCatcher {
 public:
  InterruptCatcher() {
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previous_);
  }
  ~InterruptCatcher() { sigaction(SIGINT, &previous_, nullptr); }
  InterruptCatcher(const InterruptCatcher&) = delete;
  InterruptCatcher& operator=(const InterruptCatcher&) = delete;

 private:
  struct sigaction previous_ = {};
};

std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  size_t at = 0;
  while ((at = line.find_first_not_of(" \t", at)) != std::string::npos) {
    const size_t end = line.find_first_of(" \t", at);
    words.push_back(line.substr(at, end - at));
    at = end;
  }
  return words;
}

bool IsBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n;") == std::string::npos;
}

bool IsDotCommand(const std::string& line) {
  const size_t first = line.find_first_not_of(" \t");
  return first != std::string::npos && line[first] == '.';
}

// Tables whose name is LIKE `pattern` (all for an empty one), by name.
std::vector<const TableInfo*> Matching(const std::string& pattern) {
  std::vector<const TableInfo*> tables;
  for (const TableInfo& table : Storage::OSQuery::AllTables()) {
    if (pattern.empty() || sqlite3_strlike(pattern.c_str(), table.name, 0) == 0) {
      tables.push_back(&table);
    }
  }
  std::sort(tables.begin(), tables.end(), [](const TableInfo* a, const TableInfo* b) {
    return std::string_view(a->name) < std::string_view(b->name);
  });
  return tables;
}

size_t TerminalColumns() {
  winsize size = {};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

// Names in columns down the terminal, as sqlite3's .tables writes them.
void PrintInColumns(const std::vector<const TableInfo*>& tables) {
  size_t width = 0;
  for (const TableInfo* table : tables) {
    width = std::max(width, std::string_view(table->name).size());
  }
  width += 2;
  const size_t columns = std::max<size_t>(1, TerminalColumns() / width);
  const size_t rows = (tables.size() + columns - 1) / columns;
  for (size_t r = 0; r < rows; ++r) {
    std::string line;
    for (size_t i = r; i < tables.size(); i += rows) {
      std::string name = tables[i]->name;
      if (i + rows < tables.size()) name.resize(width, ' ');
      line += name;
    }
    std::printf("%s\n", line.c_str());
  }
}

void PrintSchema(const TableInfo& table) {
  std::printf("CREATE TABLE %s(\n", table.name);
  for (const ColumnInfo& column : table.Columns()) {
    const bool last = &column == table.columns + table.column_count - 1;
    std::printf("  %s %s%s\n", column.name, DeclaredType(column.kind), last ? "" : ",");
  }
  std::printf(");\n");
}

// Wall time and this process's processor time, for .timer.
struct Times {
  double real = 0;
  double user = 0;
  double system = 0;

  static Times Now() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return {std::chrono::duration<double>(since).count(), seconds(usage.ru_utime),
            seconds(usage.ru_stime)};
  }
};

class Shell {
 public:
  Shell(SqlSession& session, const ShellSettings& settings)
      : session_(session), settings_(settings), format_(settings.format) {}

  bool Run(std::string& error);

 private:
  void Take(const std::string& line);
  void Execute(const std::string& sql);
  void Dot(const std::string& line);
  void Mode(const std::vector<std::string>& words);
  void Timer(const std::vector<std::string>& words);
  void Tables(const std::vector<std::string>& words);
  void Schema(const std::vector<std::string>& words);

  SqlSession& session_;
  const ShellSettings& settings_;
  LineEditor editor_;
  ResultFormat format_;
  std::string pending_;  // the lines of a statement not yet ended
  bool timer_ = false;
  bool quit_ = false;
};

bool Shell::Run(std::string& error) {
  if (!editor_.Open("tarn", settings_.history_path, error)) return false;
  InterruptCatcher catcher;
  session_.StopWhen(&g_stop);
  std::printf("tarn sql on %s: %zu tables. Enter \".help\" for the commands; statements end "
              "with \";\".\n",
              settings_.store.c_str(), Storage::OSQuery::AllTables().size());
  while (!quit_) {
    g_stop = 0;
    std::string line;
    const LineEditor::Read read = editor_.ReadLine(pending_.empty() ? kPrompt : kMorePrompt, line);
    if (read == LineEditor::Read::kEnd) break;
    if (read == LineEditor::Read::kInterrupted) {
      pending_.clear();
      std::printf("\n");
    } else if (pending_.empty() && IsDotCommand(line)) {
      editor_.Remember(line);
      Dot(line);
    } else {
      Take(line);
    }
  }
  if (!quit_) std::printf("\n");  // after the "^D"
  if (!IsBlank(pending_)) PrintError("the last statement had no \";\" to end it: not run");
  std::fflush(stdout);
  return true;
}

// Adds a typed line to the statement being typed, and runs the statement
// once a line ends it.
void Shell::Take(const std::string& line) {
  pending_ += pending_.empty() ? line : "\n" + line;
  if (IsBlank(pending_)) {
    pending_.clear();
    return;
  }
  if (!sqlite3_complete(pending_.c_str())) return;
  std::string entry = pending_;  // one line of history, to edit as one
  std::replace(entry.begin(), entry.end(), '\n', ' ');
  editor_.Remember(entry);
  Execute(pending_);
  pending_.clear();
}

void Shell::Execute(const std::string& sql) {
  const Times start = Times::Now();
  ResultPrinter printer(format_, stdout, format_ == ResultFormat::kTable ? settings_.max_width : 0);
  std::string error;
  if (!session_.Run(sql, printer, error)) {
    if (g_stop != 0) std::fputc('\n', stdout);  // after the terminal's "^C"
    std::fflush(stdout);
    PrintError(error);
  }
  if (timer_) {
    const Times end = Times::Now();
    std::printf("Run Time: real %.3f user %.6f sys %.6f\n", end.real - start.real,
                end.user - start.user, end.system - start.system);
  }
  std::fflush(stdout);
}

void Shell::Dot(const std::string& line) {
  const std::vector<std::string> words = Words(line);
  const std::string& command = words.front();
  if (command == ".quit" || command == ".exit") {
    quit_ = true;
  } else if (command == ".help") {
    std::fputs(kHelp, stdout);
  } else if (command == ".mode") {
    Mode(words);
  } else if (command == ".timer") {
    Timer(words);
  } else if (command == ".tables") {
    Tables(words);
  } else if (command == ".schema") {
    Schema(words);
  } else {
    PrintError("unknown command " + command + ": \".help\" lists the commands");
  }
  std::fflush(stdout);
}

void Shell::Mode(const std::vector<std::string>& words) {
  static const char* const kNames[] = {"table", "csv", "json"};
  if (words.size() == 1) {
    std::printf("results are shown as %s\n", kNames[static_cast<int>(format_)]);
  } else if (words.size() != 2 || !ParseResultFormat(words[1], format_)) {
    PrintError(".mode takes table, csv or json");
  }
}

void Shell::Timer(const std::vector<std::string>& words) {
  if (words.size() == 2 && (words[1] == "on" || words[1] == "off")) {
    timer_ = words[1] == "on";
  } else {
    PrintError(".timer takes on or off");
  }
}

void Shell::Tables(const std::vector<std::string>& words) {
  const std::vector<const TableInfo*> tables = Matching(words.size() > 1 ? words[1] : "");
  if (tables.empty()) {
    PrintError("no table is LIKE '" + words[1] + "'");
    return;
  }
  PrintInColumns(tables);
}

void Shell::Schema(const std::vector<std::string>& words) {
  const std::vector<const TableInfo*> tables = Matching(words.size() > 1 ? words[1] : "");
  if (tables.empty()) {
    PrintError("no table is LIKE '" + words[1] + "': \".tables\" lists them");
    return;
  }
  for (const TableInfo* table : tables) PrintSchema(*table);
}

}  // namespace

std::string DefaultHistoryPath() {
  if (const char* path = std::getenv("TARN_HISTORY")) return path;
  const char* home = std::getenv("HOME");
  return home == nullptr || *home == '\0' ? "" : std::string(home) + "/.tarn_history";
}

bool RunShell(SqlSession& session, const ShellSettings& settings, std::string& error) {
  Shell shell(session, settings);
  return shell.Run(error);
}

}  // namespace Tarn::Tool
