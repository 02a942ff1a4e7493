#include "Keel/OS/File.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Keel/OS/FileSystem.h"
#include "keel/disk_fixture.h"
#include "support/log_capture.h"

namespace {

using Keel::OS::File;
namespace FileSystem = Keel::OS::FileSystem;
using tarn::test::LogCapture;
using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;

class FileTest : public tarn::test::DiskTest {
 protected:
  static unsigned Permissions(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
    return info.st_mode & 0777;
  }
  static std::string ReadAt(File& file, uint64_t offset, size_t size) {
    std::string out(size, '\0');
    size_t got = 0;
    EXPECT_TRUE(file.ReadAt(offset, out.data(), size, &got));
    out.resize(got);
    return out;
  }
};

TEST_F(FileTest, CreatedFilesAndDirectoriesArePrivate) {
  std::string nested = Path("a/b/c");
  ASSERT_TRUE(FileSystem::CreateDirectory(nested));
  EXPECT_TRUE(FileSystem::IsDirectory(nested));
  for (const char* dir : {"a", "a/b", "a/b/c"}) EXPECT_EQ(0700u, Permissions(Path(dir))) << dir;
  EXPECT_TRUE(FileSystem::CreateDirectory(nested + "/"));  // already there

  File created, truncated;
  ASSERT_TRUE(created.Open(nested + "/storage.00001.000.db", File::Mode::OpenOrCreate));
  ASSERT_TRUE(truncated.Open(nested + "/storage.index.db", File::Mode::CreateTruncate));
  EXPECT_EQ(0600u, Permissions(nested + "/storage.00001.000.db"));
  EXPECT_EQ(0600u, Permissions(nested + "/storage.index.db"));

  LogCapture log;
  EXPECT_FALSE(FileSystem::CreateDirectory(nested + "/storage.index.db"));
  EXPECT_EQ(ENOTDIR, FileSystem::LastError());
  EXPECT_EQ(1u, log.CountFrom(Keel::Log::FileSystem, Keel::Log::Error));
}

TEST_F(FileTest, WriteReadAppendTruncateRoundTrip) {
  File file = OpenNew("day.db");
  ASSERT_TRUE(file.Write("ETRN", 4));
  ASSERT_TRUE(file.Write("head", 4));
  // WriteAt leaves the position alone; the gap reads back as zeros.
  uint64_t position = 0, size = 0;
  ASSERT_TRUE(file.WriteAt(12, "XY", 2));
  ASSERT_TRUE(file.Tell(position));
  EXPECT_EQ(8u, position);
  ASSERT_TRUE(file.Append("tail", 4));
  ASSERT_TRUE(file.Tell(position));
  EXPECT_EQ(18u, position);
  ASSERT_TRUE(file.Flush());
  ASSERT_TRUE(file.GetSize(size));
  EXPECT_EQ(18u, size);
  EXPECT_EQ(std::string("ETRNhead\0\0\0\0XYtail", 18), ReadWholeFile(Path("day.db")));
  EXPECT_EQ("headXY", ReadAt(file, 4, 4) + ReadAt(file, 12, 2));
  EXPECT_EQ("il", ReadAt(file, 16, 100));  // stops at the end, not a failure

  char buffer[4];
  ASSERT_TRUE(file.Seek(-4, File::Origin::End));
  ASSERT_TRUE(file.ReadExact(buffer, 4));
  EXPECT_EQ("tail", std::string(buffer, 4));

  // Cutting a torn tail.
  ASSERT_TRUE(file.Truncate(8));
  ASSERT_TRUE(FileSystem::GetFileSize(Path("day.db"), size));
  EXPECT_EQ(8u, size);

  // Reads past the end: the exact forms fail with a warning, Read gets 0.
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

TEST_F(FileTest, ModesTreatExistingFilesAsDocumented) {
  std::string path = Path("f.db");
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

TEST_F(FileTest, FailuresReturnFalseWithOneLogRecord) {
  LogCapture log;
  File file;
  std::string missing = Path("missing.db");
  EXPECT_FALSE(file.Open(missing, File::Mode::Read));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(ENOENT, file.LastError());
  ASSERT_EQ(1u, log.Records().size());
  EXPECT_EQ(uint32_t{Keel::Log::File}, log.Records()[0].component);
  EXPECT_EQ(uint32_t{Keel::Log::Error}, log.Records()[0].severity);
  EXPECT_EQ(uint64_t{ENOENT}, log.Records()[0].values[0]);
  EXPECT_FALSE(file.Open(missing, File::Mode::ReadWrite));
  EXPECT_FALSE(FileSystem::Exists(missing));

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
  EXPECT_FALSE(FileSystem::GetFileSize(missing, size));
  EXPECT_FALSE(FileSystem::MoveFile(missing, Path("other.db")));
  EXPECT_EQ(ENOENT, FileSystem::LastError());
  EXPECT_EQ(2u, log.CountFrom(Keel::Log::FileSystem, Keel::Log::Error));

  // Deleting removes the file; deleting what is already gone is no failure.
  log.Clear();
  WriteWholeFile(missing, "x");
  EXPECT_TRUE(FileSystem::DeleteFile(missing));
  EXPECT_FALSE(FileSystem::Exists(missing));
  EXPECT_TRUE(FileSystem::DeleteFile(missing));
  EXPECT_TRUE(log.Empty());
}

TEST_F(FileTest, MovedFileKeepsItsDescriptor) {
  File first = OpenNew("f.db");
  File second(std::move(first));
  EXPECT_FALSE(first.IsOpen());  // NOLINT: checking the moved-from state on purpose
  EXPECT_EQ(Path("f.db"), second.Path());
  ASSERT_TRUE(second.Write("abc", 3));
  File third = OpenNew("g.db");
  third = std::move(second);  // closes g.db, takes f.db
  ASSERT_TRUE(third.Append("d", 1));
  EXPECT_EQ("abcd", ReadWholeFile(Path("f.db")));
}

class FileSystemTest : public FileTest {};

TEST_F(FileSystemTest, ListDirectoryReturnsSortedFileNamesOnly) {
  for (const char* name : {"storage.00002.000.db", "storage.index.db", "storage.00001.001.db",
                           "storage.00001.000.db"}) {
    WriteWholeFile(Path(name), "x");
  }
  ASSERT_TRUE(FileSystem::CreateDirectory(Path("storage.00003.000.db")));
  std::vector<std::string> names{"stale"};
  ASSERT_TRUE(FileSystem::ListDirectory(dir_.path(), names));
  EXPECT_EQ((std::vector<std::string>{"storage.00001.000.db", "storage.00001.001.db",
                                      "storage.00002.000.db", "storage.index.db"}),
            names);

  LogCapture log;
  EXPECT_FALSE(FileSystem::ListDirectory(Path("nowhere"), names));
  EXPECT_TRUE(names.empty());
  EXPECT_EQ(1u, log.CountFrom(Keel::Log::FileSystem, Keel::Log::Error));
}

TEST_F(FileTest, ExclusiveLockIsHeldUntilClose) {
  std::string path = Path("storage.lock");
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
