#include "Keel/OS/File.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Keel/OS/FileSystem.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using Keel::OS::File;
namespace FileSystem = Keel::OS::FileSystem;
using tarn::test::LogCapture;
using tarn::test::ReadWholeFile;
using tarn::test::TempDir;
using tarn::test::WriteWholeFile;

unsigned Permissions(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
  return info.st_mode & 0777;
}

std::string ReadAt(File& file, uint64_t offset, size_t size) {
  std::string out(size, '\0');
  size_t got = 0;
  EXPECT_TRUE(file.ReadAt(offset, out.data(), size, &got));
  out.resize(got);
  return out;
}

TEST(FileTest, CreatedFilesAndDirectoriesArePrivate) {
  TempDir dir;
  std::string nested = dir.File("a/b/c");
  ASSERT_TRUE(FileSystem::CreateDirectory(nested));
  EXPECT_TRUE(FileSystem::IsDirectory(nested));
  EXPECT_EQ(0700u, Permissions(dir.File("a")));
  EXPECT_EQ(0700u, Permissions(dir.File("a/b")));
  EXPECT_EQ(0700u, Permissions(nested));
  EXPECT_TRUE(FileSystem::CreateDirectory(nested + "/"));  // already there

  File created;
  ASSERT_TRUE(created.Open(nested + "/storage.00001.000.db", File::Mode::OpenOrCreate));
  File truncated;
  ASSERT_TRUE(truncated.Open(nested + "/storage.index.db", File::Mode::CreateTruncate));
  EXPECT_EQ(0600u, Permissions(nested + "/storage.00001.000.db"));
  EXPECT_EQ(0600u, Permissions(nested + "/storage.index.db"));

  LogCapture log;
  EXPECT_FALSE(FileSystem::CreateDirectory(nested + "/storage.index.db"));
  EXPECT_EQ(ENOTDIR, FileSystem::LastError());
  EXPECT_EQ(1u, log.CountFrom(Keel::Log::FileSystem, Keel::Log::Error));
}

TEST(FileTest, WriteReadAppendTruncateRoundTrip) {
  TempDir dir;
  File file;
  ASSERT_TRUE(file.Open(dir.File("day.db"), File::Mode::CreateTruncate));
  ASSERT_TRUE(file.Write("ETRN", 4));
  ASSERT_TRUE(file.Write("head", 4));
  uint64_t position = 0;
  ASSERT_TRUE(file.Tell(position));
  EXPECT_EQ(8u, position);

  // WriteAt leaves the position alone; the gap reads back as zeros.
  ASSERT_TRUE(file.WriteAt(12, "XY", 2));
  ASSERT_TRUE(file.Tell(position));
  EXPECT_EQ(8u, position);
  ASSERT_TRUE(file.Append("tail", 4));
  ASSERT_TRUE(file.Tell(position));
  EXPECT_EQ(18u, position);
  ASSERT_TRUE(file.Flush());

  uint64_t size = 0;
  ASSERT_TRUE(file.GetSize(size));
  EXPECT_EQ(18u, size);
  EXPECT_EQ(std::string("ETRNhead\0\0\0\0XYtail", 18), ReadWholeFile(dir.File("day.db")));
  EXPECT_EQ("headXY", ReadAt(file, 4, 4) + ReadAt(file, 12, 2));
  EXPECT_EQ("il", ReadAt(file, 16, 100));  // stops at the end, not a failure

  char buffer[4];
  ASSERT_TRUE(file.Seek(-4, File::Origin::End));
  ASSERT_TRUE(file.ReadExact(buffer, 4));
  EXPECT_EQ("tail", std::string(buffer, 4));
  ASSERT_TRUE(file.Seek(0));
  ASSERT_TRUE(file.ReadExact(buffer, 4));
  EXPECT_EQ("ETRN", std::string(buffer, 4));

  // Cutting a torn tail.
  ASSERT_TRUE(file.Truncate(8));
  ASSERT_TRUE(file.GetSize(size));
  EXPECT_EQ(8u, size);
  EXPECT_EQ("ETRNhead", ReadWholeFile(dir.File("day.db")));
  ASSERT_TRUE(FileSystem::GetFileSize(dir.File("day.db"), size));
  EXPECT_EQ(8u, size);

  LogCapture log;
  EXPECT_FALSE(file.ReadAtExact(6, buffer, 4));
  EXPECT_EQ(File::kShortRead, file.LastError());
  size_t got = 99;
  ASSERT_TRUE(file.Seek(8));
  EXPECT_FALSE(file.ReadExact(buffer, 1));
  EXPECT_TRUE(file.Read(buffer, 1, &got));
  EXPECT_EQ(0u, got);
  EXPECT_EQ(2u, log.CountFrom(Keel::Log::File, Keel::Log::Warning));
}

TEST(FileTest, ModesTreatExistingFilesAsDocumented) {
  TempDir dir;
  std::string path = dir.File("f.db");
  WriteWholeFile(path, "durable");

  File file;
  ASSERT_TRUE(file.Open(path, File::Mode::OpenOrCreate));
  EXPECT_EQ("durable", ReadAt(file, 0, 64));
  ASSERT_TRUE(file.Open(path, File::Mode::ReadWrite));  // reopening closes first
  ASSERT_TRUE(file.WriteAt(0, "D", 1));
  EXPECT_EQ("Durable", ReadWholeFile(path));

  ASSERT_TRUE(file.Open(path, File::Mode::Read));
  LogCapture log;
  EXPECT_FALSE(file.Write("x", 1));
  EXPECT_EQ(EBADF, file.LastError());
  EXPECT_EQ(1u, log.CountFrom(Keel::Log::File, Keel::Log::Error));
  EXPECT_EQ("Durable", ReadWholeFile(path));

  ASSERT_TRUE(file.Open(path, File::Mode::CreateTruncate));
  EXPECT_EQ("", ReadWholeFile(path));
}

TEST(FileTest, FailuresReturnFalseWithOneLogRecord) {
  TempDir dir;
  LogCapture log;
  File file;
  EXPECT_FALSE(file.Open(dir.File("missing.db"), File::Mode::Read));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(ENOENT, file.LastError());
  ASSERT_EQ(1u, log.Records().size());
  EXPECT_EQ(uint32_t{Keel::Log::File}, log.Records()[0].component);
  EXPECT_EQ(uint32_t{Keel::Log::Error}, log.Records()[0].severity);
  EXPECT_EQ(uint64_t{ENOENT}, log.Records()[0].values[0]);

  EXPECT_FALSE(file.Open(dir.File("missing.db"), File::Mode::ReadWrite));
  EXPECT_FALSE(FileSystem::Exists(dir.File("missing.db")));

  // Every operation on a closed file fails the same way.
  log.Clear();
  uint64_t size = 0;
  char byte = 0;
  EXPECT_FALSE(file.Write("x", 1));
  EXPECT_FALSE(file.Read(&byte, 1, nullptr));
  EXPECT_FALSE(file.GetSize(size));
  EXPECT_FALSE(file.Flush());
  EXPECT_FALSE(file.Truncate(0));
  EXPECT_FALSE(file.TryLockExclusive());
  EXPECT_EQ(EBADF, file.LastError());
  EXPECT_EQ(6u, log.Count(Keel::Log::Error));

  log.Clear();
  EXPECT_FALSE(FileSystem::GetFileSize(dir.File("missing.db"), size));
  EXPECT_FALSE(FileSystem::MoveFile(dir.File("missing.db"), dir.File("other.db")));
  EXPECT_EQ(ENOENT, FileSystem::LastError());
  EXPECT_EQ(2u, log.CountFrom(Keel::Log::FileSystem, Keel::Log::Error));

  // Deleting what is already gone is not a failure.
  log.Clear();
  EXPECT_TRUE(FileSystem::DeleteFile(dir.File("missing.db")));
  EXPECT_TRUE(log.Empty());
}

TEST(FileTest, MovedFileKeepsItsDescriptor) {
  TempDir dir;
  File first;
  ASSERT_TRUE(first.Open(dir.File("f.db"), File::Mode::CreateTruncate));
  File second(std::move(first));
  EXPECT_FALSE(first.IsOpen());  // NOLINT: checking the moved-from state on purpose
  EXPECT_TRUE(second.IsOpen());
  EXPECT_EQ(dir.File("f.db"), second.Path());
  ASSERT_TRUE(second.Write("abc", 3));

  File third;
  ASSERT_TRUE(third.Open(dir.File("g.db"), File::Mode::CreateTruncate));
  third = std::move(second);  // closes g.db, takes f.db
  ASSERT_TRUE(third.Append("d", 1));
  EXPECT_EQ("abcd", ReadWholeFile(dir.File("f.db")));
}

TEST(FileSystemTest, AtomicReplaceThroughTemporaryFile) {
  TempDir dir;
  std::string name = dir.File("storage.index.db");
  std::string temp = name + ".temp";
  WriteWholeFile(name, "old index");

  File file;
  ASSERT_TRUE(file.Open(temp, File::Mode::CreateTruncate));
  ASSERT_TRUE(file.Write("new index", 9));
  ASSERT_TRUE(file.Flush());
  ASSERT_TRUE(file.Close());
  ASSERT_TRUE(FileSystem::DeleteFile(name));
  EXPECT_FALSE(FileSystem::Exists(name));
  ASSERT_TRUE(FileSystem::MoveFile(temp, name));
  EXPECT_FALSE(FileSystem::Exists(temp));
  EXPECT_EQ("new index", ReadWholeFile(name));

  // Moving onto an existing name replaces it too.
  WriteWholeFile(temp, "newer");
  ASSERT_TRUE(FileSystem::MoveFile(temp, name));
  EXPECT_EQ("newer", ReadWholeFile(name));
}

TEST(FileSystemTest, ListDirectoryReturnsSortedFileNamesOnly) {
  TempDir dir;
  for (const char* name : {"storage.00002.000.db", "storage.index.db", "storage.00001.001.db",
                           "storage.00001.000.db"}) {
    WriteWholeFile(dir.File(name), "x");
  }
  ASSERT_TRUE(FileSystem::CreateDirectory(dir.File("storage.00003.000.db")));

  std::vector<std::string> names{"stale"};
  ASSERT_TRUE(FileSystem::ListDirectory(dir.path(), names));
  EXPECT_EQ((std::vector<std::string>{"storage.00001.000.db", "storage.00001.001.db",
                                      "storage.00002.000.db", "storage.index.db"}),
            names);

  LogCapture log;
  EXPECT_FALSE(FileSystem::ListDirectory(dir.File("nowhere"), names));
  EXPECT_TRUE(names.empty());
  EXPECT_EQ(1u, log.CountFrom(Keel::Log::FileSystem, Keel::Log::Error));
}

TEST(FileTest, ExclusiveLockIsHeldUntilClose) {
  TempDir dir;
  std::string path = dir.File("storage.lock");
  File second;
  ASSERT_TRUE(second.Open(path, File::Mode::OpenOrCreate));
  {
    File first;
    ASSERT_TRUE(first.Open(path, File::Mode::OpenOrCreate));
    ASSERT_TRUE(first.TryLockExclusive());
    LogCapture log;
    EXPECT_FALSE(second.TryLockExclusive());
    EXPECT_EQ(EWOULDBLOCK, second.LastError());
    EXPECT_EQ(1u, log.CountFrom(Keel::Log::File, Keel::Log::Warning));
  }  // the destructor closes and so releases
  EXPECT_TRUE(second.TryLockExclusive());

  File third;
  ASSERT_TRUE(third.Open(path, File::Mode::Read));
  EXPECT_FALSE(third.TryLockExclusive());
  ASSERT_TRUE(second.Close());
  EXPECT_TRUE(third.TryLockExclusive());
}

}  // namespace
