#include "manager/writer/StorageManager.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "Keel/Lzma.h"
#include "Keel/Log.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"
#include "Keel/Utils/TreeContainer.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/EventHeader.h"
#include "manager/format/DayFileReader.h"
#include "manager/format/EventsBlock.h"
#include "manager/format/FinalFile.h"
#include "manager/format/StorageHelper.h"

namespace Tarn::Storage {
namespace {

using Keel::OS::Threading::Event;
using Keel::OS::Threading::MutexGuard;
namespace FS = Keel::OS::FileSystem;

enum Message : uint32_t {
  kNoDirectory = 1,
  kDirectoryCreateFailed = 2,
  kDirectoryLocked = 3,
  kTelemetryCreateFailed = 4,
  kSettingsRejected = 5,
  kBuffersCreateFailed = 6,
  kWipeFailed = 7,
  kIndexLoadFailed = 8,
  kLoadDatabasesFailed = 9,
  kClockWentBack = 10,
  kWriterStartFailed = 11,
  kNotReady = 12,
  kBadEventRecord = 13,
  kEventTooLarge = 14,
  kAppendFailed = 15,
  kHandOverTimeout = 16,
  kWriterStopped = 17,
  kEntryMismatch = 18,
  kUnknownReason = 19,
  kEncodeFailed = 20,
  kBlockDropped = 21,
  kBlockWriteFailed = 22,
  kIndexSaveFailed = 23,
  kFinalWriteFailed = 24,
  kFinalUnusable = 25,
  kFinalDeleteFailed = 26,
  kNotRunning = 27,
  kDumpFailed = 28,
  kHostValue = 29,
  kStopped = 30,
  kTakeBackFailed = 31,
  kClockUnusable = 32,
  kIndexSetAside = 33,
  kIndexPinned = 34,
  kIndexMerged = 35,
  kFinalDisarmFailed = 36,
};

void Log(uint32_t severity, Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(severity, Keel::Log::StorageManager, message, a, b, c);
}

// The largest block the compressed-output buffer may ever need to hold.
constexpr uint64_t kMaxCompressedSize = BlockBuffers::kMaxRawSize;

}  // namespace

StorageManager::StorageManager() : catalog_(index_) {}

StorageManager::~StorageManager() {
  if (running_.load()) Stop();
  if (writer_.IsRunning()) {
    stop_flag_.exchange(1);
    block_ready_.Set();
    writer_.Join();
  }
  if (settings_.telemetry_to_disk && !catalog_.directory().empty()) {
    telemetry_.report(&Telemetry::StorageTelemetry::to_disk, *this);
  }
}

bool StorageManager::Create(const Settings& settings, ITimeProvider* clock, uint32_t host_value,
                            const char* directory_override) {
  if (clock == nullptr || running_.load()) return false;
  clock_ = clock;
  host_value_ = host_value;
  mutex_ = std::make_unique<Keel::OS::Threading::Mutex>();
  if (!OpenDirectory(directory_override) || !LockDirectory()) return false;

  Settings requested = settings;
  if (!telemetry_.create(requested, nullptr, catalog_.directory(), this)) {
    Log(Keel::Log::Error, kTelemetryCreateFailed);
    return false;
  }
  telemetry_.notify_init_started();
  if (!settings_.Load(settings)) {
    Log(Keel::Log::Error, kSettingsRejected);
    return false;
  }
  if (!builder_.block.Create(settings_.block_buffer_size) ||
      !pending_.Create(settings_.block_buffer_size) ||
      !compressed_.Create(Keel::Lzma::CompressBound(settings_.block_buffer_size),
                          Keel::Lzma::CompressBound(kMaxCompressedSize))) {
    Log(Keel::Log::Error, kBuffersCreateFailed);
    return false;
  }
  catalog_.SetTelemetry(&telemetry_);
  // A wipe that leaves files behind goes on: they are counted, and go first.
  if (settings_.reset_mode == 1 && !catalog_.Wipe()) Log(Keel::Log::Error, kWipeFailed);
  catalog_.Survey();
  if (!LoadIndex()) {
    Log(Keel::Log::Error, kIndexLoadFailed);
    return false;
  }
  // The host value is only recorded: the clock alone places events.
  Log(Keel::Log::Information, kHostValue, host_value_, index_.last_event_timestamp());
  TimeIndex now;
  const bool clock_usable = Now(now);
  if (!LoadDatabases()) {
    Log(Keel::Log::Error, kLoadDatabasesFailed);
    return false;
  }

  uint16_t* newest = nullptr;
  if (clock_usable && index_.tree().GetMaxUnsafe(newest) != nullptr && *newest > now.day) {
    // Days from the future would never be evicted in order: start over.
    Log(Keel::Log::Error, kClockWentBack, *newest, now.day);
    MutexGuard lock(mutex_.get());
    if (!catalog_.Wipe()) Log(Keel::Log::Error, kWipeFailed);
    index_lost_ = false;
    index_.keep_file(false);  // the file it kept went with the wipe
    SaveIndex();
  }

  builder_.capacity = settings_.block_buffer_size;
  if (!StartWriter()) return false;
  TakeBackFinalBlock();
  {
    MutexGuard lock(&builder_.mutex);
    // Until the clock reads a time the store can file, no day is open.
    if (clock_usable) StartDay(now.day);
    builder_.ready = true;
  }
  running_.store(true);
  std::optional<bool> ok = true;
  telemetry_.notify_init_ended(ok);
  return true;
}

bool StorageManager::OpenDirectory(const char* directory_override) {
  std::string directory;
  if (directory_override != nullptr && directory_override[0] != '\0') {
    directory = directory_override;
  } else if (!Keel::OS::Path::Expand(kDefaultDirectory, directory)) {
    Log(Keel::Log::Error, kNoDirectory);
    return false;
  }
  if (!FS::IsDirectory(directory) && !FS::CreateDirectory(directory)) {
    Log(Keel::Log::Error, kDirectoryCreateFailed);
    return false;
  }
  catalog_.SetDirectory(directory);
  index_.set_directory(directory);
  return true;
}

bool StorageManager::LockDirectory() {
  // Two processes writing one store would corrupt it; the lock file says
  // which one owns it for as long as the manager lives.
  if (!lock_file_.Open(catalog_.PathOf(kLockFileName), Keel::OS::File::Mode::OpenOrCreate) ||
      !lock_file_.TryLockExclusive()) {
    Log(Keel::Log::Error, kDirectoryLocked);
    lock_file_.Close();
    return false;
  }
  return true;
}

bool StorageManager::LoadIndex() {
  if (!index_.load(settings_)) return false;
  // Once more before believing it: most failures pass.
  if (!index_.was_read() && index_.was_found() && !index_.load(settings_)) return false;
  if (!index_.was_read() && index_.was_found()) {
    // It may hold days no other file names. Set aside, it is tried again at
    // every start until it reads (and the recover tool reads it too).
    if (catalog_.SetAside(Index::FILENAME)) {
      Log(Keel::Log::Error, kIndexSetAside);
    } else {
      Log(Keel::Log::Error, kIndexPinned);
      index_.keep_file(true);
    }
  }
  MergeAsideIndexes();
  return true;
}

void StorageManager::MergeAsideIndexes() {
  for (const std::string& name : catalog_.AsideIndexes()) {
    Index aside;
    aside.set_directory(catalog_.directory());
    Keel::Utils::String path(catalog_.PathOf(name));
    if (!aside.try_load_existing(settings_, path)) continue;
    // Its days that the index does not hold come back; reconciliation then
    // checks them against the files like every other day.
    uint32_t merged = 0;
    aside.tree().Iterate(
        [&](const uint16_t& day, DayInfo& info, void*, bool&) {
          if (index_.tree().SearchUnsafe(day) == nullptr && info.GetBlockCount() != 0 &&
              index_.tree().Insert(day, info)) {
            ++merged;
          }
          return true;
        },
        nullptr);
    index_.set_last_event_timestamp(
        std::max(index_.last_event_timestamp(), aside.last_event_timestamp()));
    Log(Keel::Log::Warning, kIndexMerged, merged);
    merged_indexes_.push_back(name);
  }
}

bool StorageManager::LoadDatabases() {
  MutexGuard lock(mutex_.get());
  bool changed = !merged_indexes_.empty();
  catalog_.Reconcile(index_.was_read(), changed);
  index_lost_ = !index_.was_read() && merged_indexes_.empty() && !catalog_.LooseFiles().empty();
  // A new store gets its index file before its first block, so that a day
  // file without index entries can later be told from one whose index was
  // lost (see StoreCatalog).
  const bool fresh = !index_.was_read() && !index_.was_found() && !index_lost_;
  uint32_t days = index_.tree().GetCount();
  uint64_t size = catalog_.TotalSize();
  TimeIndex now;
  uint16_t* newest = nullptr;
  // With a clock the store cannot use, the newest day is the one kept.
  const uint16_t current = Now(now) ? now.day
                           : index_.tree().GetMaxUnsafe(newest) != nullptr ? *newest : 0;
  catalog_.EnforceLimits(settings_, current);
  changed |= days != index_.tree().GetCount() || size != catalog_.TotalSize();
  if ((changed || fresh) && SaveIndex()) {
    for (const std::string& name : merged_indexes_) FS::DeleteFile(catalog_.PathOf(name));
    merged_indexes_.clear();
  }
  return true;
}

bool StorageManager::SaveIndex() {
  // Left unsaved while it names nothing: an empty file would make the day
  // files of a lost index look like the newest days' lost saves.
  if (index_lost_ && index_.tree().GetCount() == 0) return true;
  if (!index_.save(index_.last_event_timestamp())) {
    Log(Keel::Log::Error, kIndexSaveFailed, index_.tree().GetCount());
    return false;
  }
  index_lost_ = false;
  return true;
}

bool StorageManager::StartWriter() {
  stop_flag_.store(0);
  writer_idle_.Set();
  if (!writer_.Start([this] { WriterLoop(); })) {
    Log(Keel::Log::Error, kWriterStartFailed);
    return false;
  }
  return true;
}

void StorageManager::TakeBackFinalBlock() {
  const std::string path = catalog_.PathOf(Utils::kFinalFileName);
  Keel::Collections::Buffer raw;
  uint32_t table_offset = 0;
  uint32_t count = 0;
  uint16_t day = 0;
  FinalFileState state = ReadFinalFile(path, raw, table_offset, count, day);
  // Once more before believing it: most failures pass.
  if (state == FinalFileState::ReadFailed) {
    state = ReadFinalFile(path, raw, table_offset, count, day);
  }
  if (state == FinalFileState::Absent) return;
  if (state == FinalFileState::Incomplete) {
    // An interrupted shutdown write: its block never became whole.
    Log(Keel::Log::Error, kFinalUnusable, static_cast<uint32_t>(state));
    DeleteFinalFile();
    return;
  }
  if (state != FinalFileState::Ok) {
    // Unreadable, or not a block this store can use: the recover tool may
    // still make something of it.
    Log(Keel::Log::Error, kFinalUnusable, static_cast<uint32_t>(state));
    MutexGuard lock(mutex_.get());
    if (!catalog_.SetAside(Utils::kFinalFileName)) final_pending_.store(true);
    return;
  }
  if (AlreadyStored(day, raw, table_offset, count)) {
    Log(Keel::Log::Warning, kFinalUnusable, count);
    DeleteFinalFile();
    return;
  }
  MutexGuard lock(&builder_.mutex);
  builder_.block.Reset();
  // Filed after the day's newest block: seconds below the day's floor rise
  // to it, as for any event that arrives after the clock stepped back.
  uint32_t floor = DayFloor(day);
  RawBlockView view(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset);
  bool copied = builder_.block.raw.Push(raw.Data(), table_offset);
  for (uint32_t i = 0; copied && i < count; ++i) {
    const uint8_t* record = nullptr;
    uint32_t size = 0;
    floor = std::max(floor, view.Second(i));
    copied = view.Event(i, record, size) &&
             builder_.block.entries.Add(
                 BlockEntry{static_cast<uint32_t>(record - raw.Data()), floor});
  }
  if (!copied) {
    Log(Keel::Log::Error, kTakeBackFailed, count);
    builder_.block.Reset();
    return;
  }
  // The writer deletes the shutdown file once the block is in its day file;
  // the store starts only after that, answering with every event it holds.
  // A block that cannot be stored now stays in the file for the next start.
  final_pending_.store(true);
  if (!HandOver(kOnInit, day)) return;
  writer_idle_.Wait(Event::kInfinite);
  writer_idle_.Set();
  builder_.handed = false;
  lost_blocks_reported_.store(lost_blocks_.load());
}

bool StorageManager::AlreadyStored(uint16_t day, const Keel::Collections::Buffer& raw,
                                   uint32_t table_offset, uint32_t count) {
  MutexGuard lock(mutex_.get());
  DayInfo* info = index_.tree().SearchUnsafe(day);
  if (info == nullptr) return false;
  // Any block of the day may be it, not only the last: more may have come
  // after it. Its seconds may have risen to the day's floor; its records
  // and their offsets are what it is.
  const std::string path = catalog_.DayFilePath(day, DayInfo::kInitialVersion);
  DayFileReader reader;
  DayFileCheck check;
  bool opened = false;
  Keel::Collections::Buffer stored;
  for (uint32_t b = 0; b < info->GetBlockCount(); ++b) {
    const BlockInfo* block = info->GetBlock(b);
    if (block->version != DayInfo::kInitialVersion || block->events_count != count) continue;
    if (!opened && !(opened = reader.Open(path, check))) return false;
    BlockHeader header;
    if (!reader.ReadHeader(block->block_offset, header) || header.table_offset != table_offset ||
        header.raw_size != raw.Size() || !reader.Decode(block->block_offset, header, stored)) {
      continue;
    }
    if (std::memcmp(stored.Data(), raw.Data(), table_offset) != 0) continue;
    const RawBlockView mine(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset);
    const RawBlockView theirs(stored.Data(), static_cast<uint32_t>(stored.Size()), table_offset);
    bool same = true;
    for (uint32_t i = 0; same && i < count; ++i) {
      const uint8_t *a = nullptr, *c = nullptr;
      uint32_t a_size = 0, c_size = 0;
      same = mine.Event(i, a, a_size) && theirs.Event(i, c, c_size) && a - raw.Data() ==
             c - stored.Data() && a_size == c_size;
    }
    if (same) return true;
  }
  return false;
}

bool StorageManager::Now(TimeIndex& now) {
  if (ToStoreTime(clock_->GetEpochTime(), now)) return true;
  Log(Keel::Log::Error, kClockUnusable, clock_->GetEpochTime());
  return false;
}

uint32_t StorageManager::DayFloor(uint16_t day) {
  uint32_t floor = 0;
  {
    MutexGuard lock(mutex_.get());
    const DayInfo* info = index_.tree().SearchUnsafe(day);
    const uint32_t last = info != nullptr ? info->GetLastEventSecondOfDay() : DayInfo::InvalidSecond;
    if (last != DayInfo::InvalidSecond) floor = last;
  }
  // The block handed over last may still be on its way to the index.
  if (builder_.handed && builder_.handed_day == day) {
    floor = std::max(floor, builder_.handed_last_second);
  }
  return floor;
}

void StorageManager::StartDay(uint16_t day) {
  builder_.day = day;
  builder_.has_day = true;
  builder_.floor = DayFloor(day);
}

bool StorageManager::AddEvent(const Events::Objects::Base& event) {
  MutexGuard lock(&builder_.mutex);
  if (!builder_.ready) {
    Log(Keel::Log::Warning, kNotReady);
    return false;
  }
  Events::EventHeader header(event.Data(), event.Size());
  if (!header.Valid()) {
    Log(Keel::Log::Error, kBadEventRecord, event.Size());
    return false;
  }
  TimeIndex now;
  if (!Now(now)) {
    telemetry_.notify_clock_refused();
    return false;
  }
  telemetry_.notify_on_event(header.TypeId());
  const auto* record = static_cast<const uint8_t*>(event.Data());
  const uint32_t size = header.Size();

  if (!builder_.has_day || now.day != builder_.day) {
    // The first event of a day starts a new block and skips the size tests.
    // An empty block is handed over all the same: the writer skips it, and
    // telemetry counts every cut.
    if (builder_.has_day) HandOver(kOnEvent, builder_.day);
    StartDay(now.day);
    return Append(record, size, now.second);
  }
  if (static_cast<uint64_t>(size) + sizeof(BlockEntry) > builder_.capacity) {
    Log(Keel::Log::Error, kEventTooLarge, size, builder_.capacity - sizeof(BlockEntry));
    return false;
  }
  if (builder_.block.FramedSize() + size + sizeof(BlockEntry) > builder_.capacity) {
    HandOver(kOnEvent, builder_.day);
  }
  return Append(record, size, now.second);
}

bool StorageManager::Append(const uint8_t* record, uint32_t size, uint32_t second) {
  BlockBuffers& block = builder_.block;
  const uint64_t offset = block.raw.Size();
  // Never below a second already recorded for the day.
  second = std::max(second & kSecondMask, builder_.floor);
  if (!block.raw.Push(record, size)) {
    Log(Keel::Log::Error, kAppendFailed, size);
    return false;
  }
  if (!block.entries.Add(BlockEntry{static_cast<uint32_t>(offset), second})) {
    block.raw.Resize(offset);  // a record never stays without its entry
    Log(Keel::Log::Error, kAppendFailed, size);
    return false;
  }
  builder_.floor = second;
  return true;
}

bool StorageManager::HandOver(HandOverReason reason, uint16_t day) {
  // A writer still busy with the block before means events come faster
  // than one thread compresses them: this block goes out on every core.
  const bool waited = !writer_idle_.Wait(0);
  if (waited && !writer_idle_.Wait(kHandOverTimeoutMs)) {
    Log(Keel::Log::Error, kHandOverTimeout, builder_.block.entries.Count(), day);
    telemetry_.notify_events_buffer_discarded();
    lost_blocks_.fetch_add(1);
    builder_.block.Reset();
    return false;
  }
  const BlockEntry* last = builder_.block.entries.Empty()
                               ? nullptr
                               : builder_.block.entries.Get(builder_.block.entries.Count() - 1);
  if (last != nullptr) {
    builder_.handed = true;
    builder_.handed_day = day;
    builder_.handed_last_second = last->second_word & kSecondMask;
  }
  {
    MutexGuard lock(mutex_.get());
    pending_.Swap(builder_.block);
    pending_day_ = day;
    pending_reason_ = reason;
    pending_in_burst_ = waited;
  }
  telemetry_.notify_block_dumped(reason);
  block_ready_.Set();
  return true;
}

void StorageManager::WriterLoop() {
  for (;;) {
    block_ready_.Wait(Event::kInfinite);
    if (stop_flag_.load() != 0) {
      Log(Keel::Log::Information, kWriterStopped, pending_.entries.Count());
      writer_idle_.Set();
      return;
    }
    if (!WritePendingBlock()) {
      Log(Keel::Log::Error, kBlockWriteFailed, pending_day_);
      lost_blocks_.fetch_add(1);
    }
    pending_.Reset();
    writer_idle_.Set();
  }
}

bool StorageManager::WritePendingBlock() {
  if (pending_.raw.Empty() || pending_.entries.Empty()) {
    if (pending_.raw.Empty() != pending_.entries.Empty()) {
      Log(Keel::Log::Error, kEntryMismatch, pending_.raw.Size(), pending_.entries.Count());
    }
    return true;
  }
  switch (pending_reason_) {
    case kOnInit:
    case kOnEvent:
      return WriteDayBlock();
    case kOnClose:
      if (WriteFinalBlock()) return true;
      // The open block goes to its day file instead: compressed a little
      // later than planned, but kept.
      return WriteDayBlock();
  }
  Log(Keel::Log::Error, kUnknownReason, pending_reason_);
  return false;
}

bool StorageManager::WriteDayBlock() {
  // Compression runs outside the manager mutex: the pending block belongs to
  // the writer until it signals idle, and readers should not wait seconds.
  telemetry_.notify_buffer_processing_start();
  EncodedBlock encoded;
  telemetry_.notify_compression_started();
  // With time to spare (the block before was done when this one came), one
  // thread compresses the records as one block, a few percent smaller;
  // in a burst every core takes a part.
  Keel::Lzma::Options options;
  options.one_block = !pending_in_burst_;
  std::optional<bool> compressed =
      EncodeBlock(pending_.raw, pending_.entries, compressed_, encoded, options);
  telemetry_.notify_compression_ended(compressed);
  std::optional<Telemetry::EventBlockData> report;
  if (!*compressed) {
    Log(Keel::Log::Error, kEncodeFailed, pending_day_);
    telemetry_.notify_buffer_processing_ended(report);
    return false;
  }

  const uint64_t size = kBlockHeaderSize + static_cast<uint64_t>(encoded.header.stored_size);
  MutexGuard lock(mutex_.get());
  Keel::OS::File file;
  uint64_t offset = 0;
  const auto placement = catalog_.PlaceBlock(settings_, pending_day_, size, file, offset);
  if (placement == StoreCatalog::Placement::kDrop) {
    // It can never be stored: a taken-back block must not come back again.
    Log(Keel::Log::Error, kBlockDropped, pending_day_, size);
    telemetry_.notify_events_buffer_discarded();
    telemetry_.notify_buffer_processing_ended(report);
    lost_blocks_.fetch_add(1);
    if (pending_reason_ == kOnInit) {
      DeleteFinalFile();
      final_pending_.store(false);
    }
    return true;
  }
  if (placement == StoreCatalog::Placement::kFail) {
    // A taken-back block stays in the shutdown file for the next start.
    telemetry_.notify_events_buffer_discarded();
    telemetry_.notify_buffer_processing_ended(report);
    return false;
  }
  if (!WriteBlock(file, offset, encoded.header, compressed_)) {
    catalog_.AbandonBlock(pending_day_, file, offset);
    telemetry_.notify_buffer_processing_ended(report);
    return false;
  }
  file.Close();
  BlockInfo block{static_cast<uint32_t>(offset), encoded.event_count, encoded.first_second,
                  encoded.last_second, DayInfo::kInitialVersion};
  if (!catalog_.RecordBlock(pending_day_, block, size)) return false;

  uint64_t stamp = std::max(index_.last_event_timestamp(),
                            ToEpochSeconds(pending_day_, encoded.last_second));
  index_.set_last_event_timestamp(stamp);
  // A failed save loses nothing: the next start finds the block after the
  // last indexed one, and the next save names it.
  SaveIndex();
  if (pending_reason_ == kOnInit) {
    DeleteFinalFile();
    final_pending_.store(false);
  }
  report = Telemetry::EventBlockData{pending_day_, encoded.header.raw_size,
                                     encoded.header.stored_size, encoded.event_count,
                                     pending_reason_};
  telemetry_.notify_buffer_processing_ended(report);
  return true;
}

void StorageManager::DeleteFinalFile() {
  const std::string path = catalog_.PathOf(Utils::kFinalFileName);
  if (FS::DeleteFile(path)) return;
  Log(Keel::Log::Error, kFinalDeleteFailed);
  // Its magic cleared, the file reads as an interrupted write and is deleted
  // at the next start; if even that fails, the next start finds its block
  // already stored.
  if (!DisarmFinalFile(path)) Log(Keel::Log::Error, kFinalDisarmFailed);
}

bool StorageManager::WriteFinalBlock() {
  const uint32_t table_offset = static_cast<uint32_t>(pending_.raw.Size());
  const uint32_t count = pending_.entries.Count();
  std::optional<Telemetry::EventBlockData> report;
  telemetry_.notify_buffer_processing_start();
  if (!AppendEntryTable(pending_.raw, pending_.entries)) {
    Log(Keel::Log::Error, kFinalWriteFailed, count);
    telemetry_.notify_buffer_processing_ended(report);
    return false;
  }
  if (!WriteFinalFile(catalog_.PathOf(Utils::kFinalFileName), pending_.raw, table_offset, count,
                      pending_day_)) {
    Log(Keel::Log::Error, kFinalWriteFailed, count);
    pending_.raw.Resize(table_offset);
    // What the failed write left is not taken back (a whole file would be
    // found stored already).
    FS::DeleteFile(catalog_.PathOf(Utils::kFinalFileName));
    telemetry_.notify_buffer_processing_ended(report);
    return false;
  }
  report = Telemetry::EventBlockData{pending_day_, static_cast<uint32_t>(pending_.raw.Size()),
                                     0, count, kOnClose};
  telemetry_.notify_buffer_processing_ended(report);
  return true;
}

bool StorageManager::Flush() {
  if (!running_.load()) {
    Log(Keel::Log::Warning, kNotRunning);
    return false;
  }
  MutexGuard lock(&builder_.mutex);
  bool ok = builder_.block.Empty() || HandOver(kOnEvent, builder_.day);
  // Waiting takes the idle signal; it is given back for the next hand-over.
  writer_idle_.Wait(Event::kInfinite);
  writer_idle_.Set();
  return ok && NoBlockLostSinceLastAsked();
}

bool StorageManager::NoBlockLostSinceLastAsked() {
  const uint64_t lost = lost_blocks_.load();
  return lost_blocks_reported_.exchange(lost) == lost;
}

bool StorageManager::Stop() {
  if (!running_.exchange(false)) {
    Log(Keel::Log::Warning, kNotRunning);
    return false;
  }
  telemetry_.notify_closing_started();
  bool ok = true;
  {
    MutexGuard lock(&builder_.mutex);
    builder_.ready = false;
    ok = HandOver(final_pending_.load() ? kOnEvent : kOnClose, builder_.day);
  }
  writer_idle_.Wait(Event::kInfinite);
  stop_flag_.exchange(1);
  block_ready_.Set();
  writer_.Join();
  {
    // A failed save loses nothing: the next start finds the blocks the file
    // does not name.
    MutexGuard lock(mutex_.get());
    SaveIndex();
  }
  ok = NoBlockLostSinceLastAsked() && ok;
  std::optional<bool> result = ok;
  telemetry_.notify_closing_ended(result);
  Log(Keel::Log::Information, kStopped, ok);
  return ok;
}

Settings StorageManager::GetSettings() {
  MutexGuard lock(mutex_.get());
  return settings_;
}

bool StorageManager::UpdateSettings(const Settings& settings) {
  if (!Settings::Validate(settings)) return false;
  MutexGuard builder(&builder_.mutex);
  MutexGuard lock(mutex_.get());
  if (!settings_.Load(settings)) return false;
  // A new block size holds from the next event on.
  builder_.capacity = settings_.block_buffer_size;
  return true;
}

bool StorageManager::ProcessIndex(Processor processor, void* context) {
  MutexGuard lock(mutex_.get());
  return processor(index_, context);
}

uint64_t StorageManager::TotalOnDiskSize() {
  MutexGuard lock(mutex_.get());
  return catalog_.TotalSize();
}

bool StorageManager::AddTelemetry(Keel::Utils::TreeContainer::Node root) {
  double megabytes = static_cast<double>(TotalOnDiskSize()) / 1'048'576.0;
  return root.Set("disk_size_mb", megabytes);
}

bool StorageManager::DumpTo(const std::string& path) {
  Keel::Utils::TreeContainer document;
  {
    MutexGuard lock(mutex_.get());
    if (!index_.Dump(document)) {
      Log(Keel::Log::Error, kDumpFailed);
      return false;
    }
  }
  std::string text = document.Dump(2);
  Keel::OS::File file;
  if (!file.Open(path, Keel::OS::File::Mode::CreateTruncate) ||
      !file.Write(text.data(), text.size()) || !file.Flush()) {
    Log(Keel::Log::Error, kDumpFailed);
    return false;
  }
  return true;
}

}  // namespace Tarn::Storage
