#pragma once

#include <cstdint>

#include "Keel/Export.h"

namespace Keel::Log {

// Severities of release-log records. Records carry numbers only: a component,
// a message identifier within it, up to three values and the source line.
enum Severity : uint32_t {
  Debug = 1,
  Information = 2,
  Warning = 3,
  Error = 5,
};

// Components: who wrote a record. Message identifiers are local to one.
enum Component : uint32_t {
  Collections = 1,
  File = 2,
  FileSystem = 3,
  Threading = 4,
  Lzma = 5,
  Utils = 6,
  Events = 7,
  StorageSettings = 20,
  StorageIndex = 21,
  StorageManager = 22,
  StorageProvider = 23,
  StorageTelemetry = 24,
  StorageModule = 25,
  StorageQuery = 26,
};

struct Record {
  uint32_t severity;
  uint32_t component;
  uint32_t message;
  uint64_t values[3];
  uint32_t line;
};

using Callback = void (*)(const Record& record, void* context);

// Installs the host's callback (null removes it). Until one is installed,
// WriteRelease does nothing, so logging costs one atomic load.
KEEL_API void SetCallback(Callback callback, void* context);

KEEL_API void WriteRelease(uint32_t severity, uint32_t component, uint32_t message, uint64_t a,
                           uint64_t b, uint64_t c, uint32_t line);

}  // namespace Keel::Log

// Fills in the source line so call sites stay short.
#define KEEL_LOG(severity, component, message, a, b, c)                                  \
  ::Keel::Log::WriteRelease((severity), (component), (message), (uint64_t)(a), (uint64_t)(b), \
                            (uint64_t)(c), __LINE__)
