#include "Keel/OS/FaultInjection.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "Keel/OS/File.h"
#include "Keel/OS/FileSystem.h"
#include "keel/disk_fixture.h"
#include "support/log_capture.h"

namespace {

using Keel::OS::File;
namespace Faults = Keel::OS::Faults;
namespace FileSystem = Keel::OS::FileSystem;
using tarn::test::LogCapture;
using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;

class FaultTest : public tarn::test::DiskTest {};

// Writes one byte at a time, alternating Write and Append: the nth and the
// `times - 1` after it fail with the rule's error, one log record each.
TEST_F(FaultTest, NthWriteFailsForTimesThenWritesResume) {
  struct Case {
    const char* path;
    uint32_t nth, times;
    Faults::Kind kind;
    int error, writes;
  };
  for (const Case& c :
       {Case{"day.db", 3, 1, Faults::Eio, EIO, 5}, Case{"", 2, 2, Faults::Enospc, ENOSPC, 5},
        Case{"", 1, Faults::Rule::kForever, Faults::Eio, EIO, 50}}) {
    SCOPED_TRACE(c.nth);
    ResetFaults();
    int rule = Faults::AddRule({c.path, Faults::Write, c.nth, c.kind, c.times});
    File file = OpenNew("day.db");
    LogCapture log;
    std::string landed;
    for (int i = 1; i <= c.writes; ++i) {
      const char byte = static_cast<char>('a' + i);
      bool fails = uint32_t(i) >= c.nth && uint32_t(i) - c.nth < c.times;
      EXPECT_EQ(!fails, i % 2 ? file.Write(&byte, 1) : file.Append(&byte, 1)) << i;
      if (fails) {
        EXPECT_EQ(c.error, file.LastError());
      } else {
        landed += byte;
      }
    }
    uint64_t failed = c.writes - landed.size();
    EXPECT_EQ(landed, ReadWholeFile(Path("day.db")));
    EXPECT_EQ(uint64_t(c.writes), Faults::MatchCount(rule));
    EXPECT_EQ(failed, Faults::FailCount(rule));
    EXPECT_EQ(failed, log.CountFrom(Keel::Log::File, Keel::Log::Error));
  }
}

TEST_F(FaultTest, ShortWriteStoresExactlyHalf) {
  Faults::AddRule({"day.db", Faults::Write, 2, Faults::ShortWrite, 1});
  File file = OpenNew("day.db");
  ASSERT_TRUE(file.Write("ETRN", 4));
  EXPECT_FALSE(file.WriteAt(4, "0123456789", 10));
  EXPECT_EQ(ENOSPC, file.LastError());
  EXPECT_EQ("ETRN01234", ReadWholeFile(Path("day.db")));
  uint64_t size = 0;
  ASSERT_TRUE(file.GetSize(size));
  EXPECT_EQ(9u, size);
}

TEST_F(FaultTest, RulesMatchOnlyTheirPathAndOperations) {
  int flush_rule = Faults::AddRule({"a.db", Faults::Flush, 1, Faults::Eio, 1});
  int counter = Faults::AddRule({"a.db", Faults::All, 1, Faults::Eio, 0});
  File a = OpenNew("a.db");
  File b = OpenNew("b.db");
  EXPECT_TRUE(a.Write("x", 1));
  EXPECT_TRUE(b.Write("x", 1));
  EXPECT_TRUE(b.Flush());
  EXPECT_FALSE(a.Flush());
  EXPECT_EQ(EIO, a.LastError());
  EXPECT_TRUE(a.Flush());  // one time only

  // The counter saw a's open, write and two flushes, nothing of b.
  EXPECT_EQ(4u, Faults::MatchCount(counter));
  EXPECT_EQ(0u, Faults::FailCount(counter));
  EXPECT_EQ(2u, Faults::MatchCount(flush_rule));
  EXPECT_TRUE(Faults::RemoveRule(counter));
  EXPECT_FALSE(Faults::RemoveRule(counter));
  EXPECT_EQ(0u, Faults::MatchCount(counter));
}

TEST_F(FaultTest, FileSystemOperationsFailAsInjected) {
  std::string name = Path("storage.index.db");
  WriteWholeFile(name, "index");
  WriteWholeFile(name + ".temp", "new");
  Faults::AddRule({"storage.index.db", Faults::Delete | Faults::Move | Faults::Stat, 1, Faults::Eio,
                   Faults::Rule::kForever});
  Faults::AddRule({"/subdir", Faults::CreateDirectory | Faults::List | Faults::Open, 1,
                   Faults::Enospc, Faults::Rule::kForever});
  LogCapture log;
  uint64_t size = 0;
  EXPECT_FALSE(FileSystem::DeleteFile(name));
  EXPECT_FALSE(FileSystem::MoveFile(Path("other"), name));  // matches the target name
  EXPECT_FALSE(FileSystem::GetFileSize(name, size));
  EXPECT_EQ(EIO, FileSystem::LastError());
  EXPECT_FALSE(FileSystem::CreateDirectory(Path("subdir")));
  EXPECT_EQ(ENOSPC, FileSystem::LastError());
  std::vector<std::string> names;
  EXPECT_FALSE(FileSystem::ListDirectory(Path("subdir"), names));
  File file;
  EXPECT_FALSE(file.Open(Path("subdir.db"), File::Mode::CreateTruncate));
  EXPECT_EQ(ENOSPC, file.LastError());
  EXPECT_EQ(5u, log.CountFrom(Keel::Log::FileSystem, Keel::Log::Error));
  EXPECT_EQ(1u, log.CountFrom(Keel::Log::File, Keel::Log::Error));

  // Nothing happened on disk.
  EXPECT_EQ("index", ReadWholeFile(name));
  EXPECT_FALSE(FileSystem::Exists(Path("subdir")));
  EXPECT_FALSE(FileSystem::Exists(Path("subdir.db")));
  ResetFaults();
  EXPECT_TRUE(FileSystem::MoveFile(name + ".temp", name));
  EXPECT_EQ("new", ReadWholeFile(name));
}

TEST_F(FaultTest, CountsAreExactUnderConcurrentWriters) {
  int counter = Faults::AddRule({"", Faults::Write, 1, Faults::Eio, 0});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      File file = OpenNew("thread" + std::to_string(t));
      for (int i = 0; i < 250; ++i) EXPECT_TRUE(file.Append("x", 1));
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(1000u, Faults::MatchCount(counter));
}

// Appends after the last good flush (even a failed flush) are lost, files
// never flushed vanish, and durable files that were only opened stay.
TEST_F(FaultTest, PowerCutUndoesEverythingSinceTheLastGoodFlush) {
  std::string day = Path("storage.00001.000.db");
  WriteWholeFile(Path("storage.lock"), "");
  Faults::EnableCrashTracking(true);
  File file = OpenNew("storage.00001.000.db");
  ASSERT_TRUE(file.Append("ETRN", 4));
  ASSERT_TRUE(file.Append("block1", 6));
  ASSERT_TRUE(file.Flush());
  // Its bytes are durable, its name not until the directory is synced.
  EXPECT_EQ(1u, Faults::PendingFiles());
  ASSERT_TRUE(FileSystem::SyncDirectory(Path("")));
  EXPECT_EQ(0u, Faults::PendingFiles());
  File flushed_unsynced = OpenNew("storage.00003.000.db");
  ASSERT_TRUE(flushed_unsynced.Write("ETRN", 4) && flushed_unsynced.Flush());
  ASSERT_TRUE(file.Append("block2", 6));
  Faults::AddRule({"storage.00001", Faults::Flush, 1, Faults::Eio, 1});
  EXPECT_FALSE(file.Flush());
  {
    File never_flushed = OpenNew("storage.00002.000.db");
    ASSERT_TRUE(never_flushed.Write("ETRN", 4));
  }
  File lock;
  ASSERT_TRUE(lock.Open(Path("storage.lock"), File::Mode::OpenOrCreate));
  EXPECT_EQ(3u, Faults::PendingFiles());

  Faults::SimulatePowerCut();
  EXPECT_EQ("ETRNblock1", ReadWholeFile(day));
  EXPECT_FALSE(FileSystem::Exists(Path("storage.00002.000.db")));
  EXPECT_FALSE(FileSystem::Exists(Path("storage.00003.000.db")));
  EXPECT_TRUE(FileSystem::Exists(Path("storage.lock")));
  EXPECT_EQ(0u, Faults::PendingFiles());

  // Without tracking nothing is remembered or undone.
  Faults::EnableCrashTracking(false);
  ASSERT_TRUE(file.Append("block2", 6));
  Faults::SimulatePowerCut();
  EXPECT_EQ("ETRNblock1block2", ReadWholeFile(day));
}

TEST_F(FaultTest, PowerCutRestoresOverwrittenAndTruncatedBytes) {
  std::string rewritten = Path("rewritten.db");
  std::string truncated = Path("truncated.db");
  std::string recreated = Path("recreated.db");
  for (const std::string& path : {rewritten, truncated, recreated}) {
    WriteWholeFile(path, "ETRNabcdef");
  }
  Faults::EnableCrashTracking(true);

  File file;
  ASSERT_TRUE(file.Open(rewritten, File::Mode::ReadWrite));
  ASSERT_TRUE(file.Append("ghi", 3));
  ASSERT_TRUE(file.WriteAt(4, "XYZ", 3));
  ASSERT_TRUE(file.Open(truncated, File::Mode::ReadWrite));
  ASSERT_TRUE(file.Truncate(5));
  ASSERT_TRUE(file.Open(recreated, File::Mode::CreateTruncate));
  ASSERT_TRUE(file.Write("new", 3));
  ASSERT_TRUE(file.Close());
  EXPECT_EQ(3u, Faults::PendingFiles());

  Faults::SimulatePowerCut();
  for (const std::string& path : {rewritten, truncated, recreated}) {
    EXPECT_EQ("ETRNabcdef", ReadWholeFile(path)) << path;
  }
}

// The index is saved through a temporary file moved over the old one.
TEST_F(FaultTest, PowerCutKeepsFlushedReplaceAndUndoesUnflushedOne) {
  std::string name = Path("storage.index.db");
  std::string temp = name + ".temp";
  WriteWholeFile(name, "old");
  Faults::EnableCrashTracking(true);

  // The save that flushes before the move survives.
  File file = OpenNew("storage.index.db.temp");
  ASSERT_TRUE(file.Write("new", 3));
  ASSERT_TRUE(file.Flush());
  ASSERT_TRUE(file.Close());
  ASSERT_TRUE(FileSystem::DeleteFile(name));
  EXPECT_FALSE(FileSystem::Exists(name));
  ASSERT_TRUE(FileSystem::MoveFile(temp, name));
  Faults::SimulatePowerCut();
  EXPECT_EQ("new", ReadWholeFile(name));
  EXPECT_FALSE(FileSystem::Exists(temp));

  // One that skips the flush loses the file under its new name.
  file = OpenNew("storage.index.db.temp");
  ASSERT_TRUE(file.Write("newer", 5));
  ASSERT_TRUE(file.Close());
  ASSERT_TRUE(FileSystem::MoveFile(temp, name));  // onto an existing name
  EXPECT_EQ("newer", ReadWholeFile(name));
  Faults::SimulatePowerCut();
  EXPECT_FALSE(FileSystem::Exists(name));
  EXPECT_FALSE(FileSystem::Exists(temp));
}

}  // namespace
