#include "Keel/OS/Path.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "support/log_capture.h"

namespace {

namespace Path = Keel::OS::Path;

TEST(PathTest, JoinSplitsAndJoinsOnOneSeparator) {
  EXPECT_EQ("a/b", Path::Join("a", "b"));
  EXPECT_EQ("a/b", Path::Join("a/", "b"));
  EXPECT_EQ("a/b", Path::Join("a/", "/b"));
  EXPECT_EQ("/b", Path::Join("", "/b"));
  EXPECT_EQ("a", Path::Join("a", ""));

  EXPECT_EQ("storage.index.db", Path::FileName("/var/tarn/storage.index.db"));
  EXPECT_EQ("storage.index.db", Path::FileName("storage.index.db"));
  EXPECT_EQ("", Path::FileName("/var/tarn/"));
  EXPECT_EQ("/var/tarn", Path::Directory("/var/tarn/storage.index.db"));
  EXPECT_EQ("/", Path::Directory("/storage.index.db"));
  EXPECT_EQ("", Path::Directory("storage.index.db"));
}

// Saves the variables the persistent path depends on and puts them back.
class PersistentPathTest : public ::testing::Test {
 protected:
  static constexpr const char* kNames[] = {"TARN_PERSISTENT_PATH", "XDG_DATA_HOME", "HOME"};

  void SetUp() override {
    for (size_t i = 0; i < 3; ++i) {
      const char* value = std::getenv(kNames[i]);
      if (value != nullptr) saved_[i] = value;
    }
  }
  void TearDown() override {
    Path::SetPersistentPath("");
    for (size_t i = 0; i < 3; ++i) {
      if (saved_[i]) {
        setenv(kNames[i], saved_[i]->c_str(), 1);
      } else {
        unsetenv(kNames[i]);
      }
    }
  }

  std::optional<std::string> saved_[3];
};

TEST_F(PersistentPathTest, HostThenVariablesInOrderAndExpandUsesIt) {
  setenv("TARN_PERSISTENT_PATH", "/srv/tarn", 1);
  setenv("XDG_DATA_HOME", "/home/u/data", 1);
  setenv("HOME", "/home/u", 1);
  EXPECT_EQ("/srv/tarn", Path::GetPersistentPath());
  std::string out;
  ASSERT_TRUE(Path::Expand("${P}/a:${P}/b", out));
  EXPECT_EQ("/srv/tarn/a:/srv/tarn/b", out);
  ASSERT_TRUE(Path::Expand("/fixed/${Q}", out));
  EXPECT_EQ("/fixed/${Q}", out);

  Path::SetPersistentPath("/opt/agent");
  EXPECT_EQ("/opt/agent", Path::GetPersistentPath());
  Path::SetPersistentPath("");
  EXPECT_EQ("/srv/tarn", Path::GetPersistentPath());

  unsetenv("TARN_PERSISTENT_PATH");
  EXPECT_EQ("/home/u/data/tarn", Path::GetPersistentPath());
  setenv("XDG_DATA_HOME", "", 1);  // empty counts as unset
  EXPECT_EQ("/home/u/.local/share/tarn", Path::GetPersistentPath());

  // With nothing to go by there is no persistent path, and only texts
  // that need one fail to expand.
  unsetenv("XDG_DATA_HOME");
  unsetenv("HOME");
  tarn::test::LogCapture log;
  EXPECT_EQ("", Path::GetPersistentPath());
  ASSERT_TRUE(Path::Expand("/fixed", out));
  EXPECT_EQ("/fixed", out);
  EXPECT_FALSE(Path::Expand("${P}/storage", out));
  EXPECT_EQ("", out);
  EXPECT_EQ(2u, log.Count(Keel::Log::Error));
}

}  // namespace
