#include "platform/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Lines wait here between two flushes. Large enough for a burst of one loop turn, small beside the rest of the process.
constexpr std::size_t bufferSize = 16384;

struct LogBuffer {
  std::array<char, bufferSize> bytes;
  std::size_t used = 0;
  std::uint64_t dropped = 0;
  std::uint64_t droppedTold = 0;
};

LogBuffer& buffer() {
  static LogBuffer instance;
  return instance;
}

// Files and devices that are no terminal take every write at once: they need not be asked.
bool neverBlocks() {
  static const bool answer = [] {
    struct stat status {};
    if (fstat(STDOUT_FILENO, &status) != 0) return false;
    return S_ISREG(status.st_mode) || (S_ISCHR(status.st_mode) && isatty(STDOUT_FILENO) == 0);
  }();
  return answer;
}

bool writable(int timeoutMs) {
  if (neverBlocks()) return true;
  pollfd entry{STDOUT_FILENO, POLLOUT, 0};
  return poll(&entry, 1, timeoutMs) == 1 && (entry.revents & (POLLOUT | POLLERR | POLLHUP | POLLNVAL)) != 0;
}

void appendText(std::string_view text) {
  LogBuffer& log = buffer();
  std::transform(text.begin(), text.end(), log.bytes.begin() + static_cast<std::ptrdiff_t>(log.used), [](char c) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    return control ? '?' : c;
  });
  log.used += text.size();
}

bool appendLine(const std::string_view* pieces, std::uint32_t count) {
  std::size_t need = 1;
  for (std::uint32_t i = 0; i < count; ++i)
    need += pieces[i].size();
  LogBuffer& log = buffer();
  if (bufferSize - log.used < need) return false;
  for (std::uint32_t i = 0; i < count; ++i)
    appendText(pieces[i]);
  log.bytes[log.used++] = '\n';
  return true;
}

void tellDropped() {
  LogBuffer& log = buffer();
  if (log.dropped == log.droppedTold) return;
  const NumberText number(log.dropped - log.droppedTold);
  const std::string_view pieces[] = {"log: ", number, " lines dropped"};
  if (appendLine(pieces, 3)) log.droppedTold = log.dropped;
}

// Writes until the buffer is empty or the reader takes nothing within the time-out. What cannot be written at all (the
// reader is gone) is discarded: a log that nobody reads must not hold the program.
void writeOut(int timeoutMs) {
  LogBuffer& log = buffer();
  std::size_t done = 0;
  while (done < log.used && writable(timeoutMs)) {
    const ssize_t n = write(STDOUT_FILENO, log.bytes.data() + done, std::min<std::size_t>(log.used - done, PIPE_BUF));
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) {
      done = log.used;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  std::memmove(log.bytes.data(), log.bytes.data() + done, log.used - done);
  log.used -= done;
}

}  // namespace

void logPieces(const std::string_view* pieces, std::uint32_t count) {
  if (appendLine(pieces, count)) return;
  flushLog();
  if (!appendLine(pieces, count)) ++buffer().dropped;
}

void logSystemError(std::string_view what) {
  const int error = errno;
  flushLog();
  std::array<char, 512> line;
  const char* text = strerror(error);
  const int n = snprintf(line.data(), line.size(), "%.*s: %s\n", static_cast<int>(what.size()), what.data(), text);
  pollfd entry{STDERR_FILENO, POLLOUT, 0};
  if (n > 0 && poll(&entry, 1, 0) == 1 && (entry.revents & POLLOUT) != 0) {
    const std::size_t length = std::min<std::size_t>(static_cast<std::size_t>(n), line.size() - 1);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), length);
  }
  errno = error;
}

void flushLog() {
  if (buffer().used == 0) return;
  const int saved = errno;
  writeOut(0);
  tellDropped();
  errno = saved;
}

void drainLog() {
  writeOut(1000);
}

std::uint64_t droppedLogLines() {
  return buffer().dropped;
}

NumberText::NumberText(std::uint64_t value, int base) : start_(sizeof digits_) {
  const auto radix = static_cast<std::uint64_t>(base);
  do {
    digits_[--start_] = "0123456789abcdef"[value % radix];
    value /= radix;
  } while (value != 0);
}
