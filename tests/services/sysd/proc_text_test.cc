#include "services/sysd/proc_text.h"

#include <gmock/gmock.h>

namespace sysd {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t largest = 0xFFFFFFFFFFFFFFFF;

TEST(Uptime, IsTold) {
  EXPECT_EQ(readUptime("15397.74 5475.10\n"), 15'397'740U);
  EXPECT_EQ(readUptime("0.05 0.00\n"), 50U);
  EXPECT_EQ(readUptime("31536000.00 1.00\n"), 31'536'000'000U);
}

TEST(Uptime, IsNotGuessed) {
  for (const char* const text : {"", "\n", "x", "1.5 2.00", "-1.00", "1.x0", ".10", "1. 2"})
    EXPECT_EQ(readUptime(text), std::nullopt) << text;
}

TEST(LoadAverage, IsTold) {
  EXPECT_EQ(readLoad("5.91 5.89 4.40 6/172 1234\n"), (Load{{591, 589, 440}, 6, 172}));
  EXPECT_EQ(readLoad("0.00 0.01 0.05 1/60 9"), (Load{{0, 1, 5}, 1, 60}));
  EXPECT_EQ(readLoad("99999999999999999999.00 0.01 0.05 1/60 9")->hundredths[0], 0xFFFFFFFF);
}

TEST(LoadAverage, IsNotGuessed) {
  for (const char* const text :
       {"", "1.00 2.00", "1.00 2.00 3.00", "1.00 2.00 3.00 4", "1.00 2.00 3.00 /4", "a b c 1/2"})
    EXPECT_EQ(readLoad(text), std::nullopt) << text;
}

constexpr char stat[] =
    "cpu  2278682 80336 238659 545927 1605 0 15244 10748 700 800\n"
    "cpu0 1127320 36799 131307 269694 1041 0 14041 5355 0 0\n"
    "cpu1 1151361 43537 107351 276232 564 0 1203 5392 0 0\n"
    "intr 89117254 0 9 0 0 0\n"
    "ctxt 143011331\n"
    "btime 1795271494\n"
    "procs_running 6\n";

TEST(ProcessorTime, IsTold) {
  const std::uint64_t busy = 2278682 + 80336 + 238659 + 0 + 15244 + 10748;
  EXPECT_EQ(readProcessorTime(stat), (ProcessorTime{busy, busy + 545927 + 1605, 2}));
}

TEST(ProcessorTime, OfOldKernelsHasFourColumns) {
  EXPECT_EQ(readProcessorTime("cpu  1 2 3 4\ncpu0 1 2 3 4\n"), (ProcessorTime{6, 10, 1}));
}

TEST(ProcessorTime, IsNotGuessed) {
  for (const char* const text : {"", "cpu0 1 2 3 4\n", "cpu  1 2 3\n", "cpu a b c d\n", "intr 1 2 3 4\n"})
    EXPECT_EQ(readProcessorTime(text), std::nullopt) << text;
}

TEST(MemoryText, IsTold) {
  const auto memory = readMemory(
      "MemTotal:       24684084 kB\nMemFree:        19280864 kB\nMemAvailable:   22498040 kB\n"
      "Buffers:           42388 kB\nCached:          3167380 kB\nSwapCached:            0 kB\n"
      "SwapTotal:       1000000 kB\nSwapFree:         900000 kB\nShmem:              8872 kB\n"
      "SReclaimable:     360832 kB\nHugePages_Total:       0\n");
  EXPECT_EQ(memory, (Memory{24684084ULL * 1024, 22498040ULL * 1024, 19280864ULL * 1024, 42388ULL * 1024,
                            (3167380ULL + 360832 - 8872) * 1024, 1000000ULL * 1024, 900000ULL * 1024}));
}

TEST(MemoryText, OfOldKernelsDoesNotTellWhatIsAvailable) {
  const auto memory = readMemory("MemTotal: 100 kB\nMemFree: 10 kB\nBuffers: 5 kB\nCached: 20 kB\nShmem: 8 kB\n");
  ASSERT_TRUE(memory.has_value());
  EXPECT_EQ(memory->available, (10U + 5 + 12) * 1024);
}

TEST(MemoryText, IsNotGuessed) {
  for (const char* const text :
       {"", "MemFree: 1 kB\n", "MemTotal: x kB\n", "MemTotal:\n", "MemTotal: 99999999999999999999 kB\n"})
    EXPECT_EQ(readMemory(text), std::nullopt) << text;
  EXPECT_EQ(readMemory("MemTotal: 1 kB\nCached: 1 kB\nShmem: 5 kB\n")->cached, 0U);
}

TEST(Mounts, AreTold) {
  const auto mounts = readMounts(
      "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard\n"
      "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
      "31 27 8:1 /sub /mnt/two\\040words\\134 ro,nosuid shared:2 master:1 - vfat /dev/sda1 rw,errors=remount-ro\n"
      "32 27 8:2 / /mnt/b rw - squashfs /dev/sdb ro\n"
      "33 27 8:3 / /mnt/c rw - ext4\n");
  EXPECT_THAT(
      mounts,
      ElementsAre(Mount{"254:0", "/", false, "ext4", "/dev/vda"}, Mount{"0:21", "/proc", false, "proc", "proc"},
                  Mount{"8:1", "/mnt/two words\\", true, "vfat", "/dev/sda1"},
                  Mount{"8:2", "/mnt/b", true, "squashfs", "/dev/sdb"}, Mount{"8:3", "/mnt/c", false, "ext4", ""}));
}

TEST(Mounts, KeepOddEscapes) {
  const auto mounts = readMounts("1 2 3:4 / /a\\04 rw - x y rw\n1 2 3:4 / /a\\999\\400b\\ rw - x y rw\n");
  ASSERT_EQ(mounts.size(), 2U);
  EXPECT_EQ(mounts[0].point, "/a\\04");
  EXPECT_EQ(mounts[1].point, "/a\\999\\400b\\");
}

TEST(Mounts, LeaveOutWhatIsNone) {
  EXPECT_THAT(readMounts(""), IsEmpty());
  EXPECT_THAT(readMounts("\n\n1 2 3\n1 2 3:4 / /a rw shared:1\n - - - - -\n"), IsEmpty());
}

TEST(InterfaceCounters, AreTold) {
  const auto counters = readCounters(
      "Inter-|   Receive                                                |  Transmit\n"
      " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier "
      "compressed\n"
      "    lo: 631477595364 102516391    0    0    0     0          0         0 631477595364 102516391    0    0    0  "
      "   "
      "0       0          0\n"
      "  eth0:680628131   19698    1    2    3     4          5         6   960907   11805    7    8    9     10       "
      "11 "
      "         12\n");
  EXPECT_THAT(counters, ElementsAre(Counters{"lo", {631477595364, 102516391, 0, 0}, {631477595364, 102516391, 0, 0}},
                                    Counters{"eth0", {680628131, 19698, 1, 2}, {960907, 11805, 7, 8}}));
}

TEST(InterfaceCounters, LeaveOutWhatIsNone) {
  EXPECT_THAT(readCounters(""), IsEmpty());
  EXPECT_THAT(readCounters("eth0: 1 2 3\n: 1 2 3 4 5 6 7 8 9 10 11 12\neth1 1 2 3 4 5 6 7 8 9 10 11 12\n"), IsEmpty());
  const auto saturated = readCounters("e: 99999999999999999999 2 3 4 5 6 7 8 9 10 11 12");
  ASSERT_EQ(saturated.size(), 1U);
  EXPECT_EQ(saturated[0].received.bytes, largest);
}

TEST(ProcessText, IsTold) {
  EXPECT_EQ(readProcess("10923 (cat) R 10911 10911 8838 0 -1 4194304 97 0 0 0 30 12 0 0 20 0 3 0 1585682 3133440 380 "
                        "18446744073709551615 93920556486656\n"),
            (Process{10923, "cat", 'R', 10911, 42, 3, 1585682, 380}));
}

TEST(ProcessText, TakesAnyNameForAName) {
  const auto process = readProcess("7 (a) R 1 (b c) S 1 0 0 0 -1 0 0 0 0 0 1 2 0 0 20 0 1 0 9 100 5 0\n");
  ASSERT_TRUE(process.has_value());
  EXPECT_EQ(process->name, "a) R 1 (b c");
  EXPECT_EQ(process->state, 'S');
  EXPECT_EQ(process->parent, 1U);
}

TEST(ProcessText, IsNotGuessed) {
  for (const char* const text : {"", "7", "7 (a", "7 a) R", "7 (a) R", "x (a) R 1", ") (",
                                 "7 (a) RS 1 0 0 0 -1 0 0 0 0 0 "
                                 "1 2 0 0 20 0 1 0 9 100 5 0",
                                 "7 (a) R 1 0 0 0 -1 0 0 0 0 0 1 2 0 0 20 0 1 0 9 100"})
    EXPECT_EQ(readProcess(text), std::nullopt) << text;
}

// The kernel writes none of this; whatever comes, it is read within its bounds.
TEST(Texts, OfAnyBytesAreReadWithinTheirBounds) {
  const std::string samples[] = {stat,
                                 "1 2 3:4 / /a\\040 rw - x y rw\n",
                                 "7 (a) R 1 0 0 0 -1 0 0 0 0 0 1 2 0 0 20 0 1",
                                 "MemTotal: 100 kB\n",
                                 "eth0: 1 2 3 4 5 6 7 8 9 10 11 12\n",
                                 "5.91 5.89 4.40 6/172 1"};
  for (const std::string& sample : samples) {
    for (std::size_t cut = 0; cut <= sample.size(); ++cut) {
      // A copy without anything behind it, so that the sanitizer sees a byte too many.
      const std::vector<char> bytes(sample.begin(), sample.begin() + static_cast<std::ptrdiff_t>(cut));
      const std::string_view text(bytes.data(), bytes.size());
      (void)readUptime(text);
      (void)readLoad(text);
      (void)readProcessorTime(text);
      (void)readMemory(text);
      (void)readMounts(text);
      (void)readCounters(text);
      (void)readProcess(text);
    }
  }
}

}  // namespace
}  // namespace sysd
