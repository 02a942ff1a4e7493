#include "tarn/host/ModuleHost.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "Keel/Log.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/ExternalData.h"
#include "manager/writer/Settings.h"
#include "module/ConfigKeys.h"
#include "tarn/host/HostLog.h"
#include "tarn/host/ReplayClock.h"
#include "tarn/offline/StoreFiles.h"
#include "tarn/offline/StoreLock.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {

namespace fs = std::filesystem;
namespace Keys = Module::ConfigKeys;
namespace Bounds = Storage::SettingsBounds;

namespace {

constexpr const char* kModuleName = "libtarn_storage.so";

// Log records that mean the store's lock is held by someone else: the file
// layer's "lock held" and the storage manager's "directory locked".
constexpr uint32_t kFileLockHeld = 11;
constexpr uint32_t kManagerDirectoryLocked = 3;
constexpr uint32_t kManagerDirectoryCreateFailed = 2;

// The widest limits the store accepts: opening a store to read it must not
// evict anything.
constexpr uint64_t kWidestSize = Bounds::kForbiddenStorageSize - 1;
constexpr uint32_t kWidestDays = Bounds::kDaysEnd - 1;

std::string ExecutableDirectory() {
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : self.parent_path().string();
}

}  // namespace

bool CheckLimits(const StoreLimits& limits, std::string& error) {
  if (limits.max_size &&
      (*limits.max_size < Bounds::kMinStorageSize || *limits.max_size > kWidestSize)) {
    error = "--max-size must be at least " + FormatBytes(Bounds::kMinStorageSize) + " (" +
            FormatCount(Bounds::kMinStorageSize) + " bytes)";
    return false;
  }
  if (limits.max_days &&
      (*limits.max_days < Bounds::kMinDays || *limits.max_days >= Bounds::kDaysEnd)) {
    error = "--max-days must lie between " + std::to_string(Bounds::kMinDays) + " and " +
            std::to_string(Bounds::kDaysEnd - 1);
    return false;
  }
  if (limits.block_size &&
      (*limits.block_size < Bounds::kMinBlockSize || *limits.block_size >= Bounds::kBlockSizeEnd)) {
    error = "--block-size must be at least " + FormatBytes(Bounds::kMinBlockSize) + " and below " +
            FormatBytes(Bounds::kBlockSizeEnd);
    return false;
  }
  return true;
}

bool FindModulePath(std::string& path, std::string& error) {
  if (const char* env = std::getenv("TARN_MODULE_PATH"); env != nullptr && env[0] != '\0') {
    path = env;
    if (fs::exists(path)) return true;
    error = "TARN_MODULE_PATH names " + path + ", which does not exist";
    return false;
  }
  const std::string bin = ExecutableDirectory();
  for (const std::string& candidate : {bin + "/../lib/" + kModuleName, bin + "/" + kModuleName}) {
    if (!bin.empty() && fs::exists(candidate)) {
      path = fs::weakly_canonical(candidate).string();
      return true;
    }
  }
  error = std::string("cannot find ") + kModuleName + " in " + bin + "/../lib or " + bin +
          "; build it (target tarn_storage) or set TARN_MODULE_PATH";
  return false;
}

ModuleHost::~ModuleHost() {
  std::string ignored;
  Close(ignored);
}

bool ModuleHost::Load(std::string& error) {
  std::string path;
  if (!FindModulePath(path, error)) return false;
  library_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library_ == nullptr) {
    error = "cannot load " + path + ": " + dlerror();
    return false;
  }
  init_ = reinterpret_cast<Module::InitFn>(dlsym(library_, Module::kInitSymbol));
  uninit_ = reinterpret_cast<Module::UninitFn>(dlsym(library_, Module::kUninitSymbol));
  if (init_ == nullptr || uninit_ == nullptr) {
    error = path + " does not export Init and Uninit: it is not a storage module";
    return false;
  }
  return true;
}

void ModuleHost::Configure(const HostOptions& options) {
  const StoreLimits& limits = options.limits;
  config_.SetString(Keys::kStorageDirectory, options.store);
  if (limits.max_size) {
    config_.SetUInt64(Keys::kMaxStorageSize, *limits.max_size);
  } else if (limits.widest_by_default) {
    config_.SetUInt64(Keys::kMaxStorageSize, kWidestSize);
  }
  if (limits.max_days) {
    config_.SetUInt32(Keys::kMaxDays, *limits.max_days);
  } else if (limits.widest_by_default) {
    config_.SetUInt32(Keys::kMaxDays, kWidestDays);
  }
  if (limits.block_size) config_.SetUInt32(Keys::kBlockBufferSize, *limits.block_size);
  if (options.telemetry_to_disk) config_.SetBool(Keys::kTelemetryToDisk, true);
}

bool ModuleHost::Open(const HostOptions& options, std::string& error) {
  if (module_ != nullptr) {
    error = "the store is already open";
    return false;
  }
  if (!CheckLimits(options.limits, error)) return false;
  store_ = options.store;
  std::error_code ec;
  // The store holds security telemetry: a directory made for it is the
  // owner's alone, as the store makes its own.
  if (fs::create_directories(options.store, ec)) {
    fs::permissions(options.store, fs::perms::owner_all, fs::perm_options::replace, ec);
  }
  if (ec) {
    error = "cannot create the store directory " + options.store + ": " + ec.message();
    return false;
  }
  {
    // Asked first, so the usual case gets a plain answer; the store takes
    // the lock itself right after, through a descriptor of its own.
    StoreLock lock;
    if (lock.Acquire(options.store, error) != StoreLock::Result::kLocked) return false;
  }
  reports_.SetDirectory(options.report_dir);
  Configure(options);
  if (!Load(error)) return false;
  // The store reads the clock as it opens: never below what it holds.
  newest_stored_ms_ = NewestStoredMs(options.store);
  ReplayClock::Install(newest_stored_ms_);

  HostLog::Clear();
  module_ = init_(nullptr);
  if (module_ == nullptr) {
    error = "the storage module could not create itself (Init returned null)";
    ReplayClock::Uninstall();
    return false;
  }
  if (!module_->Initialize(this, &config_)) {
    error = ExplainOpenFailure(options.store);
    Destroy();
    return false;
  }
  initialized_ = true;
  if (!module_->Start()) {
    error = "the store in " + options.store + " opened but did not start";
    std::string ignored;
    Close(ignored);
    return false;
  }
  return true;
}

std::string ModuleHost::ExplainOpenFailure(const std::string& directory) const {
  if (HostLog::Saw(Keel::Log::File, kFileLockHeld) ||
      HostLog::Saw(Keel::Log::StorageManager, kManagerDirectoryLocked)) {
    return "the store in " + directory +
           " is in use by another process (it holds storage.lock); the storage module "
           "refused to open it";
  }
  if (HostLog::Saw(Keel::Log::StorageManager, kManagerDirectoryCreateFailed)) {
    return "the storage module cannot create the directory " + directory;
  }
  return "the storage module could not open the store in " + directory +
         " (Initialize failed; run with --verbose to see its log records)";
}

Comm::Interface::IEventStorage* ModuleHost::Storage() {
  if (module_ == nullptr) return nullptr;
  return static_cast<Comm::Interface::IEventStorage*>(
      module_->QueryInterface(Module::Interface::kEventStorageId));
}

bool ModuleHost::Feed(const uint8_t* record, uint32_t size, int64_t time_ms) {
  Events::Objects::Base event(record, size);
  ReplayClock::BeginReplay(time_ms);
  bool stored = module_->HandleEvent(&event, nullptr);
  ReplayClock::EndReplay();
  if (!stored) ++refused_;
  return stored;
}

bool ModuleHost::Ask(const Events::QueryRecord& query, hx::MessageBus::Msg& answer) {
  if (module_ == nullptr) return false;
  Events::DynamicEventBuilder builder;
  if (!query.Write(builder, static_cast<uint64_t>(RealNowMs()))) return false;
  Events::ExternalData data(&answer);
  Events::Objects::Base event = builder.Event();
  return module_->HandleEvent(&event, &data);
}

void* ModuleHost::QueryInterface(uint32_t id) {
  if (id == kReportId) return static_cast<Comm::Interfaces::IReport*>(&reports_);
  return nullptr;
}

bool ModuleHost::Register(Module::Interface* module, uint32_t, uint32_t) {
  registered_ = module == module_;
  return registered_;
}

bool ModuleHost::Close(std::string& error) {
  if (module_ == nullptr) return true;
  bool stopped = !initialized_ || module_->Stop();
  if (!stopped) {
    error = "the store did not stop cleanly (run with --verbose to see its log records)";
  }
  Destroy();
  return stopped;
}

void ModuleHost::Destroy() {
  // Destroy first, then Uninit: a module destroyed after Uninit would give
  // its memory to the wrong allocator.
  delete module_;
  module_ = nullptr;
  initialized_ = false;
  if (uninit_ != nullptr) uninit_();
  ReplayClock::Uninstall();
  // The library stays loaded: the process ends soon, and code of it may
  // still be registered with the C++ runtime.
}

}  // namespace Tarn::Tool
