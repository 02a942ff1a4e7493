#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"

namespace Tarn::Storage {

// One block met by a walk over a day file.
struct WalkedBlock {
  uint64_t offset = 0;  // of its 12-byte header
  BlockHeader header;
  // False when the payload does not decode (checksum, sizes, entry table) or
  // holds no event; `view` is then empty.
  bool decoded = false;
  RawBlockView view{nullptr, 0, 0};

  uint64_t End() const { return offset + kBlockHeaderSize + header.stored_size; }
};

// The one reader of day files: opens a file, checks its header, and reads,
// decodes and walks its blocks. Start-up reconciliation, the writer taking
// over a file, and the tool's offline commands all read day files through it.
class DayFileReader {
 public:
  // Opens `path` and checks its header against `version` (the version its
  // name carries). False when the file cannot be opened or sized (`check` is
  // ReadFailed) or its header is not a day file's (`check` says why).
  bool Open(const std::string& path, DayFileCheck& check,
            Keel::OS::File::Mode mode = Keel::OS::File::Mode::Read,
            uint32_t version = kDayFileFormatVersion);
  // Reads through a file that is already open and whose header was checked.
  bool Attach(Keel::OS::File& file);

  uint64_t Size() const { return size_; }
  Keel::OS::File& file() { return *file_; }

  // The block header at `offset`; false when it or its payload would pass
  // the end of the file or its sizes are not a block's.
  bool ReadHeader(uint64_t offset, BlockHeader& header);
  // Reads and decodes the block: `raw` then holds its records and entry
  // table. False when the bytes do not decode.
  bool Decode(uint64_t offset, const BlockHeader& header, Keel::Collections::Buffer& raw);
  // Whether the last ReadHeader, Decode or Walk failed in the system rather
  // than on the bytes: the file may then be whole, and nothing in it may be
  // dropped or cut.
  bool io_error() const { return io_error_; }

  // Visits the blocks that follow one another from `offset` while each
  // header fits in the file; stops at an I/O error. `visit` returns false to stop at a block, which
  // is then not counted. Returns the offset after the last block counted:
  // where the next block goes, or where a torn tail begins.
  uint64_t Walk(uint64_t offset, const std::function<bool(const WalkedBlock&)>& visit);

 private:
  Keel::OS::File owned_;
  Keel::OS::File* file_ = &owned_;
  uint64_t size_ = 0;
  bool io_error_ = false;
  Keel::Collections::Buffer payload_;
  Keel::Collections::Buffer raw_;
};

}  // namespace Tarn::Storage
