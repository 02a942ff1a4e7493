#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Keel/Log.h"

namespace Tarn::Tool {

// The tool's Keel log callback. Records are numeric (component, message id,
// three values, source line); with --verbose each one is printed to standard
// error as it comes. Warnings and errors are also kept, so that a failure can
// be explained after the fact.
class HostLog {
 public:
  // Installs the callback; `verbose` prints every record.
  static void Install(bool verbose);
  static void Uninstall();

  // Records of severity Warning or worse since Install or Clear.
  static std::vector<Keel::Log::Record> Problems();
  static bool Saw(uint32_t component, uint32_t message);
  static void Clear();

  // The problems logged on this thread since its last BeginThreadCapture:
  // what the module logged while answering this thread's query, whatever
  // other threads ask meanwhile.
  static void BeginThreadCapture();
  static std::vector<Keel::Log::Record> ThreadCapture();

  // "E StorageManager(22) #3 a=11 b=0 c=0 line 142".
  static std::string Format(const Keel::Log::Record& record);

 private:
  static void OnRecord(const Keel::Log::Record& record, void* context);
};

}  // namespace Tarn::Tool
