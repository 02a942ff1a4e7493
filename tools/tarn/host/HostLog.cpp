#include "tarn/host/HostLog.h"

#include <cstdio>

namespace Tarn::Tool {
namespace {

// Enough to explain a failure; a run that logs more keeps the first ones.
constexpr size_t kMaxKept = 256;

struct State {
  std::mutex mutex;
  std::vector<Keel::Log::Record> problems;
  bool verbose = false;
};

State& GetState() {
  static State state;
  return state;
}

// The problems of the thread's current capture (bounded as the shared list).
thread_local bool t_capturing = false;
thread_local std::vector<Keel::Log::Record> t_captured;

const char* ComponentName(uint32_t component) {
  switch (component) {
    case Keel::Log::Collections: return "Collections";
    case Keel::Log::File: return "File";
    case Keel::Log::FileSystem: return "FileSystem";
    case Keel::Log::Threading: return "Threading";
    case Keel::Log::Lzma: return "Lzma";
    case Keel::Log::Utils: return "Utils";
    case Keel::Log::Events: return "Events";
    case Keel::Log::StorageSettings: return "StorageSettings";
    case Keel::Log::StorageIndex: return "StorageIndex";
    case Keel::Log::StorageManager: return "StorageManager";
    case Keel::Log::StorageProvider: return "StorageProvider";
    case Keel::Log::StorageTelemetry: return "StorageTelemetry";
    case Keel::Log::StorageModule: return "StorageModule";
    case Keel::Log::StorageQuery: return "StorageQuery";
    default: return "?";
  }
}

char SeverityLetter(uint32_t severity) {
  switch (severity) {
    case Keel::Log::Debug: return 'D';
    case Keel::Log::Information: return 'I';
    case Keel::Log::Warning: return 'W';
    case Keel::Log::Error: return 'E';
    default: return '?';
  }
}

}  // namespace

void HostLog::Install(bool verbose) {
  GetState().verbose = verbose;
  Keel::Log::SetCallback(&HostLog::OnRecord, nullptr);
}

void HostLog::Uninstall() { Keel::Log::SetCallback(nullptr, nullptr); }

void HostLog::OnRecord(const Keel::Log::Record& record, void*) {
  State& state = GetState();
  if (state.verbose) std::fprintf(stderr, "log: %s\n", Format(record).c_str());
  if (record.severity < Keel::Log::Warning) return;
  if (t_capturing && t_captured.size() < kMaxKept) t_captured.push_back(record);
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.problems.size() < kMaxKept) state.problems.push_back(record);
}

std::vector<Keel::Log::Record> HostLog::Problems() {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.problems;
}

void HostLog::BeginThreadCapture() {
  t_capturing = true;
  t_captured.clear();
}

std::vector<Keel::Log::Record> HostLog::ThreadCapture() { return t_captured; }

bool HostLog::Saw(uint32_t component, uint32_t message) {
  for (const Keel::Log::Record& r : Problems()) {
    if (r.component == component && r.message == message) return true;
  }
  return false;
}

void HostLog::Clear() {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.problems.clear();
}

std::string HostLog::Format(const Keel::Log::Record& r) {
  char text[160];
  std::snprintf(text, sizeof(text), "%c %s(%u) #%u a=%llu b=%llu c=%llu line %u",
                SeverityLetter(r.severity), ComponentName(r.component), r.component, r.message,
                static_cast<unsigned long long>(r.values[0]),
                static_cast<unsigned long long>(r.values[1]),
                static_cast<unsigned long long>(r.values[2]), r.line);
  return text;
}

}  // namespace Tarn::Tool
