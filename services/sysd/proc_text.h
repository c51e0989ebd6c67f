#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sysd {

// Readers of the texts that the kernel keeps under /proc. They take the text and return what it says; nothing, when it
// is not the text that it should be. Columns and lines that newer kernels may add behind the known ones are not looked
// at.

// Time since the machine's start, in ms, of /proc/uptime.
[[nodiscard]] std::optional<std::uint64_t> readUptime(std::string_view text);

// /proc/loadavg.
struct Load {
  std::array<std::uint32_t, 3> hundredths{};  // of 1, 5 and 15 minutes
  std::uint32_t running = 0;                  // tasks that run or wait for a processor
  std::uint32_t tasks = 0;
  friend bool operator==(const Load&, const Load&) = default;
};
[[nodiscard]] std::optional<Load> readLoad(std::string_view text);

// /proc/stat: time of all processors since the start, in clock ticks.
struct ProcessorTime {
  std::uint64_t busy = 0;
  std::uint64_t all = 0;
  std::uint32_t processors = 0;
  friend bool operator==(const ProcessorTime&, const ProcessorTime&) = default;
};
[[nodiscard]] std::optional<ProcessorTime> readProcessorTime(std::string_view text);

// /proc/meminfo, in bytes.
struct Memory {
  std::uint64_t total = 0;
  std::uint64_t available = 0;
  std::uint64_t free = 0;
  std::uint64_t buffers = 0;
  std::uint64_t cached = 0;  // what can be dropped of files
  std::uint64_t swapTotal = 0;
  std::uint64_t swapFree = 0;
  friend bool operator==(const Memory&, const Memory&) = default;
};
[[nodiscard]] std::optional<Memory> readMemory(std::string_view text);

// One line of /proc/self/mountinfo.
struct Mount {
  std::string device;  // its number, as "8:1"
  std::string point;
  bool readOnly = false;
  std::string type;
  std::string source;
  friend bool operator==(const Mount&, const Mount&) = default;
};
// Lines that cannot be read are left out.
[[nodiscard]] std::vector<Mount> readMounts(std::string_view text);

// One line of /proc/net/dev.
struct Traffic {
  std::uint64_t bytes = 0;
  std::uint64_t packets = 0;
  std::uint64_t errors = 0;
  std::uint64_t dropped = 0;
  friend bool operator==(const Traffic&, const Traffic&) = default;
};
struct Counters {
  std::string interface;
  Traffic received;
  Traffic sent;
  friend bool operator==(const Counters&, const Counters&) = default;
};
// Lines that cannot be read, the headings among them, are left out.
[[nodiscard]] std::vector<Counters> readCounters(std::string_view text);

// /proc/PID/stat.
struct Process {
  std::uint32_t id = 0;
  std::string name;
  char state = '?';
  std::uint32_t parent = 0;
  std::uint64_t ticks = 0;  // processor time, in clock ticks
  std::uint32_t threads = 0;
  std::uint64_t startTicks = 0;  // after the machine's start
  std::uint64_t pages = 0;       // of memory in use
  friend bool operator==(const Process&, const Process&) = default;
};
[[nodiscard]] std::optional<Process> readProcess(std::string_view text);

}  // namespace sysd
