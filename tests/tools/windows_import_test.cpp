// Real Windows telemetry through `tarn ingest`: the public sample of an
// intrusion that dumps the memory of lsass.exe, imported once and hunted over
// with `tarn sql` and `tarn query`; and what real logs hold that used to stop
// an import (an event larger than a record, Windows' spellings of addresses).

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include <nlohmann/json.hpp>

#include "tools/tool_runner.h"

namespace {

namespace fs = std::filesystem;
using tarn::test::Tool;
using tarn::test::ToolRun;

constexpr const char* kSample = TARN_SAMPLE_DATA "/procdump_lsass_memory_dump.zip";
// An address of the sample as Sysmon writes it; rows show fe80::2132:4b2b:8c64:b7fc.
constexpr const char* kSysmonV6 = "fe80:0:0:0:2132:4b2b:8c64:b7fc";

ToolRun RunIn(const std::string& dir, std::vector<std::string> args) {
  args.insert(args.begin(), "--quiet");
  return Tool::Run(args, dir);
}

// The store's constraint `column = text`, as `tarn query` takes it.
std::string EqualsConstraint(const std::string& column, const std::string& text) {
  return R"({")" + column + R"(":{"affinity":"text","list":[{"op":2,"expr":")" + text +
         R"("}]}})";
}

// The rows of one statement as CSV, header first.
std::string Csv(const std::string& dir, const std::string& store, const std::string& sql) {
  ToolRun run = RunIn(dir, {"sql", "--store", store, "--format", "csv", sql});
  EXPECT_EQ(run.status, 0) << sql << "\n" << run.err;
  return run.out;
}

// The sample is unpacked and imported once: the cases only read the store.
class WindowsSample : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!fs::exists(kSample)) return;
    dir_ = std::make_unique<tarn::test::TempDir>();
    // The .zip as it is kept: the import reads archives itself.
    import_ = RunIn(dir_->path(), {"ingest", "--store", dir_->File("store"), "--from", kSample});
  }
  static void TearDownTestSuite() { dir_.reset(); }

  void SetUp() override {
    if (!fs::exists(kSample)) GTEST_SKIP() << "no sample telemetry at " << kSample;
    ASSERT_EQ(import_.status, 0) << import_.err;
  }

  std::string Sql(const std::string& sql) { return Csv(dir_->path(), dir_->File("store"), sql); }

  static std::unique_ptr<tarn::test::TempDir> dir_;
  static ToolRun import_;
};

std::unique_ptr<tarn::test::TempDir> WindowsSample::dir_;
ToolRun WindowsSample::import_;

// The summary line that begins with `start`, its spaces run together.
std::string SummaryLine(const std::string& out, const std::string& start) {
  const size_t at = out.find("\n" + start);
  if (at == std::string::npos) return "";
  std::string line;
  for (size_t i = at + 1; i < out.size() && out[i] != '\n'; ++i) {
    if (out[i] != ' ' || (!line.empty() && line.back() != ' ')) line.push_back(out[i]);
  }
  return line;
}

TEST_F(WindowsSample, EveryEventIsStoredOrCountedByChannelAndId) {
  const std::string& out = import_.out;
  EXPECT_EQ(SummaryLine(out, "windows events:"),
            "windows events: 42,482 read from 1 JSON file, 39,125 rows stored in 23 tables, "
            "3,828 without a table, 0 refused");
  EXPECT_EQ(SummaryLine(out, "  edr_process_read_memory"), "edr_process_read_memory 477");
  EXPECT_EQ(SummaryLine(out, "  edr_process_privilege_request"),
            "edr_process_privilege_request 349");
  EXPECT_EQ(SummaryLine(out, "  Microsoft-Windows-PowerShell/Operational 4105"),
            "Microsoft-Windows-PowerShell/Operational 4105 1,235");
  EXPECT_EQ(SummaryLine(out, "time span"),
            "time span 2023-08-15T05:33:51Z to 2023-08-15T05:47:21Z");
}

// 65 of the 66 process starts the Security log holds (4688), and all 55 of
// its ends (4689), repeat Sysmon's record of the same process.
TEST_F(WindowsSample, ASecurityRecordOfAProcessSysmonLoggedIsNotStoredAgain) {
  EXPECT_EQ(SummaryLine(import_.out, "logged by Sysmon and Security both"),
            "logged by Sysmon and Security both, stored once: 65 process starts (4688), 55 "
            "process ends (4689)");
  // The one start only Security logged is tied to the process's Sysmon events.
  EXPECT_EQ(SummaryLine(import_.out, "process starts only Security logged"),
            "process starts only Security logged, tied to the Sysmon events of their process: 1");
  for (const char* table : {"edr_process_create", "edr_process_terminate"}) {
    EXPECT_EQ(Sql(std::string("SELECT count(*) AS twice FROM ") + table + " a JOIN " + table +
                  " b ON a.pid = b.pid AND a.rowid < b.rowid AND "
                  "abs(a.date_time - b.date_time) <= 2000"),
              "twice\n0\n")
        << table;
  }
}

// A process that started before the log began is recorded at its first
// event, so its file, registry, module and network events reach its image.
TEST_F(WindowsSample, ProcessesRunningBeforeTheLogBeganAreRecordedAtTheirFirstEvent) {
  EXPECT_EQ(SummaryLine(import_.out, "processes the log shows already running"),
            "processes the log shows already running, recorded at their first event: 114");
  EXPECT_EQ(Sql("SELECT count(*) AS n, sum(path != '') AS with_image FROM edr_process_create "
                "WHERE process_origin = 3"),
            "n,with_image\n114,114\n");
  for (const char* table : {"edr_file_create", "edr_registry_value_write",
                            "edr_process_load_module", "edr_network_generic_connect",
                            "edr_process_api_call"}) {
    EXPECT_EQ(Sql(std::string("SELECT count(*) AS orphans FROM ") + table +
                  " e WHERE e.puid != 0 AND NOT EXISTS (SELECT 1 FROM edr_process_create p "
                  "WHERE p.puid = e.puid AND p.date_time <= e.date_time)"),
              "orphans\n0\n")
        << table;
  }
  // lsass, only ever a target, is known by its image too.
  EXPECT_EQ(Sql("SELECT DISTINCT p.path FROM edr_process_read_memory r JOIN edr_process_create p "
                "ON p.puid = r.target_puid WHERE r.target_pid = 600"),
            "path\nC:\\Windows\\system32\\lsass.exe\n");
}

TEST_F(WindowsSample, AProcessGuidFromTheLogFindsItsRows) {
  EXPECT_EQ(Sql("SELECT process_name, pid FROM edr_process_create "
                "WHERE puid = puid('{19DE6D3B-1A5B-64DC-470C-000000000C00}')"),
            "process_name,pid\nprocdump64.exe,5804\n");
  ToolRun run = RunIn(dir_->path(), {"sql", "--store", dir_->File("store"),
                                     "SELECT puid('procdump64.exe')"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("puid() takes a ProcessGuid"), std::string::npos) << run.err;
}

TEST_F(WindowsSample, WhoReadTheMemoryOfLsass) {
  // Sysmon 10 names lsass.exe as the target of handles without the read
  // right too; those are API calls that keep the target's image.
  EXPECT_EQ(Sql("SELECT DISTINCT substr(extra_values, 1, instr(extra_values, ',0x') + 6) AS "
                "opened FROM edr_process_api_call "
                "WHERE extra_values LIKE '%\\lsass.exe,600,%' AND pid = 1620"),
            "opened\n\"C:\\Windows\\system32\\lsass.exe,600,0x1400\"\n");
  EXPECT_EQ(Sql("SELECT p.process_name, p.command_line, count(*) AS reads "
                "FROM edr_process_read_memory r JOIN edr_process_create p ON p.puid = r.puid "
                "WHERE r.target_pid = 600 GROUP BY 1, 2 ORDER BY 1"),
            "process_name,command_line,reads\n"
            "WmiPrvSE.exe,C:\\Windows\\system32\\wbem\\wmiprvse.exe -secured -Embedding,1\n"
            "procdump.exe,\"\"\"C:\\\\Program Files\\\\procdump.exe\"\" -accepteula "
            "-ma lsass.exe C:\\Windows\\Temp\\lsass_dump.dmp\",1\n"
            "procdump64.exe,\"\"\"C:\\\\Program Files\\\\procdump.exe\"\" -accepteula "
            "-ma lsass.exe C:\\Windows\\Temp\\lsass_dump.dmp\",2\n");
}

TEST_F(WindowsSample, AProcessLinksToItsParentByPuid) {
  // Sysmon's rows (puid from the ProcessGuid; the Security log's 4688 has
  // none), the start time read from the GUID, the integrity level "High".
  EXPECT_EQ(Sql("SELECT c.pid, c.parent_pid, p.process_name, p.pid, c.integrity_level, "
                "c.pid_time_stamp, c.command_line_indexes, c.working_directory "
                "FROM edr_process_create c JOIN edr_process_create p ON p.puid = c.parent_puid "
                "WHERE c.process_name = 'procdump64.exe' AND c.puid != 0"),
            "pid,parent_pid,process_name,pid,integrity_level,pid_time_stamp,"
            "command_line_indexes,working_directory\n"
            "5804,3420,procdump.exe,3420,12288,1692146267000,\"0,34,46,50,60\","
            "C:\\Users\\NORA~1.QUE\\AppData\\Local\\Temp\\RarSFX1\\\n");
}

TEST_F(WindowsSample, ConnectionsAreFoundByTheAddressesTheLogWrote) {
  EXPECT_EQ(Sql("SELECT local_ip, local_port, remote_ip, remote_port, protocol, direction "
                "FROM edr_network_generic_connect WHERE remote_ip = '192.168.1.1' LIMIT 1"),
            "local_ip,local_port,remote_ip,remote_port,protocol,direction\n"
            "192.168.1.43,52320,192.168.1.1,53,udp,2\n");
  // The filtering platform let the same DNS query through (Security 5156):
  // its Source is this host, Direction %%14593 outbound, Protocol 17.
  EXPECT_EQ(Sql("SELECT local_ip, local_port, remote_ip, remote_port, protocol, direction, pid, "
                "extra_values FROM edr_network_wfp_connection_status WHERE local_port = 52320"),
            "local_ip,local_port,remote_ip,remote_port,protocol,direction,pid,extra_values\n"
            "192.168.1.43,52320,192.168.1.1,53,udp,2,1124,"
            "\"\\device\\harddiskvolume2\\windows\\system32\\svchost.exe,%%14611\"\n");
  EXPECT_EQ(Sql("SELECT direction, count(*) AS n FROM edr_network_wfp_connection_status "
                "GROUP BY 1"),
            "direction,n\n1,34\n2,124\n");
  // Sysmon writes IPv6 addresses in full; the equality the store answers
  // takes that spelling as well as the row's.
  ToolRun run = RunIn(dir_->path(), {"query", "--store", dir_->File("store"), "--table",
                                     "edr_network_generic_connect", "--columns", "local_ip",
                                     "--constraints", EqualsConstraint("local_ip", kSysmonV6)});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find(R"("rows":7})"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find(R"("local_ip":"fe80::2132:4b2b:8c64:b7fc")"), std::string::npos);
  EXPECT_EQ(Sql(std::string("SELECT count(*) AS n FROM edr_network_generic_connect WHERE "
                            "local_ip = '") + kSysmonV6 + "'"),
            "n\n7\n");
}

TEST(WindowsImport, KeepsOversizeEventsAndWindowsAddresses) {
  tarn::test::TempDir dir;
  std::string script = "Write-Host '";
  while (script.size() < 100'000) script += "€";  // 3 bytes: most cuts would split one
  const nlohmann::json events[] = {
      {{"Channel", "Microsoft-Windows-PowerShell/Operational"}, {"EventID", 4104},
       {"@timestamp", "2023-08-15T05:33:51.746Z"}, {"ScriptBlockText", script}},
      {{"Channel", "Security"}, {"EventID", 4624}, {"TimeCreated", "2023-08-15T05:34:00.502Z"},
       {"TargetUserName", "nora"}, {"IpAddress", "-"}, {"TargetLogonId", "0x1a274e4"}},
      {{"Channel", "Microsoft-Windows-Sysmon/Operational"}, {"EventID", 3},
       {"UtcTime", "2023-08-15 05:34:01.000"}, {"Initiated", "false"},
       {"SourceIp", "FE80::1%12"}, {"DestinationIp", "fe80::2"}, {"DestinationPort", "445"}},
  };
  std::string lines;
  for (const auto& event : events) lines += event.dump() + "\n";
  tarn::test::WriteWholeFile(dir.File("events.json"), lines);
  const std::string store = dir.File("store");
  ToolRun run = RunIn(dir.path(), {"ingest", "--store", store, "--from", dir.File("events.json")});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("longest texts cut to fit a record (65,535 bytes) in 1 event"),
            std::string::npos)
      << run.out;
  // A text cut inside a character would read back as "<invalid_utf8_string>".
  EXPECT_EQ(Csv(dir.path(), store,
                "SELECT length(CAST(command AS BLOB)) BETWEEN 65000 AND 65535 AS fits, "
                "command LIKE 'Write-Host%' AS whole FROM edr_shell_command"),
            "fits,whole\n1,1\n");
  EXPECT_EQ(Csv(dir.path(), store, "SELECT username, ip_address, logon_id FROM edr_user_login"),
            "username,ip_address,logon_id\nnora,\"\",27423972\n");
  EXPECT_EQ(Csv(dir.path(), store,
                "SELECT local_ip, remote_ip, local_port, direction "
                "FROM edr_network_generic_connect"),
            "local_ip,remote_ip,local_port,direction\nfe80::2,fe80::1,445,1\n");
  run = RunIn(dir.path(), {"query", "--store", store, "--table", "edr_network_generic_connect",
                           "--constraints", EqualsConstraint("remote_ip", "FE80::1%12")});
  EXPECT_NE(run.out.find(R"("rows":1})"), std::string::npos) << run.out << run.err;
}

}  // namespace
