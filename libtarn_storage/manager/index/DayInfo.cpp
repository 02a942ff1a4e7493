#include "manager/index/DayInfo.h"

#include <algorithm>
#include <utility>

#include "Keel/Log.h"

namespace Tarn::Storage {
namespace {

using Keel::OS::Threading::MutexGuard;

enum Message : uint32_t {
  kCreateBlocksFailed = 1,
  kCreateVersionsFailed = 2,
  kAddVersionFailed = 3,
  kVersionMissing = 4,
  kAddBlockFailed = 5,
  kBlockUnreachable = 6,
};

constexpr uint32_t kInitialBlocks = 64;
constexpr uint32_t kInitialVersions = 1;
constexpr uint32_t kGrowStep = 100;

int CompareVersions(const VersionInfo& a, const VersionInfo& b) {
  return static_cast<int>(a.version) - static_cast<int>(b.version);
}

void Log(Message message, uint64_t a = 0, uint64_t b = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageIndex, message, a, b, 0);
}

}  // namespace

DayInfo::DayInfo()
    : blocks_mutex_(std::make_unique<Mutex>()), versions_mutex_(std::make_unique<Mutex>()) {}

DayInfo::~DayInfo() = default;

DayInfo::DayInfo(const DayInfo& other) : DayInfo() { *this = other; }

DayInfo::DayInfo(DayInfo&& other) noexcept
    : blocks_(std::move(other.blocks_)),
      versions_(std::move(other.versions_)),
      blocks_mutex_(std::move(other.blocks_mutex_)),
      versions_mutex_(std::move(other.versions_mutex_)) {
  // A moved-from day stays usable: it gets locks of its own again.
  other.blocks_mutex_ = std::make_unique<Mutex>();
  other.versions_mutex_ = std::make_unique<Mutex>();
}

DayInfo& DayInfo::operator=(const DayInfo& other) {
  if (this == &other) return *this;
  Keel::Collections::Array<BlockInfo> blocks;
  Keel::Collections::Array<VersionInfo> versions;
  {
    MutexGuard lock(other.blocks_mutex_.get());
    blocks = other.blocks_;
  }
  {
    MutexGuard lock(other.versions_mutex_.get());
    versions = other.versions_;
  }
  MutexGuard blocks_lock(blocks_mutex_.get());
  MutexGuard versions_lock(versions_mutex_.get());
  blocks_ = std::move(blocks);
  versions_ = std::move(versions);
  return *this;
}

DayInfo& DayInfo::operator=(DayInfo&& other) noexcept {
  if (this == &other) return *this;
  blocks_ = std::move(other.blocks_);
  versions_ = std::move(other.versions_);
  return *this;
}

bool DayInfo::Create() {
  {
    MutexGuard lock(blocks_mutex_.get());
    if (!blocks_.Create(kInitialBlocks, Keel::Collections::kUnlimited, kGrowStep,
                        Keel::Collections::GrowType::Percent)) {
      Log(kCreateBlocksFailed);
      return false;
    }
  }
  {
    MutexGuard lock(versions_mutex_.get());
    if (!versions_.Create(kInitialVersions, Keel::Collections::kUnlimited, kGrowStep,
                          Keel::Collections::GrowType::Percent)) {
      Log(kCreateVersionsFailed);
      return false;
    }
  }
  return AddVersion(kInitialVersion, 0);
}

void DayInfo::ClearAll() {
  {
    MutexGuard lock(blocks_mutex_.get());
    blocks_.SetCount(0);
  }
  MutexGuard lock(versions_mutex_.get());
  versions_.SetCount(0);
}

void DayInfo::ClearVersion(uint8_t version) {
  {
    MutexGuard lock(blocks_mutex_.get());
    blocks_.RemoveIf([version](const BlockInfo& b) { return b.version == version; });
  }
  {
    MutexGuard lock(versions_mutex_.get());
    versions_.RemoveIf([version](const VersionInfo& v) { return v.version == version; });
  }
  if (version == kInitialVersion) AddVersion(kInitialVersion, 0);
}

bool DayInfo::AddVersion(uint8_t version, uint64_t on_disk_size) {
  MutexGuard lock(versions_mutex_.get());
  if (!versions_.InsertSorted(VersionInfo{version, on_disk_size}, &CompareVersions)) {
    Log(kAddVersionFailed, version);
    return false;
  }
  return true;
}

bool DayInfo::HasVersion(uint8_t version) const {
  MutexGuard lock(versions_mutex_.get());
  uint32_t at = versions_.LowerBound(VersionInfo{version, 0}, &CompareVersions);
  const VersionInfo* found = versions_.Get(at);
  return found != nullptr && found->version == version;
}

VersionInfo* DayInfo::__get_vi(uint8_t version) {
  MutexGuard lock(versions_mutex_.get());
  // The lower bound is the first entry among equals.
  uint32_t at = versions_.LowerBound(VersionInfo{version, 0}, &CompareVersions);
  VersionInfo* found = versions_.Get(at);
  if (found == nullptr || found->version != version) {
    Log(kVersionMissing, version);
    return nullptr;
  }
  return found;
}

uint64_t DayInfo::onDiskSize(uint8_t version) {
  VersionInfo* info = __get_vi(version);
  return info ? info->on_disk_size : 0;
}

bool DayInfo::setOnDiskSize(uint8_t version, uint64_t size) {
  VersionInfo* info = __get_vi(version);
  if (info == nullptr) return false;
  info->on_disk_size = size;
  return true;
}

uint64_t DayInfo::addOnDiskSize(uint8_t version, uint64_t delta) {
  VersionInfo* info = __get_vi(version);
  if (info == nullptr) return 0;
  info->on_disk_size += delta;
  return info->on_disk_size;
}

uint64_t DayInfo::totalOnDiskSize() const {
  MutexGuard lock(versions_mutex_.get());
  uint64_t total = 0;
  for (const VersionInfo& v : versions_) total += v.on_disk_size;
  return total;
}

bool DayInfo::validate(uint8_t version) { return onDiskSize(version) != 0; }

bool DayInfo::AddBlock(const BlockInfo& block) {
  MutexGuard lock(blocks_mutex_.get());
  if (!blocks_.Add(block)) {
    Log(kAddBlockFailed, block.block_offset, block.version);
    return false;
  }
  return true;
}

bool DayInfo::SetVersionBlocks(uint8_t version, const std::vector<BlockInfo>& blocks) {
  MutexGuard lock(blocks_mutex_.get());
  std::vector<BlockInfo> merged;
  merged.reserve(blocks_.Count() + blocks.size());
  bool placed = false;
  for (uint32_t i = 0; i < blocks_.Count(); ++i) {
    const BlockInfo& block = *blocks_.Get(i);
    if (block.version != version) {
      merged.push_back(block);
    } else if (!placed) {
      merged.insert(merged.end(), blocks.begin(), blocks.end());
      placed = true;
    }
  }
  if (!placed) merged.insert(merged.end(), blocks.begin(), blocks.end());
  Keel::Collections::Array<BlockInfo> replacement;
  const uint32_t capacity = std::max<uint32_t>(kInitialBlocks, static_cast<uint32_t>(merged.size()));
  if (!replacement.Create(capacity, Keel::Collections::kUnlimited, kGrowStep,
                          Keel::Collections::GrowType::Percent)) {
    Log(kAddBlockFailed, 0, version);
    return false;
  }
  for (const BlockInfo& block : merged) {
    if (!replacement.Add(block)) {
      Log(kAddBlockFailed, block.block_offset, version);
      return false;
    }
  }
  std::swap(blocks_, replacement);
  return true;
}

uint64_t DayInfo::events_count() const {
  MutexGuard lock(blocks_mutex_.get());
  uint64_t total = 0;
  for (uint32_t i = 0; i < blocks_.Count(); ++i) {
    const BlockInfo* block = blocks_.Get(i);
    if (block == nullptr) {
      Log(kBlockUnreachable, i);
      return 0;
    }
    total += block->events_count;
  }
  return total;
}

uint32_t DayInfo::GetFirstEventSecondOfDay() const {
  MutexGuard lock(blocks_mutex_.get());
  const BlockInfo* first = blocks_.Get(0);
  return first ? first->start_seconds : InvalidSecond;
}

uint32_t DayInfo::GetLastEventSecondOfDay() const {
  MutexGuard lock(blocks_mutex_.get());
  if (blocks_.Empty()) return InvalidSecond;
  return blocks_.Get(blocks_.Count() - 1)->end_seconds;
}

bool DayInfo::Serialize(Keel::Collections::Buffer&, void*) const { return false; }

bool DayInfo::Deserialize(Keel::Collections::StreamBuffer&, void*) { return false; }

}  // namespace Tarn::Storage
