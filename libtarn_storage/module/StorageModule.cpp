#include "module/StorageModule.h"

#include <google/protobuf/stubs/common.h>

#include <cstdlib>
#include <exception>

#include "Keel/Log.h"
#include "Keel/Utils/String.h"
#include "Tarn/Comm/IReport.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/StorageQuery.h"
#include "Tarn/Module/ConfigReader.h"
#include "Tarn/Module/HostServices.h"
#include "Tarn/Module/ModuleAllocator.h"
#include "module/ConfigKeys.h"
#include "osquery/Query.h"
#include "osquery/QueryException.h"

namespace Tarn::Module {
namespace {

enum Message : uint32_t {
  kManagerCreateFailed = 1,
  kIntakeDisabled = 2,
  kEventRefused = 3,
  kNoHost = 4,
  kRegisterFailed = 5,
  kReconfigureFailed = 6,
  kStopping = 7,
  kStopFailed = 8,
  kQueryNotServed = 9,
  kUnexpectedException = 10,
  kNullEvent = 11,
  kProviderCreateFailed = 12,
  kBadQueryRecord = 13,
  kQueryFailed = 14,
  kNotAStorageQuery = 15,
};

void Log(uint32_t severity, Message message, uint64_t a = 0, uint64_t b = 0) {
  KEEL_LOG(severity, Keel::Log::StorageModule, message, a, b, 0);
}

constexpr uint32_t kStorageQueryType = 186;
constexpr uint32_t kQueryRecordType = 221;
constexpr uint32_t kRegisterSelector = 360;
constexpr uint32_t kIdTableSize = 1024;

// Nothing may unwind into the host: an unexpected exception becomes `failed`.
template <typename Result, typename Body>
Result Guarded(Result failed, Body body) {
  try {
    return body();
  } catch (const std::exception&) {
    Log(Keel::Log::Error, kUnexpectedException);
  } catch (...) {
    Log(Keel::Log::Error, kUnexpectedException);
  }
  return failed;
}

}  // namespace

ModuleAllocator* Storage::allocator = nullptr;

Storage::Storage() = default;

Storage::~Storage() {
  // The query service is destroyed first: the reader must not keep it.
  provider_.SetTableStatistics(nullptr);
  if (owns_protobuf_shutdown_) google::protobuf::ShutdownProtobufLibrary();
  // Members go in reverse order: the clock, the query service, the reader,
  // then the manager, which stops its writer and writes telemetry when
  // asked to.
}

void* Storage::Allocate(size_t size) {
  return allocator != nullptr ? allocator->Allocate(size) : std::malloc(size);
}

void Storage::operator delete(void* memory) {
  if (memory == nullptr) return;
  if (allocator != nullptr) {
    uint32_t size = 0;
    allocator->Release(memory, &size);
  } else {
    std::free(memory);
  }
}

Tarn::Storage::Settings Storage::ReadSettings(ConfigReader* config, uint32_t& intake_disabled) {
  Tarn::Storage::Settings settings = Tarn::Storage::Settings::default_();
  if (config == nullptr) return settings;
  // A missing key leaves the default that is already in place.
  config->GetUInt64(ConfigKeys::kMaxStorageSize, settings.max_storage_size);
  config->GetUInt32(ConfigKeys::kMaxDays, settings.max_days);
  config->GetUInt32(ConfigKeys::kBlockBufferSize, settings.block_buffer_size);
  config->GetUInt32(ConfigKeys::kResetMode, settings.reset_mode);
  config->GetUInt32(ConfigKeys::kIntakeDisabled, intake_disabled);
  ReadQueryLimits(config, settings);
  config->GetBool(ConfigKeys::kTelemetryToDisk, settings.telemetry_to_disk, 0, 0);
  return settings;
}

void Storage::ReadQueryLimits(ConfigReader* config, Tarn::Storage::Settings& settings) {
  config->GetUInt32(ConfigKeys::kQuerySizeLimit, settings.osquery.size_limit);
  config->GetUInt32(ConfigKeys::kQueryRowLimit, settings.osquery.row_limit);
  config->GetUInt32(ConfigKeys::kQueryAuxLimit, settings.osquery.aux_limit);
  config->GetBool(ConfigKeys::kQueryAuxFlag, settings.osquery.aux_flag, 0, 0);
}

bool Storage::Initialize(HostServices* host, ConfigReader* config) {
  return Guarded(false, [&] {
    host_ = host;
    const uint32_t host_value = host != nullptr ? host->GetHostValue() : 0;
    Tarn::Storage::Settings settings = ReadSettings(config, intake_disabled_);

    Keel::Utils::String directory;
    const char* override_directory = nullptr;
    if (config != nullptr && directory.Create(ConfigKeys::kStorageDirectoryCapacity) &&
        config->GetString(ConfigKeys::kStorageDirectory, directory) && !directory.Empty()) {
      override_directory = directory.c_str();
    }
    if (!manager_.Create(settings, &time_provider_, host_value, override_directory)) {
      Log(Keel::Log::Error, kManagerCreateFailed);
      return false;
    }
    if (!provider_.Create()) {
      Log(Keel::Log::Error, kProviderCreateFailed);
      return false;
    }
    provider_.SetTableStatistics(&queries_);
    return true;
  });
}

bool Storage::HandleEvent(Events::Objects::Base* event, Events::ExternalData* data) {
  return Guarded(false, [&] {
    if (event == nullptr) {
      Log(Keel::Log::Error, kNullEvent);
      return false;
    }
    const uint32_t type = event->TypeId();
    // Queries are answered even while intake is disabled, and never stored.
    if (type == kStorageQueryType || type == kQueryRecordType) return HandleQuery(*event, data);
    if (intake_disabled_ != 0) {
      Log(Keel::Log::Warning, kIntakeDisabled, type);
      return false;
    }
    if (event->DoNotStore()) return false;
    if (!manager_.AddEvent(*event)) {
      Log(Keel::Log::Error, kEventRefused, type);
      return false;
    }
    return true;
  });
}

bool Storage::HandleQuery(Events::Objects::Base& event, Events::ExternalData* data) {
  if (!provider_.IsCreated()) {
    Log(Keel::Log::Warning, kQueryNotServed, event.TypeId());
    return false;
  }
  if (event.TypeId() == kStorageQueryType) {
    Events::Objects::StorageQuery* request = Events::Objects::StorageQuery::From(event);
    if (request == nullptr) {
      Log(Keel::Log::Error, kNotAStorageQuery, event.Size());
      return false;
    }
    return provider_.HandleQuery(request, data);
  }
  Tarn::Storage::OSQuery::Query query;
  if (!Tarn::Storage::OSQuery::Query::FromRecord(event, query)) {
    Log(Keel::Log::Warning, kBadQueryRecord, event.Size());
    return false;
  }
  try {
    return queries_.HandleQuery(std::move(query), data);
  } catch (const Tarn::Storage::OSQuery::QueryException&) {
    // The query service answers these itself; this is the last line.
    Log(Keel::Log::Error, kQueryFailed);
    return false;
  }
}

bool Storage::Send(Events::Objects::Base* event) { return HandleEvent(event, nullptr); }

bool Storage::Start() {
  return Guarded(false, [&] {
    if (host_ == nullptr) {
      Log(Keel::Log::Error, kNoHost);
      return false;
    }
    auto* report = static_cast<Comm::Interfaces::IReport*>(
        host_->QueryInterface(HostServices::kReportId));
    manager_.telemetry().update_report_builder(report);
    if (!host_->Register(this, 0, kRegisterSelector)) {
      Log(Keel::Log::Error, kRegisterFailed);
      return false;
    }
    return true;
  });
}

bool Storage::Stop() {
  return Guarded(false, [&] {
    Log(Keel::Log::Information, kStopping);
    bool stopped = manager_.Stop();
    if (!stopped) Log(Keel::Log::Error, kStopFailed);
    return stopped;
  });
}

bool Storage::Reconfigure(ConfigReader* config) {
  return Guarded(false, [&] {
    Tarn::Storage::Settings settings = manager_.GetSettings();
    if (config != nullptr) ReadQueryLimits(config, settings);
    if (!manager_.UpdateSettings(settings)) {
      Log(Keel::Log::Error, kReconfigureFailed);
      return false;
    }
    return true;
  });
}

uint32_t* Storage::GetIdTable() {
  static uint32_t table[kIdTableSize] = {};
  static const bool filled = [] {
    for (uint32_t i = 0; i < kIdTableSize; ++i) table[i] = i;
    return true;
  }();
  (void)filled;
  return table;
}

void* Storage::QueryInterface(uint32_t id) {
  switch (id) {
    case Interface::kStorageSenderId:
      return static_cast<Comm::Interface::IStorageSender*>(this);
    case Interface::kStorageManagerId:
      return &manager_;
    case Interface::kEventStorageId:
      // Not before Initialize created it: an uncreated reader has no locks.
      return provider_.IsCreated() ? static_cast<Comm::Interface::IEventStorage*>(&provider_)
                                   : nullptr;
    default:
      return nullptr;
  }
}

bool Storage::OnNotification(uint32_t code) {
  return Guarded(true, [&] {
    if (code == 0 || code == 1) {
      manager_.telemetry().send_to_cloud(Tarn::Storage::Settings::telemetry, code == 1);
    }
    return true;
  });
}

}  // namespace Tarn::Module
