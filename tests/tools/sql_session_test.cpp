// `tarn sql` as a person uses it: the interactive shell on a terminal, an id
// copied from any output finding its rows, dates in SQL, statements given
// as separate arguments, and CSV that tells NULL from an empty text.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>

#include "tarn/sql/SqlLiterals.h"
#include "tarn/cli/TextForms.h"
#include "tools/tool_runner.h"

namespace {

using tarn::test::Tool;
using tarn::test::ToolRun;

constexpr int64_t kHourMs = 3'600'000;
constexpr int64_t kDayMs = 24 * kHourMs;
constexpr char kBigId[] = "18446744073709551557";  // 2^64 - 59: -59 to SQLite

// The built program on a pseudo-terminal of its own, typed at like a person.
class Terminal {
 public:
  Terminal(const std::vector<std::string>& args, const std::vector<std::string>& env) {
    master_ = posix_openpt(O_RDWR | O_NOCTTY);
    grantpt(master_);
    unlockpt(master_);
    const std::string slave = ptsname(master_);
    winsize size = {24, 100, 0, 0};
    ioctl(master_, TIOCSWINSZ, &size);
    pid_ = fork();
    if (pid_ != 0) return;
    setsid();  // the terminal becomes the child's own, Ctrl-C and all
    const int fd = open(slave.c_str(), O_RDWR);
    ioctl(fd, TIOCSCTTY, 0);
    for (int i = 0; i < 3; ++i) dup2(fd, i);
    close(master_);  // the terminal hangs up once the test lets go of it
    for (const std::string& setting : env) putenv(const_cast<char*>(setting.c_str()));
    std::vector<char*> argv = {const_cast<char*>(TARN_TOOL_PATH)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(TARN_TOOL_PATH, argv.data());
    _exit(127);
  }
  ~Terminal() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(master_);
  }

  void Type(const std::string& keys) {
    ASSERT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Reads until `text` shows after what the last wait found; false after
  // `ms` or when the program is gone.
  bool WaitFor(const std::string& text, int ms = 10'000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (seen_.find(text, mark_) == std::string::npos) {
      pollfd p = {master_, POLLIN, 0};
      if (std::chrono::steady_clock::now() > deadline || poll(&p, 1, 100) < 0) return false;
      char buffer[4096];
      const ssize_t n = (p.revents & (POLLIN | POLLHUP)) ? read(master_, buffer, sizeof buffer) : 0;
      if (n < 0) return false;
      seen_.append(buffer, static_cast<size_t>(n));
    }
    mark_ = seen_.find(text, mark_) + text.size();
    return true;
  }

  // The prompt, and then libedit reading keys: until then, the terminal
  // would take Ctrl-D as the end of a line it edits itself.
  bool Prompted(const std::string& prompt) { return WaitFor(prompt) && Editing(); }
  bool Editing() {
    termios modes = {};
    for (int i = 0; i < 2000 && tcgetattr(master_, &modes) == 0; ++i) {
      if ((modes.c_lflag & ICANON) == 0) return true;
      usleep(5000);
    }
    return false;
  }

  // What the terminal showed since `from` (a position in all it showed).
  std::string Since(size_t from) const { return seen_.substr(from, mark_ - from); }
  size_t Mark() const { return mark_; }

  // The exit status; -1 when the program did not end within ten seconds.
  int Exit() {
    int raw = 0;
    pid_t done = 0;
    for (int i = 0; i < 2000 && (done = waitpid(pid_, &raw, WNOHANG)) == 0; ++i) usleep(5000);
    if (done != pid_) return -1;  // the destructor ends it
    pid_ = -1;
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  }

 private:
  int master_ = -1;
  pid_t pid_ = -1;
  std::string seen_;
  size_t mark_ = 0;
};

class TarnSqlInUse : public ::testing::Test {
 protected:
  // Two processes yesterday around 14:00 UTC, the first with an id past
  // 2^63 and the parent of the second, whose command line is empty.
  void SetUp() override {
    const int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
    const int64_t at = (now / kDayMs - 1) * kDayMs + 14 * kHourMs;
    day_ = Tarn::Tool::FormatTime(at).substr(0, 10);
    const std::string big = kBigId;
    const std::string lines =
        "{\"table\":\"edr_process_create\",\"date_time\":" + std::to_string(at - 1000) +
        ",\"pid\":7,\"puid\":" + big + ",\"path\":\"C:\\\\a.exe\",\"command_line\":\"a.exe x\"}\n"
        "{\"table\":\"edr_process_create\",\"date_time\":" + std::to_string(at + 250) +
        ",\"pid\":8,\"puid\":42,\"parent_puid\":" + big +
        ",\"path\":\"C:\\\\b.exe\",\"command_line\":\"\"}\n";
    tarn::test::WriteWholeFile(dir_.File("events.jsonl"), lines);
    ASSERT_EQ(Run({"ingest", "--store", Store(), "--from", dir_.File("events.jsonl")}).status, 0);
  }

  std::string Store() const { return dir_.File("store"); }

  ToolRun Run(std::vector<std::string> args) {
    args.insert(args.begin(), "--quiet");
    return Tool::Run(args, dir_.path());
  }

  std::string Sql(const std::string& format, const std::string& sql) {
    ToolRun run = Run({"sql", "--store", Store(), "--format", format, sql});
    EXPECT_EQ(run.status, 0) << sql << "\n" << run.err;
    return run.out;
  }

  Terminal Shell() {
    return Terminal({"--quiet", "sql", "--store", Store()},
                    {"TERM=dumb", "HOME=" + dir_.path(), "TARN_HISTORY=" + dir_.File("history")});
  }

  tarn::test::TempDir dir_;
  std::string day_;  // of the events, "2026-11-20"
};

TEST_F(TarnSqlInUse, TheShellEditsRunsStopsAndRemembers) {
  Terminal terminal = Shell();
  ASSERT_TRUE(terminal.Prompted("tarn> "));
  // A statement over two lines; the id as `tarn export` writes it.
  terminal.Type("SELECT puid,\r");
  ASSERT_TRUE(terminal.Prompted(" ...> "));
  terminal.Type("  path FROM edr_process_create WHERE puid = " + std::string(kBigId) + ";\r");
  ASSERT_TRUE(terminal.Prompted("tarn> "));
  EXPECT_NE(terminal.Since(0).find("puid                  path\r\n"
                                   "--------------------  --------\r\n"
                                   "18446744073709551557  C:\\a.exe\r\n(1 row)\r\n"),
            std::string::npos)
      << terminal.Since(0);

  size_t from = terminal.Mark();
  terminal.Type(".tables edr_process_c%\r");
  ASSERT_TRUE(terminal.Prompted("tarn> "));
  EXPECT_NE(terminal.Since(from).find("edr_process_create "), std::string::npos);
  EXPECT_NE(terminal.Since(from).find("edr_process_created_by_another_user"), std::string::npos);
  EXPECT_EQ(terminal.Since(from).find("edr_file_read"), std::string::npos);
  from = terminal.Mark();
  terminal.Type(".schema edr_process_create\r");
  ASSERT_TRUE(terminal.Prompted("tarn> "));
  EXPECT_NE(terminal.Since(from).find("CREATE TABLE edr_process_create(\r\n  date_time INTEGER,"),
            std::string::npos);
  EXPECT_NE(terminal.Since(from).find("  puid UNSIGNED BIGINT,\r\n  pid INTEGER,"),
            std::string::npos);
  EXPECT_NE(terminal.Since(from).find("  path TEXT,"), std::string::npos);

  terminal.Type(".mode csv\r");
  ASSERT_TRUE(terminal.Prompted("tarn> "));
  terminal.Type(".timer on\r");
  ASSERT_TRUE(terminal.Prompted("tarn> "));
  terminal.Type("SELECT command_line, NULL AS none FROM edr_process_create WHERE pid = 8;\r");
  ASSERT_TRUE(terminal.WaitFor("command_line,none\r\n\"\",\r\nRun Time: real "));
  ASSERT_TRUE(terminal.Prompted("tarn> "));

  // A statement that never ends, stopped once it runs (CSV writes its
  // header then); the shell goes on.
  terminal.Type(
      "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n) "
      "SELECT count(*) FROM n;\r");
  ASSERT_TRUE(terminal.WaitFor("count(*)\r\n"));
  terminal.Type("\x03");
  ASSERT_TRUE(terminal.WaitFor("tarn: interrupted\r\n"));
  ASSERT_TRUE(terminal.Prompted("tarn> "));
  // Ctrl-C at a continuation prompt drops the statement being typed. (One
  // that comes after the prompt is drawn and before the wait for keys
  // begins reaches no read to end: the next one does.)
  terminal.Type("SELECT 'dropped'\r");
  ASSERT_TRUE(terminal.Prompted(" ...> "));
  for (int tries = 0; tries < 10; ++tries) {
    terminal.Type("\x03");
    if (terminal.WaitFor("tarn> ", 1000)) break;
  }
  ASSERT_TRUE(terminal.Editing());
  from = terminal.Mark();
  terminal.Type("SELECT 'kept';\r");
  ASSERT_TRUE(terminal.WaitFor("'kept'\r\nkept\r\n"));
  EXPECT_EQ(terminal.Since(from).find("error"), std::string::npos) << terminal.Since(from);
  ASSERT_TRUE(terminal.Prompted("tarn> "));
  terminal.Type("\x04");
  EXPECT_EQ(terminal.Exit(), 0);

  // The next session has the history: Ctrl-P brings the last statement back.
  Terminal again = Shell();
  ASSERT_TRUE(again.Prompted("tarn> "));
  again.Type("\x10\r");
  ASSERT_TRUE(again.WaitFor("'kept'\r\n------\r\nkept\r\n(1 row)\r\n"));
  ASSERT_TRUE(again.Prompted("tarn> "));
  again.Type(".quit\r");
  EXPECT_EQ(again.Exit(), 0);
}

// An id from `tarn export` or from any `tarn sql` format finds its rows, and
// so does the negative form older outputs showed; all formats agree.
TEST_F(TarnSqlInUse, AnIdCopiedFromAnyOutputFindsItsRows) {
  ToolRun exported = Run({"export", "--store", Store(), "--table", "edr_process_create"});
  ASSERT_EQ(exported.status, 0) << exported.err;
  EXPECT_NE(exported.out.find(std::string("\"puid\":") + kBigId + ","), std::string::npos);
  for (const std::string id : {kBigId, "-59", " 18446744073709551557 "}) {
    SCOPED_TRACE(id);
    const std::string select = "SELECT puid, pid FROM edr_process_create WHERE puid = " + id;
    EXPECT_EQ(Sql("csv", select), std::string("puid,pid\n") + kBigId + ",7\n");
    EXPECT_EQ(Sql("json", select), std::string("[\n{\"puid\":") + kBigId + ",\"pid\":7}\n]\n");
    EXPECT_NE(Sql("table", select).find(std::string(kBigId) + "    7\n(1 row)"), std::string::npos);
  }
  EXPECT_EQ(Sql("csv",
                "SELECT c.pid, p.pid FROM edr_process_create c JOIN edr_process_create p "
                "ON p.puid = c.parent_puid WHERE c.parent_puid = " +
                    std::string(kBigId)),
            "pid,pid\n8,7\n");
}

// Where such a literal meets a 64-bit id column SQLite reads the id's 64
// bits; anywhere else, and in strings, names, comments, reals and
// negatives, it stays for SQLite to read.
TEST(SignedIdLiterals, RewriteOnlyPlainIntegersPast2To63ThatMeetAnId) {
  const std::pair<std::string, std::string> cases[] = {
      {"puid = 18446744073709551557", "puid = (-59)"},
      {"p.puid=9223372036854775808 OR \"puid\"=9223372036854775807",
       "p.puid=(-9223372036854775808) OR \"puid\"=9223372036854775807"},
      {"18446744073709551557 <> c.parent_puid", "(-59) <> c.parent_puid"},
      {"puid IN (1, 18446744073709551557, 2)", "puid IN (1, (-59), 2)"},
      {"puid BETWEEN 9223372036854775808 AND 18446744073709551615",
       "puid BETWEEN (-9223372036854775808) AND (-1)"},
      {"puid = -9223372036854775808 OR puid = - 18446744073709551557",
       "puid = -9223372036854775808 OR puid = - 18446744073709551557"},
      // Not an id: a time, a 32-bit column, an expression, a bare number.
      {"date_time < 9999999999999999999", "date_time < 9999999999999999999"},
      {"pid = 18446744073709551557", "pid = 18446744073709551557"},
      {"puid + 18446744073709551557", "puid + 18446744073709551557"},
      {"SELECT 18446744073709551615 > 0", "SELECT 18446744073709551615 > 0"},
      {"'18446744073709551557', \"18446744073709551557\", [1844674407370955155 7], "
       "`18446744073709551557`, 'it''s 18446744073709551557'",
       "'18446744073709551557', \"18446744073709551557\", [1844674407370955155 7], "
       "`18446744073709551557`, 'it''s 18446744073709551557'"},
      {"puid = 18446744073709551557.5 OR puid = 0x18446744073709551557 OR puid = "
       "18446744073709551616 OR puid = ?18446744073709551557",
       "puid = 18446744073709551557.5 OR puid = 0x18446744073709551557 OR puid = "
       "18446744073709551616 OR puid = ?18446744073709551557"},
      {"-- puid = 18446744073709551557\n/* 18446744073709551557 */ puid = 18446744073709551557",
       "-- puid = 18446744073709551557\n/* 18446744073709551557 */ puid = (-59)"},
  };
  for (const auto& [sql, want] : cases) EXPECT_EQ(Tarn::Tool::SignedIdLiterals(sql), want);

  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  sqlite3_stmt* statement = nullptr;
  const std::string sql = Tarn::Tool::SignedIdLiterals(
      "SELECT (SELECT count(*) FROM (SELECT -59 AS puid) WHERE puid = 18446744073709551557), "
      "18446744073709551615 > 0, typeof(9223372036854775808)");
  ASSERT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
  EXPECT_EQ(sqlite3_column_int(statement, 0), 1);
  EXPECT_EQ(sqlite3_column_int(statement, 1), 1);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(statement, 2)), "real");
  sqlite3_finalize(statement);
  sqlite3_close(db);
}

TEST_F(TarnSqlInUse, DatesStatementsApartAndCsvNulls) {
  // ts() reads the forms ingest and export take; iso() writes them back.
  EXPECT_EQ(
      Sql("csv", "SELECT pid FROM edr_process_create WHERE date_time >= ts('" + day_ + " 14:00')"),
      "pid\n8\n");
  EXPECT_EQ(Sql("csv", "SELECT iso(date_time) AS t FROM edr_process_create WHERE date_time "
                       "BETWEEN ts('" + day_ + "T13:59:59Z') AND ts('" + day_ +
                       "T16:00:00.250+02:00') ORDER BY 1"),
            "t\n" + day_ + "T13:59:59Z\n" + day_ + "T14:00:00.250Z\n");
  for (const std::string& where : {"date_time >= '" + day_ + "'", "date_time < '" + day_ + "'"}) {
    ToolRun text =
        Run({"sql", "--store", Store(), "SELECT 1 FROM edr_process_create WHERE " + where});
    EXPECT_EQ(text.status, 1) << where;
    EXPECT_NE(
        text.err.find("cannot be compared with the text '" + day_ + "': write ts('" + day_ + "')"),
        std::string::npos)
        << text.err;
  }
  ToolRun bad = Run({"sql", "--store", Store(), "SELECT ts('yesterday')"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.err.find("ts() takes a date or an ISO 8601 time"), std::string::npos) << bad.err;

  // Each argument in turn, the first failure ending the run; an empty text
  // is "" and NULL nothing, as in sqlite3.
  ToolRun apart = Run({"sql", "--store", Store(), "--format", "csv",
                       "SELECT command_line, NULL AS none FROM edr_process_create WHERE pid = 8",
                       "SELECT 2 AS b; SELECT 3 AS c", "SELECT nothing_here", "SELECT 4"});
  EXPECT_EQ(apart.status, 1);
  EXPECT_EQ(apart.out, "command_line,none\n\"\",\n\nb\n2\n\nc\n3\n");
  EXPECT_NE(apart.err.find("no such column: nothing_here"), std::string::npos) << apart.err;
}

}  // namespace
