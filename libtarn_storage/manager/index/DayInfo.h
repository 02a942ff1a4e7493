#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Keel/Collections/Array.h"
#include "Keel/OS/Threading.h"

namespace Keel::Collections {
class Buffer;
class StreamBuffer;
}  // namespace Keel::Collections

namespace Tarn::Storage {

// Where one events block lies and which seconds of its day it covers.
struct BlockInfo {
  uint32_t block_offset = 0;   // offset of the block in its database file
  uint32_t events_count = 0;   // never 0 for a stored block; below 2^25
  uint32_t start_seconds = 0;  // second of day of the first event
  uint32_t end_seconds = 0;    // second of day of the last event
  uint8_t version = 0;         // version of the database file holding it

  bool operator==(const BlockInfo&) const = default;
};

// Bytes that one database file version holds for its day.
struct VersionInfo {
  uint8_t version = 0;
  uint64_t on_disk_size = 0;

  bool operator==(const VersionInfo&) const = default;
};

// The index record of one day: its blocks in the order they were written
// (ascending in time) and its database file versions, sorted by version.
// Each array has its own mutex, held around the array access only.
class DayInfo {
 public:
  static constexpr uint32_t InvalidSecond = 0xFFFFFFFFu;
  // Every day starts writing into this version.
  static constexpr uint8_t kInitialVersion = 2;

  DayInfo();
  ~DayInfo();
  DayInfo(const DayInfo& other);
  DayInfo(DayInfo&& other) noexcept;
  DayInfo& operator=(const DayInfo& other);
  DayInfo& operator=(DayInfo&& other) noexcept;

  // Creates both arrays and the initial version with size 0.
  bool Create();
  // Empties both arrays. Unlike Create and ClearVersion(2) it leaves no
  // version at all; callers that go on writing add one themselves.
  void ClearAll();
  // Drops every block and the version entry of `version`; version 2 comes
  // back at size 0 because a day always has somewhere to write.
  void ClearVersion(uint8_t version);

  // The first entry for `version`, or null (logged). Valid until the next
  // insertion into the versions.
  VersionInfo* __get_vi(uint8_t version);
  bool AddVersion(uint8_t version, uint64_t on_disk_size);
  bool HasVersion(uint8_t version) const;

  uint64_t onDiskSize(uint8_t version);
  bool setOnDiskSize(uint8_t version, uint64_t size);
  uint64_t addOnDiskSize(uint8_t version, uint64_t delta);
  uint64_t totalOnDiskSize() const;
  // Only meaningful for an existing version: true when it holds bytes.
  bool validate(uint8_t version);

  bool AddBlock(const BlockInfo& block);
  uint32_t GetBlockCount() const { return blocks_.Count(); }
  // The entry of block `index`, or null when there is none.
  const BlockInfo* GetBlock(uint32_t index) const { return blocks_.Get(index); }
  // Makes `blocks` the blocks of `version`, in that order, where the first of
  // its old ones stood (at the end when it had none); blocks of other
  // versions keep their places. False (the list unchanged) when memory ran out.
  bool SetVersionBlocks(uint8_t version, const std::vector<BlockInfo>& blocks);

  uint32_t GetVersionCount() const { return versions_.Count(); }
  const VersionInfo* GetVersion(uint32_t index) const { return versions_.Get(index); }

  uint64_t events_count() const;
  uint32_t GetFirstEventSecondOfDay() const;
  uint32_t GetLastEventSecondOfDay() const;

  // A day is persisted only through the index file's flat records, never
  // through the tree's generic form: both always fail.
  bool Serialize(Keel::Collections::Buffer& out, void* context) const;
  bool Deserialize(Keel::Collections::StreamBuffer& in, void* context);

 private:
  using Mutex = Keel::OS::Threading::Mutex;

  Keel::Collections::Array<BlockInfo> blocks_;
  Keel::Collections::Array<VersionInfo> versions_;
  std::unique_ptr<Mutex> blocks_mutex_;
  std::unique_ptr<Mutex> versions_mutex_;
};

}  // namespace Tarn::Storage
