// A store written before the records and the entry table of a block became
// two streams keeps working: blocks of both forms in one day file are read,
// verified and recovered by the same tools.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>

#include "Keel/Collections/Array.h"
#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"
#include "support/xz_streams.h"
#include "tools/tool_runner.h"

namespace {

namespace fs = std::filesystem;
using namespace Tarn::Storage;  // NOLINT: the block format's few names
using tarn::test::Tool;
using tarn::test::ToolRun;

struct DayFileBlocks {
  std::vector<uint64_t> offsets;
  std::vector<size_t> streams;  // per block: 2 for records then table, 1 for one stream
  uint64_t end = 0;
};

DayFileBlocks BlocksOf(const std::string& path) {
  DayFileBlocks out;
  Keel::OS::File file;
  EXPECT_TRUE(file.Open(path, Keel::OS::File::Mode::Read));
  EXPECT_TRUE(file.GetSize(out.end));
  for (uint64_t offset = kDayFileHeaderSize; offset < out.end;) {
    BlockHeader header;
    Keel::Collections::Buffer payload;
    if (!ReadBlockHeader(file, offset, out.end, header) ||
        !ReadBlockPayload(file, offset, header, payload)) {
      ADD_FAILURE() << path << " at " << offset;
      break;
    }
    std::vector<uint8_t> stream(payload.Data(), payload.Data() + payload.Size());
    for (uint8_t& byte : stream) byte = static_cast<uint8_t>(~byte);
    out.offsets.push_back(offset);
    out.streams.push_back(tarn::test::BlocksPerStream(stream).size());
    offset += kBlockHeaderSize + header.stored_size;
  }
  return out;
}

// The block at `offset` written again behind the file's last block, in the
// one-stream form of stores written before.
void AppendAsOneStream(const std::string& path, uint64_t offset, uint64_t end) {
  Keel::OS::File file;
  ASSERT_TRUE(file.Open(path, Keel::OS::File::Mode::ReadWrite));
  BlockHeader header;
  Keel::Collections::Buffer payload, raw;
  ASSERT_TRUE(ReadBlockHeader(file, offset, end, header) &&
              ReadBlockPayload(file, offset, header, payload) &&
              DecodeBlock(payload, header, raw));
  Keel::Collections::Array<BlockEntry> entries;
  const uint32_t count = (header.raw_size - header.table_offset) / kEntrySize;
  ASSERT_TRUE(entries.Create(count));
  for (uint32_t i = 0; i < count; ++i) {
    BlockEntry entry;
    std::memcpy(&entry, raw.Data() + header.table_offset + i * kEntrySize, kEntrySize);
    entries.Add(entry);
  }
  raw.Resize(header.table_offset);
  Keel::Collections::Buffer again;
  EncodedBlock encoded;
  ASSERT_TRUE(EncodeBlock(raw, entries, again, encoded, {}, PayloadForm::kOneStream));
  ASSERT_TRUE(WriteBlock(file, end, encoded.header, again));
}

size_t Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

TEST(PayloadForms, AStoreHoldingBlocksOfBothFormsReadsVerifiesAndRecovers) {
  tarn::test::TempDir dir;
  const std::string store = dir.File("store");
  ToolRun run = Tool::Run({"--quiet", "ingest", "--store", store, "--synthetic", "--events",
                           "3000", "--days", "1", "--end", "2026-11-20", "--block-size", "100K"},
                          dir.path());
  ASSERT_EQ(run.status, 0) << run.err;
  std::string day_file;
  for (const auto& entry : fs::directory_iterator(store)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("storage.", 0) == 0 && name.size() > 3 &&
        name.substr(name.size() - 3) == ".db" && name != "storage.final.db" &&
        (day_file.empty() || fs::file_size(entry.path()) > fs::file_size(day_file))) {
      day_file = entry.path().string();
    }
  }
  ASSERT_FALSE(day_file.empty());
  const DayFileBlocks before = BlocksOf(day_file);
  ASSERT_GE(before.offsets.size(), 2u);
  for (size_t streams : before.streams) EXPECT_EQ(streams, 2u);
  const size_t exported = Lines(Tool::Run({"--quiet", "export", "--store", store}, dir.path()).out);
  ASSERT_EQ(exported, 3000u);

  // The day's last block once more, as a store written before would hold it.
  AppendAsOneStream(day_file, before.offsets.back(), before.end);
  const DayFileBlocks after = BlocksOf(day_file);
  ASSERT_EQ(after.streams.size(), before.streams.size() + 1);
  EXPECT_EQ(after.streams.back(), 1u);

  // The next start takes the block in; then every tool reads both forms.
  run = Tool::Run({"--quiet", "export", "--store", store}, dir.path());
  ASSERT_EQ(run.status, 0) << run.err;
  const size_t with_old = Lines(run.out);
  EXPECT_GT(with_old, exported);
  run = Tool::Run({"--quiet", "verify", "--store", store}, dir.path());
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  run = Tool::Run({"--quiet", "recover", "--store", store}, dir.path());
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_EQ(Lines(Tool::Run({"--quiet", "export", "--store", store}, dir.path()).out), with_old);
  EXPECT_EQ(BlocksOf(day_file).streams, after.streams);  // recover rewrote nothing
}

}  // namespace
