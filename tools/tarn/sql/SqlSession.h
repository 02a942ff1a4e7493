#pragma once

#include <csignal>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "tarn/host/ModuleHost.h"
#include "tarn/host/QueryClient.h"
#include "tarn/sql/SqlTables.h"

struct sqlite3;

namespace Tarn::Tool {

class ResultPrinter;

// What the statements of a session cost the store.
struct SqlStats {
  QueryStats queries;
  ScanCacheStats cache;
  uint64_t bytes_read = 0;  // read from files by this process since Open
};

// SQL over a store: the store opened through the module as the agent's host
// does, and an in-memory SQLite database whose 135 tables the store answers.
// The database is closed before the store, and both before protobuf goes
// with the module.
class SqlSession {
 public:
  SqlSession() = default;
  ~SqlSession();
  SqlSession(const SqlSession&) = delete;
  SqlSession& operator=(const SqlSession&) = delete;

  // Opens the store (with the widest limits unless `host` sets some) and
  // gives it `limits` for its answers. Scans run on `threads` threads (0:
  // DefaultScanThreads). False with `error` in words.
  bool Open(const HostOptions& host, const QueryLimits& limits, unsigned threads,
            std::string& error);

  // Runs the statements of `sql` one after another, each one's rows to
  // `printer`. False with `error` at the first that fails. Integer literals
  // past 2^63 are read as 64-bit ids (see SignedIdLiterals); results show
  // the columns of such ids unsigned.
  bool Run(std::string_view sql, ResultPrinter& printer, std::string& error);

  // For Ctrl-C: from now on a statement stops with "interrupted" once
  // `*flag` is set (by a signal handler), even if it was set before the
  // statement started. SQLite looks at it as it runs (its progress
  // handler), so a page the store is answering arrives first. Unlike
  // sqlite3_interrupt(), whose mark outlives an idle moment and fails the
  // next statement, the flag is the caller's to clear.
  void StopWhen(const volatile std::sig_atomic_t* flag);

  SqlStats Stats() const;
  // Blocks the store could not read, which answers were read around (see
  // ReadAround.h), as day and block bits of a position.
  std::set<uint64_t> UnreadableBlocks() const;

  bool Close(std::string& error);

 private:
  ModuleHost host_;
  std::unique_ptr<QueryClient> client_;
  std::unique_ptr<StoreTables> tables_;
  sqlite3* db_ = nullptr;
  uint64_t read_at_open_ = 0;
};

// One thread per core.
unsigned DefaultScanThreads();

// Bytes this process has read through read(2) and pread(2) so far (rchar of
// /proc/self/io), 0 when unknown.
uint64_t ProcessBytesRead();

}  // namespace Tarn::Tool
