#include "tarn/import/EvtxRecords.h"

#include <libevtx.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "tarn/import/ChildReader.h"

namespace Tarn::Tool {
namespace {

enum Frame : uint8_t {
  kCount = 1,     // the number of records (8 bytes)
  kRecord = 2,    // a record's number (8 bytes) and its XML
  kBad = 3,       // a record's index (8 bytes) and why it cannot be read
  kFailure = 4,   // why the file cannot be read at all
  kDamaged = 5,   // the library found the file damaged: records of it may be lost
};

// A library that reads a file for minutes without a record is stuck.
constexpr int kIdleSeconds = 60;

std::string Number(uint64_t value) {
  std::string out(8, '\0');
  for (int i = 0; i < 8; ++i) out[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
  return out;
}

uint64_t NumberAt(std::string_view payload) {
  uint64_t value = 0;
  for (size_t i = 0; i < 8 && i < payload.size(); ++i) {
    value |= uint64_t{static_cast<unsigned char>(payload[i])} << (8 * i);
  }
  return value;
}

// The library's error in one line, and the error freed.
std::string Why(libevtx_error_t*& error) {
  char text[512] = "unknown error";
  if (error != nullptr) {
    libevtx_error_sprint(error, text, sizeof text);
    libevtx_error_free(&error);
  }
  std::string out(text);
  std::replace(out.begin(), out.end(), '\n', ' ');
  return out;
}

// Runs in the child.
void SendRecords(const std::string& path, FrameWriter& out) {
  libevtx_error_t* error = nullptr;
  libevtx_file_t* file = nullptr;
  if (libevtx_file_initialize(&file, &error) != 1 ||
      libevtx_file_open(file, path.c_str(), LIBEVTX_OPEN_READ, &error) != 1) {
    out.Send(kFailure, Why(error));
    return;
  }
  int count = 0;
  if (libevtx_file_get_number_of_records(file, &count, &error) != 1) {
    out.Send(kFailure, Why(error));
    return;
  }
  out.Send(kCount, Number(static_cast<uint64_t>(count)));
  std::vector<uint8_t> xml;
  for (int i = 0; i < count; ++i) {
    libevtx_record_t* record = nullptr;
    uint64_t number = 0;
    size_t size = 0;
    bool read = libevtx_file_get_record_by_index(file, i, &record, &error) == 1 &&
                libevtx_record_get_identifier(record, &number, &error) == 1 &&
                libevtx_record_get_utf8_xml_string_size(record, &size, &error) == 1 && size != 0;
    if (read) {
      xml.resize(size);
      read = libevtx_record_get_utf8_xml_string(record, xml.data(), size, &error) == 1;
    }
    const bool sent =
        read ? out.Send(kRecord, Number(number) + std::string(reinterpret_cast<char*>(xml.data()),
                                                              std::strlen(reinterpret_cast<char*>(
                                                                  xml.data()))))
             : out.Send(kBad, Number(static_cast<uint64_t>(i)) + Why(error));
    if (record != nullptr) libevtx_record_free(&record, nullptr);
    if (!sent) return;
  }
  // A chunk that fails its checks is left out of the records counted above:
  // only the library's verdict tells that records were lost.
  if (libevtx_file_is_corrupted(file, nullptr) == 1) out.Send(kDamaged, {});
  libevtx_file_close(file, nullptr);
  libevtx_file_free(&file, nullptr);
}

}  // namespace

EvtxReport ReadEvtxRecords(const std::string& path,
                           const std::function<void(uint64_t, std::string_view)>& record,
                           const std::function<void(uint64_t, std::string_view)>& bad) {
  EvtxReport report;
  uint64_t seen = 0;
  const ChildOutcome outcome = RunInChild(
      [&](FrameWriter& out) { SendRecords(path, out); },
      [&](uint8_t kind, std::string_view payload) {
        const uint64_t number = NumberAt(payload);
        const std::string_view rest = payload.size() >= 8 ? payload.substr(8) : "";
        switch (kind) {
          case kCount: report.records = number; break;
          case kRecord:
            ++seen;
            record(number, rest);
            break;
          case kBad:
            ++seen;
            ++report.unreadable;
            bad(number, rest);
            break;
          case kFailure: report.failure = std::string(payload); break;
          case kDamaged: report.damaged = true; break;
          default: break;
        }
      },
      kIdleSeconds);
  if (!outcome.clean) {
    // The records after the last one received are lost with the reader.
    report.failure = outcome.failure + " after " + std::to_string(seen) + " of " +
                     std::to_string(report.records) + " records";
    if (seen < report.records) report.unreadable += report.records - seen;
  }
  return report;
}

}  // namespace Tarn::Tool
