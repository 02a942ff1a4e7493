#pragma once

#include <cstdint>

#include "Keel/Collections/Buffer.h"
#include "manager/format/EventsBlock.h"

namespace Tarn::Storage {

// What the reader learns about a block beside its stored bytes. The event
// count comes from the day index; the rest from the block's header in its
// day file, and the version from the index entry that names the file.
struct RawEventsBlockMetadata {
  uint32_t event_table_offset = 0;
  uint32_t event_count = 0;
  uint32_t decoded_size = 0;
  uint32_t version = 0;
};

// Reader buffers may grow to the largest block the writer accepts.
constexpr uint64_t kReaderBufferMaximum = 524'288'000;

// Sets a buffer up the way the reader sizes all of its buffers: empty at
// first, doubling as it grows, never past kReaderBufferMaximum.
bool CreateReaderBuffer(Keel::Collections::Buffer& buffer);

// A decoded events block as the reader keeps it: event records back to back
// and the table of one 8-byte entry per event behind them. Adopt checks the
// table once, so that every later access needs only the event count to stay
// inside the bytes.
class EventsBlock {
 public:
  bool Create() { return CreateReaderBuffer(bytes_); }

  // Where the decoder writes the block's bytes before Adopt.
  Keel::Collections::Buffer& bytes() { return bytes_; }

  // Accepts the decoded bytes as a block of `event_count` events whose table
  // starts at `table_offset`. False (logged) unless the bytes end exactly
  // with such a table and every entry lies inside the records in order.
  bool Adopt(uint32_t table_offset, uint32_t event_count);

  uint32_t EventCount() const { return event_count_; }
  uint32_t TableOffset() const { return table_offset_; }
  // Second of the day of event `i`; RawBlockView::kNoSecond past the end.
  uint32_t Second(uint32_t i) const { return View().Second(i); }
  // The record of event `i`: from its entry's offset to the next entry's.
  bool Event(uint32_t i, const uint8_t*& data, uint32_t& size) const {
    return View().Event(i, data, size);
  }

 private:
  RawBlockView View() const {
    return RawBlockView(bytes_.Data(), static_cast<uint32_t>(bytes_.Size()), table_offset_);
  }

  Keel::Collections::Buffer bytes_;
  uint32_t table_offset_ = 0;
  uint32_t event_count_ = 0;  // 0 until Adopt succeeds
};

}  // namespace Tarn::Storage
