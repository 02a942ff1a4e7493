// RocksDB as an event store is usually set up: one key per event, made of
// the table (the event type id), the time and a sequence number, all
// big-endian so that keys sort by table, then time; the value is the event's
// record, the very bytes the store keeps. Default options but the block
// compression (zstd or LZ4, default levels and 4 KiB blocks), one Put per
// event with the default write options (the write-ahead log on, no sync).
// Ingest ends when the memtable is flushed; a full compaction follows, and
// the bytes are counted after it. Questions are answered by seeking and
// iterating keys, and the records read are turned into rows by the store's
// own converter.

#include <rocksdb/db.h>
#include <rocksdb/options.h>

#include <memory>
#include <string>

#include "common/Measure.h"
#include "osquery/Tables.h"
#include "peers/Contender.h"
#include "peers/Questions.h"
#include "peers/RecordFile.h"
#include "peers/RowsFromRecords.h"

namespace Tarn::Bench {
namespace {

constexpr size_t kKeyBytes = 2 + 8 + 8;

void PutBigEndian(char* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<char>(value >> (8 * (bytes - 1 - i)));
}

std::string Key(uint32_t table, uint64_t time_ms, uint64_t sequence) {
  std::string key(kKeyBytes, '\0');
  PutBigEndian(key.data(), table, 2);
  PutBigEndian(key.data() + 2, time_ms, 8);
  PutBigEndian(key.data() + 10, sequence, 8);
  return key;
}

class RocksContender final : public Contender {
 public:
  RocksContender(std::string directory, rocksdb::CompressionType compression)
      : directory_(std::move(directory)), compression_(compression) {}

  bool Ingest(const CorpusFiles& corpus, IngestFigures& figures, std::string& error) override;
  // The tables, the manifest and the write-ahead log; not the info logs.
  uint64_t BytesOnDisk() override { return DirectoryBytes(directory_.c_str(), "LOG"); }
  bool Open(std::string& error) override { return OpenDb(error); }
  bool Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome, std::string& error) override;
  bool Scan(Outcome& outcome, std::string& error) override;
  bool Join(Outcome& outcome, std::string& error) override;

 private:
  bool OpenDb(std::string& error);
  bool Check(const rocksdb::Status& status, std::string& error);
  // Visits the records of `table` with times in [from_ms, to_ms).
  template <typename Fn>
  bool Range(uint32_t table, uint64_t from_ms, uint64_t to_ms, Fn&& visit, std::string& error);

  std::string directory_;
  rocksdb::CompressionType compression_;
  std::unique_ptr<rocksdb::DB> db_;
};

bool RocksContender::Check(const rocksdb::Status& status, std::string& error) {
  if (!status.ok()) error = "rocksdb: " + status.ToString();
  return status.ok();
}

bool RocksContender::OpenDb(std::string& error) {
  rocksdb::Options options;
  options.create_if_missing = true;
  options.compression = compression_;
  rocksdb::DB* db = nullptr;
  if (!Check(rocksdb::DB::Open(options, directory_, &db), error)) return false;
  db_.reset(db);
  return true;
}

bool RocksContender::Ingest(const CorpusFiles& corpus, IngestFigures& figures, std::string& error) {
  RecordReader records;
  if (!records.Open(corpus.records)) {
    error = "cannot open " + corpus.records;
    return false;
  }
  if (!OpenDb(error)) return false;
  const double start = Now();
  const rocksdb::WriteOptions write;
  const uint8_t* record = nullptr;
  uint32_t size = 0;
  while (records.Next(record, size)) {
    const std::string key = Key(RecordType(record), RecordTime(record), figures.events++);
    const rocksdb::Slice value(reinterpret_cast<const char*>(record), size);
    if (!Check(db_->Put(write, key, value), error)) return false;
  }
  if (!Check(db_->Flush(rocksdb::FlushOptions()), error)) return false;
  figures.seconds = Now() - start;
  rocksdb::CompactRangeOptions compact;
  compact.bottommost_level_compaction = rocksdb::BottommostLevelCompaction::kForce;
  if (!Check(db_->CompactRange(compact, nullptr, nullptr), error)) return false;
  figures.finish_seconds = Now() - start - figures.seconds;
  if (records.Damaged()) error = corpus.records + " ends inside a record";
  return error.empty() && Check(db_->Close(), error);
}

template <typename Fn>
bool RocksContender::Range(uint32_t table, uint64_t from_ms, uint64_t to_ms, Fn&& visit,
                           std::string& error) {
  const std::string end = Key(table, to_ms, 0);
  std::unique_ptr<rocksdb::Iterator> it(db_->NewIterator(rocksdb::ReadOptions()));
  for (it->Seek(Key(table, from_ms, 0)); it->Valid() && it->key().compare(end) < 0; it->Next()) {
    const rocksdb::Slice value = it->value();
    visit(reinterpret_cast<const uint8_t*>(value.data()), static_cast<uint32_t>(value.size()));
  }
  return Check(it->status(), error);
}

bool RocksContender::Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome, std::string& error) {
  RowsFromRecords rows("");
  const google::protobuf::FieldDescriptor* pid = nullptr;
  const uint32_t table = Storage::OSQuery::TableIdByName(Questions::kHourTable);
  return Range(
      table, static_cast<uint64_t>(from_ms), static_cast<uint64_t>(to_ms),
      [&](const uint8_t* record, uint32_t size) {
        const google::protobuf::Message* row = rows.Row(record, size);
        if (row == nullptr) return;
        if (pid == nullptr) pid = Questions::FieldOf(*row, Questions::kHourCheckColumn);
        ++outcome.rows;
        outcome.check += Questions::NumberField(*row, pid);
      },
      error);
}

bool RocksContender::Scan(Outcome& outcome, std::string& error) {
  std::unique_ptr<rocksdb::Iterator> it(db_->NewIterator(rocksdb::ReadOptions()));
  for (it->SeekToFirst(); it->Valid(); it->Next()) {
    const rocksdb::Slice value = it->value();
    if (value.size() < Events::Record::kHeaderSize) continue;
    ++outcome.rows;
    outcome.check += RecordTime(reinterpret_cast<const uint8_t*>(value.data()));
  }
  return Check(it->status(), error);
}

bool RocksContender::Join(Outcome& outcome, std::string& error) {
  Questions::Join join;
  auto table = [&](std::string_view name, std::string_view columns) {
    RowsFromRecords rows(columns);
    return Range(
        Storage::OSQuery::TableIdByName(name), 0, ~0ull,
        [&](const uint8_t* record, uint32_t size) {
          if (const google::protobuf::Message* row = rows.Row(record, size)) {
            Questions::AddJoinRow(*row, join);
          }
        },
        error);
  };
  if (!table(Questions::kProcessTable, Questions::kProcessColumns)) return false;
  for (std::string_view name : Questions::kConnectionTables) {
    if (!table(name, Questions::kConnectionColumns)) return false;
  }
  outcome = join.Result();
  return true;
}

}  // namespace

std::unique_ptr<Contender> MakeRocksContender(const std::string& directory, bool zstd) {
  return std::make_unique<RocksContender>(directory,
                                          zstd ? rocksdb::kZSTD : rocksdb::kLZ4Compression);
}

}  // namespace Tarn::Bench
