#pragma once

#include <cstdint>

namespace Tarn::Events {
class ExternalData;
namespace Objects {
class Base;
}
}  // namespace Tarn::Events

namespace Tarn::Module {

class ConfigReader;
class HostServices;

// The operation table through which the host drives a module. The host calls
// by slot, so the order of the virtual functions below is the contract:
// never reorder, insert or remove one. The reserved slots are kept so that
// later slots stay where the host expects them.
class Interface {
 public:
  // Interface ids a module answers in QueryInterface.
  static constexpr uint32_t kEventStorageId = 15;
  static constexpr uint32_t kStorageSenderId = 16;
  static constexpr uint32_t kStorageManagerId = 32;

  /* 0 */ virtual bool HandleEvent(Events::Objects::Base* event, Events::ExternalData* data) = 0;
  /* 1 */ virtual bool Start() = 0;
  /* 2 */ virtual bool ReservedTrueA() = 0;
  /* 3 */ virtual bool ReservedTrueB() = 0;
  /* 4 */ virtual bool Stop() = 0;
  /* 5 */ virtual bool Reconfigure(ConfigReader* config) = 0;
  /* 6 */ virtual bool ReservedFalse6(uint32_t a, uint32_t b, uint32_t c) = 0;
  /* 7 */ virtual uint32_t* GetIdTable() = 0;
  /* 8 */ virtual void* QueryInterface(uint32_t id) = 0;
  /* 9 */ virtual bool Initialize(HostServices* host, ConfigReader* config) = 0;
  /* 10 */ virtual bool OnNotification(uint32_t code) = 0;
  /* 11 */ virtual bool ReservedFalse11(uint32_t a) = 0;
  /* 12 */ virtual bool ReservedFalse12(uint32_t a, uint32_t b) = 0;
  /* 13 */ virtual void* ReservedNull13() = 0;
  /* 14 */ virtual bool ReservedFalse14(uint32_t a) = 0;
  /* 15 */ virtual ~Interface() = default;
};

}  // namespace Tarn::Module
