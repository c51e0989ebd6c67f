#pragma once

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/log.h"
#include "platform/unique_fd.h"

namespace core_test {

// Takes what is written to one descriptor of the process while it lives: the log on standard output, system errors on
// standard error.
class OutputCapture {
 public:
  explicit OutputCapture(int target) : target_(target), file_(memfd_create("captured output", MFD_CLOEXEC)) {
    settle();
    saved_.reset(dup(target_));
    dup2(file_.get(), target_);
  }
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;
  ~OutputCapture() {
    settle();
    dup2(saved_.get(), target_);
    if (testing::Test::HasFailure()) replay();
  }

  // The lines written since the last call.
  std::vector<std::string> takeLines() {
    settle();
    std::vector<std::string> lines;
    std::string line;
    char c = 0;
    for (; pread(file_.get(), &c, 1, offset_) == 1; ++offset_) {
      if (c != '\n') {
        line += c;
        continue;
      }
      lines.push_back(std::exchange(line, {}));
    }
    if (!line.empty()) lines.push_back(line + " (no line end)");
    return lines;
  }

 private:
  // What the test framework said of the failure is among it.
  void replay() const {
    char c = 0;
    for (off_t at = 0; pread(file_.get(), &c, 1, at) == 1; ++at) {
      if (write(target_, &c, 1) != 1) return;
    }
  }

  static void settle() {
    std::fflush(nullptr);
    flushLog();
  }

  int target_;
  UniqueFd file_;
  UniqueFd saved_;
  off_t offset_ = 0;
};

}  // namespace core_test
