#pragma once

#include <cstdint>
#include <string>

#include "Keel/Collections/Buffer.h"
#include "Keel/Collections/RedBlackTree.h"
#include "Keel/Utils/String.h"
#include "Keel/Utils/TreeContainer.h"
#include "manager/index/DayInfo.h"
#include "manager/writer/Settings.h"

namespace Keel::OS {
class File;
}  // namespace Keel::OS

namespace Tarn::Storage {

// The day index: every day that holds stored events, keyed by day number,
// and the time of the last stored event. Its file "storage.index.db" is a
// cache of what the database files hold, so a missing or unusable file only
// means starting with an empty index.
//
// File layout, little-endian: a 34-byte header ("ETRN", u16 format version 2,
// u32 record count, u64 last event timestamp, 16 zero bytes) and then one
// 15-byte record per block (u32 block offset, u16 day, u8 version, u64 packed
// as events_count bits 0-24, start second 25-41, end second 42-58, 59-63
// unused). A day's records are consecutive and days come in ascending order.
//
// Not thread-safe: the owner serialises every call, saves included.
class Index {
 public:
  using Tree = Keel::Collections::RedBlackTree<uint16_t, DayInfo>;

  static constexpr const char* FILENAME = "storage.index.db";
  static constexpr const char* kTempSuffix = ".temp";
  static constexpr uint32_t kHeaderSize = 34;
  static constexpr uint32_t kRecordSize = 15;
  // Record counts must stay below this.
  static constexpr uint32_t kMaxRecords = 0x1000000;
  static constexpr uint16_t kFormatVersion = 2;
  // Versions 0..2 are the only ones a record may name.
  static constexpr uint8_t kVersionEnd = 3;
  static constexpr uint32_t kSecondsPerDay = 86400;
  // Bounds of the tree's node array.
  static constexpr uint32_t kMaxDays = 512;
  // get_size's answer when the tree cannot be walked.
  static constexpr uint32_t kInvalidSize = 0xFFFFFFFFu;

  static const char* filename() { return FILENAME; }
  static uint32_t filename_size();

  Index();
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  // The storage directory where load and save find the file.
  void set_directory(std::string directory) { directory_ = std::move(directory); }
  const std::string& directory() const { return directory_; }
  std::string path() const;
  std::string temp_path() const;

  // Loads the file of the storage directory. An unusable file leaves an empty
  // index and still succeeds; only failing to create the tree fails.
  bool load(Settings& settings);
  bool load_from(Settings& settings, Keel::Utils::String& path);
  // Reads `path`; false (logged) when it is missing, empty, foreign,
  // truncated or malformed. Records that fail their checks are skipped.
  bool try_load_existing(Settings& settings, Keel::Utils::String& path);

  // An index file that exists but could not be read, nor moved aside, is
  // never saved over: while kept, save fails (logged) and writes nothing.
  void keep_file(bool keep) { keep_file_ = keep; }

  // Replaces the file atomically: writes and flushes "<file>.temp", then
  // renames it onto the file. Remembers `last_event_timestamp` whatever
  // the outcome; on failure the previous file is left as it was.
  bool save(uint64_t last_event_timestamp);
  // Writes the whole file to `path` and flushes it.
  bool save_to(uint64_t last_event_timestamp, Keel::Utils::String& path);

  void clear();
  // Events over every block of every day; kInvalidSize when the walk fails.
  uint32_t get_size();
  // Always 0; callers use the tree's own count.
  uint32_t get_count() { return 0; }

  uint64_t last_event_timestamp() const { return last_event_timestamp_; }
  // Whether the last load found a usable file (rather than starting empty).
  bool was_read() const { return was_read_; }
  // Whether the last load found a file it could not read (rather than none).
  bool was_found() const { return was_found_; }
  void set_last_event_timestamp(uint64_t value) { last_event_timestamp_ = value; }

  Tree& tree() { return tree_; }
  const Tree& tree() const { return tree_; }

  // The diagnostic form: per day an object named by the day in decimal with
  // the lists "blocks" and "versions", each entry {"values": {...}}.
  bool Dump(Keel::Utils::TreeContainer& document);

 private:
  struct Header;
  struct LoadCursor;

  bool CreateTree(const Settings& settings);
  bool BuildImage(uint64_t last_event_timestamp);
  bool ReadHeader(Keel::OS::File& file, Header& header);
  bool ReadRecords(Keel::OS::File& file, uint32_t record_count);
  bool AddRecord(const uint8_t* bytes, uint32_t position, LoadCursor& cursor);

  Tree tree_;
  uint64_t last_event_timestamp_ = 0;
  bool was_read_ = false;
  bool was_found_ = false;
  bool keep_file_ = false;
  std::string directory_;
  // The file image, kept between saves since one follows every block.
  Keel::Collections::Buffer image_;
};

}  // namespace Tarn::Storage
