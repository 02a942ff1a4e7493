#pragma once

// One way of keeping the same events, and the same three questions asked of
// it. Every contender is fed the same record file and answers with the same
// counts and checks, so that the script can tell that all of them hold and
// return the same events.
//
//  hour  the rows of edr_process_create in one hour, every column read;
//        check: the sum of their pids.
//  scan  every event of every table, each read whole in the form the
//        contender keeps it; check: the sum of their date_time values.
//  join  process starts with the network connections they made, on puid:
//        edr_process_create against edr_network_generic_connect,
//        edr_network_ssl_connect and edr_network_http_connect, reading the
//        process's path and the connection's remote address and port;
//        check: the sum of the remote ports over the pairs.

#include <cstdint>
#include <memory>
#include <string>

#include "common/Measure.h"

namespace Tarn::Bench {

struct CorpusFiles {
  std::string records;  // the record file (RecordFile.h)
  std::string json;     // the same events as JSON lines
};

struct IngestFigures {
  uint64_t events = 0;
  double seconds = 0;          // from the first event to all of them kept for good
  double finish_seconds = 0;   // after that: RocksDB's full compaction
  double convert_seconds = 0;  // of `seconds`: turning records into columns (SQLite)
  Usage tool;                  // the compressor's own, for a contender that runs one
};

struct Outcome {
  uint64_t rows = 0;
  uint64_t check = 0;
};

class Contender {
 public:
  virtual ~Contender() = default;

  // Stores the corpus into the contender's directory, which is empty.
  virtual bool Ingest(const CorpusFiles& corpus, IngestFigures& figures, std::string& error) = 0;
  // Bytes the contender keeps on disk for the events.
  virtual uint64_t BytesOnDisk() = 0;
  // True when the work runs in this process; false when a child process
  // does it (a compressor), whose CPU time and memory Ingest reports.
  virtual bool InProcess() const { return true; }

  // Opens what Ingest stored, for the questions.
  virtual bool Open(std::string& error) = 0;
  virtual bool Hour(int64_t from_ms, int64_t to_ms, Outcome& outcome, std::string& error) = 0;
  virtual bool Scan(Outcome& outcome, std::string& error) = 0;
  virtual bool Join(Outcome& outcome, std::string& error) = 0;
};

// The contenders by name: tarn, rocksdb-zstd, rocksdb-lz4, sqlite,
// json-xz6, json-zstd19, json-zstd3. Null for an unknown name.
std::unique_ptr<Contender> MakeContender(const std::string& name, const std::string& directory);

}  // namespace Tarn::Bench
