#include "services/sysd/proc_text.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

namespace sysd {
namespace {

// A whole decimal number; one that is too large counts as the largest there is.
template <typename Number>
bool readNumber(std::string_view text, Number& number) {
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (code == std::errc::result_out_of_range && !text.starts_with('-')) number = std::numeric_limits<Number>::max();
  return end == text.data() + text.size() && code != std::errc::invalid_argument;
}

// Takes the words of a text, which blanks separate, one by one.
class Words {
 public:
  explicit Words(std::string_view text) : rest_(text) {}

  // Empty at the end.
  std::string_view next() {
    const std::size_t begin = std::min(rest_.find_first_not_of(" \t\n"), rest_.size());
    rest_.remove_prefix(begin);
    const std::string_view word = rest_.substr(0, rest_.find_first_of(" \t\n"));
    rest_.remove_prefix(word.size());
    return word;
  }

  void skip(unsigned count) {
    for (; count > 0; --count)
      next();
  }

  template <typename Number>
  bool nextNumber(Number& number) {
    return readNumber(next(), number);
  }

 private:
  std::string_view rest_;
};

// Calls take(line) for each line.
template <typename Take>
void forEachLine(std::string_view text, Take&& take) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    take(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

// A number with up to two digits behind the point, in hundredths: "0.45".
std::optional<std::uint64_t> readHundredths(std::string_view word) {
  const std::size_t point = word.find('.');
  std::uint64_t whole = 0;
  if (!readNumber(word.substr(0, point), whole)) return std::nullopt;
  constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max() / 1000;
  if (whole > largest) whole = largest;
  if (point == std::string_view::npos) return whole * 100;
  const std::string_view digits = word.substr(point + 1);
  unsigned part = 0;
  if (digits.size() != 2 || !readNumber(digits, part)) return std::nullopt;
  return whole * 100 + part;
}

int octalDigit(char c) {
  return c >= '0' && c <= '7' ? c - '0' : -1;
}

// Blanks and backslashes of a path stand in the mount table as \ and three octal digits.
std::string unescape(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    int code = -1;
    if (text[i] == '\\' && text.size() - i > 3) {
      const int high = octalDigit(text[i + 1]);
      const int middle = octalDigit(text[i + 2]);
      const int low = octalDigit(text[i + 3]);
      if (high >= 0 && high <= 3 && middle >= 0 && low >= 0) code = high * 64 + middle * 8 + low;
    }
    plain += code < 0 ? text[i] : static_cast<char>(code);
    if (code >= 0) i += 3;
  }
  return plain;
}

// Whether a list of options, separated by commas, has one.
bool hasOption(std::string_view options, std::string_view wanted) {
  while (!options.empty()) {
    const std::size_t end = std::min(options.find(','), options.size());
    if (options.substr(0, end) == wanted) return true;
    options.remove_prefix(std::min(end + 1, options.size()));
  }
  return false;
}

// Number, parent, device, root, point, options, optional fields, "-", type, source, options of the file system.
std::optional<Mount> readMount(std::string_view line) {
  Words words(line);
  words.skip(2);
  Mount mount;
  mount.device = words.next();
  words.skip(1);
  mount.point = unescape(words.next());
  mount.readOnly = hasOption(words.next(), "ro");
  std::string_view optional = words.next();
  while (!optional.empty() && optional != "-")
    optional = words.next();
  mount.type = unescape(words.next());
  mount.source = unescape(words.next());
  mount.readOnly |= hasOption(words.next(), "ro");
  if (mount.point.empty() || mount.type.empty()) return std::nullopt;
  return mount;
}

bool readTraffic(Words& words, Traffic& traffic) {
  return words.nextNumber(traffic.bytes) && words.nextNumber(traffic.packets) && words.nextNumber(traffic.errors) &&
         words.nextNumber(traffic.dropped);
}

std::optional<Counters> readCountersLine(std::string_view line) {
  const std::size_t colon = line.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  Counters counters;
  counters.interface = Words(line.substr(0, colon)).next();
  Words words(line.substr(colon + 1));
  // Of what is received four more columns follow before those of what is sent.
  if (!readTraffic(words, counters.received)) return std::nullopt;
  words.skip(4);
  if (!readTraffic(words, counters.sent) || counters.interface.empty()) return std::nullopt;
  return counters;
}

}  // namespace

std::optional<std::uint64_t> readUptime(std::string_view text) {
  const auto hundredths = readHundredths(Words(text).next());
  if (!hundredths) return std::nullopt;
  return *hundredths * 10;
}

std::optional<Load> readLoad(std::string_view text) {
  Words words(text);
  Load load;
  for (std::uint32_t& average : load.hundredths) {
    const auto hundredths = readHundredths(words.next());
    if (!hundredths) return std::nullopt;
    average = static_cast<std::uint32_t>(std::min<std::uint64_t>(*hundredths, 0xFFFFFFFF));
  }
  const std::string_view tasks = words.next();
  const std::size_t slash = tasks.find('/');
  if (slash == std::string_view::npos || !readNumber(tasks.substr(0, slash), load.running) ||
      !readNumber(tasks.substr(slash + 1), load.tasks)) {
    return std::nullopt;
  }
  return load;
}

// Of the columns after "cpu": user, nice, system, idle, iowait, irq, softirq, steal. The two that follow are part of
// user and nice. Old kernels have only the first four.
std::optional<ProcessorTime> readProcessorTime(std::string_view text) {
  constexpr unsigned columns = 8;
  constexpr unsigned needed = 4;
  constexpr unsigned idleColumn = 3;
  constexpr unsigned waitColumn = 4;
  ProcessorTime time;
  bool found = false;
  forEachLine(text, [&](std::string_view line) {
    Words words(line);
    const std::string_view name = words.next();
    if (!name.starts_with("cpu")) return;
    if (name != "cpu") {
      ++time.processors;
      return;
    }
    for (unsigned column = 0; column < columns; ++column) {
      std::uint64_t ticks = 0;
      if (!words.nextNumber(ticks)) break;
      time.all += ticks;
      if (column != idleColumn && column != waitColumn) time.busy += ticks;
      found = column + 1 >= needed;
    }
  });
  if (!found) return std::nullopt;
  return time;
}

std::optional<Memory> readMemory(std::string_view text) {
  constexpr std::uint64_t unit = 1024;
  Memory memory;
  std::optional<std::uint64_t> total;
  std::optional<std::uint64_t> available;
  std::uint64_t files = 0;
  std::uint64_t slabs = 0;
  std::uint64_t shared = 0;
  forEachLine(text, [&](std::string_view line) {
    Words words(line);
    const std::string_view name = words.next();
    std::uint64_t value = 0;
    if (!words.nextNumber(value) || value > std::numeric_limits<std::uint64_t>::max() / unit) return;
    value *= unit;
    if (name == "MemTotal:") total = value;
    if (name == "MemAvailable:") available = value;
    if (name == "MemFree:") memory.free = value;
    if (name == "Buffers:") memory.buffers = value;
    if (name == "Cached:") files = value;
    if (name == "SReclaimable:") slabs = value;
    if (name == "Shmem:") shared = value;
    if (name == "SwapTotal:") memory.swapTotal = value;
    if (name == "SwapFree:") memory.swapFree = value;
  });
  if (!total) return std::nullopt;
  memory.total = *total;
  // What is shared has no file to be read from again.
  const std::uint64_t held = files + slabs;
  memory.cached = held - std::min(held, shared);
  memory.available = available.value_or(memory.free + memory.buffers + memory.cached);
  return memory;
}

std::vector<Mount> readMounts(std::string_view text) {
  std::vector<Mount> mounts;
  forEachLine(text, [&mounts](std::string_view line) {
    if (auto mount = readMount(line)) mounts.push_back(std::move(*mount));
  });
  return mounts;
}

std::vector<Counters> readCounters(std::string_view text) {
  std::vector<Counters> all;
  forEachLine(text, [&all](std::string_view line) {
    if (auto counters = readCountersLine(line)) all.push_back(std::move(*counters));
  });
  return all;
}

// A name may hold blanks and brackets, so it ends at the last bracket.
std::optional<Process> readProcess(std::string_view text) {
  const std::size_t open = text.find('(');
  const std::size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  Process process;
  process.name = text.substr(open + 1, close - open - 1);
  if (!readNumber(Words(text.substr(0, open)).next(), process.id)) return std::nullopt;
  Words words(text.substr(close + 1));
  const std::string_view state = words.next();
  std::uint64_t userTicks = 0;
  std::uint64_t systemTicks = 0;
  bool good = state.size() == 1 && words.nextNumber(process.parent);
  words.skip(9);
  good = good && words.nextNumber(userTicks) && words.nextNumber(systemTicks);
  words.skip(4);
  good = good && words.nextNumber(process.threads);
  words.skip(1);
  good = good && words.nextNumber(process.startTicks);
  words.skip(1);
  good = good && words.nextNumber(process.pages);
  if (!good) return std::nullopt;
  process.state = state.front();
  process.ticks = userTicks + systemTicks;
  return process;
}

}  // namespace sysd
