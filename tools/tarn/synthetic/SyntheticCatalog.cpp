#include "tarn/synthetic/SyntheticCatalog.h"

namespace Tarn::Tool::Catalog {
namespace {

using std::string_view;

constexpr uint16_t L = kLinux;
constexpr uint16_t S = kSystem;
constexpr uint16_t V = kService;
constexpr uint16_t C = kContainer;
constexpr uint16_t D = kDropped;
constexpr uint16_t E = kElevated;

// name, path, args, children, spawn, file, net, reg, flags
constexpr Program kPrograms[] = {
    // Windows: boot chain and services.
    {"System", "System", "", "smss.exe", 1, 2, 1, 1, S},
    {"smss.exe", "C:\\Windows\\System32\\smss.exe", "", "csrss.exe wininit.exe winlogon.exe", 1, 1,
     0, 1, S},
    {"csrss.exe", "C:\\Windows\\System32\\csrss.exe",
     "ObjectDirectory=\\Windows SharedSection=1024,20480,768 Windows=On SubSystemType=Windows", "",
     0, 1, 0, 1, S},
    {"wininit.exe", "C:\\Windows\\System32\\wininit.exe", "", "services.exe lsass.exe", 0, 1, 0, 1,
     S},
    {"services.exe", "C:\\Windows\\System32\\services.exe", "",
     "svchost.exe svchost.exe svchost.exe MsMpEng.exe msiexec.exe spoolsv.exe "
     "TrustedInstaller.exe",
     6, 1, 0, 4, S},
    {"lsass.exe", "C:\\Windows\\System32\\lsass.exe", "", "", 0, 2, 3, 3, S},
    {"svchost.exe", "C:\\Windows\\System32\\svchost.exe",
     "-k netsvcs -p|-k LocalService -p|-k NetworkService -p -s Dnscache|-k DcomLaunch -p|"
     "-k UnistackSvcGroup|-k LocalSystemNetworkRestricted -p -s SysMain|-k wsappx -p -s AppXSvc",
     "taskhostw.exe WmiPrvSE.exe RuntimeBroker.exe backgroundTaskHost.exe dllhost.exe "
     "SearchProtocolHost.exe",
     5, 3, 4, 5, V},
    {"winlogon.exe", "C:\\Windows\\System32\\winlogon.exe", "", "userinit.exe dwm.exe LogonUI.exe",
     0, 1, 0, 2, S},
    {"userinit.exe", "C:\\Windows\\System32\\userinit.exe", "", "explorer.exe", 0, 1, 0, 2, 0},
    {"dwm.exe", "C:\\Windows\\System32\\dwm.exe", "", "", 0, 1, 0, 1, V},
    {"explorer.exe", "C:\\Windows\\explorer.exe", "",
     "chrome.exe chrome.exe OUTLOOK.EXE WINWORD.EXE EXCEL.EXE Teams.exe Code.exe cmd.exe "
     "powershell.exe notepad.exe OneDrive.exe mstsc.exe wsl.exe",
     9, 4, 1, 6, 0},
    {"MsMpEng.exe",
     "C:\\ProgramData\\Microsoft\\Windows Defender\\Platform\\4.18.24090.11-0\\MsMpEng.exe", "", "",
     0, 9, 2, 2, S},
    {"spoolsv.exe", "C:\\Windows\\System32\\spoolsv.exe", "", "", 0, 2, 1, 2, S},
    // Windows: started while the endpoint runs.
    {"LogonUI.exe", "C:\\Windows\\System32\\LogonUI.exe", "/flags:0x2 /state0:0xa3b9a855", "", 0, 1,
     0, 1, S},
    {"taskhostw.exe", "C:\\Windows\\System32\\taskhostw.exe", "|{GUID}", "", 0, 2, 1, 3, 0},
    {"WmiPrvSE.exe", "C:\\Windows\\System32\\wbem\\WmiPrvSE.exe", "-Embedding|-secured -Embedding",
     "", 0, 2, 1, 4, V},
    {"RuntimeBroker.exe", "C:\\Windows\\System32\\RuntimeBroker.exe", "-Embedding", "", 0, 2, 1, 3,
     0},
    {"backgroundTaskHost.exe", "C:\\Windows\\System32\\backgroundTaskHost.exe",
     "-ServerName:App.AppXmtcan0h2tfbfy7k9kmq7kgbpgyn0ew2e.mca", "", 0, 2, 2, 2, 0},
    {"dllhost.exe", "C:\\Windows\\System32\\dllhost.exe", "/Processid:{GUID}", "", 0, 2, 0, 3, 0},
    {"SearchProtocolHost.exe", "C:\\Windows\\System32\\SearchProtocolHost.exe",
     "Global\\UsGthrFltPipeMssGthrPipe{n} Global\\UsGthrCtrlFltPipeMssGthrPipe{n} 1 -2147483646",
     "", 0, 7, 0, 2, V},
    {"msiexec.exe", "C:\\Windows\\System32\\msiexec.exe",
     "/V|/i \"{home}\\Downloads\\setup.msi\" /qn", "", 0, 8, 2, 7, S},
    {"TrustedInstaller.exe", "C:\\Windows\\servicing\\TrustedInstaller.exe", "", "", 0, 9, 1, 8, S},
    {"chrome.exe", "C:\\Program Files\\Google\\Chrome\\Application\\chrome.exe",
     "--type=renderer --lang=en-US --renderer-client-id={n}|--type=gpu-process|"
     "--type=utility --utility-sub-type=network.mojom.NetworkService --lang=en-US|"
     "--profile-directory=Default|\"{url}\"",
     "chrome.exe", 4, 7, 9, 2, 0},
    {"OUTLOOK.EXE", "C:\\Program Files\\Microsoft Office\\root\\Office16\\OUTLOOK.EXE", "|/recycle",
     "WINWORD.EXE EXCEL.EXE chrome.exe", 2, 6, 7, 4, 0},
    {"WINWORD.EXE", "C:\\Program Files\\Microsoft Office\\root\\Office16\\WINWORD.EXE",
     "/n \"{home}\\Documents\\{doc}.docx\"|/n \"{home}\\Downloads\\{doc}.docx\"",
     "powershell.exe cmd.exe", 1, 5, 2, 3, 0},
    {"EXCEL.EXE", "C:\\Program Files\\Microsoft Office\\root\\Office16\\EXCEL.EXE",
     "\"{home}\\Documents\\{doc}.xlsx\"|/x", "", 0, 5, 2, 3, 0},
    {"Teams.exe", "{home}\\AppData\\Local\\Microsoft\\Teams\\current\\Teams.exe",
     "--type=renderer|--system-initiated|--type=gpu-process", "Teams.exe", 2, 3, 6, 2, 0},
    {"Code.exe", "{home}\\AppData\\Local\\Programs\\Microsoft VS Code\\Code.exe",
     "|\"{home}\\source\\{doc}\"|--type=utility", "git.exe powershell.exe node.exe", 3, 5, 3, 1, 0},
    {"cmd.exe", "C:\\Windows\\System32\\cmd.exe",
     "/c whoami /all|/c ipconfig /all|/c dir \"{home}\\Desktop\"|/c net use|/c echo %PATH%|"
     "/c ping -n 2 {host}|/k",
     "whoami.exe ipconfig.exe ping.exe net.exe git.exe python.exe reg.exe schtasks.exe "
     "certutil.exe tasklist.exe powershell.exe conhost.exe",
     6, 3, 1, 2, 0},
    {"powershell.exe", "C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe",
     "-NoProfile -ExecutionPolicy Bypass -File C:\\Scripts\\inventory.ps1|-NoLogo|"
     "-Command \"Get-Process | Sort-Object CPU -Descending | Select-Object -First 10\"|"
     "-Command \"Get-ChildItem {home}\\Documents -Recurse\"|"
     "-NoProfile -Command \"Test-NetConnection {host} -Port 443\"",
     "whoami.exe ipconfig.exe net.exe git.exe conhost.exe", 4, 4, 3, 3, 0},
    {"conhost.exe", "C:\\Windows\\System32\\conhost.exe", "0xffffffff -ForceV1", "", 0, 1, 0, 1, 0},
    {"notepad.exe", "C:\\Windows\\System32\\notepad.exe", "\"{home}\\Documents\\notes.txt\"|", "",
     0, 3, 0, 1, 0},
    {"OneDrive.exe", "{home}\\AppData\\Local\\Microsoft\\OneDrive\\OneDrive.exe", "/background", "",
     0, 7, 6, 2, 0},
    {"mstsc.exe", "C:\\Windows\\System32\\mstsc.exe", "/v:{host}", "", 0, 1, 5, 2, 0},
    {"wsl.exe", "C:\\Windows\\System32\\wsl.exe", "-d Ubuntu|--exec bash", "", 0, 1, 1, 1, 0},
    {"whoami.exe", "C:\\Windows\\System32\\whoami.exe", "|/all|/groups", "", 0, 1, 0, 1, 0},
    {"ipconfig.exe", "C:\\Windows\\System32\\ipconfig.exe", "/all|/flushdns", "", 0, 1, 0, 1, 0},
    {"ping.exe", "C:\\Windows\\System32\\PING.EXE", "-n 4 {host}", "", 0, 0, 3, 0, 0},
    {"net.exe", "C:\\Windows\\System32\\net.exe",
     "user /domain|group \"Domain Admins\" /domain|use \\\\fs01\\share|localgroup administrators",
     "", 0, 1, 3, 1, 0},
    {"git.exe", "C:\\Program Files\\Git\\cmd\\git.exe",
     "pull|status|fetch origin|log --oneline -20|clone https://git.example.com/{repo}.git", "", 0,
     6, 5, 1, 0},
    {"python.exe", "{home}\\AppData\\Local\\Programs\\Python\\Python312\\python.exe",
     "manage.py runserver|-m pip install requests|scripts\\report.py", "", 0, 6, 4, 1, 0},
    {"node.exe", "C:\\Program Files\\nodejs\\node.exe", "server.js|node_modules\\.bin\\tsc -w", "",
     0, 6, 3, 1, 0},
    {"reg.exe", "C:\\Windows\\System32\\reg.exe",
     "query HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Run|query HKCU\\Environment", "", 0,
     1, 0, 9, 0},
    {"schtasks.exe", "C:\\Windows\\System32\\schtasks.exe", "/query /fo LIST|/query /tn \\Backup",
     "", 0, 1, 0, 4, 0},
    {"certutil.exe", "C:\\Windows\\System32\\certutil.exe",
     "-hashfile \"{home}\\Downloads\\{doc}.docx\" SHA256|-verify -urlfetch cert.cer", "", 0, 2, 2,
     1, 0},
    {"tasklist.exe", "C:\\Windows\\System32\\tasklist.exe", "/v|/svc", "", 0, 1, 0, 1, 0},
    {"rundll32.exe", "C:\\Windows\\System32\\rundll32.exe",
     "C:\\Windows\\System32\\shell32.dll,Control_RunDLL", "", 0, 2, 2, 3, 0},
    // A downloaded executable that runs from a temporary folder.
    {"dropper", "{drop}", "", "cmd.exe rundll32.exe", 2, 5, 9, 6, D},
    {"kworkerd", "{drop}", "-c /tmp/.cache/.cfg", "sh", 1, 3, 9, 0, L | D},
    // Linux: WSL and the containers of the development setup.
    {"systemd", "/sbin/init", "splash", "systemd-journald sshd cron dockerd", 1, 1, 0, 0, L | S},
    {"systemd-journald", "/lib/systemd/systemd-journald", "", "", 0, 6, 0, 0, L | S},
    {"sshd", "/usr/sbin/sshd", "-D|-D -R", "bash", 3, 2, 5, 0, L | S},
    {"cron", "/usr/sbin/cron", "-f", "sh", 3, 1, 0, 0, L | S},
    {"dockerd", "/usr/bin/dockerd", "-H fd:// --containerd=/run/containerd/containerd.sock",
     "containerd-shim-runc-v2", 2, 3, 3, 0, L | S},
    {"containerd-shim-runc-v2", "/usr/bin/containerd-shim-runc-v2",
     "-namespace moby -id {cid} -address /run/containerd/containerd.sock", "nginx node postgres", 4,
     1, 0, 0, L | S},
    {"nginx", "/usr/sbin/nginx", "-g daemon off;|worker process", "", 0, 5, 8, 0, L | C | V},
    {"node", "/usr/local/bin/node", "server.js|/app/index.js", "", 0, 4, 6, 0, L | C | V},
    {"postgres", "/usr/lib/postgresql/15/bin/postgres", "-D /var/lib/postgresql/data", "", 0, 7, 2,
     0, L | C | V},
    {"bash", "/bin/bash", "|-l|--login",
     "ls grep curl python3 git make vim ps cat sudo ssh tar wget", 7, 2, 0, 0, L},
    {"sh", "/bin/sh",
     "-c /usr/local/bin/backup.sh|-c \"run-parts --report /etc/cron.hourly\"|"
     "-c \"test -x /usr/sbin/anacron\"",
     "backup.sh run-parts tar", 4, 1, 0, 0, L | S},
    {"ls", "/usr/bin/ls", "-la|-lh /var/log|--color=auto", "", 0, 3, 0, 0, L},
    {"grep", "/usr/bin/grep", "-r TODO src/|-i error /var/log/syslog", "", 0, 5, 0, 0, L},
    {"curl", "/usr/bin/curl",
     "-s https://{host}/api/v1/status|-fsSL https://{host}/install.sh|"
     "-O https://{host}/releases/tool.tar.gz",
     "", 0, 1, 9, 0, L},
    {"wget", "/usr/bin/wget", "-q https://{host}/pkg/latest.tar.gz", "", 0, 2, 8, 0, L},
    {"python3", "/usr/bin/python3",
     "manage.py runserver 0.0.0.0:8000|-m pytest -q|"
     "scripts/etl.py --since yesterday",
     "", 0, 6, 4, 0, L},
    {"git", "/usr/bin/git",
     "pull --rebase|status|push origin main|"
     "clone https://git.example.com/{repo}.git",
     "", 0, 6, 5, 0, L},
    {"make", "/usr/bin/make", "-j2|test", "gcc", 3, 3, 0, 0, L},
    {"gcc", "/usr/bin/gcc", "-O2 -c src/{src}.c -o build/{src}.o", "", 0, 7, 0, 0, L},
    {"vim", "/usr/bin/vim", "src/{src}.c|/etc/hosts", "", 0, 4, 0, 0, L},
    {"ps", "/usr/bin/ps", "aux|-ef", "", 0, 3, 0, 0, L},
    {"cat", "/usr/bin/cat", "/etc/os-release|/etc/passwd|/proc/cpuinfo", "", 0, 2, 0, 0, L},
    {"sudo", "/usr/bin/sudo", "apt-get update|systemctl restart nginx|-i", "apt-get systemctl", 2,
     1, 0, 0, L | E},
    {"apt-get", "/usr/bin/apt-get", "update|install -y jq|upgrade -y", "", 0, 8, 6, 0, L | S},
    {"systemctl", "/usr/bin/systemctl", "restart nginx|status docker", "", 0, 1, 0, 0, L | S},
    {"ssh", "/usr/bin/ssh", "deploy@{host}|git@git.example.com", "", 0, 1, 8, 0, L},
    {"tar", "/usr/bin/tar", "czf /var/backups/home-{n}.tar.gz /home|xzf tool.tar.gz", "", 0, 9, 0,
     0, L},
    {"backup.sh", "/usr/local/bin/backup.sh", "", "tar", 2, 3, 1, 0, L | S},
    {"run-parts", "/usr/bin/run-parts", "--report /etc/cron.hourly", "", 0, 2, 0, 0, L | S},
};

constexpr Peer kInternalPeers[] = {
    {"dc01.corp.example.com", "10.20.0.10", 389, "LDAP"},
    {"dc01.corp.example.com", "10.20.0.10", 88, "Kerberos"},
    {"dc01.corp.example.com", "10.20.0.10", 53, "DNS"},
    {"dc02.corp.example.com", "10.20.0.11", 445, "SMB"},
    {"fs01.corp.example.com", "10.20.0.20", 445, "SMB"},
    {"proxy.corp.example.com", "10.20.0.5", 8080, "HTTP"},
    {"git.example.com", "10.20.1.15", 443, "HTTPS"},
    {"git.example.com", "10.20.1.15", 22, "SSH"},
    {"build01.corp.example.com", "10.20.1.30", 22, "SSH"},
    {"print01.corp.example.com", "10.20.5.40", 9100, "RAW"},
    {"mail.corp.example.com", "10.20.0.25", 993, "IMAPS"},
    {"wsus.corp.example.com", "fd00:20::80", 8530, "HTTP"},
};

constexpr string_view kFirstNames[] = {"anna",  "ben",  "carla", "david", "elena",  "farid",
                                       "grace", "hugo", "ines",  "jonas", "kemal",  "lena",
                                       "marco", "nora", "oscar", "priya", "rafael", "sofia"};
constexpr string_view kLastNames[] = {"morgan", "okafor",  "schmidt", "tanaka",   "lindqvist",
                                      "moreau", "novak",   "haddad",  "kowalski", "fischer",
                                      "garcia", "ivanova", "brennan", "costa"};
constexpr string_view kHostWords[] = {"cdn",       "api",   "update", "static", "login",
                                      "telemetry", "files", "img",    "auth",   "edge",
                                      "mail",      "sync",  "assets", "dl",     "metrics"};
constexpr string_view kDomainNames[] = {"example.com",   "example.net",     "example.org",
                                        "cloud.example", "cdn.example.net", "partner.example"};
constexpr string_view kDocumentNames[] = {
    "Q3 report", "budget 2026", "meeting notes", "invoice 4471",  "contract draft",
    "roadmap",   "onboarding",  "travel",        "customer list", "release plan"};
constexpr string_view kSourceNames[] = {"main",   "parser", "store",  "index",  "net",
                                        "config", "util",   "server", "client", "cache"};
constexpr string_view kSystemDlls[] = {
    "ntdll.dll",   "kernel32.dll", "KernelBase.dll", "user32.dll",   "advapi32.dll",
    "ws2_32.dll",  "crypt32.dll",  "bcrypt.dll",     "combase.dll",  "ole32.dll",
    "rpcrt4.dll",  "sechost.dll",  "winhttp.dll",    "wininet.dll",  "dnsapi.dll",
    "shell32.dll", "gdi32.dll",    "msvcrt.dll",     "ucrtbase.dll", "amsi.dll"};
constexpr string_view kLinuxLibraries[] = {
    "/usr/lib/x86_64-linux-gnu/libc.so.6",       "/usr/lib/x86_64-linux-gnu/libssl.so.3",
    "/usr/lib/x86_64-linux-gnu/libcrypto.so.3",  "/usr/lib/x86_64-linux-gnu/libz.so.1",
    "/usr/lib/x86_64-linux-gnu/libm.so.6",       "/lib64/ld-linux-x86-64.so.2",
    "/usr/lib/x86_64-linux-gnu/libpcre2-8.so.0", "/usr/lib/x86_64-linux-gnu/libsystemd.so.0"};
constexpr string_view kRegistryKeys[] = {
    "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run",
    "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run",
    "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\RecentDocs",
    "HKLM\\SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters",
    "HKLM\\SOFTWARE\\Policies\\Microsoft\\Windows Defender",
    "HKCU\\Software\\Microsoft\\Office\\16.0\\Common\\General",
    "HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon",
    "HKCU\\Software\\Google\\Chrome\\PreferenceMACs",
    "HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment",
    "HKCU\\Software\\Classes\\ms-settings\\shell\\open\\command",
    "HKLM\\SOFTWARE\\Microsoft\\Cryptography",
    "HKLM\\SYSTEM\\CurrentControlSet\\Services\\bam\\State\\UserSettings"};
constexpr string_view kRegistryValues[] = {
    "OneDrive",    "SecurityHealth",     "Shell",  "Userinit", "Path",
    "MachineGuid", "DisableAntiSpyware", "Domain", "Theme",    "(Default)"};
constexpr string_view kUserAgents[] = {
    "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/131.0.0.0 Safari/537.36",
    "Microsoft Office/16.0 (Windows NT 10.0; Microsoft Outlook 16.0.17928; Pro)",
    "Microsoft-CryptoAPI/10.0",
    "curl/7.88.1",
    "Wget/1.21.3",
    "python-requests/2.31.0",
    "git/2.43.0",
    "Teams/1.7.00.13456"};
constexpr string_view kUrlPaths[] = {"/",
                                     "/api/v1/status",
                                     "/api/v2/events",
                                     "/login",
                                     "/static/app.js",
                                     "/favicon.ico",
                                     "/v1/telemetry",
                                     "/download/latest",
                                     "/owa/",
                                     "/sync/changes",
                                     "/images/logo.png",
                                     "/wsman"};
constexpr string_view kMimeTypes[] = {
    "text/html", "application/json",         "application/javascript",
    "image/png", "application/octet-stream", "text/css"};
constexpr string_view kServiceNames[] = {"Spooler",  "wuauserv", "BITS",     "WinDefend",
                                         "Dnscache", "W32Time",  "Schedule", "LanmanServer",
                                         "sshd",     "docker"};
constexpr string_view kTaskNames[] = {"\\Microsoft\\Windows\\UpdateOrchestrator\\Schedule Scan",
                                      "\\GoogleUpdateTaskMachineUA", "\\Backup",
                                      "\\OneDrive Standalone Update Task",
                                      "\\Microsoft\\Windows\\Defrag\\ScheduledDefrag"};
constexpr string_view kWords[] = {"alpha",  "batch",  "cobalt", "delta",   "ember",   "falcon",
                                  "garnet", "harbor", "iris",   "juniper", "kestrel", "lumen"};
constexpr string_view kApiNames[] = {
    "VirtualAllocEx",    "WriteProcessMemory",       "CreateRemoteThread", "OpenProcess",
    "SetWindowsHookExW", "NtQuerySystemInformation", "CryptUnprotectData", "AdjustTokenPrivileges"};
constexpr string_view kPrivileges[] = {"SeDebugPrivilege", "SeBackupPrivilege",
                                       "SeShutdownPrivilege", "SeImpersonatePrivilege",
                                       "SeChangeNotifyPrivilege"};
constexpr string_view kDetectionNames[] = {"Trojan:Win32/Wacatac.B!ml", "PUA:Win32/Presenoker",
                                           "Behavior:Win32/SuspPowershell.A",
                                           "HackTool:Linux/Mimipenguin", "EICAR-Test-File"};
constexpr string_view kImageNames[] = {"nginx:1.27", "node:20-alpine", "postgres:15", "redis:7",
                                       "python:3.12-slim"};

}  // namespace

std::span<const Program> Programs() { return kPrograms; }

int ProgramIndex(std::string_view name) {
  for (size_t i = 0; i < std::size(kPrograms); ++i) {
    if (kPrograms[i].name == name) return static_cast<int>(i);
  }
  return -1;
}

std::span<const Peer> InternalPeers() { return kInternalPeers; }
std::span<const string_view> FirstNames() { return kFirstNames; }
std::span<const string_view> LastNames() { return kLastNames; }
std::span<const string_view> HostWords() { return kHostWords; }
std::span<const string_view> DomainNames() { return kDomainNames; }
std::span<const string_view> DocumentNames() { return kDocumentNames; }
std::span<const string_view> SourceNames() { return kSourceNames; }
std::span<const string_view> SystemDlls() { return kSystemDlls; }
std::span<const string_view> LinuxLibraries() { return kLinuxLibraries; }
std::span<const string_view> RegistryKeys() { return kRegistryKeys; }
std::span<const string_view> RegistryValues() { return kRegistryValues; }
std::span<const string_view> UserAgents() { return kUserAgents; }
std::span<const string_view> UrlPaths() { return kUrlPaths; }
std::span<const string_view> MimeTypes() { return kMimeTypes; }
std::span<const string_view> ServiceNames() { return kServiceNames; }
std::span<const string_view> TaskNames() { return kTaskNames; }
std::span<const string_view> Words() { return kWords; }
std::span<const string_view> ApiNames() { return kApiNames; }
std::span<const string_view> Privileges() { return kPrivileges; }
std::span<const string_view> DetectionNames() { return kDetectionNames; }
std::span<const string_view> ImageNames() { return kImageNames; }

}  // namespace Tarn::Tool::Catalog
