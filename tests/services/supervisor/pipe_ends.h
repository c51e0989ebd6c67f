#pragma once

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace tnrun {

// Both ends of a pipe.
struct PipeEnds {
  PipeEnds() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    reading.reset(ends[0]);
    writing.reset(ends[1]);
  }

  void write(std::string_view text) const {
    EXPECT_EQ(::write(writing.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // What is in it now, at the most so many bytes.
  [[nodiscard]] std::string take(std::size_t most = 1U << 20U) const {
    fcntl(reading.get(), F_SETFL, O_NONBLOCK);
    std::string text(most, '\0');
    const ssize_t count = read(reading.get(), text.data(), text.size());
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return text;
  }

  UniqueFd reading;
  UniqueFd writing;
};

}  // namespace tnrun
