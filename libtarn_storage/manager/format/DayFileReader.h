#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"

namespace Tarn::Storage {

// A stretch of a day file as Chart finds it: a whole block (its header's
// sizes are a block's, its payload lies inside the file and begins like an
// .xz stream) or bytes that frame none: damage, or the torn tail of a write.
struct FileSpan {
  uint64_t offset = 0;
  uint64_t end = 0;
  bool whole = false;
  BlockHeader header;  // of a whole block
};

// One whole block of a chart, read and decoded.
struct WalkedBlock {
  uint64_t offset = 0;  // of its 12-byte header
  BlockHeader header;
  // False when the payload does not decode (checksum, sizes, entry table) or
  // holds no event; `view` is then empty.
  bool decoded = false;
  RawBlockView view{nullptr, 0, 0};

  uint64_t End() const { return offset + kBlockHeaderSize + header.stored_size; }
};

// The one reader of day files: opens a file, checks its header, and charts,
// reads and decodes its blocks. Start-up reconciliation, the writer taking
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
  // Whether the last ReadHeader, Decode, Chart or DecodeSpans failed in the
  // system rather than on the bytes: the file may then be whole, and nothing
  // in it may be dropped or cut.
  bool io_error() const { return io_error_; }

  // Charts the file from its header to its end. After a whole block it goes
  // on at the block's end. Bytes that frame no whole block make one span up
  // to the next offset that does: the first of `anchors` past them (offsets
  // the index names, ascending) where a block starts, or the next place
  // where a block's framing appears. A block is not whole when its extent
  // swallows an anchor where a block starts, or when nothing frames a block
  // at its end and the next block found starts inside it: its size is
  // damaged. False on an I/O error.
  bool Chart(const std::vector<uint64_t>& anchors, std::vector<FileSpan>& spans);
  // Reads and decodes each whole span in file order and hands it to `visit`,
  // which returns false to stop. False on an I/O error.
  bool DecodeSpans(const std::vector<FileSpan>& spans,
                   const std::function<bool(const WalkedBlock&)>& visit);
  // Whether a whole block starts at `offset`: sane sizes that fit the file,
  // and the payload's magic. `header` gets the header's words whenever the
  // file holds them and the magic's bytes. Quiet: a chart asks it of
  // arbitrary bytes. Sets io_error_ when the read fails.
  bool FramesBlock(uint64_t offset, BlockHeader& header);

 private:
  // The first offset in [from, limit) where a whole block starts, or limit.
  uint64_t NextFramedBlock(uint64_t from, uint64_t limit);
  // The first of `anchors` in (after, before) where a whole block starts, or
  // `before`.
  uint64_t FirstFramingAnchor(const std::vector<uint64_t>& anchors, uint64_t after,
                              uint64_t before);
  // The first offset past `after` where a whole block starts: an anchor, or
  // a framing found by scanning; the file's size when there is none.
  uint64_t NextFrame(const std::vector<uint64_t>& anchors, uint64_t after);

  Keel::OS::File owned_;
  Keel::OS::File* file_ = &owned_;
  uint64_t size_ = 0;
  bool io_error_ = false;
  // The last offset FramesBlock looked at: a chart asks about each block's
  // end and then starts there.
  uint64_t framed_offset_ = ~uint64_t{0};
  BlockHeader framed_header_;
  bool framed_ = false;
  Keel::Collections::Buffer payload_;
  Keel::Collections::Buffer raw_;
};

}  // namespace Tarn::Storage
