#include <algorithm>
#include <cctype>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "osquery/NameHash.h"
#include "osquery/Tables.h"
#include "support/log_capture.h"

namespace Tarn::Storage::OSQuery {
namespace {

// The naming rule, written again here so that the generator's reading of it
// is checked against an independent one.
std::string TableNameOf(const std::string& event_type) {
  std::string out = "edr_";
  for (size_t i = 0; i < event_type.size(); ++i) {
    char c = event_type[i];
    bool upper = std::isupper(static_cast<unsigned char>(c));
    if (upper && i > 0) {
      char before = event_type[i - 1];
      bool after_lower = std::islower(static_cast<unsigned char>(before)) ||
                         std::isdigit(static_cast<unsigned char>(before));
      bool starts_word = std::isupper(static_cast<unsigned char>(before)) &&
                         i + 1 < event_type.size() &&
                         std::islower(static_cast<unsigned char>(event_type[i + 1]));
      if (after_lower || starts_word) out.push_back('_');
    }
    out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  }
  return out;
}

TEST(SchemaTables, NamesAndIdsMapBothWays) {
  std::set<uint32_t> ids;
  uint32_t id_sum = 0;
  for (const TableInfo& table : AllTables()) {
    SCOPED_TRACE(table.name);
    EXPECT_EQ(TableIdByName(table.name), table.type_id);
    ASSERT_NE(EventTypeName(table.type_id), nullptr);
    EXPECT_STREQ(EventTypeName(table.type_id), table.event_type);
    EXPECT_EQ(FindTable(table.type_id), &table);
    EXPECT_EQ(TableNameOf(table.event_type), table.name);
    EXPECT_EQ(table.hash, NameHash(table.name));
    EXPECT_TRUE(ids.insert(table.type_id).second) << "id used twice";
    id_sum += table.type_id;
  }
  EXPECT_EQ(AllTables().size(), 135u);
  EXPECT_EQ(id_sum, 15155u);  // a fingerprint of the id set
  EXPECT_TRUE(std::is_sorted(AllTables().begin(), AllTables().end(),
                             [](const TableInfo& a, const TableInfo& b) {
                               return std::string(a.event_type) < b.event_type;
                             }));
}

TEST(SchemaTables, KnownTables) {
  EXPECT_EQ(TableIdByName("edr_ad_naming_context_removed"), 249u);
  EXPECT_EQ(TableIdByName("edr_amsi_buffer"), 2u);
  EXPECT_EQ(TableIdByName("edr_network_http_connect_win_rm"), 78u);
  EXPECT_EQ(TableIdByName("edr_process_create"), 107u);
  EXPECT_EQ(TableIdByName("edr_wmi_new_binding"), 180u);
  EXPECT_EQ(TableIdByName("edr_wfp_filter_change"), 407u);
  EXPECT_STREQ(EventTypeName(78), "NetworkHTTPConnectWinRM");
  EXPECT_STREQ(EventTypeName(310), "UserAccountDelete");
  EXPECT_STREQ(EventTypeName(25), "ExitIdleMode");
}

TEST(SchemaTables, OtherNamesAndIdsHaveNoTable) {
  EXPECT_EQ(TableIdByName("EDR_PROCESS_CREATE"), 0u);
  EXPECT_EQ(TableIdByName("edr_Process_create"), 0u);
  EXPECT_EQ(TableIdByName("edr_process_create "), 0u);
  EXPECT_EQ(TableIdByName("edr_process"), 0u);
  EXPECT_EQ(TableIdByName("edr_netdb"), 0u);
  EXPECT_EQ(TableIdByName(""), 0u);
  EXPECT_EQ(TableIdByName(std::string("edr_process_create\0", 19)), 0u);

  std::set<uint32_t> ids;
  for (const TableInfo& table : AllTables()) ids.insert(table.type_id);
  for (uint32_t id = 0; id < 1024; ++id) {
    if (ids.count(id)) continue;
    EXPECT_EQ(EventTypeName(id), nullptr) << id;
    EXPECT_EQ(FindTable(id), nullptr) << id;
  }
  EXPECT_EQ(EventTypeName(0xFFFFFFFFu), nullptr);
}

TEST(SchemaTables, NameHashes) {
  EXPECT_EQ(NameHash("date_time"), 0xE7657533u);
  EXPECT_EQ(NameHash("naming_context"), 0x175326B5u);
  EXPECT_EQ(NameHash("edr_amsi_buffer"), 0xE5D93564u);
  EXPECT_EQ(NameHash("*"), 0x2F0C9F3Du);
  EXPECT_NE(NameHash("Date_time"), NameHash("date_time"));
  EXPECT_EQ(NameHash(""), 0x811C9DC5u);
}

TEST(SchemaTables, EachTableAcceptsOneVersion) {
  tarn::test::LogCapture log;
  EXPECT_TRUE(IsSupportedVersion(8, 3));
  EXPECT_FALSE(IsSupportedVersion(8, 1));
  for (uint32_t id : {4u, 56u, 57u, 106u, 136u, 137u, 138u}) {
    EXPECT_TRUE(IsSupportedVersion(id, 2)) << id;
    EXPECT_FALSE(IsSupportedVersion(id, 1)) << id;
  }
  EXPECT_TRUE(IsSupportedVersion(107, 1));
  EXPECT_FALSE(IsSupportedVersion(107, 2));
  EXPECT_FALSE(IsSupportedVersion(107, 0));
  size_t logged = log.Records().size();
  EXPECT_FALSE(IsSupportedVersion(3, 1));  // no table
  EXPECT_FALSE(IsSupportedVersion(408, 1));
  EXPECT_EQ(log.Records().size(), logged + 2);
  for (const TableInfo& table : AllTables()) {
    EXPECT_TRUE(IsSupportedVersion(table.type_id, table.version)) << table.name;
  }
}

const ColumnInfo* Column(const char* table, const char* column) {
  const TableInfo* info = FindTable(TableIdByName(table));
  if (info == nullptr) return nullptr;
  for (const ColumnInfo& c : info->Columns()) {
    if (std::string(c.name) == column) return &c;
  }
  return nullptr;
}

TEST(SchemaTables, ColumnKindsFollowTheNamingRules) {
  struct Case {
    const char* table;
    const char* column;
    ColumnKind kind;
  } cases[] = {
      {"edr_process_create", "date_time", ColumnKind::kDateTime},
      {"edr_process_create", "pid", ColumnKind::kUInt32},
      {"edr_process_create", "puid", ColumnKind::kUInt64},
      {"edr_process_create", "path", ColumnKind::kText},
      {"edr_process_create", "command_line_indexes", ColumnKind::kNumberList},
      {"edr_email_sent", "local_ip", ColumnKind::kAddress},
      {"edr_email_sent", "gateway_macs", ColumnKind::kTextList},
      {"edr_ad_naming_context_removed", "source_addr", ColumnKind::kAddress},
      {"edr_user_login", "ip_address", ColumnKind::kAddress},
      {"edr_external_notification_on_file", "notification_severities", ColumnKind::kNumberList},
      {"edr_group_membership_info", "groups", ColumnKind::kTextList},
      {"edr_user_claims", "device_claims", ColumnKind::kTextList},
      {"edr_firewall_rule_added", "target_ip_mask", ColumnKind::kText},
  };
  for (const Case& c : cases) {
    const ColumnInfo* column = Column(c.table, c.column);
    ASSERT_NE(column, nullptr) << c.table << "." << c.column;
    EXPECT_EQ(column->kind, c.kind) << c.table << "." << c.column;
  }
}

TEST(SchemaTables, SlotsFollowFieldOrderInsideTheFixedPart) {
  for (const TableInfo& table : AllTables()) {
    SCOPED_TRACE(table.name);
    ASSERT_GE(table.column_count, 1u);
    const ColumnInfo& first = table.columns[0];
    EXPECT_EQ(first.hash, kDateTimeHash);
    EXPECT_EQ(first.slot, 16u);
    EXPECT_EQ(first.field, 1u);
    uint32_t next = 24;
    for (uint32_t i = 1; i < table.column_count; ++i) {
      const ColumnInfo& c = table.columns[i];
      EXPECT_EQ(c.field, i + 1);
      EXPECT_EQ(c.slot, next) << c.name;
      EXPECT_EQ(c.hash, NameHash(c.name));
      next += c.kind == ColumnKind::kUInt64                                   ? 8
              : c.kind == ColumnKind::kUInt32 || c.kind == ColumnKind::kTextList ||
                      c.kind == ColumnKind::kNumberList                       ? 4
                                                                              : 2;
    }
    EXPECT_EQ(table.fixed_size, next);
  }
  // Tables about a process action share their first columns.
  const TableInfo* process = FindTable(107);
  ASSERT_NE(process, nullptr);
  EXPECT_STREQ(process->columns[1].name, "pid_time_stamp");
  EXPECT_EQ(process->columns[3].slot, 40u);
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
