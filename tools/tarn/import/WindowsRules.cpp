#include "tarn/import/WindowsRules.h"

namespace Tarn::Tool::Windows {
namespace {

using C = Convert;

constexpr std::string_view kSysmon = "Microsoft-Windows-Sysmon/Operational";
constexpr std::string_view kSecurity = "Security";
constexpr std::string_view kSystem = "System";
constexpr std::string_view kPowerShell = "Microsoft-Windows-PowerShell/Operational";

// PROCESS_VM_READ: a handle that may read the process's memory.
constexpr uint64_t kVmRead = 0x10;

// ---- Sysmon -----------------------------------------------------------------
// Every Sysmon event names the process that acted by its ProcessGuid and
// ProcessId; the rules repeat those three columns.

constexpr FieldRule kProcessCreate[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"ParentProcessGuid", "parent_puid", C::kPuid},
    {"ParentProcessGuid", "parent_pid_time_stamp", C::kStartTime},
    {"ParentProcessId", "parent_pid", C::kNumber},
    {"ParentImage", "parent_path_crc", C::kPathHash},
    {"Image", "path"},
    {"Image", "process_name", C::kFileName},
    {"CommandLine", "command_line"},
    {"CommandLine", "command_line_indexes", C::kArgOffsets},
    {"CurrentDirectory", "working_directory"},
    {"IntegrityLevel", "integrity_level", C::kIntegrity},
};

constexpr FieldRule kProcessTerminate[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
};

// Sysmon names the end that opened the connection Source.
constexpr FieldRule kConnectOut[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"SourceIp", "local_ip", C::kAddress},
    {"SourcePort", "local_port", C::kNumber},
    {"DestinationIp", "remote_ip", C::kAddress},
    {"DestinationPort", "remote_port", C::kNumber},
    {"Protocol", "protocol"},
    {"2", "direction", C::kConstant},  // outbound
    {"SourceHostname", "", C::kExtra},
    {"DestinationHostname", "", C::kExtra},
    {"DestinationPortName", "", C::kExtra},
    {"User", "", C::kExtra},
};

constexpr FieldRule kConnectIn[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"DestinationIp", "local_ip", C::kAddress},
    {"DestinationPort", "local_port", C::kNumber},
    {"SourceIp", "remote_ip", C::kAddress},
    {"SourcePort", "remote_port", C::kNumber},
    {"Protocol", "protocol"},
    {"1", "direction", C::kConstant},  // inbound
    {"SourceHostname", "", C::kExtra},
    {"DestinationHostname", "", C::kExtra},
    {"DestinationPortName", "", C::kExtra},
    {"User", "", C::kExtra},
};

constexpr FieldRule kDriverLoad[] = {
    {"ImageLoaded", "module_path"},
    {"Signed", "is_signed", C::kFlag},
    {"Signature", "issued_to"},
};

constexpr FieldRule kImageLoad[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"ImageLoaded", "module_path"},
};

constexpr FieldRule kRemoteThread[] = {
    {"SourceProcessGuid", "puid", C::kPuid},
    {"SourceProcessGuid", "pid_time_stamp", C::kStartTime},
    {"SourceProcessId", "pid", C::kNumber},
    {"TargetProcessGuid", "victim_uid", C::kPuid},
    {"TargetProcessId", "victim_pid", C::kNumber},
};

constexpr FieldRule kRawRead[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"Device", "path"},
};

constexpr FieldRule kReadMemory[] = {
    {"SourceProcessGUID", "puid", C::kPuid},
    {"SourceProcessGUID", "pid_time_stamp", C::kStartTime},
    {"SourceProcessId", "pid", C::kNumber},
    {"TargetProcessGUID", "target_puid", C::kPuid},
    {"TargetProcessId", "target_pid", C::kNumber},
};

// Every handle to another process Sysmon saw opened, whether or not it may
// read the process's memory: what it opened, with which rights, and the
// calls that opened it (where a dumping tool or injected code shows).
constexpr FieldRule kOpenProcess[] = {
    {"SourceProcessGUID", "puid", C::kPuid},
    {"SourceProcessGUID", "pid_time_stamp", C::kStartTime},
    {"SourceProcessId", "pid", C::kNumber},
    {"OpenProcess", "name", C::kConstant},
    {"TargetImage", "", C::kExtra},
    {"TargetProcessId", "", C::kExtra},
    {"GrantedAccess", "", C::kExtra},
    {"CallTrace", "", C::kExtra},
};

constexpr FieldRule kFile[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"TargetFilename", "path"},
};

constexpr FieldRule kRegistryKey[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"TargetObject", "key"},
};

constexpr FieldRule kRegistryValue[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"TargetObject", "key", C::kRegistryKey},
    {"TargetObject", "value_name", C::kRegistryName},
    {"Details", "data"},
    {"Details", "data_type", C::kRegistryType},
};

constexpr FieldRule kPipe[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"PipeName", "path", C::kPipe},
};

constexpr FieldRule kPipeConnect[] = {
    {"ProcessGuid", "puid", C::kPuid},
    {"ProcessGuid", "pid_time_stamp", C::kStartTime},
    {"ProcessId", "pid", C::kNumber},
    {"PipeName", "path", C::kPipe},
    {"pipe", "protocol", C::kConstant},
};

constexpr FieldRule kWmiFilter[] = {{"Query", "operation"}};
constexpr FieldRule kWmiConsumer[] = {{"Destination", "operation"}};
constexpr FieldRule kWmiBinding[] = {{"Consumer", "consumer_name"}, {"Filter", "filter"}};

// ---- Security and System ----------------------------------------------------

constexpr FieldRule kLogon[] = {
    {"TargetUserName", "username"},
    {"TargetDomainName", "user_domain"},
    {"LogonType", "login_type", C::kNumber},
    {"IpAddress", "ip_address", C::kAddress},
    {"TargetLogonId", "logon_id", C::kNumber},
    {"AuthenticationPackageName", "authentication_package_name"},
    {"LogonGuid", "logon_guid"},
    {"LogonProcessName", "logon_process_name"},
};

constexpr FieldRule kLogonFailed[] = {
    {"TargetUserName", "username"},
    {"TargetDomainName", "user_domain"},
    {"LogonType", "login_type", C::kNumber},
    {"IpAddress", "ip_address", C::kAddress},
    {"Status", "status", C::kNumber},
    {"SubStatus", "login_status", C::kNumber},
    {"AuthenticationPackageName", "authentication_package_name"},
    {"LogonProcessName", "logon_process_name"},
};

constexpr FieldRule kLogoff[] = {
    {"TargetUserName", "username"},
    {"TargetDomainName", "user_domain"},
};

// The Security log names processes by pid alone: each creation gets a puid
// of its own, which nothing else links to.
constexpr FieldRule kSecurityProcessCreate[] = {
    {"NewProcessId", "puid", C::kPidPuid},
    {"", "pid_time_stamp", C::kEventTime},
    {"NewProcessId", "pid", C::kNumber},
    {"ProcessId", "parent_pid", C::kNumber},
    {"ParentProcessName", "parent_path_crc", C::kPathHash},
    {"NewProcessName", "path"},
    {"NewProcessName", "process_name", C::kFileName},
    {"CommandLine", "command_line"},
    {"CommandLine", "command_line_indexes", C::kArgOffsets},
    {"MandatoryLabel", "integrity_level", C::kIntegrity},
    {"TokenElevationType", "elevation_level", C::kElevation},
};

constexpr FieldRule kSecurityProcessExit[] = {{"ProcessId", "pid", C::kNumber}};

// Created and deleted accounts: the user who acted, then the account.
constexpr FieldRule kAccount[] = {
    {"SubjectUserName", "username"},
    {"SubjectDomainName", "user_domain"},
    {"TargetUserName", "target_user_name"},
    {"TargetDomainName", "target_user_domain"},
};

// A changed account: the account, and the event id as the operation.
constexpr FieldRule kAccountChange[] = {
    {"TargetUserName", "username"},
    {"TargetDomainName", "user_domain"},
    {"NewUacValue", "user_account_control", C::kNumber},
    {"", "operation", C::kEventId},
};

constexpr FieldRule kServiceInstalled[] = {
    {"ServiceName", "name"},
    {"ServiceFileName", "command_line"},
    {"ServiceFileName", "service_path", C::kProgram},
    {"ServiceType", "is_driver", C::kDriver},
    {"ServiceStartType", "service_start_type", C::kStartType},
};

constexpr FieldRule kServiceInstalledSystem[] = {
    {"ServiceName", "name"},
    {"ImagePath", "command_line"},
    {"ImagePath", "service_path", C::kProgram},
    {"ServiceType", "is_driver", C::kDriver},
    {"StartType", "service_start_type", C::kStartType},
};

constexpr FieldRule kTaskCreated[] = {
    {"ClientProcessId", "pid", C::kNumber},
    {"TaskName", "name"},
    {"TaskContent", "command_lines", C::kTaskCommands},
    {"TaskContent", "target_paths", C::kTaskPrograms},
};

constexpr FieldRule kTaskDeleted[] = {
    {"ClientProcessId", "pid", C::kNumber},
    {"TaskName", "name"},
};

constexpr FieldRule kTaskUpdated[] = {
    {"ClientProcessId", "pid", C::kNumber},
    {"TaskName", "name"},
    {"TaskContentNew", "new_command_lines", C::kTaskCommands},
    {"TaskContentNew", "new_target_processes", C::kTaskPrograms},
};

// A privileged service called: the account, the process that called it and
// the privileges it needed, as a mask (bit N for the privilege whose LUID is N).
constexpr FieldRule kPrivilegedService[] = {
    {"ProcessId", "pid", C::kNumber},
    {"SubjectUserName", "user_name"},
    {"SubjectDomainName", "domain_name"},
    {"SubjectUserSid", "user_sid"},
    {"PrivilegeList", "requested_privileges", C::kPrivileges},
};

// A logon given special privileges (administrator's, or a service's): the
// account, its logon and the privileges, as a mask as above. The record's
// source, task and opcode are the event's own.
constexpr FieldRule kSpecialLogon[] = {
    {"SubjectUserName", "username"},
    {"SubjectDomainName", "user_domain"},
    {"SubjectLogonId", "logon_id", C::kNumber},
    {"PrivilegeList", "assigned_privileges", C::kPrivileges},
    {"SourceName", "source_name"},
    {"Task", "task_category"},
    {"Opcode", "opcode"},
};

// A handle to a process opened with rights its audit rules watch (Security
// 4663 with ObjectType "Process"): the process that opened it, and what it
// opened, by the path of its image, with which rights. The log names the
// target by its image alone, so no edr_process_read_memory row can say
// which process it was, even for PROCESS_VM_READ (0x10).
constexpr FieldRule kProcessObjectOpened[] = {
    {"ProcessId", "pid", C::kNumber},
    {"OpenProcess", "name", C::kConstant},
    {"ObjectName", "", C::kExtra},
    {"AccessMask", "", C::kExtra},
    {"ProcessName", "", C::kExtra},
};

// A process listed a user's local groups (4798), or a local group's members
// (4799): the process by its pid, the account that ran it, and the user or
// group.
constexpr FieldRule kUserGroupsListed[] = {
    {"CallerProcessId", "pid", C::kNumber},
    {"TargetUserName", "target_username"},
    {"TargetDomainName", "target_domain"},
    {"TargetSid", "target_user_sid"},
    {"SubjectUserName", "subject_username"},
    {"SubjectDomainName", "subject_domain"},
    {"SubjectUserSid", "subject_user_sid"},
};

constexpr FieldRule kGroupMembersListed[] = {
    {"CallerProcessId", "pid", C::kNumber},
    {"TargetUserName", "target_groupname"},
    {"TargetDomainName", "target_domain"},
    {"TargetSid", "target_group_sid"},
    {"SubjectUserName", "subject_username"},
    {"SubjectDomainName", "subject_domain"},
    {"SubjectUserSid", "subject_user_sid"},
};

// The Windows Filtering Platform let a connection through. Its Source is
// always this host's end; Direction says who called (%%14592 inbound,
// %%14593 outbound, or the words).
constexpr FieldRule kFilteredOut[] = {
    {"ProcessID", "pid", C::kNumber},
    {"SourceAddress", "local_ip", C::kAddress},
    {"SourcePort", "local_port", C::kNumber},
    {"DestAddress", "remote_ip", C::kAddress},
    {"DestPort", "remote_port", C::kNumber},
    {"Protocol", "protocol", C::kIpProtocol},
    {"2", "direction", C::kConstant},  // outbound
    {"Application", "", C::kExtra},
    {"LayerName", "", C::kExtra},
};

constexpr FieldRule kFilteredIn[] = {
    {"ProcessID", "pid", C::kNumber},
    {"SourceAddress", "local_ip", C::kAddress},
    {"SourcePort", "local_port", C::kNumber},
    {"DestAddress", "remote_ip", C::kAddress},
    {"DestPort", "remote_port", C::kNumber},
    {"Protocol", "protocol", C::kIpProtocol},
    {"1", "direction", C::kConstant},  // inbound
    {"Application", "", C::kExtra},
    {"LayerName", "", C::kExtra},
};

// The Windows Filtering Platform dropped a packet (5152) or blocked a
// connection (5157); the event id is the block's type. The table's source
// and target are the log's Source and Dest, whichever end is this host (an
// inbound packet dropped at the transport layer names its remote sender as
// Source). The process id is ProcessId in 5152 and ProcessID in 5157.
constexpr FieldRule kBlockedOut[] = {
    {"ProcessId", "pid", C::kNumber},
    {"ProcessID", "pid", C::kNumber},
    {"SourceAddress", "source_ip", C::kAddress},
    {"SourcePort", "source_port", C::kNumber},
    {"DestAddress", "target_ip", C::kAddress},
    {"DestPort", "target_port", C::kNumber},
    {"Protocol", "protocol", C::kIpProtocol},
    {"2", "direction", C::kConstant},  // outbound
    {"Application", "application"},
    {"FilterRTID", "rule_id"},
    {"", "block_type", C::kEventId},
};

constexpr FieldRule kBlockedIn[] = {
    {"ProcessId", "pid", C::kNumber},
    {"ProcessID", "pid", C::kNumber},
    {"SourceAddress", "source_ip", C::kAddress},
    {"SourcePort", "source_port", C::kNumber},
    {"DestAddress", "target_ip", C::kAddress},
    {"DestPort", "target_port", C::kNumber},
    {"Protocol", "protocol", C::kIpProtocol},
    {"1", "direction", C::kConstant},  // inbound
    {"Application", "application"},
    {"FilterRTID", "rule_id"},
    {"", "block_type", C::kEventId},
};

// ---- PowerShell -------------------------------------------------------------

constexpr FieldRule kScriptBlock[] = {{"ScriptBlockText", "command"}};
constexpr FieldRule kPipeline[] = {{"Payload", "command"}};

constexpr EventRule kRules[] = {
    {kSysmon, 1, {}, "edr_process_create", kProcessCreate},
    {kSysmon, 3, {"Initiated", "false"}, "edr_network_generic_connect", kConnectIn},
    {kSysmon, 3, {}, "edr_network_generic_connect", kConnectOut},
    {kSysmon, 5, {}, "edr_process_terminate", kProcessTerminate},
    {kSysmon, 6, {}, "edr_driver_load_module", kDriverLoad},
    {kSysmon, 7, {}, "edr_process_load_module", kImageLoad},
    {kSysmon, 8, {}, "edr_process_injection", kRemoteThread},
    {kSysmon, 9, {}, "edr_file_read", kRawRead},
    // A memory read is a handle opened too: a row in each table.
    {kSysmon, 10, {"GrantedAccess", "", kVmRead}, "edr_process_read_memory", kReadMemory, true},
    {kSysmon, 10, {}, "edr_process_api_call", kOpenProcess},
    {kSysmon, 11, {}, "edr_file_create", kFile},
    {kSysmon, 12, {"EventType", "CreateKey"}, "edr_registry_key_create", kRegistryKey},
    {kSysmon, 12, {"EventType", "DeleteKey"}, "edr_registry_key_delete", kRegistryKey},
    {kSysmon, 12, {"EventType", "DeleteValue"}, "edr_registry_value_delete", kRegistryValue},
    {kSysmon, 13, {}, "edr_registry_value_write", kRegistryValue},
    {kSysmon, 15, {}, "edr_file_ads_create", kFile},
    {kSysmon, 17, {}, "edr_file_create", kPipe},
    {kSysmon, 18, {}, "edr_local_generic_connect", kPipeConnect},
    {kSysmon, 19, {}, "edr_wmi_new_activity", kWmiFilter},
    {kSysmon, 20, {}, "edr_wmi_new_activity", kWmiConsumer},
    {kSysmon, 21, {}, "edr_wmi_new_binding", kWmiBinding},
    {kSysmon, 23, {}, "edr_file_delete", kFile},
    {kSysmon, 26, {}, "edr_file_delete", kFile},
    {kSecurity, 4624, {}, "edr_user_login", kLogon},
    {kSecurity, 4625, {}, "edr_user_login", kLogonFailed},
    {kSecurity, 4634, {}, "edr_user_logout", kLogoff},
    {kSecurity, 4647, {}, "edr_user_logout", kLogoff},
    {kSecurity, 4663, {"ObjectType", "Process"}, "edr_process_api_call", kProcessObjectOpened},
    {kSecurity, 4672, {}, "edr_user_privileges_assigned", kSpecialLogon},
    {kSecurity, 4673, {}, "edr_process_privilege_request", kPrivilegedService},
    {kSecurity, 4688, {}, "edr_process_create", kSecurityProcessCreate},
    {kSecurity, 4689, {}, "edr_process_terminate", kSecurityProcessExit},
    {kSecurity, 4697, {}, "edr_service_added", kServiceInstalled},
    {kSecurity, 4698, {}, "edr_scheduled_task_create", kTaskCreated},
    {kSecurity, 4699, {}, "edr_scheduled_task_delete", kTaskDeleted},
    {kSecurity, 4702, {}, "edr_scheduled_task_modify", kTaskUpdated},
    {kSecurity, 4720, {}, "edr_user_account_create", kAccount},
    {kSecurity, 4722, {}, "edr_user_account_settings_change", kAccountChange},
    {kSecurity, 4723, {}, "edr_user_account_settings_change", kAccountChange},
    {kSecurity, 4724, {}, "edr_user_account_settings_change", kAccountChange},
    {kSecurity, 4725, {}, "edr_user_account_settings_change", kAccountChange},
    {kSecurity, 4726, {}, "edr_user_account_delete", kAccount},
    {kSecurity, 4738, {}, "edr_user_account_settings_change", kAccountChange},
    {kSecurity, 4740, {}, "edr_user_account_settings_change", kAccountChange},
    {kSecurity, 4781, {}, "edr_user_account_settings_change", kAccountChange},
    {kSecurity, 4798, {}, "edr_process_enumerates_user_groups", kUserGroupsListed},
    {kSecurity, 4799, {}, "edr_process_enumerates_group", kGroupMembersListed},
    {kSecurity, 5152, {"Direction", "%%14592"}, "edr_firewall_block", kBlockedIn},
    {kSecurity, 5152, {"Direction", "Inbound"}, "edr_firewall_block", kBlockedIn},
    {kSecurity, 5152, {}, "edr_firewall_block", kBlockedOut},
    {kSecurity, 5156, {"Direction", "%%14592"}, "edr_network_wfp_connection_status", kFilteredIn},
    {kSecurity, 5156, {"Direction", "Inbound"}, "edr_network_wfp_connection_status", kFilteredIn},
    {kSecurity, 5156, {}, "edr_network_wfp_connection_status", kFilteredOut},
    {kSecurity, 5157, {"Direction", "%%14592"}, "edr_firewall_block", kBlockedIn},
    {kSecurity, 5157, {"Direction", "Inbound"}, "edr_firewall_block", kBlockedIn},
    {kSecurity, 5157, {}, "edr_firewall_block", kBlockedOut},
    {kSystem, 7045, {}, "edr_service_added", kServiceInstalledSystem},
    {kPowerShell, 4103, {}, "edr_shell_command", kPipeline},
    {kPowerShell, 4104, {}, "edr_shell_command", kScriptBlock},
};

}  // namespace

std::span<const EventRule> Rules() { return kRules; }

}  // namespace Tarn::Tool::Windows
