#pragma once

#include <cstddef>
#include <cstdint>

#include "Tarn/Comm/IStorageSender.h"
#include "Tarn/Module/Interface.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/writer/Settings.h"
#include "manager/writer/StorageManager.h"
#include "module/DefaultTimeProvider.h"
#include "osquery/QueryService.h"

namespace Tarn::Module {

class ModuleAllocator;

// The module object the host drives. It owns the writer, the reader, the
// query service and the clock; the host reaches the rest through
// QueryInterface.
class Storage final : public Interface, public Comm::Interface::IStorageSender {
 public:
  Storage();
  ~Storage() override;

  bool HandleEvent(Events::Objects::Base* event, Events::ExternalData* data) override;
  bool Start() override;
  bool ReservedTrueA() override { return true; }
  bool ReservedTrueB() override { return true; }
  bool Stop() override;
  bool Reconfigure(ConfigReader* config) override;
  bool ReservedFalse6(uint32_t, uint32_t, uint32_t) override { return false; }
  uint32_t* GetIdTable() override;
  void* QueryInterface(uint32_t id) override;
  bool Initialize(HostServices* host, ConfigReader* config) override;
  bool OnNotification(uint32_t code) override;
  bool ReservedFalse11(uint32_t) override { return false; }
  bool ReservedFalse12(uint32_t, uint32_t) override { return false; }
  void* ReservedNull13() override { return nullptr; }
  bool ReservedFalse14(uint32_t) override { return false; }

  // IStorageSender: the same road as HandleEvent, without external data.
  bool Send(Events::Objects::Base* event) override;

  // Memory comes from the host's allocator while one is installed, else
  // from the process heap; the deleting destructor gives it back the same way.
  static void* operator new(size_t size) = delete;
  static void* operator new(size_t, void* where) noexcept { return where; }
  static void* Allocate(size_t size);
  static void operator delete(void* memory);

  // The allocator Init was given; null before Init and after Uninit.
  static ModuleAllocator* allocator;

 private:
  // Reads the configuration into a settings record and the intake switch.
  static Tarn::Storage::Settings ReadSettings(ConfigReader* config, uint32_t& intake_disabled);
  static void ReadQueryLimits(ConfigReader* config, Tarn::Storage::Settings& settings);
  // Type 186 is answered by the reader, type 221 by the query service.
  bool HandleQuery(Events::Objects::Base& event, Events::ExternalData* data);

  uint32_t intake_disabled_ = 0;
  HostServices* host_ = nullptr;
  bool owns_protobuf_shutdown_ = true;
  // Each refers to the ones above it, so it goes before them at destruction.
  Tarn::Storage::StorageManager manager_;
  Tarn::Storage::EventStorageProvider provider_{manager_, manager_.telemetry()};
  Tarn::Storage::OSQuery::QueryService queries_{provider_, manager_};
  Tarn::Storage::DefaultTimeProvider time_provider_;
};

}  // namespace Tarn::Module
