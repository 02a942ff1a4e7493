// The Windows mapping event by event, without a store: which tables an
// event's rows go to and what their columns hold, for events written here
// and for every line of the public sample of an intrusion that dumps the
// memory of lsass.exe.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/temp_dir.h"
#include "tarn/import/WindowsEvents.h"
#include "tarn/import/WindowsValues.h"

namespace {

namespace fs = std::filesystem;
namespace win = Tarn::Tool::Windows;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using Json = nlohmann::json;

constexpr const char* kSample = TARN_SAMPLE_DATA "/procdump_lsass_memory_dump.zip";
constexpr const char* kSysmon = "Microsoft-Windows-Sysmon/Operational";
// The user of the sample's intrusion.
constexpr const char* kNora = "S-1-5-21-1939123204-1418869057-2368897034-1108";
constexpr const char* kUnknown = "4294967295";  // a named value the mapping does not know

std::string TableOf(const Message& row) { return row.GetDescriptor()->name(); }

// A column's value as text, numbers in decimal.
std::string ColumnOf(const Message& row, const std::string& column) {
  const FieldDescriptor* field = row.GetDescriptor()->FindFieldByName(column);
  if (field == nullptr) return "<no column " + column + " in " + TableOf(row) + ">";
  const auto* reflection = row.GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_STRING: return reflection->GetString(row, field);
    case FieldDescriptor::CPPTYPE_UINT32: return std::to_string(reflection->GetUInt32(row, field));
    case FieldDescriptor::CPPTYPE_UINT64: return std::to_string(reflection->GetUInt64(row, field));
    default: return "<column " + column + " of another type>";
  }
}

std::vector<std::string> TablesOf(const win::Event& event) {
  std::vector<std::string> tables;
  for (const auto& row : event.rows) tables.push_back(TableOf(*row));
  return tables;
}

// An event as a shipper writes it: `fields` with a channel, an id and a time.
Json EventOf(const std::string& channel, uint32_t id, Json fields) {
  fields["Channel"] = channel;
  fields["EventID"] = id;
  fields["TimeCreated"] = "2023-08-15T05:37:48.974Z";
  return fields;
}

// A column an event's row must hold.
struct Expected {
  size_t row;
  const char* column;
  std::string value;
};

// An event, the tables of its rows in order, and some of their columns.
struct Mapping {
  const char* what;
  const char* channel;
  uint32_t id;
  const char* fields;  // JSON
  std::vector<std::string> tables;
  std::vector<Expected> columns;
};

void ExpectMapping(const Mapping& m) {
  SCOPED_TRACE(m.what);
  win::Event event;
  std::string error;
  ASSERT_TRUE(win::ReadFields(EventOf(m.channel, m.id, Json::parse(m.fields)), event, error))
      << error;
  ASSERT_EQ(TablesOf(event), m.tables);
  for (const Expected& e : m.columns) {
    EXPECT_EQ(ColumnOf(*event.rows[e.row], e.column), e.value) << e.column;
  }
}

TEST(WindowsMapping, EveryRuleFitsItsTable) {
  std::string error;
  EXPECT_TRUE(win::CheckRules(error)) << error;
}

TEST(WindowsMapping, RegistryValueNamedByAPathStaysWholeUnderItsKey) {
  // Where Sysmon's TargetObject, the key and the name joined by "\", parts.
  struct ValuePath {
    const char* what;
    std::string key;
    std::string value_name;
  };
  const std::string user = R"(HKU\S-1-5-21-7-8-9-1001)";
  const std::string services = R"(HKLM\System\CurrentControlSet\Services\)";
  const std::string explorer = user + R"(\Software\Microsoft\Windows\CurrentVersion\Explorer)";
  const std::string app_compat = R"(\Microsoft\Windows NT\CurrentVersion\AppCompatFlags)";
  const ValuePath cases[] = {
      {"the last run of a program, another control set, case aside",
       R"(hklm\SYSTEM\ControlSet001\Services\BAM\State\UserSettings\S-1-5-21-7-8-9-1001)",
       R"(\Device\HarddiskVolume3\Tools\x.exe)"},
      {"the same, as older Windows keep it",
       services + R"(bam\UserSettings\S-1-5-21-7-8-9-1001)",
       R"(\Device\HarddiskVolume2\Windows\explorer.exe)"},
      {"a value of that key named without a path",
       services + R"(bam\State\UserSettings\S-1-5-18)", "SequenceNumber"},
      {"the known key's path itself: a value of the key above",
       services + R"(bam\State\UserSettings)", "S-1-5-18"},
      {"a program the compatibility assistant saw",
       user + R"(\SOFTWARE)" + app_compat + R"(\Compatibility Assistant\Store)",
       R"(C:\Users\x\Downloads\a.exe)"},
      {"a compatibility mode", R"(HKLM\SOFTWARE)" + app_compat + R"(\Layers)",
       R"(C:\Games\old.exe)"},
      {"a program started from the shell, its path in ROT13",
       explorer + R"(\UserAssist\{CEBFF5CD-ACE2-4F4F-9178-9926F41749EA}\Count)",
       R"(P:\Hfref\k.rkr)"},
      {"the MUI cache in the classes hive",
       user + R"(_Classes\Local Settings\Software\Microsoft\Windows\Shell\MuiCache)",
       R"(C:\Tools\x.exe.FriendlyAppName)"},
      {"a shared DLL's count",
       R"(HKLM\SOFTWARE\WOW6432Node\Microsoft\Windows\CurrentVersion\SharedDLLs)",
       R"(C:\Program Files (x86)\Common\x.dll)"},
      {"a folder Defender leaves alone",
       R"(HKLM\SOFTWARE\Microsoft\Windows Defender\Exclusions\Paths)",
       R"(C:\Users\Public\Downloads)"},
      {"a key whose name only begins like a known one's",
       R"(HKLM\SOFTWARE\Microsoft\Windows Defender\Exclusions\PathsOld\C:)", "x"},
      {"any other key: its value's name is the path's last part",
       R"(HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Run)", "Updater"},
      {"a path without a key", "", "Orphan"},
  };
  const Json written = EventOf(kSysmon, 13, {{"EventType", "SetValue"}, {"Details", "(Empty)"}});
  const Json deleted = EventOf(kSysmon, 12, {{"EventType", "DeleteValue"}});
  for (const ValuePath& c : cases) {
    const std::string path = c.key.empty() ? c.value_name : c.key + "\\" + c.value_name;
    for (Json event : {written, deleted}) {
      SCOPED_TRACE(std::string(c.what) + ", event " + event["EventID"].dump() + ": " + path);
      event["TargetObject"] = path;
      win::Event read;
      std::string error;
      ASSERT_TRUE(win::ReadFields(event, read, error)) << error;
      ASSERT_EQ(read.rows.size(), 1u);
      EXPECT_EQ(ColumnOf(*read.rows[0], "key"), c.key);
      EXPECT_EQ(ColumnOf(*read.rows[0], "value_name"), c.value_name);
    }
  }
}

TEST(WindowsMapping, SecurityEventsThatFitATable) {
  const Mapping cases[] = {
      {"4799: a process listed a local group's members", "Security", 4799,
       R"({"TargetUserName": "Administrators", "TargetDomainName": "Builtin",
           "TargetSid": "S-1-5-32-544", "SubjectUserSid": "S-1-5-18",
           "SubjectUserName": "ACCT01$", "SubjectDomainName": "PANDALAB",
           "SubjectLogonId": "0x3e7", "CallerProcessId": "0x114",
           "CallerProcessName": "C:\\Windows\\System32\\SearchIndexer.exe"})",
       {"edr_process_enumerates_group"},
       {{0, "pid", "276"},
        {0, "target_groupname", "Administrators"},
        {0, "target_domain", "Builtin"},
        {0, "target_group_sid", "S-1-5-32-544"},
        {0, "subject_username", "ACCT01$"},
        {0, "subject_domain", "PANDALAB"},
        {0, "subject_user_sid", "S-1-5-18"}}},
      {"4798: a process listed a user's local groups", "Security", 4798,
       R"({"TargetUserName": "nora.quemona", "TargetDomainName": "PANDALAB",
           "TargetSid": "S-1-5-21-1939123204-1418869057-2368897034-1108",
           "SubjectUserSid": "S-1-5-18", "SubjectUserName": "ACCT01$",
           "SubjectDomainName": "PANDALAB", "SubjectLogonId": "0x3e7",
           "CallerProcessId": "0x1b48", "CallerProcessName": "C:\\Windows\\System32\\net1.exe"})",
       {"edr_process_enumerates_user_groups"},
       {{0, "pid", "6984"},
        {0, "target_username", "nora.quemona"},
        {0, "target_domain", "PANDALAB"},
        {0, "target_user_sid", kNora},
        {0, "subject_username", "ACCT01$"},
        {0, "subject_user_sid", "S-1-5-18"}}},
      {"4672: special privileges, bit N for the privilege whose LUID is N", "Security", 4672,
       R"({"SourceName": "Microsoft-Windows-Security-Auditing", "Task": "12548",
           "SubjectUserSid": "S-1-5-18", "SubjectUserName": "SYSTEM",
           "SubjectDomainName": "NT AUTHORITY", "SubjectLogonId": "0x3e7",
           "PrivilegeList": "SeAssignPrimaryTokenPrivilege\n\t\t\tSeTcbPrivilege\n\t\t\t)"
       R"(SeSecurityPrivilege\n\t\t\tSeTakeOwnershipPrivilege\n\t\t\tSeLoadDriverPrivilege)"
       R"(\n\t\t\tSeBackupPrivilege\n\t\t\tSeRestorePrivilege\n\t\t\tSeDebugPrivilege)"
       R"(\n\t\t\tSeAuditPrivilege\n\t\t\tSeSystemEnvironmentPrivilege\n\t\t\t)"
       R"(SeImpersonatePrivilege\n\t\t\tSeDelegateSessionUserImpersonatePrivilege"})",
       {"edr_user_privileges_assigned"},
       {{0, "username", "SYSTEM"},
        {0, "user_domain", "NT AUTHORITY"},
        {0, "logon_id", "999"},
        // LUIDs 3, 7 to 10, 17, 18, 20 to 22, 29 and 36.
        {0, "assigned_privileges", std::to_string(0x1020760788ull)},
        {0, "source_name", "Microsoft-Windows-Security-Auditing"},
        {0, "task_category", "12548"}}},
      {"4673: the privilege a service call needed; a name Windows may add counts for none",
       "Security", 4673,
       R"({"ProcessId": "0x4", "SubjectUserName": "nora.quemona",
           "PrivilegeList": "SeProfileSingleProcessPrivilege SeFuturePrivilege"})",
       {"edr_process_privilege_request"},
       {{0, "pid", "4"}, {0, "requested_privileges", std::to_string(1ull << 13)}}},
      {"5152 inbound: a dropped packet's sender is the remote end", "Security", 5152,
       R"({"ProcessId": "0", "Application": "-", "Direction": "%%14592",
           "SourceAddress": "192.168.1.1", "SourcePort": "53", "DestAddress": "192.168.1.43",
           "DestPort": "64773", "Protocol": "17", "FilterRTID": "70764",
           "LayerName": "%%14597", "LayerRTID": "13"})",
       {"edr_firewall_block"},
       {{0, "pid", "0"},
        {0, "source_ip", "192.168.1.1"},
        {0, "source_port", "53"},
        {0, "target_ip", "192.168.1.43"},
        {0, "target_port", "64773"},
        {0, "protocol", "udp"},
        {0, "direction", "1"},
        {0, "rule_id", "70764"},
        {0, "block_type", "5152"}}},
      {"5152 outbound", "Security", 5152,
       R"({"ProcessId": "0", "Application": "-", "Direction": "%%14593",
           "SourceAddress": "192.168.1.43", "SourcePort": "0", "DestAddress": "192.168.1.1",
           "DestPort": "0", "Protocol": "1", "FilterRTID": "70766"})",
       {"edr_firewall_block"},
       {{0, "source_ip", "192.168.1.43"}, {0, "protocol", "icmp"}, {0, "direction", "2"}}},
      {"5157: a blocked connection, its process id spelled ProcessID", "Security", 5157,
       R"({"ProcessID": "4", "Application": "System", "Direction": "%%14592",
           "SourceAddress": "192.168.1.4", "SourcePort": "138", "DestAddress": "192.168.1.255",
           "DestPort": "138", "Protocol": "17", "FilterRTID": "70700", "LayerName": "%%14610",
           "LayerRTID": "44", "RemoteUserID": "S-1-0-0", "RemoteMachineID": "S-1-0-0"})",
       {"edr_firewall_block"},
       {{0, "pid", "4"},
        {0, "application", "System"},
        {0, "source_ip", "192.168.1.4"},
        {0, "target_ip", "192.168.1.255"},
        {0, "target_port", "138"},
        {0, "direction", "1"},
        {0, "rule_id", "70700"},
        {0, "block_type", "5157"}}},
      {"4663 on a process: procdump64 opened lsass to read its memory", "Security", 4663,
       R"({"SubjectUserSid": "S-1-5-21-1939123204-1418869057-2368897034-1108",
           "SubjectUserName": "nora.quemona", "SubjectDomainName": "PANDALAB",
           "SubjectLogonId": "0x1a274c4", "ObjectServer": "Security", "ObjectType": "Process",
           "ObjectName": "\\Device\\HarddiskVolume2\\Windows\\System32\\lsass.exe",
           "HandleId": "0x1d4", "AccessList": "%%4484\n\t\t\t\t", "AccessMask": "0x10",
           "ProcessId": "0x16ac", "ProcessName": "C:\\Program Files\\procdump64.exe",
           "ResourceAttributes": "-"})",
       {"edr_process_api_call"},
       {{0, "pid", "5804"},
        {0, "name", "OpenProcess"},
        {0, "extra_keys", "ObjectName,AccessMask,ProcessName"},
        {0, "extra_values",
         R"(\Device\HarddiskVolume2\Windows\System32\lsass.exe,0x10,)"
         R"(C:\Program Files\procdump64.exe)"}}},
      {"4663 on a file has no table", "Security", 4663,
       R"({"ObjectType": "File", "ObjectName": "C:\\Windows\\Temp\\lsass_dump.dmp",
           "AccessMask": "0x10", "ProcessId": "0x16ac"})",
       {},
       {}},
  };
  for (const Mapping& m : cases) ExpectMapping(m);
}

TEST(WindowsMapping, ProcessAccessIsAnOpenAndSometimesAMemoryRead) {
  // procdump64 opening lsass to write its dump (the call trace runs through
  // dbgcore.dll), and a harmless open of the same process.
  const std::string procdump_guid = "{19de6d3b-1a5b-64dc-470c-000000000c00}";
  const std::string lsass_guid = "{19de6d3b-a600-64da-0c00-000000000c00}";
  const std::string trace =
      R"(C:\Windows\SYSTEM32\ntdll.dll+9d4c4|C:\Windows\SYSTEM32\dbgcore.DLL+99b1|)"
      R"(C:\Program Files\procdump64.exe+146b8|C:\Windows\System32\KERNEL32.DLL+17034)";
  Json fields = {{"UtcTime", "2023-08-16 00:37:48.838"},
                 {"SourceProcessGUID", procdump_guid},
                 {"SourceProcessId", "5804"},
                 {"SourceThreadId", "2008"},
                 {"SourceImage", R"(C:\Program Files\procdump64.exe)"},
                 {"TargetProcessGUID", lsass_guid},
                 {"TargetProcessId", "600"},
                 {"TargetImage", R"(C:\Windows\system32\lsass.exe)"},
                 {"CallTrace", trace}};
  fields["GrantedAccess"] = "0x1fffff";
  const std::string read = fields.dump();
  fields["GrantedAccess"] = "0x1000";
  const std::string query = fields.dump();
  const std::string procdump = std::to_string(win::PuidOf(procdump_guid));
  const std::string lsass = std::to_string(win::PuidOf(lsass_guid));
  const Mapping cases[] = {
      {"PROCESS_ALL_ACCESS, which holds PROCESS_VM_READ", kSysmon, 10, read.c_str(),
       {"edr_process_read_memory", "edr_process_api_call"},
       {{0, "puid", procdump},
        {0, "pid", "5804"},
        {0, "target_puid", lsass},
        {0, "target_pid", "600"},
        {1, "puid", procdump},
        {1, "pid_time_stamp", "1692146267000"},
        {1, "pid", "5804"},
        {1, "name", "OpenProcess"},
        {1, "extra_keys", "TargetImage,TargetProcessId,GrantedAccess,CallTrace"},
        {1, "extra_values", R"(C:\Windows\system32\lsass.exe,600,0x1fffff,)" + trace}}},
      {"PROCESS_QUERY_LIMITED_INFORMATION alone", kSysmon, 10, query.c_str(),
       {"edr_process_api_call"},
       {{0, "puid", procdump},
        {0, "name", "OpenProcess"},
        {0, "extra_values", R"(C:\Windows\system32\lsass.exe,600,0x1000,)" + trace}}},
  };
  for (const Mapping& m : cases) ExpectMapping(m);
}

// What a field says is read as Windows means it: a condition's words case
// aside ("False" is inbound, not outbound), and a NUL inside a text neither
// cuts it nor goes unsaid.
TEST(WindowsMapping, ConditionsIgnoreCaseAndATextKeepsWhatFollowsANul) {
  for (const char* initiated : {"false", "False", "FALSE"}) {
    const std::string connection =
        R"({"Initiated":")" + std::string(initiated) +
        R"(","SourceIp":"10.0.0.5","SourcePort":"4444","DestinationIp":"10.0.0.9"})";
    ExpectMapping({initiated, kSysmon, 3, connection.c_str(), {"edr_network_generic_connect"},
                   {{0, "local_ip", "10.0.0.9"}, {0, "remote_ip", "10.0.0.5"},
                    {0, "direction", "1"}}});
  }
  win::Event event;
  std::string error;
  Json fields = EventOf(kSysmon, 1, Json::parse(R"({"ProcessGuid":"{1-2}","Image":"C:\\a.exe"})"));
  fields["CommandLine"] = std::string("cmd.exe\0 /c evil.exe", 20);
  ASSERT_TRUE(win::ReadFields(fields, event, error)) << error;
  EXPECT_TRUE(event.nul_texts);
  EXPECT_EQ(ColumnOf(*event.rows[0], "command_line"), "cmd.exe\u2400 /c evil.exe");
  fields["CommandLine"] = "cmd.exe /c fine.exe";
  ASSERT_TRUE(win::ReadFields(fields, event, error)) << error;
  EXPECT_FALSE(event.nul_texts);
}

TEST(WindowsMapping, AValueNamedInWordsNoneKnowsReadsAsNoValue) {
  struct Named {
    const char* what;
    const char* channel;
    uint32_t id;
    const char* field;
    const char* text;
    const char* column;
    std::string value;
  };
  const Named cases[] = {
      {"Sysmon's word", kSysmon, 1, "IntegrityLevel", "High", "integrity_level", "12288"},
      {"Untrusted, the label 0", kSysmon, 1, "IntegrityLevel", "untrusted", "integrity_level",
       "0"},
      {"a localized word", kSysmon, 1, "IntegrityLevel", "Hoch", "integrity_level", kUnknown},
      {"a label SID", "Security", 4688, "MandatoryLabel", "S-1-16-12288", "integrity_level",
       "12288"},
      {"a label SID without its RID", "Security", 4688, "MandatoryLabel", "S-1-16-",
       "integrity_level", kUnknown},
      {"no label", "Security", 4688, "MandatoryLabel", "-", "integrity_level", kUnknown},
      {"an elevation type's code", "Security", 4688, "TokenElevationType", "%%1937",
       "elevation_level", "2"},
      {"an elevation type as its message shows it", "Security", 4688, "TokenElevationType",
       "TokenElevationTypeLimited (3)", "elevation_level", "3"},
      {"an elevation code the list lacks", "Security", 4688, "TokenElevationType", "%%1939",
       "elevation_level", kUnknown},
      {"a boot start driver, the start type 0", "System", 7045, "StartType", "boot start",
       "service_start_type", "0"},
      {"a localized start type", "System", 7045, "StartType", "Automatisch starten",
       "service_start_type", kUnknown},
      {"a start type by its number", "Security", 4697, "ServiceStartType", "0",
       "service_start_type", "0"},
      {"no start type", "Security", 4697, "ServiceStartType", "", "service_start_type",
       kUnknown},
  };
  for (const Named& c : cases) {
    SCOPED_TRACE(c.what);
    win::Event event;
    std::string error;
    ASSERT_TRUE(win::ReadFields(EventOf(c.channel, c.id, {{c.field, c.text}}), event, error))
        << error;
    ASSERT_EQ(event.rows.size(), 1u);
    EXPECT_EQ(ColumnOf(*event.rows[0], c.column), c.value);
  }
}

// The sample's registry values: a row's path, key and value's name.
struct RegistryValue {
  std::string target_object;
  std::string key;
  std::string value_name;
};

// Every line of the sample read once; the cases look at what came of it.
class WindowsMappingSample : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!fs::exists(kSample)) return;
    tarn::test::TempDir dir;
    const std::string unzip =
        "unzip -q -o '" + std::string(kSample) + "' -d '" + dir.path() + "'";
    ASSERT_EQ(std::system(unzip.c_str()), 0)
        << unzip << " (scripts/install-deps.sh installs unzip)";
    std::ifstream in(dir.File("metasploit_procdump_lsass_memory_dump.json"));
    std::string line;
    win::Event event;
    std::string error;
    while (std::getline(in, line)) {
      const Json object = Json::parse(line, nullptr, false);
      if (!object.is_object() || !win::ReadFields(object, event, error)) {
        refused_.push_back(object.is_object() ? error : "not a JSON object: " + line);
        continue;
      }
      const std::string kind = event.channel + " " + std::to_string(event.id);
      for (const auto& row : event.rows) {
        const std::string table = TableOf(*row);
        ++rows_[kind + " " + table];
        if (table == "edr_registry_value_write" || table == "edr_registry_value_delete") {
          registry_.push_back({object.value("TargetObject", ""), ColumnOf(*row, "key"),
                               ColumnOf(*row, "value_name")});
        }
        if (table == "edr_process_api_call" && event.channel == kSysmon &&
            ColumnOf(*row, "extra_keys") == "TargetImage,TargetProcessId,GrantedAccess,CallTrace") {
          ++opens_with_trace_;
        }
      }
    }
  }

  void SetUp() override {
    if (!fs::exists(kSample)) GTEST_SKIP() << "no sample telemetry at " << kSample;
    ASSERT_TRUE(refused_.empty()) << refused_.size() << " refused, first: " << refused_[0];
  }

  static uint64_t Rows(const std::string& kind_and_table) {
    const auto it = rows_.find(kind_and_table);
    return it == rows_.end() ? 0 : it->second;
  }

  static inline std::vector<std::string> refused_;
  static inline std::map<std::string, uint64_t> rows_;  // by "channel id table"
  static inline std::vector<RegistryValue> registry_;
  static inline uint64_t opens_with_trace_ = 0;
};

TEST_F(WindowsMappingSample, RegistryValuesNamedByPathsKeepTheirKey) {
  // Sysmon 13 (1,193) and 12 DeleteValue (1): every row's key and name
  // make its path again.
  ASSERT_EQ(registry_.size(), 1194u);
  size_t whole = 0;
  std::map<std::string, size_t> named_by_path;  // by the kind of key
  const std::string bam =
      std::string(R"(HKLM\System\CurrentControlSet\Services\bam\State\UserSettings\)") + kNora;
  const std::string user_assist = std::string("HKU\\") + kNora +
                                  R"(\SOFTWARE\Microsoft\Windows\CurrentVersion\Explorer\)"
                                  R"(UserAssist\{)";
  const std::string store = std::string("HKU\\") + kNora +
                            R"(\SOFTWARE\Microsoft\Windows NT\CurrentVersion\AppCompatFlags\)"
                            R"(Compatibility Assistant\Store)";
  for (const RegistryValue& v : registry_) {
    if (v.key + "\\" + v.value_name == v.target_object) ++whole;
    if (v.value_name.find('\\') == std::string::npos) continue;
    const std::string& k = v.key;
    if (k == bam && v.value_name.rfind(R"(\Device\HarddiskVolume2\)", 0) == 0) {
      ++named_by_path["bam"];
    } else if (k.rfind(user_assist, 0) == 0 && k.size() > user_assist.size() + 6 &&
               k.compare(k.size() - 7, 7, R"(}\Count)") == 0) {
      ++named_by_path["UserAssist"];
    } else if (k == store) {
      ++named_by_path["Store"];
      // The dropper's own trace.
      EXPECT_EQ(v.value_name, R"(C:\Users\nora.quemona\Downloads\happy_image.jpeg.exe)");
    } else {
      ++named_by_path["other: " + k];
    }
  }
  EXPECT_EQ(whole, registry_.size());
  const std::map<std::string, size_t> expected = {{"bam", 73}, {"UserAssist", 10}, {"Store", 1}};
  EXPECT_EQ(named_by_path, expected);
}

TEST_F(WindowsMappingSample, ProcessAccessKeepsItsTargetAndCallTrace) {
  const std::string access = std::string(kSysmon) + " 10 ";
  EXPECT_EQ(Rows(access + "edr_process_api_call"), 26468u);
  EXPECT_EQ(opens_with_trace_, 26468u);
  EXPECT_EQ(Rows(access + "edr_process_read_memory"), 477u);
}

TEST_F(WindowsMappingSample, SecurityEventsOfTheIntrusionHaveRows) {
  EXPECT_EQ(Rows("Security 4799 edr_process_enumerates_group"), 18u);
  EXPECT_EQ(Rows("Security 4672 edr_user_privileges_assigned"), 14u);
  EXPECT_EQ(Rows("Security 5152 edr_firewall_block"), 13u);
  EXPECT_EQ(Rows("Security 5157 edr_firewall_block"), 1u);
  EXPECT_EQ(Rows("Security 4663 edr_process_api_call"), 2u);  // procdump64 opening lsass
}

}  // namespace
