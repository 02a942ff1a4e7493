#include "manager/format/DayFileReader.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "Tarn/Events/Record.h"

namespace Tarn::Storage {
namespace {

// What a scan for a block's framing reads at a time.
constexpr uint64_t kScanChunk = 1u << 20;
constexpr uint32_t kFrameSize = kBlockHeaderSize + sizeof(kPayloadMagic);

}  // namespace

bool DayFileReader::Open(const std::string& path, DayFileCheck& check, Keel::OS::File::Mode mode,
                         uint32_t version) {
  check = DayFileCheck::ReadFailed;
  file_ = &owned_;
  size_ = 0;
  owned_.Close();
  if (!owned_.Open(path, mode) || !owned_.GetSize(size_)) return false;
  return ReadDayFileHeader(owned_, check, version);
}

bool DayFileReader::Attach(Keel::OS::File& file) {
  file_ = &file;
  size_ = 0;
  return file.GetSize(size_);
}

bool DayFileReader::ReadHeader(uint64_t offset, BlockHeader& header) {
  return ReadBlockHeader(*file_, offset, size_, header, &io_error_);
}

bool DayFileReader::Decode(uint64_t offset, const BlockHeader& header,
                           Keel::Collections::Buffer& raw) {
  // The header was checked against the file's size: a payload that does not
  // read is the system's failure, not the bytes'.
  io_error_ = !ReadBlockPayload(*file_, offset, header, payload_);
  return !io_error_ && DecodeBlock(payload_, header, raw);
}

bool DayFileReader::FramesBlock(uint64_t offset, BlockHeader& header) {
  if (offset == framed_offset_) {
    header = framed_header_;
    return framed_;
  }
  if (offset < kDayFileHeaderSize || offset > size_ || size_ - offset < kFrameSize) return false;
  uint8_t bytes[kFrameSize];
  if (!file_->ReadAtExact(offset, bytes, sizeof(bytes))) {
    io_error_ = true;
    return false;
  }
  header.stored_size = Events::Record::LoadUInt32(bytes);
  header.raw_size = Events::Record::LoadUInt32(bytes + 4);
  header.table_offset = Events::Record::LoadUInt32(bytes + 8);
  framed_offset_ = offset;
  framed_header_ = header;
  framed_ = header.stored_size >= sizeof(kPayloadMagic) &&
            header.stored_size <= size_ - offset - kBlockHeaderSize && BlockSizesAreSane(header) &&
            std::memcmp(bytes + kBlockHeaderSize, kPayloadMagic, sizeof(kPayloadMagic)) == 0;
  return framed_;
}

uint64_t DayFileReader::FirstFramingAnchor(const std::vector<uint64_t>& anchors, uint64_t after,
                                           uint64_t before) {
  BlockHeader header;
  for (auto it = std::upper_bound(anchors.begin(), anchors.end(), after);
       it != anchors.end() && *it < before; ++it) {
    if (FramesBlock(*it, header)) return *it;
    if (io_error_) return before;
  }
  return before;
}

uint64_t DayFileReader::NextFrame(const std::vector<uint64_t>& anchors, uint64_t after) {
  const uint64_t anchored = FirstFramingAnchor(anchors, after, size_);
  if (io_error_) return size_;
  return NextFramedBlock(after + 1, anchored);
}

uint64_t DayFileReader::NextFramedBlock(uint64_t from, uint64_t limit) {
  // The magic sits right behind a block's 12-byte header: look for it.
  std::vector<uint8_t> chunk;
  for (uint64_t at = from + kBlockHeaderSize; at + sizeof(kPayloadMagic) <= size_;) {
    if (at - kBlockHeaderSize >= limit) return limit;
    const uint64_t length = std::min<uint64_t>(kScanChunk, size_ - at);
    chunk.resize(length);
    if (!file_->ReadAtExact(at, chunk.data(), length)) {
      io_error_ = true;
      return limit;
    }
    for (uint64_t i = 0; i + sizeof(kPayloadMagic) <= length; ++i) {
      const void* hit = std::memchr(chunk.data() + i, kPayloadMagic[0], length - i);
      if (hit == nullptr) break;
      i = static_cast<const uint8_t*>(hit) - chunk.data();
      if (i + sizeof(kPayloadMagic) > length) break;
      if (std::memcmp(chunk.data() + i, kPayloadMagic, sizeof(kPayloadMagic)) != 0) continue;
      const uint64_t candidate = at + i - kBlockHeaderSize;
      if (candidate >= limit) return limit;
      BlockHeader header;
      if (FramesBlock(candidate, header)) return candidate;
      if (io_error_) return limit;
    }
    // The next chunk overlaps this one by the magic's length less one.
    at += length - (sizeof(kPayloadMagic) - 1);
    if (length < sizeof(kPayloadMagic)) break;
  }
  return limit;
}

bool DayFileReader::Chart(const std::vector<uint64_t>& anchors, std::vector<FileSpan>& spans) {
  spans.clear();
  io_error_ = false;
  framed_offset_ = ~uint64_t{0};
  uint64_t at = kDayFileHeaderSize;
  while (at < size_) {
    BlockHeader header;
    const bool framed = FramesBlock(at, header);
    if (io_error_) return false;
    const uint64_t end = at + kBlockHeaderSize + uint64_t{header.stored_size};
    uint64_t next = size_;
    if (framed) {
      // A block the index names inside this one: this header lies about its
      // size, and the index is believed.
      next = FirstFramingAnchor(anchors, at, end);
      if (io_error_) return false;
      BlockHeader following;
      if (next == end && (end == size_ || FramesBlock(end, following))) {
        spans.push_back(FileSpan{at, end, true, header});
        at = end;
        continue;
      }
      if (io_error_) return false;
      if (next == end) {
        // Nothing frames a block where this one ends: either its size is
        // damaged or the bytes after it are. The next block found decides.
        next = NextFrame(anchors, at);
        if (io_error_) return false;
        if (next >= end) {
          spans.push_back(FileSpan{at, end, true, header});
          if (next > end) spans.push_back(FileSpan{end, next, false, {}});
          at = next;
          continue;
        }
      }
    } else {
      next = NextFrame(anchors, at);
      if (io_error_) return false;
    }
    spans.push_back(FileSpan{at, next, false, {}});
    at = next;
  }
  return true;
}

bool DayFileReader::DecodeSpans(const std::vector<FileSpan>& spans,
                                const std::function<bool(const WalkedBlock&)>& visit) {
  io_error_ = false;
  WalkedBlock block;
  for (const FileSpan& span : spans) {
    if (!span.whole) continue;
    block.offset = span.offset;
    block.header = span.header;
    block.decoded = Decode(span.offset, span.header, raw_);
    if (io_error_) return false;
    block.view = RawBlockView(raw_.Data(), block.decoded ? span.header.raw_size : 0,
                              block.decoded ? span.header.table_offset : 0);
    block.decoded = block.decoded && block.view.EventCount() != 0;
    if (!visit(block)) break;
  }
  return true;
}

}  // namespace Tarn::Storage
