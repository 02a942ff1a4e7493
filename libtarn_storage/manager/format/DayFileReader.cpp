#include "manager/format/DayFileReader.h"

namespace Tarn::Storage {

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

uint64_t DayFileReader::Walk(uint64_t offset,
                             const std::function<bool(const WalkedBlock&)>& visit) {
  WalkedBlock block;
  io_error_ = false;
  while (offset + kBlockHeaderSize <= size_ && ReadHeader(offset, block.header)) {
    block.offset = offset;
    block.decoded = Decode(offset, block.header, raw_);
    if (io_error_) break;
    block.view = RawBlockView(raw_.Data(), block.decoded ? block.header.raw_size : 0,
                              block.decoded ? block.header.table_offset : 0);
    block.decoded = block.decoded && block.view.EventCount() != 0;
    if (!visit(block)) break;
    offset = block.End();
  }
  return offset;
}

}  // namespace Tarn::Storage
