// tarn verify: reads every block of a closed store, decodes it and checks it
// against the index, with the store's own format code.

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "Tarn/Events/EventHeader.h"
#include "Tarn/Events/Record.h"
#include "manager/format/FinalFile.h"
#include "manager/format/StorageHelper.h"
#include "osquery/Tables.h"
#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/cli/Progress.h"
#include "tarn/cli/TextForms.h"
#include "tarn/offline/StoreFiles.h"
#include "tarn/offline/StoreLock.h"

namespace Tarn::Tool {
namespace {

using Storage::BlockHeader;
using Storage::BlockInfo;
using Storage::DayFileCheck;
using Storage::RawBlockView;

const char* CheckName(DayFileCheck check) {
  switch (check) {
    case DayFileCheck::Ok: return "ok";
    case DayFileCheck::TooShort: return "shorter than its 20-byte header";
    case DayFileCheck::ReadFailed: return "cannot be read";
    case DayFileCheck::BadMagic: return "does not begin with ETRN";
    case DayFileCheck::BadReserved: return "has nonzero reserved header bytes";
    case DayFileCheck::BadVersion: return "has an unknown format version";
    case DayFileCheck::BadTrailer: return "has a damaged header";
  }
  return "has a damaged header";
}

class Verifier {
 public:
  explicit Verifier(std::string directory) : directory_(std::move(directory)) {}
  int Run();

 private:
  void Fault(const std::string& text) {
    ++faults_;
    std::printf("FAULT    %s\n", text.c_str());
  }
  void Warn(const std::string& text) {
    ++warnings_;
    std::printf("warning  %s\n", text.c_str());
  }
  void CheckIndex();
  void CheckDay(uint16_t day, Storage::DayInfo& info);
  void CheckVersion(uint16_t day, Storage::DayInfo& info, uint8_t version);
  void CheckBlock(const std::string& where, DayFileReader& reader, const BlockInfo& block,
                  uint64_t& end);
  // Checks the records of a decoded block; the first bad one becomes a fault.
  void CheckRecords(const std::string& where, const uint8_t* raw, uint32_t raw_size,
                    uint32_t table_offset);
  void CheckUnnamedStretches(const std::string& name, DayFileReader& reader,
                             Storage::DayInfo& info, uint8_t version);
  void CheckLooseFiles();
  void CheckAsideFiles();
  void CheckFinal();

  std::string directory_;
  StoreListing listing_;
  Storage::Index index_;
  IndexState state_ = IndexState::kMissing;
  std::unique_ptr<Progress> progress_;
  uint64_t bytes_done_ = 0;
  uint64_t faults_ = 0;
  uint64_t warnings_ = 0;
  uint64_t blocks_ = 0;
  uint64_t events_ = 0;
  uint64_t untabled_ = 0;
  uint64_t out_of_order_ = 0;
  Keel::Collections::Buffer raw_;
};

int Verifier::Run() {
  std::string error;
  if (!ListStore(directory_, listing_, error)) {
    PrintError(error);
    return 1;
  }
  uint64_t total = 0;
  for (const DayFileEntry& file : listing_.day_files) total += file.size;
  progress_ = std::make_unique<Progress>("verify", total, "bytes");
  CheckIndex();
  if (state_ == IndexState::kLoaded) {
    index_.tree().Iterate(
        [this](const uint16_t& day, Storage::DayInfo& info, void*, bool&) {
          CheckDay(day, info);
          return true;
        },
        nullptr);
  }
  CheckLooseFiles();
  CheckAsideFiles();
  CheckFinal();
  progress_->Finish();
  if (untabled_ != 0) {
    Warn(Counted(untabled_, "event") +
         (untabled_ == 1 ? " is of a type" : " are of types") +
         " without a table (queries pass them by)");
  }
  if (out_of_order_ != 0) {
    Warn(Counted(out_of_order_, "event") + (out_of_order_ == 1 ? " comes" : " come") +
         " before the second of the event ahead of them");
  }
  std::printf("checked %s and %s in %s: %s%s\n", Counted(blocks_, "block").c_str(),
              Counted(events_, "event").c_str(),
              Counted(listing_.day_files.size(), "day file").c_str(),
              faults_ == 0 ? "no faults" : Counted(faults_, "fault").c_str(),
              warnings_ == 0 ? "" : (", " + Counted(warnings_, "warning")).c_str());
  return faults_ == 0 ? 0 : 1;
}

void Verifier::CheckIndex() {
  uint32_t records = 0;
  state_ = LoadIndexFile(directory_, index_, records);
  if (state_ == IndexState::kMissing) {
    if (!listing_.day_files.empty()) {
      Fault(
          "storage.index.db is missing: the store cannot reach the events of its day files "
          "(`tarn recover` rebuilds it)");
    }
    return;
  }
  if (state_ == IndexState::kUnusable) {
    Fault("storage.index.db cannot be read (`tarn recover` rebuilds it)");
    return;
  }
  uint64_t loaded = IndexedBlocks(index_);
  if (loaded != records) {
    Fault("storage.index.db holds " + FormatCount(records) + " block records but only " +
          FormatCount(loaded) + " are sound");
  }
}

void Verifier::CheckDay(uint16_t day, Storage::DayInfo& info) {
  for (uint32_t v = 0; v < info.GetVersionCount(); ++v) {
    CheckVersion(day, info, info.GetVersion(v)->version);
  }
}

void Verifier::CheckVersion(uint16_t day, Storage::DayInfo& info, uint8_t version) {
  const std::string name = Storage::Utils::DayFileName(day, version);
  uint32_t indexed = 0;
  for (uint32_t b = 0; b < info.GetBlockCount(); ++b)
    indexed += info.GetBlock(b)->version == version;
  const DayFileEntry* file = listing_.Find(day, version);
  if (file == nullptr) {
    if (indexed != 0) {
      Fault(name + " is missing: the index names " + Counted(indexed, "block") + " in it");
    }
    return;
  }
  DayFileReader reader;
  DayFileCheck check = DayFileCheck::ReadFailed;
  if (!reader.Open(directory_ + "/" + name, check)) {
    Fault(name + " " + CheckName(check));
    return;
  }
  uint64_t end = Storage::kDayFileHeaderSize;
  uint32_t number = 0;
  for (uint32_t b = 0; b < info.GetBlockCount(); ++b) {
    const BlockInfo* block = info.GetBlock(b);
    if (block->version != version) continue;
    std::string where = name + " block " + std::to_string(number++) + " (offset " +
                        std::to_string(block->block_offset) + ")";
    CheckBlock(where, reader, *block, end);
  }
  if (reader.Size() > end) {
    Warn(name + ": " + FormatCount(reader.Size() - end) +
         " bytes after the last indexed block (left by a crash: the store puts a whole block "
         "back and cuts the rest at its next start)");
  }
  CheckUnnamedStretches(name, reader, info, version);
}

void Verifier::CheckUnnamedStretches(const std::string& name, DayFileReader& reader,
                                     Storage::DayInfo& info, uint8_t version) {
  // Stretches between the blocks the index names: damaged bytes, whole
  // blocks whose records the index lost, or blocks the recover tool passed
  // over because they do not decode. Nothing indexed lies there: warnings.
  std::vector<uint64_t> anchors;
  for (uint32_t b = 0; b < info.GetBlockCount(); ++b) {
    if (info.GetBlock(b)->version == version) anchors.push_back(info.GetBlock(b)->block_offset);
  }
  std::sort(anchors.begin(), anchors.end());
  std::vector<Storage::FileSpan> spans;
  if (!reader.Chart(anchors, spans)) {
    Fault(name + " cannot be read through");
    return;
  }
  for (const Storage::FileSpan& span : spans) {
    // An indexed block was checked above; bytes after the last one were
    // warned of above.
    const bool named = std::lower_bound(anchors.begin(), anchors.end(), span.offset) !=
                       std::lower_bound(anchors.begin(), anchors.end(), span.end);
    if (named || (&span == &spans.back() && !span.whole)) continue;
    const std::string where = name + ": bytes " + std::to_string(span.offset) + " to " +
                              std::to_string(span.end);
    if (!span.whole) {
      Warn(where + " hold no whole block and no index record names them");
    } else if (reader.Decode(span.offset, span.header, raw_)) {
      Warn(where + " hold a whole block the index does not name (the store puts it back at " +
           "its next start)");
    } else {
      Warn(where + " hold a block that does not decode, which no index record names: its " +
           "events are lost");
    }
  }
}

// Whether a block's header was cut off by the file's end, or its sizes are
// sane and only its payload was: rather than damaged header words.
bool CutInside(DayFileReader& reader, uint64_t offset) {
  if (offset + Storage::kBlockHeaderSize + sizeof(Storage::kPayloadMagic) > reader.Size()) {
    return true;
  }
  BlockHeader words;
  reader.FramesBlock(offset, words);
  return Storage::BlockSizesAreSane(words) &&
         words.stored_size > reader.Size() - offset - Storage::kBlockHeaderSize;
}

void Verifier::CheckBlock(const std::string& where, DayFileReader& reader, const BlockInfo& block,
                          uint64_t& end) {
  ++blocks_;
  if (block.block_offset < end) {
    Fault(where + " overlaps the block before it");
    return;
  }
  // A block whose header words are damaged tells nothing of where it ends:
  // the next one is measured from its start.
  end = block.block_offset + Storage::kBlockHeaderSize;
  BlockHeader header;
  if (!reader.ReadHeader(block.block_offset, header)) {
    if (CutInside(reader, block.block_offset)) {
      Fault(where + " reaches past the end of the file (" + FormatCount(reader.Size()) +
            " bytes): the file was cut short");
      end = reader.Size();
    } else {
      Fault(where + " has a damaged header: its sizes fit no block");
    }
    return;
  }
  end += header.stored_size;
  bytes_done_ += Storage::kBlockHeaderSize + uint64_t{header.stored_size};
  progress_->Update(bytes_done_);
  if (!reader.Decode(block.block_offset, header, raw_)) {
    Fault(where + " does not decode: its bytes are damaged (checksum or sizes)");
    return;
  }
  RawBlockView view(raw_.Data(), header.raw_size, header.table_offset);
  if (view.EventCount() != block.events_count) {
    Fault(where + " holds " + FormatCount(view.EventCount()) + " events, the index says " +
          FormatCount(block.events_count));
  } else if (view.Second(0) != block.start_seconds ||
             view.Second(view.EventCount() - 1) != block.end_seconds) {
    Fault(where + " covers other seconds than the index says");
  }
  CheckRecords(where, raw_.Data(), header.raw_size, header.table_offset);
}

void Verifier::CheckRecords(const std::string& where, const uint8_t* raw, uint32_t raw_size,
                            uint32_t table_offset) {
  RawBlockView view(raw, raw_size, table_offset);
  for (uint32_t i = 0; i < view.EventCount(); ++i) {
    const uint8_t* record = nullptr;
    uint32_t size = 0;
    if (!view.Event(i, record, size)) {
      Fault(where + ": entry " + std::to_string(i) + " points outside the block's records");
      return;
    }
    Events::EventHeader header(record, size);
    if (!header.Valid()) {
      Fault(where + ": event " + std::to_string(i) + " is not a whole record (its size field " +
            "says " +
            std::to_string(Events::Record::LoadUInt16(record + Events::Record::kSizeOffset)) +
            ", its entry " + std::to_string(size) + ")");
      return;
    }
    const Storage::OSQuery::TableInfo* table = Storage::OSQuery::FindTable(header.TypeId());
    if (table == nullptr) {
      ++untabled_;
    } else if (header.Version() != table->version) {
      Fault(where + ": event " + std::to_string(i) + " of " + table->name + " has version " +
            std::to_string(header.Version()) + ", the table reads " +
            std::to_string(table->version));
      return;
    }
    if (i != 0 && view.Second(i) < view.Second(i - 1)) ++out_of_order_;
    ++events_;
  }
}

void Verifier::CheckLooseFiles() {
  for (const DayFileEntry& file : listing_.day_files) {
    Storage::DayInfo* info =
        state_ == IndexState::kLoaded ? index_.tree().SearchUnsafe(file.day) : nullptr;
    if (info != nullptr && info->HasVersion(file.version)) continue;
    Warn(file.name + " (" + FormatBytes(file.size) +
         ") is not in the index: its events cannot be reached (`tarn recover` indexes the "
         "blocks that decode)");
  }
}

void Verifier::CheckAsideFiles() {
  for (const AsideEntry& aside : listing_.aside) {
    Fault(aside.name + " (" + FormatBytes(aside.size) + ") was set aside by the store because " +
          aside.original + " kept failing to read: its events cannot be reached until " +
          "`tarn recover` brings it back");
  }
}

void Verifier::CheckFinal() {
  if (!listing_.has_final) return;
  Keel::Collections::Buffer raw;
  uint32_t table_offset = 0;
  uint32_t count = 0;
  uint16_t day = 0;
  switch (Storage::ReadFinalFile(directory_ + "/" + Storage::Utils::kFinalFileName, raw,
                                 table_offset, count, day)) {
    case Storage::FinalFileState::Absent: return;
    case Storage::FinalFileState::ReadFailed:
      Fault("storage.final.db cannot be read: the store keeps it and takes it back when it can");
      return;
    case Storage::FinalFileState::Incomplete:
      Fault(
          "storage.final.db was never completely written: the events of the block that was "
          "open at the last stop are lost");
      return;
    case Storage::FinalFileState::Invalid:
      Fault(
          "storage.final.db is damaged: the events of the block that was open at the last "
          "stop are lost");
      return;
    case Storage::FinalFileState::Ok: break;
  }
  CheckRecords("storage.final.db", raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset);
}

int RunVerify(const std::string& store) {
  StoreLock lock;
  if (!lock.AcquireClosed(store, "verify reads a closed store")) return 1;
  return Verifier(store).Run();
}

}  // namespace

std::unique_ptr<Command> MakeVerifyCommand() {
  return MakeStoreCommand(
      "verify", "Decode every block and check it and the index against the files",
      std::string(
          "Checks entry tables, records, block sizes and seconds, and that every indexed file "
          "is there; exits with 1 on a fault. ") +
          kOfflineNote + " The store must be closed.",
      RunVerify);
}

}  // namespace Tarn::Tool
