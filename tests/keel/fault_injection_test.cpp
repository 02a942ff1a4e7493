#include "Keel/OS/FaultInjection.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "Keel/OS/File.h"
#include "Keel/OS/FileSystem.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using Keel::OS::File;
namespace Faults = Keel::OS::Faults;
namespace FileSystem = Keel::OS::FileSystem;
using tarn::test::LogCapture;
using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;

// Rules and tracking are process-wide: every test starts and ends clean.
class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    Faults::ClearRules();
    Faults::EnableCrashTracking(false);
  }

  File OpenNew(const std::string& name) {
    File file;
    EXPECT_TRUE(file.Open(dir_.File(name), File::Mode::CreateTruncate));
    return file;
  }

  tarn::test::TempDir dir_;
};

TEST_F(FaultTest, NthWriteFailsOnceWithEio) {
  int rule = Faults::AddRule({"day.db", Faults::Write, 3, Faults::Eio, 1});
  File file = OpenNew("day.db");
  LogCapture log;
  EXPECT_TRUE(file.Write("1", 1));
  EXPECT_TRUE(file.Write("2", 1));
  EXPECT_FALSE(file.Write("3", 1));
  EXPECT_EQ(EIO, file.LastError());
  EXPECT_EQ(1u, log.CountFrom(Keel::Log::File, Keel::Log::Error));
  EXPECT_TRUE(file.Append("4", 1));
  EXPECT_TRUE(file.WriteAt(0, "0", 1));
  EXPECT_EQ("024", ReadWholeFile(dir_.File("day.db")));
  EXPECT_EQ(5u, Faults::MatchCount(rule));
  EXPECT_EQ(1u, Faults::FailCount(rule));
}

TEST_F(FaultTest, TimesBoundsConsecutiveFailures) {
  int rule = Faults::AddRule({"", Faults::Write, 2, Faults::Enospc, 2});
  File file = OpenNew("day.db");
  EXPECT_TRUE(file.Write("a", 1));
  EXPECT_FALSE(file.Write("b", 1));
  EXPECT_EQ(ENOSPC, file.LastError());
  EXPECT_FALSE(file.Write("c", 1));
  EXPECT_TRUE(file.Write("d", 1));
  EXPECT_EQ("ad", ReadWholeFile(dir_.File("day.db")));
  EXPECT_EQ(2u, Faults::FailCount(rule));

  Faults::ClearRules();
  Faults::AddRule({"", Faults::Write, 1, Faults::Eio, Faults::Rule::kForever});
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(file.Write("e", 1));
}

TEST_F(FaultTest, ShortWriteStoresExactlyHalf) {
  Faults::AddRule({"day.db", Faults::Write, 2, Faults::ShortWrite, 1});
  File file = OpenNew("day.db");
  ASSERT_TRUE(file.Write("ETRN", 4));
  EXPECT_FALSE(file.Write("0123456789", 10));
  EXPECT_EQ(ENOSPC, file.LastError());
  EXPECT_EQ("ETRN01234", ReadWholeFile(dir_.File("day.db")));
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
  std::string name = dir_.File("storage.index.db");
  WriteWholeFile(name, "index");
  WriteWholeFile(name + ".temp", "new");
  Faults::AddRule({"storage.index.db", Faults::Delete | Faults::Move | Faults::Stat, 1,
                   Faults::Eio, Faults::Rule::kForever});
  Faults::AddRule({"/subdir", Faults::CreateDirectory | Faults::List | Faults::Open, 1,
                   Faults::Enospc, Faults::Rule::kForever});
  LogCapture log;
  uint64_t size = 0;
  EXPECT_FALSE(FileSystem::DeleteFile(name));
  EXPECT_FALSE(FileSystem::MoveFile(dir_.File("other"), name));  // matches the target name
  EXPECT_FALSE(FileSystem::GetFileSize(name, size));
  EXPECT_EQ(EIO, FileSystem::LastError());
  EXPECT_FALSE(FileSystem::CreateDirectory(dir_.File("subdir")));
  EXPECT_EQ(ENOSPC, FileSystem::LastError());
  std::vector<std::string> names;
  EXPECT_FALSE(FileSystem::ListDirectory(dir_.File("subdir"), names));
  File file;
  EXPECT_FALSE(file.Open(dir_.File("subdir.db"), File::Mode::CreateTruncate));
  EXPECT_EQ(ENOSPC, file.LastError());
  EXPECT_EQ(5u, log.CountFrom(Keel::Log::FileSystem, Keel::Log::Error));
  EXPECT_EQ(1u, log.CountFrom(Keel::Log::File, Keel::Log::Error));

  // Nothing happened on disk.
  EXPECT_EQ("index", ReadWholeFile(name));
  EXPECT_FALSE(FileSystem::Exists(dir_.File("subdir")));
  EXPECT_FALSE(FileSystem::Exists(dir_.File("subdir.db")));
  Faults::ClearRules();
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

TEST_F(FaultTest, PowerCutDropsUnflushedAppendsAndKeepsFlushedBytes) {
  Faults::EnableCrashTracking(true);
  std::string path = dir_.File("storage.00001.000.db");
  File file = OpenNew("storage.00001.000.db");
  ASSERT_TRUE(file.Append("ETRN", 4));
  ASSERT_TRUE(file.Append("block1", 6));
  ASSERT_TRUE(file.Flush());
  EXPECT_EQ(0u, Faults::PendingFiles());
  ASSERT_TRUE(file.Append("block2", 6));
  EXPECT_EQ(1u, Faults::PendingFiles());
  ASSERT_TRUE(file.Close());

  Faults::SimulatePowerCut();
  EXPECT_EQ("ETRNblock1", ReadWholeFile(path));
  EXPECT_EQ(0u, Faults::PendingFiles());
}

TEST_F(FaultTest, PowerCutDeletesNeverFlushedFiles) {
  Faults::EnableCrashTracking(true);
  {
    File file = OpenNew("storage.00002.000.db");
    ASSERT_TRUE(file.Write("ETRN", 4));
  }
  File lock;  // opening a durable file without changing it is not a change
  WriteWholeFile(dir_.File("storage.lock"), "");
  ASSERT_TRUE(lock.Open(dir_.File("storage.lock"), File::Mode::OpenOrCreate));
  EXPECT_EQ(1u, Faults::PendingFiles());

  Faults::SimulatePowerCut();
  EXPECT_FALSE(FileSystem::Exists(dir_.File("storage.00002.000.db")));
  EXPECT_TRUE(FileSystem::Exists(dir_.File("storage.lock")));
}

TEST_F(FaultTest, PowerCutRestoresOverwrittenAndTruncatedBytes) {
  std::string rewritten = dir_.File("rewritten.db");
  std::string truncated = dir_.File("truncated.db");
  std::string recreated = dir_.File("recreated.db");
  WriteWholeFile(rewritten, "ETRNabcdef");
  WriteWholeFile(truncated, "ETRNabcdef");
  WriteWholeFile(recreated, "ETRNabcdef");
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
  EXPECT_EQ("ETRNabcdef", ReadWholeFile(rewritten));
  EXPECT_EQ("ETRNabcdef", ReadWholeFile(truncated));
  EXPECT_EQ("ETRNabcdef", ReadWholeFile(recreated));
}

TEST_F(FaultTest, PowerCutKeepsFlushedReplaceAndUndoesUnflushedOne) {
  std::string name = dir_.File("storage.index.db");
  std::string temp = name + ".temp";
  WriteWholeFile(name, "old");
  Faults::EnableCrashTracking(true);

  // The save that flushes before the move survives.
  File file = OpenNew("storage.index.db.temp");
  ASSERT_TRUE(file.Write("new", 3));
  ASSERT_TRUE(file.Flush());
  ASSERT_TRUE(file.Close());
  ASSERT_TRUE(FileSystem::DeleteFile(name));
  ASSERT_TRUE(FileSystem::MoveFile(temp, name));
  Faults::SimulatePowerCut();
  EXPECT_EQ("new", ReadWholeFile(name));
  EXPECT_FALSE(FileSystem::Exists(temp));

  // One that skips the flush loses the file under its new name.
  file = OpenNew("storage.index.db.temp");
  ASSERT_TRUE(file.Write("newer", 5));
  ASSERT_TRUE(file.Close());
  ASSERT_TRUE(FileSystem::MoveFile(temp, name));
  EXPECT_EQ("newer", ReadWholeFile(name));
  Faults::SimulatePowerCut();
  EXPECT_FALSE(FileSystem::Exists(name));
  EXPECT_FALSE(FileSystem::Exists(temp));
}

TEST_F(FaultTest, FailedFlushLeavesBytesAtRisk) {
  Faults::EnableCrashTracking(true);
  std::string path = dir_.File("day.db");
  WriteWholeFile(path, "ETRN");
  Faults::AddRule({"day.db", Faults::Flush, 1, Faults::Eio, 1});
  File file;
  ASSERT_TRUE(file.Open(path, File::Mode::ReadWrite));
  ASSERT_TRUE(file.Append("block", 5));
  EXPECT_FALSE(file.Flush());
  Faults::SimulatePowerCut();
  EXPECT_EQ("ETRN", ReadWholeFile(path));

  // Without tracking nothing is remembered or undone.
  Faults::EnableCrashTracking(false);
  ASSERT_TRUE(file.Append("block", 5));
  Faults::SimulatePowerCut();
  EXPECT_EQ("ETRNblock", ReadWholeFile(path));
}

}  // namespace
