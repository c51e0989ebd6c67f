#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "platform/log.h"

namespace userd {

// A test with a folder of its own, and the log taken away.
class ScratchTest : public ::testing::Test {
 protected:
  ScratchTest() {
    // Nothing here is to outlast the machine, so it need not wait for a disk.
    const bool hasMemory = std::filesystem::is_directory("/dev/shm");
    std::string pattern = hasMemory ? "/dev/shm/userd_XXXXXX" : "/tmp/userd_XXXXXX";
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    ::testing::internal::CaptureStdout();
  }
  void TearDown() override {
    drainLog();
    const std::string text = ::testing::internal::GetCapturedStdout();
    if (HasFailure()) std::fwrite(text.data(), 1, text.size(), stdout);
    std::filesystem::remove_all(folder_);
  }

  // What was logged since the last call.
  std::string takeLog() {
    drainLog();
    std::string text = ::testing::internal::GetCapturedStdout();
    ::testing::internal::CaptureStdout();
    return text;
  }

  [[nodiscard]] std::string path(std::string_view name) const { return folder_ + "/" + std::string(name); }

  std::string folder_;
};

}  // namespace userd
