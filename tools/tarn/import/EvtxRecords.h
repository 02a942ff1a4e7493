#pragma once

// The records of a native event log file (.evtx), read by the event log
// library in a child process (ChildReader): a file that crashes or hangs it
// is reported unreadable from there on, and the records read before stay.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Tarn::Tool {

struct EvtxReport {
  uint64_t records = 0;     // the records the file's chunks hold
  uint64_t unreadable = 0;  // of them, those the library could not read
  bool damaged = false;     // the library found damage (a cut file, a bad chunk)
  std::string failure;      // why the file could not be read (on), or empty
};

// Hands each record's number (EventRecordID) and XML to `record`, and each
// record the library cannot read to `bad` with its index (from 0) and why.
EvtxReport ReadEvtxRecords(const std::string& path,
                           const std::function<void(uint64_t number, std::string_view xml)>& record,
                           const std::function<void(uint64_t index, std::string_view why)>& bad);

}  // namespace Tarn::Tool
