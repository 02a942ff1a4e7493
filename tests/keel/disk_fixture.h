#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/File.h"
#include "support/temp_dir.h"

namespace tarn::test {

// A private directory per test. Fault rules and crash tracking are
// process-wide, so every test starts and ends without them.
class DiskTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetFaults(); }
  void TearDown() override { ResetFaults(); }
  static void ResetFaults() {
    Keel::OS::Faults::ClearRules();
    Keel::OS::Faults::EnableCrashTracking(false);
  }

  std::string Path(const std::string& name) const { return dir_.File(name); }
  Keel::OS::File OpenNew(const std::string& name) {
    Keel::OS::File file;
    EXPECT_TRUE(file.Open(Path(name), Keel::OS::File::Mode::CreateTruncate)) << name;
    return file;
  }

  TempDir dir_;
};

}  // namespace tarn::test
