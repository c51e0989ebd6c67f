#include "services/supervisor/outlet.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>

#include "tests/fakes/fake_runner.h"
#include "tests/services/supervisor/pipe_ends.h"

namespace tnrun {
namespace {

using testing::EndsWith;
using testing::StartsWith;

const std::string line = std::string(99, 'x') + "\n";

class OutletTest : public testing::Test {
 protected:
  OutletTest() { signal(SIGPIPE, SIG_IGN); }  // as the supervisor does

  // Everything, from a reader who has come back.
  std::string takeAll(const PipeEnds& pipe) {
    std::string all;
    for (bool more = true; more; runner.advance(Outlet::retryMs)) {
      const std::string part = pipe.take();
      all += part;
      more = !part.empty();
    }
    return all;
  }

  tn::fakes::FakeRunner runner;
};

TEST_F(OutletTest, LinesGoOutAtOnce) {
  const PipeEnds pipe;
  Outlet outlet(runner.timers(), pipe.writing.get());
  outlet.write("one\n");
  EXPECT_EQ(pipe.take(), "one\n");
  outlet.write("two\nthree\n");
  EXPECT_EQ(pipe.take(), "two\nthree\n");
  EXPECT_EQ(outlet.keptBytes(), 0U);
}

TEST_F(OutletTest, WhoeverSharesThePipeMayStillBlock) {
  const PipeEnds pipe;
  const Outlet outlet(runner.timers(), pipe.writing.get());
  EXPECT_EQ(fcntl(pipe.writing.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(OutletTest, AFileIsWrittenBehindWhatOthersWroteThere) {
  char name[] = "/tmp/tnoutletXXXXXX";
  const UniqueFd file(mkstemp(name));
  Outlet outlet(runner.timers(), file.get());
  EXPECT_EQ(write(file.get(), "first\n", 6), 6);
  outlet.write("second\n");
  EXPECT_EQ(write(file.get(), "third\n", 6), 6);
  char text[64] = {};
  EXPECT_EQ(pread(file.get(), text, sizeof text - 1, 0), 19);
  EXPECT_STREQ(text, "first\nsecond\nthird\n");
  unlink(name);
}

TEST_F(OutletTest, AReaderThatStallsHoldsNobodyUp) {
  const PipeEnds pipe;
  Outlet outlet(runner.timers(), pipe.writing.get());
  constexpr int written = 10000;
  for (int i = 0; i < written; ++i)
    outlet.write(line);
  EXPECT_LE(outlet.keptBytes(), Outlet::maxKeptBytes);
  std::string all = takeAll(pipe);
  // Whole lines at the front, and at the end what is missing.
  const auto told = static_cast<std::size_t>(all.find("log: "));
  ASSERT_NE(told, std::string::npos);
  EXPECT_EQ(told % line.size(), 0U);
  const int passed = static_cast<int>(told / line.size());
  EXPECT_EQ(all.substr(told), "log: " + std::to_string(written - passed) + " lines dropped\n");
  EXPECT_GE(told, Outlet::maxKeptBytes - line.size());
  // From now on nothing is missing.
  outlet.write("again\n");
  EXPECT_EQ(pipe.take(), "again\n");
}

TEST_F(OutletTest, ASlowReaderGetsEverythingInOrder) {
  const PipeEnds pipe;
  Outlet outlet(runner.timers(), pipe.writing.get());
  std::string expected;
  std::string got;
  for (int i = 0; i < 20000; ++i) {
    const std::string text = std::to_string(i) + " line\n";
    expected += text;
    outlet.write(text);
    if (i % 5000 == 0) got += pipe.take();
  }
  got += takeAll(pipe);
  EXPECT_TRUE(got == expected);
}

TEST_F(OutletTest, ASocketIsNotWaitedForEither) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const UniqueFd reader(ends[0]);
  const UniqueFd writer(ends[1]);
  Outlet outlet(runner.timers(), writer.get());
  for (int i = 0; i < 20000; ++i)
    outlet.write(line);
  EXPECT_GT(outlet.keptBytes(), 0U);
  std::string text(1U << 20U, '\0');
  const ssize_t count = recv(reader.get(), text.data(), text.size(), MSG_DONTWAIT);
  ASSERT_GT(count, 0);
  EXPECT_THAT(text, StartsWith(line + line));
}

TEST_F(OutletTest, AReaderThatIsGoneCostsNothing) {
  PipeEnds pipe;
  Outlet outlet(runner.timers(), pipe.writing.get());
  pipe.reading.reset();
  for (int i = 0; i < 10000; ++i)
    outlet.write(line);
  EXPECT_EQ(outlet.keptBytes(), 0U);
}

TEST_F(OutletTest, WhatAFullDiskTookNotIsToldWhenThereIsRoom) {
  signal(SIGXFSZ, SIG_IGN);
  constexpr off_t limit = 1 << 30;
  const off_t begin = limit - static_cast<off_t>(line.size() + line.size() / 2);
  char name[] = "/tmp/tnoutletXXXXXX";
  const UniqueFd file(mkstemp(name));
  unlink(name);
  ASSERT_EQ(lseek(file.get(), begin, SEEK_SET), begin);
  Outlet outlet(runner.timers(), file.get());
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit small = before;
  small.rlim_cur = limit;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  for (int i = 0; i < 5; ++i)
    outlet.write(line);
  runner.advance(10 * Outlet::retryMs);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  outlet.write("again\n");
  outlet.write("and again\n");
  std::string text(1000, '\0');
  const ssize_t count = pread(file.get(), text.data(), text.size(), begin);
  ASSERT_GT(count, 0);
  EXPECT_EQ(text.substr(0, static_cast<std::size_t>(count)),
            line + std::string(line.size() / 2, 'x') + "\nlog: 4 lines dropped\nagain\nand again\n");
  EXPECT_EQ(outlet.keptBytes(), 0U);
}

TEST_F(OutletTest, AtTheEndTheReaderIsGivenALittleTime) {
  const PipeEnds pipe;
  Outlet outlet(runner.timers(), pipe.writing.get());
  while (outlet.keptBytes() == 0)
    outlet.write(line);
  const std::string held = pipe.take();
  outlet.drain(30'000);
  EXPECT_EQ(outlet.keptBytes(), 0U);
  EXPECT_THAT(held + pipe.take(), EndsWith(line));
  // Nobody reads: it comes back all the same.
  while (outlet.keptBytes() == 0)
    outlet.write(line);
  outlet.drain(10);
  EXPECT_GT(outlet.keptBytes(), 0U);
}

}  // namespace
}  // namespace tnrun
