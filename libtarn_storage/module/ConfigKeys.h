#pragma once

#include <cstdint>

namespace Tarn::Module::ConfigKeys {

// Numeric configuration keys the host hands the module.
constexpr uint32_t kMaxStorageSize = 2911282751u;   // 64-bit
constexpr uint32_t kMaxDays = 1823928285u;          // 32-bit
constexpr uint32_t kBlockBufferSize = 3875798015u;  // 32-bit
constexpr uint32_t kResetMode = 1184313617u;        // 32-bit
constexpr uint32_t kIntakeDisabled = 3459014075u;   // 32-bit
constexpr uint32_t kQuerySizeLimit = 2914303257u;   // 32-bit
constexpr uint32_t kQueryRowLimit = 4013426072u;    // 32-bit
constexpr uint32_t kQueryAuxLimit = 471161925u;     // 32-bit
constexpr uint32_t kQueryAuxFlag = 730812082u;      // boolean
constexpr uint32_t kTelemetryToDisk = 2635714510u;  // boolean
constexpr uint32_t kStorageDirectory = 2617574942u; // string, up to 512 characters

constexpr uint32_t kStorageDirectoryCapacity = 512;

}  // namespace Tarn::Module::ConfigKeys
