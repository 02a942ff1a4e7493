#include "support/store_fixture.h"

#include <cstring>
#include <string>

#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"
#include "manager/format/EventsBlock.h"
#include "manager/format/FinalFile.h"
#include "manager/index/Index.h"
#include "manager/writer/Settings.h"
#include "manager/format/StorageHelper.h"
#include "manager/format/StorageHelper.h"

namespace tarn::test {

std::vector<uint8_t> MakeEvent(uint32_t tag, uint32_t size, uint32_t type_id,
                               bool do_not_store) {
  // Header 24, one u32 tag, one text slot of 2 and the text with its NUL.
  constexpr uint32_t kOverhead = 24 + 4 + 2 + 1;
  std::string padding(size > kOverhead ? size - kOverhead : 0, 'x');
  for (size_t i = 0; i < padding.size(); ++i) padding[i] = static_cast<char>('a' + (tag + i) % 26);
  Tarn::Events::DynamicEventBuilder builder;
  builder.Begin(type_id, 1, 0);
  builder.SetDoNotStore(do_not_store);
  builder.AddUInt32(tag);
  builder.AddText(padding);
  if (!builder.Finish()) return {};
  return std::vector<uint8_t>(builder.Data(), builder.Data() + builder.Size());
}

uint32_t TagOf(const std::vector<uint8_t>& record) {
  uint32_t tag = 0;
  if (record.size() >= 28) std::memcpy(&tag, record.data() + 24, 4);
  return tag;
}

namespace {

void AppendEvents(uint16_t day, const Keel::Collections::Buffer& raw, uint32_t table_offset,
                  std::vector<StoredEvent>& out) {
  Tarn::Storage::RawBlockView view(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset);
  for (uint32_t i = 0; i < view.EventCount(); ++i) {
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    if (!view.Event(i, data, size)) continue;
    out.push_back({day, view.Second(i), std::vector<uint8_t>(data, data + size)});
  }
}

}  // namespace

bool ReadIndexedEvents(const std::string& directory, std::vector<StoredEvent>& out) {
  using namespace Tarn::Storage;
  Index index;
  index.set_directory(directory);
  Settings settings = Settings::default_();
  Keel::Utils::String path(Keel::OS::Path::Join(directory, Index::FILENAME));
  if (!index.try_load_existing(settings, path)) return true;  // no index: nothing named
  bool ok = true;
  index.tree().Iterate(
      [&](const uint16_t& day, DayInfo& info, void*, bool&) {
        for (uint32_t i = 0; i < info.GetBlockCount(); ++i) {
          const BlockInfo* block = info.GetBlock(i);
          Keel::OS::File file;
          uint64_t size = 0;
          BlockHeader header;
          Keel::Collections::Buffer payload;
          Keel::Collections::Buffer raw;
          std::string name = Utils::DayFileName(day, block->version);
          if (!file.Open(Keel::OS::Path::Join(directory, name), Keel::OS::File::Mode::Read) ||
              !file.GetSize(size) || !ReadBlockHeader(file, block->block_offset, size, header) ||
              !ReadBlockPayload(file, block->block_offset, header, payload) ||
              !DecodeBlock(payload, header, raw)) {
            ok = false;
            continue;
          }
          AppendEvents(day, raw, header.table_offset, out);
        }
        return true;
      },
      nullptr, false);
  return ok;
}

bool ReadFinalEvents(const std::string& directory, std::vector<StoredEvent>& out) {
  using namespace Tarn::Storage;
  Keel::Collections::Buffer raw;
  uint32_t table_offset = 0;
  uint32_t count = 0;
  uint16_t day = 0;
  std::string path = Keel::OS::Path::Join(directory, Utils::kFinalFileName);
  FinalFileState state = ReadFinalFile(path, raw, table_offset, count, day);
  if (state == FinalFileState::Absent) return true;
  if (state != FinalFileState::Ok) return false;
  AppendEvents(day, raw, table_offset, out);
  return true;
}

uint64_t DayFileBytes(const std::string& directory) {
  std::vector<std::string> names;
  Keel::OS::FileSystem::ListDirectory(directory, names);
  uint64_t total = 0;
  for (const std::string& name : names) {
    uint16_t day = 0;
    uint8_t version = 0;
    uint64_t size = 0;
    if (Tarn::Storage::Utils::IsStorageFile(name.c_str(), false, day, version) &&
        Keel::OS::FileSystem::GetFileSize(Keel::OS::Path::Join(directory, name), size)) {
      total += size;
    }
  }
  return total;
}

}  // namespace tarn::test
