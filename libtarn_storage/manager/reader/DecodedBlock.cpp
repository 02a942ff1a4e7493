#include "manager/reader/DecodedBlock.h"

#include "Keel/Log.h"

namespace Tarn::Storage {
namespace {

// Keel::Log::StorageProvider identifiers of this file.
enum Message : uint32_t {
  kTableSizeMismatch = 140,
  kBadTable = 141,
};

}  // namespace

bool CreateReaderBuffer(Keel::Collections::Buffer& buffer) {
  return buffer.Create(0, kReaderBufferMaximum, Keel::Collections::GrowType::Percent, 100);
}

bool EventsBlock::Adopt(uint32_t table_offset, uint32_t event_count) {
  table_offset_ = 0;
  event_count_ = 0;
  const uint64_t size = bytes_.Size();
  // The index's count and the file's table must describe the same block.
  if (event_count == 0 || table_offset >= size ||
      size - table_offset != uint64_t{event_count} * kEntrySize) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, kTableSizeMismatch, size, table_offset,
             event_count);
    return false;
  }
  if (!CheckEntryTable(bytes_.Data(), static_cast<uint32_t>(size), table_offset)) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, kBadTable, size, table_offset,
             event_count);
    return false;
  }
  table_offset_ = table_offset;
  event_count_ = event_count;
  return true;
}

}  // namespace Tarn::Storage
