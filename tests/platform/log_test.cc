#include "platform/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace {

// Standard output is a small pipe for the time of a test.
class LogTest : public testing::Test {
 protected:
  LogTest() : saved_(dup(STDOUT_FILENO)) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    reader_.reset(ends[0]);
    const UniqueFd writer(ends[1]);
    EXPECT_GE(fcntl(reader_.get(), F_SETPIPE_SZ, 4096), 4096);
    EXPECT_EQ(fcntl(reader_.get(), F_SETFL, O_NONBLOCK), 0);
    std::fflush(stdout);
    EXPECT_EQ(dup2(writer.get(), STDOUT_FILENO), STDOUT_FILENO);
  }
  ~LogTest() override {
    flushLog();
    dup2(saved_.get(), STDOUT_FILENO);
  }

  std::string take() {
    std::array<char, 65536> text;
    const ssize_t n = read(reader_.get(), text.data(), text.size());
    return n > 0 ? std::string(text.data(), static_cast<std::size_t>(n)) : std::string();
  }

  // Everything that can be had, with the writer going on as the reader makes room.
  std::string takeAll() {
    std::string all;
    for (std::string text = take(); !text.empty(); text = take()) {
      all += text;
      flushLog();
    }
    return all;
  }

 private:
  UniqueFd saved_;
  UniqueFd reader_;
};

TEST_F(LogTest, WritesLinesOnceTheyAreFlushed) {
  logLine("set ", "http", " port=", NumberText(8080));
  EXPECT_EQ(take(), "");
  logLine("ends ", NumberText(255, 16), " ", boolText(true), boolText(false));
  flushLog();
  EXPECT_EQ(take(), "set http port=8080\nends ff 10\n");
  flushLog();
  EXPECT_EQ(take(), "");
}

TEST_F(LogTest, APeerCannotForgeLines) {
  logLine("name ", std::string_view("a\nb\r\0c\x1b\x7f\xc3\xa4", 10));
  flushLog();
  EXPECT_EQ(take(), "name a?b??c??\xc3\xa4\n");
}

TEST_F(LogTest, AStalledReaderCostsLinesAndIsToldHowMany) {
  const std::string line(99, 'x');
  const std::uint64_t before = droppedLogLines();
  constexpr int lines = 1000;
  for (int i = 0; i < lines; ++i)
    logLine(line);
  const std::uint64_t dropped = droppedLogLines() - before;
  ASSERT_GT(dropped, 0U);
  const std::string text = takeAll();
  std::uint64_t told = 0;
  for (std::size_t at = text.find("log: "); at != std::string::npos; at = text.find("log: ", at + 1)) {
    told += std::strtoul(text.c_str() + at + 5, nullptr, 10);
  }
  EXPECT_EQ(told, dropped);
  const auto whole = static_cast<std::size_t>(std::count(text.begin(), text.end(), 'x'));
  EXPECT_EQ(whole, (lines - dropped) * line.size());
}

TEST_F(LogTest, KeepsErrno) {
  errno = ENOSPC;
  logLine("x");
  flushLog();
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(take(), "x\n");
}

TEST(NumberText, WritesTheWholeRange) {
  EXPECT_EQ(std::string_view(NumberText(0)), "0");
  EXPECT_EQ(std::string_view(NumberText(~std::uint64_t{0})), "18446744073709551615");
  EXPECT_EQ(std::string_view(NumberText(~std::uint64_t{0}, 16)), "ffffffffffffffff");
}

}  // namespace
