#pragma once

#include <cstdint>

namespace Tarn::Storage {

// Limits the query service applies to each answer.
struct OSQuerySettings {
  uint32_t size_limit = 0;  // bytes of one answer buffer
  uint32_t row_limit = 0;   // rows of one answer
  uint32_t aux_limit = 0;
  bool aux_flag = false;

  bool operator==(const OSQuerySettings&) const = default;
};

// Carries nothing the store reads; telemetry sends take it by value.
struct TelemetrySettings {
  uint32_t reserved = 0;
};

// The one record that governs the event store. A plain value: copied by value
// and changed only through Validate, so a bad record is never half applied.
struct Settings {
  uint64_t max_storage_size = 0;
  uint32_t reset_mode = 0;
  uint32_t max_days = 0;
  uint32_t block_buffer_size = 0;
  bool telemetry_to_disk = false;
  OSQuerySettings osquery;

  static const TelemetrySettings telemetry;

  // Every field zero: not valid on its own, start from default_().
  Settings() = default;
  Settings(const Settings&) = default;
  Settings& operator=(const Settings&) = default;
  bool operator==(const Settings&) const = default;

  static Settings default_();

  // True when every rule holds; the first broken rule is logged.
  static bool Validate(Settings settings);

  // Validates, then copies every field in. An invalid record changes nothing.
  bool Load(Settings settings);
};

// Bounds of the rules. The upper bounds of days, block size, rows and aux are
// exclusive while the answer size bound is inclusive; that asymmetry is kept
// on purpose because deployed configurations rely on it.
namespace SettingsBounds {
constexpr uint32_t kMinDays = 2;
constexpr uint32_t kDaysEnd = 512;
constexpr uint64_t kMinStorageSize = 52'428'800;
constexpr uint64_t kForbiddenStorageSize = 0xFFFFFFFFFFFFFFFFull;
constexpr uint32_t kMinBlockSize = 102'400;
constexpr uint32_t kBlockSizeEnd = 524'288'000;
constexpr uint32_t kMinAnswerSize = 10'485'760;
constexpr uint32_t kMaxAnswerSize = 250'000'000;
constexpr uint32_t kMinRows = 1'000;
constexpr uint32_t kRowsEnd = 50'000'000;
constexpr uint32_t kMinAux = 1;
constexpr uint32_t kAuxEnd = 1'024;
}  // namespace SettingsBounds

}  // namespace Tarn::Storage
