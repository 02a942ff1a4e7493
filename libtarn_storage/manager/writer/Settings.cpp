#include "manager/writer/Settings.h"

#include <cstring>

#include "Keel/Log.h"

namespace Tarn::Storage {
namespace {

using namespace SettingsBounds;

// One message identifier per validation rule, plus the load report.
enum Message : uint32_t {
  kDaysOutOfRange = 1,
  kStorageSizeOutOfRange = 2,
  kBlockSizeOutOfRange = 3,
  kStorageSmallerThanBlock = 4,
  kAnswerSizeOutOfRange = 5,
  kRowsOutOfRange = 6,
  kAuxOutOfRange = 7,
  kLoaded = 8,
};

bool Reject(Message message, uint64_t value, uint64_t low, uint64_t high) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageSettings, message, value, low, high);
  return false;
}

}  // namespace

const TelemetrySettings Settings::telemetry{};

Settings Settings::default_() {
  Settings s;
  s.max_storage_size = 209'715'200;
  s.reset_mode = 0;
  s.max_days = 60;
  s.block_buffer_size = 10'485'760;
  s.telemetry_to_disk = false;
  s.osquery.size_limit = 50'000'000;
  s.osquery.row_limit = 500'000;
  s.osquery.aux_limit = 4;
  s.osquery.aux_flag = false;
  return s;
}

bool Settings::Validate(Settings s) {
  if (s.max_days < kMinDays || s.max_days >= kDaysEnd) {
    return Reject(kDaysOutOfRange, s.max_days, kMinDays, kDaysEnd);
  }
  if (s.max_storage_size < kMinStorageSize || s.max_storage_size == kForbiddenStorageSize) {
    return Reject(kStorageSizeOutOfRange, s.max_storage_size, kMinStorageSize,
                  kForbiddenStorageSize);
  }
  if (s.block_buffer_size < kMinBlockSize || s.block_buffer_size >= kBlockSizeEnd) {
    return Reject(kBlockSizeOutOfRange, s.block_buffer_size, kMinBlockSize, kBlockSizeEnd);
  }
  if (s.max_storage_size < s.block_buffer_size) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageSettings, kStorageSmallerThanBlock, 0, 0, 0);
    return false;
  }
  if (s.osquery.size_limit < kMinAnswerSize || s.osquery.size_limit > kMaxAnswerSize) {
    return Reject(kAnswerSizeOutOfRange, s.osquery.size_limit, kMinAnswerSize,
                  kMaxAnswerSize + 1ull);
  }
  if (s.osquery.row_limit < kMinRows || s.osquery.row_limit >= kRowsEnd) {
    return Reject(kRowsOutOfRange, s.osquery.row_limit, kMinRows, kRowsEnd);
  }
  if (s.osquery.aux_limit < kMinAux || s.osquery.aux_limit >= kAuxEnd) {
    return Reject(kAuxOutOfRange, s.osquery.aux_limit, kMinAux, kAuxEnd);
  }
  return true;
}

bool Settings::Load(Settings s) {
  if (!Validate(s)) return false;
  *this = s;
  // The host reads megabytes as a double; the bit pattern travels as a value.
  double megabytes = static_cast<double>(max_storage_size) / 1'000'000.0;
  uint64_t megabytes_bits;
  std::memcpy(&megabytes_bits, &megabytes, sizeof megabytes_bits);
  KEEL_LOG(Keel::Log::Information, Keel::Log::StorageSettings, kLoaded, max_days, megabytes_bits,
           0);
  return true;
}

}  // namespace Tarn::Storage
