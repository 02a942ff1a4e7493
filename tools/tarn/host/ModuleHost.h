#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Tarn/Comm/IEventStorage.h"
#include "Tarn/Events/QueryRecord.h"
#include "Tarn/Module/EntryPoints.h"
#include "Tarn/Module/HostServices.h"
#include "Tarn/Module/MapConfigReader.h"
#include "hx/MessageBus/Msg.h"
#include "tarn/host/ReportSink.h"

namespace Tarn::Tool {

// Limits the user set on the command line; unset ones keep a default.
struct StoreLimits {
  std::optional<uint64_t> max_size;
  std::optional<uint32_t> max_days;
  std::optional<uint32_t> block_size;
  // Commands that only read the store open it with the widest limits the
  // store accepts, so that opening it never evicts a day. Otherwise unset
  // limits are the store's own defaults.
  bool widest_by_default = false;
};

struct HostOptions {
  std::string store;  // the storage directory itself
  StoreLimits limits;
  bool telemetry_to_disk = false;
  std::string report_dir;  // where reports are written; empty: printed
};

// Checks the limits against the store's bounds; false with `error` in words.
bool CheckLimits(const StoreLimits& limits, std::string& error);

// Where libtarn_storage.so is: $TARN_MODULE_PATH, else ../lib beside the
// executable (the build tree's bin/ and lib/), else beside the executable.
bool FindModulePath(std::string& path, std::string& error);

// The tool as the agent's host: it loads the module with dlopen and Init,
// gives it a configuration, its services (host value, report interface,
// registration) and events, exactly as the agent would; it never calls the
// module's code but through that operation table.
//
// Close (or the destructor) destroys the module, whose destructor shuts
// protobuf down: every use of a row message must come before it.
class ModuleHost final : public Module::HostServices {
 public:
  ModuleHost() = default;
  ~ModuleHost();
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  // Checks that no other process holds the store, sets Keel's clock no lower
  // than the newest stored time, loads the module and opens the store
  // (Initialize, Start). False with `error` in words.
  bool Open(const HostOptions& options, std::string& error);
  bool IsOpen() const { return module_ != nullptr; }
  // The storage directory Open was given.
  const std::string& store() const { return store_; }
  // The newest time the store held when it was opened (NewestStoredMs).
  int64_t NewestStoredAtOpen() const { return newest_stored_ms_; }

  Module::Interface* module() { return module_; }
  // The module's reader (interface 15), or null.
  Comm::Interface::IEventStorage* Storage();
  ReportSink& reports() { return reports_; }

  // Hands one event record to the module with Keel's clock at `time_ms` on
  // this thread, so the store files it on that day and second.
  bool Feed(const uint8_t* record, uint32_t size, int64_t time_ms);
  // Events the module refused so far.
  uint64_t Refused() const { return refused_; }

  // Asks the store a table query as a requester does: a type-221 record with
  // the requester's message, into which the store writes its answer (the
  // fields "events" and "token"). False when the module did not answer.
  bool Ask(const Events::QueryRecord& query, hx::MessageBus::Msg& answer);

  // Stops the store and destroys the module. False when the store did not
  // stop cleanly (its open block may be lost).
  bool Close(std::string& error);

  // ---- HostServices ------------------------------------------------------
  uint32_t GetHostValue() override { return kHostValue; }
  void* QueryInterface(uint32_t id) override;
  bool Register(Module::Interface* module, uint32_t flags, uint32_t selector) override;

 private:
  static constexpr uint32_t kHostValue = 0;

  bool Load(std::string& error);
  void Configure(const HostOptions& options);
  std::string ExplainOpenFailure(const std::string& directory) const;
  void Destroy();

  void* library_ = nullptr;
  Module::InitFn init_ = nullptr;
  Module::UninitFn uninit_ = nullptr;
  Module::Interface* module_ = nullptr;
  Module::MapConfigReader config_;
  ReportSink reports_;
  bool initialized_ = false;
  bool registered_ = false;
  uint64_t refused_ = 0;
  int64_t newest_stored_ms_ = 0;
  std::string store_;
};

}  // namespace Tarn::Tool
