#pragma once

// Runs a test body in a child process. Closing the storage module shuts
// protobuf down for the rest of its process, so every case that opens the
// module in this process gets one of its own.
// TARN_TEST_IN_PROCESS=1 runs it in place instead, for a debugger.

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

namespace tarn::test {

// The child's failures are written to its stderr, which the parent shows
// when the child fails.
inline void RunIsolated(const std::function<void()>& body) {
  if (std::getenv("TARN_TEST_IN_PROCESS") != nullptr) return body();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ::testing::TestPartResultArray results;
        {
          ::testing::ScopedFakeTestPartResultReporter reporter(
              ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &results);
          body();
        }
        int failures = 0;
        for (int i = 0; i < results.size(); ++i) {
          const ::testing::TestPartResult& r = results.GetTestPartResult(i);
          if (!r.failed()) continue;
          ++failures;
          std::fprintf(stderr, "%s:%d: %s\n", r.file_name() ? r.file_name() : "?", r.line_number(),
                       r.message());
        }
        std::fflush(stdout);
        std::fflush(stderr);
        std::_Exit(failures == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace tarn::test
