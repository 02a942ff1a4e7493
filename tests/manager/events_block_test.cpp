#include "manager/format/EventsBlock.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Keel/Lzma.h"
#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/File.h"
#include "block_samples.h"
#include "manager/format/DayFile.h"
#include "Tarn/Events/Record.h"
#include "support/log_capture.h"
#include "support/xz_streams.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

using Keel::Collections::Buffer;
using Keel::OS::File;
namespace Faults = Keel::OS::Faults;
using tarn::test::LogCapture;
using tarn::test::ReadWholeFile;
using test::Bytes;
using test::MakeSampleBlock;
using test::SampleBlock;

std::string Le32(uint32_t value) {
  std::string out(4, '\0');
  for (int i = 0; i < 4; ++i) out[i] = static_cast<char>(value >> (8 * i));
  return out;
}

// The raw block a sample must decode to: its records, then its table.
std::string ExpectedRaw(const SampleBlock& block) {
  std::string out;
  for (const std::string& record : block.records) out += record;
  uint32_t offset = 0;
  for (size_t i = 0; i < block.records.size(); ++i) {
    out += Le32(offset) + Le32(block.seconds[i]);
    offset += static_cast<uint32_t>(block.records[i].size());
  }
  return out;
}

// Walks the decoded block through the view and compares each event.
void ExpectEvents(const std::string& raw, const SampleBlock& block) {
  uint32_t table_offset = static_cast<uint32_t>(raw.size() - 8 * block.records.size());
  RawBlockView view(reinterpret_cast<const uint8_t*>(raw.data()), static_cast<uint32_t>(raw.size()),
                    table_offset);
  ASSERT_EQ(view.EventCount(), block.records.size());
  for (uint32_t i = 0; i < view.EventCount(); ++i) {
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    ASSERT_TRUE(view.Event(i, data, size));
    EXPECT_EQ(Bytes(data, size), block.records[i]);
    EXPECT_EQ(view.Second(i), block.seconds[i]);
  }
  const uint8_t* data = nullptr;
  uint32_t size = 0;
  EXPECT_FALSE(view.Event(view.EventCount(), data, size));
  EXPECT_EQ(view.Second(view.EventCount()), RawBlockView::kNoSecond);
}

class EventsBlockTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    Faults::ClearRules();
    Faults::EnableCrashTracking(false);
  }

  std::string Path() const { return dir_.File("storage.00001.002.db"); }

  // Encodes and appends a block at `offset`; returns the offset after it.
  uint64_t Append(File& file, uint64_t offset, SampleBlock& block, BlockHeader* header = nullptr,
                  const Keel::Lzma::Options& options = {}) {
    Buffer payload;
    EncodedBlock encoded;
    EXPECT_TRUE(EncodeBlock(block.raw, block.entries, payload, encoded, options));
    EXPECT_TRUE(WriteBlock(file, offset, encoded.header, payload));
    if (header != nullptr) *header = encoded.header;
    return offset + kBlockHeaderSize + encoded.header.stored_size;
  }

  // Reads every block of the file from the first on, decoded.
  std::vector<std::string> ReadAll(File& file) {
    uint64_t size = 0;
    EXPECT_TRUE(file.GetSize(size));
    std::vector<std::string> out;
    for (uint64_t offset = kDayFileHeaderSize; offset < size;) {
      BlockHeader header;
      Buffer payload, raw;
      if (!ReadBlockHeader(file, offset, size, header) ||
          !ReadBlockPayload(file, offset, header, payload) || !DecodeBlock(payload, header, raw)) {
        ADD_FAILURE() << "block at " << offset;
        break;
      }
      out.push_back(Bytes(raw));
      offset += kBlockHeaderSize + header.stored_size;
    }
    return out;
  }

  tarn::test::TempDir dir_;
};

TEST_F(EventsBlockTest, OneEventBlockHasItsTableBehindTheRecordAndAnInvertedXzPayload) {
  SampleBlock block = MakeSampleBlock({40}, 45296);
  Buffer payload;
  EncodedBlock encoded;
  ASSERT_TRUE(EncodeBlock(block.raw, block.entries, payload, encoded));
  EXPECT_EQ(encoded.header.table_offset, 40u);
  EXPECT_EQ(encoded.header.raw_size, 48u);
  EXPECT_EQ(encoded.header.stored_size, payload.Size());
  EXPECT_EQ(encoded.event_count, 1u);
  EXPECT_EQ(encoded.first_second, 45296u);
  EXPECT_EQ(encoded.last_second, 45296u);
  EXPECT_EQ(Bytes(block.raw), block.records[0] + std::string("\0\0\0\0\xF0\xB0\0\0", 8));

  std::string stream = Bytes(payload);
  for (char& c : stream) c = static_cast<char>(~c);
  EXPECT_EQ(stream.substr(0, 6), std::string("\xFD\x37\x7A\x58\x5A\x00", 6));
  Buffer plain;
  ASSERT_TRUE(Keel::Lzma::Uncompress(stream.data(), stream.size(), plain, 48));
  EXPECT_EQ(Bytes(plain), Bytes(block.raw));

  // On disk: three little-endian words, then the payload as it is.
  File file;
  ASSERT_TRUE(CreateDayFile(Path(), file));
  ASSERT_TRUE(WriteBlock(file, kDayFileHeaderSize, encoded.header, payload));
  std::string disk = ReadWholeFile(Path());
  EXPECT_EQ(disk.substr(20), Le32(payload.Size()) + Le32(48) + Le32(40) + Bytes(payload));
}

// Each way a block's payload is laid out (the records as one xz block or in
// pieces, then the table; or the one stream of stores written before)
// decodes with the stock xz program to exactly its raw block, and the three
// read back one after the other from one day file.
TEST_F(EventsBlockTest, EveryPayloadFormDecodesWithTheStockXzToItsRawBlock) {
  struct Form {
    const char* name;
    bool one_block;
    PayloadForm form;
  };
  const Form forms[] = {{"records as one block, then the table", true,
                         PayloadForm::kRecordsThenTable},
                        {"records in pieces, then the table", false, PayloadForm::kRecordsThenTable},
                        {"one stream", false, PayloadForm::kOneStream}};
  File file;
  ASSERT_TRUE(CreateDayFile(Path(), file));
  uint64_t offset = kDayFileHeaderSize;
  std::vector<std::string> written;
  for (const Form& f : forms) {
    SCOPED_TRACE(f.name);
    SampleBlock block = MakeSampleBlock(std::vector<uint32_t>(3000, 1500), 7200);
    Buffer payload;
    EncodedBlock encoded;
    Keel::Lzma::Options options{6, 2};
    options.one_block = f.one_block;
    ASSERT_TRUE(EncodeBlock(block.raw, block.entries, payload, encoded, options, f.form));
    std::vector<uint8_t> stream(payload.Data(), payload.Data() + payload.Size());
    for (uint8_t& byte : stream) byte = static_cast<uint8_t>(~byte);
    bool xz_read = false;
    const std::vector<uint8_t> decoded = tarn::test::XzDecoded(stream, xz_read);
    EXPECT_TRUE(xz_read);
    EXPECT_EQ(std::string(decoded.begin(), decoded.end()), Bytes(block.raw));
    ASSERT_TRUE(WriteBlock(file, offset, encoded.header, payload));
    offset += kBlockHeaderSize + encoded.header.stored_size;
    written.push_back(Bytes(block.raw));
  }
  EXPECT_EQ(ReadAll(file), written);
}

TEST_F(EventsBlockTest, TablesAreCheckedBeforeAnythingIsAppended) {
  SampleBlock block = MakeSampleBlock({30, 30, 30}, 100);
  // The upper 15 bits of the second word are not ours to keep.
  block.entries.Get(2)->second_word |= 0xFFFE0000u;

  auto expect_refused = [](SampleBlock& bad) {
    uint64_t size = bad.raw.Size();
    Buffer payload;
    EncodedBlock encoded;
    LogCapture log;
    EXPECT_FALSE(EncodeBlock(bad.raw, bad.entries, payload, encoded));
    EXPECT_EQ(bad.raw.Size(), size);
    EXPECT_FALSE(log.Empty());
  };
  SampleBlock empty;
  expect_refused(empty);
  for (auto damage : std::vector<void (*)(SampleBlock&)>{
           [](SampleBlock& b) { b.entries.Get(0)->offset = 1; },
           [](SampleBlock& b) { b.entries.Get(2)->offset = b.entries.Get(1)->offset; },
           [](SampleBlock& b) { b.entries.Get(2)->offset = 10; },
           [](SampleBlock& b) { b.entries.Get(2)->offset = 90; },  // the records' end
           [](SampleBlock& b) { b.entries.Get(1)->second_word = kSecondsPerDay; },
       }) {
    SampleBlock bad = MakeSampleBlock({30, 30, 30}, 100);
    damage(bad);
    expect_refused(bad);
  }

  Buffer payload, raw;
  EncodedBlock encoded;
  ASSERT_TRUE(EncodeBlock(block.raw, block.entries, payload, encoded));
  EXPECT_EQ(encoded.last_second, 102u);
  ASSERT_TRUE(DecodeBlock(payload, encoded.header, raw));
  EXPECT_EQ(Bytes(raw), ExpectedRaw(block));
}

TEST_F(EventsBlockTest, BlocksWrittenOneAfterAnotherReadBackEqual) {
  std::vector<SampleBlock> blocks;
  blocks.push_back(MakeSampleBlock({24}, 0, 1));
  blocks.push_back(MakeSampleBlock(std::vector<uint32_t>(500, 333), 86000, 2));  // wraps at 86399
  // Large enough for the two-thread encoder to cut it into two xz blocks.
  blocks.push_back(MakeSampleBlock(std::vector<uint32_t>(9000, 300), 7, 3));
  Faults::EnableCrashTracking(true);
  File file;
  ASSERT_TRUE(CreateDayFile(Path(), file));
  uint64_t offset = kDayFileHeaderSize;
  for (size_t i = 0; i < blocks.size(); ++i) {
    BlockHeader header;
    Keel::Lzma::Options options{i == 2 ? 0u : 6u, i == 2 ? 2u : 1u};
    offset = Append(file, offset, blocks[i], &header, options);
    EXPECT_EQ(Faults::PendingFiles(), 0u);  // each block is durable on return
  }
  Faults::SimulatePowerCut();

  uint64_t size = 0;
  ASSERT_EQ(OpenDayFileForAppend(Path(), file, size), AppendOpen::kOk);
  EXPECT_EQ(size, offset);
  std::vector<std::string> read = ReadAll(file);
  ASSERT_EQ(read.size(), blocks.size());
  for (size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_EQ(read[i], ExpectedRaw(blocks[i])) << i;
    ExpectEvents(read[i], blocks[i]);
  }
}

// A write failing at any step, and its mending, are swept in
// fault_sweep_test.cpp.
TEST_F(EventsBlockTest, ArgumentsThatCannotMakeABlockAreRefusedBeforeAnyWrite) {
  SampleBlock block = MakeSampleBlock({64}, 1);
  Buffer payload;
  EncodedBlock encoded;
  ASSERT_TRUE(EncodeBlock(block.raw, block.entries, payload, encoded));
  File file;
  ASSERT_TRUE(CreateDayFile(Path(), file));
  BlockHeader wrong = encoded.header;
  wrong.stored_size += 1;
  EXPECT_FALSE(WriteBlock(file, kDayFileHeaderSize, wrong, payload));
  EXPECT_FALSE(WriteBlock(file, 1ull << 32, encoded.header, payload));
  EXPECT_EQ(ReadWholeFile(Path()).size(), kDayFileHeaderSize);
}

TEST_F(EventsBlockTest, HeadersThatCannotBelongToAStoredBlockAreRefused) {
  SampleBlock block = MakeSampleBlock({64, 64}, 1);
  File file;
  ASSERT_TRUE(CreateDayFile(Path(), file));
  BlockHeader good;
  uint64_t end = Append(file, kDayFileHeaderSize, block, &good);
  BlockHeader header;
  ASSERT_TRUE(ReadBlockHeader(file, kDayFileHeaderSize, end, header));
  EXPECT_EQ(header.stored_size, good.stored_size);
  EXPECT_EQ(header.raw_size, good.raw_size);
  EXPECT_EQ(header.table_offset, good.table_offset);

  LogCapture log;
  EXPECT_FALSE(ReadBlockHeader(file, end - 1, end, header));  // header past the end
  EXPECT_FALSE(ReadBlockHeader(file, end + 12, end, header));
  EXPECT_FALSE(ReadBlockHeader(file, kDayFileHeaderSize, end - 1, header));  // payload
  const BlockHeader bad[] = {
      {good.stored_size, good.raw_size, good.raw_size},          // no table
      {good.stored_size, good.raw_size, good.raw_size + 8},      // table before zero
      {good.stored_size, good.raw_size + 1, good.table_offset},  // a partial entry
      {0, good.raw_size, good.table_offset},                     // no payload
      {good.stored_size, 524'288'008 + 8, 524'288'008},          // records too large
      {good.stored_size, 4 + 8 * 5, 4},                          // more events than bytes
  };
  for (const BlockHeader& h : bad) {
    std::string words = Le32(h.stored_size) + Le32(h.raw_size) + Le32(h.table_offset);
    ASSERT_TRUE(file.WriteAt(kDayFileHeaderSize, words.data(), words.size()));
    EXPECT_FALSE(ReadBlockHeader(file, kDayFileHeaderSize, end, header)) << h.raw_size;
    Buffer payload, raw;
    payload.Resize(h.stored_size);
    EXPECT_FALSE(DecodeBlock(payload, h, raw));
  }
  EXPECT_EQ(header.raw_size, good.raw_size);  // failures leave the output alone
  EXPECT_GE(log.Count(Keel::Log::Error), 2 * std::size(bad) + 3);
}

// A damaged stream fails in Keel::Lzma (lzma_test.cpp) and, under a running
// store, in reader_damage_test.cpp; here a stream that decodes fine but
// carries a broken table is refused too.
TEST_F(EventsBlockTest, BlocksWithABrokenTableFailToDecodeCleanly) {
  SampleBlock block = MakeSampleBlock({200, 100, 300}, 500);
  Buffer payload, raw;
  EncodedBlock encoded;
  ASSERT_TRUE(EncodeBlock(block.raw, block.entries, payload, encoded));
  LogCapture log;
  raw.PushFill(0xAA, 10);
  // Bits above the second are ignored. Entries: (0, 500) (200, 501) (300, 502).
  auto set_word = [](Buffer& b, uint32_t entry, uint32_t word, uint32_t value) {
    Events::Record::StoreUInt32(b.Data() + 600 + entry * 8 + word * 4, value);
  };
  struct Damage {
    uint32_t entry, word, value;
    bool decodes;
  };
  for (const Damage& d :
       {Damage{0, 0, 1, false}, Damage{2, 0, 200, false}, Damage{1, 0, 600, false},
        Damage{2, 1, kSecondsPerDay, false}, Damage{2, 1, 0xFFFE0000u | 502, true}}) {
    Buffer bad_raw;
    bad_raw.Push(block.raw.Data(), block.raw.Size());
    set_word(bad_raw, d.entry, d.word, d.value);
    Buffer stream;
    ASSERT_TRUE(Keel::Lzma::Compress(bad_raw.Data(), bad_raw.Size(), stream));
    InvertBytes(stream.Data(), stream.Size());
    BlockHeader header{static_cast<uint32_t>(stream.Size()), encoded.header.raw_size, 600};
    EXPECT_EQ(DecodeBlock(stream, header, raw), d.decodes) << d.entry << " " << d.value;
    EXPECT_EQ(raw.Empty(), !d.decodes);
  }
  EXPECT_GE(log.Count(Keel::Log::Error), 4u);

  // The view itself never leaves the records, whatever the table says.
  Buffer bad_raw;
  bad_raw.Push(block.raw.Data(), block.raw.Size());
  set_word(bad_raw, 1, 0, 0x10C8);
  RawBlockView view(bad_raw.Data(), encoded.header.raw_size, 600);
  const uint8_t* data = nullptr;
  uint32_t size = 0;
  EXPECT_FALSE(view.Event(0, data, size));
  EXPECT_FALSE(view.Event(1, data, size));
  EXPECT_TRUE(view.Event(2, data, size));
  EXPECT_EQ(RawBlockView(bad_raw.Data(), 500, 600).EventCount(), 0u);
}

}  // namespace
}  // namespace Tarn::Storage
