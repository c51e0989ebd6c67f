#pragma once

#include <cstdint>
#include <string_view>

// The log: lines on standard output, and system errors on standard error, written without ever blocking.
//
// A line is appended to a buffer of fixed size; flushLog writes it out, once per turn of the loop rather than once per
// line. A reader that stalls must not stall the program: what does not fit the buffer while the reader takes nothing is
// dropped and counted, and the count is told in a line of its own ("log: N lines dropped") once the reader goes on.
//
// Standard output may be shared with other processes, so it is not made non-blocking; where a write can block,
// readiness is asked before each, and never more than PIPE_BUF bytes are written at a time. What standard output is has
// to stay as it was at the first line.

// Appends the concatenation of the pieces and a line end as one line. Control characters of the pieces are written as
// "?", so that a peer cannot forge lines.
void logPieces(const std::string_view* pieces, std::uint32_t count);

template <typename... Pieces>
void logLine(const Pieces&... pieces);

// As perror(3): "what: " and the text of errno on standard error. errno is kept.
void logSystemError(std::string_view what);

// Writes what is buffered, as far as standard output takes it at once.
void flushLog();

// Writes what is buffered, waiting at the most a second for the reader: the last thing before an orderly end.
void drainLog();

// Lines dropped so far.
[[nodiscard]] std::uint64_t droppedLogLines();

// Decimal (or, for hex, lowercase hexadecimal) text of a number, for use as a piece.
class NumberText {
 public:
  explicit NumberText(std::uint64_t value, int base = 10);
  [[nodiscard]] operator std::string_view() const { return {digits_ + start_, sizeof digits_ - start_}; }

 private:
  char digits_[24];
  std::uint8_t start_;
};

// How the log writes a boolean: "1" or "0".
[[nodiscard]] constexpr std::string_view boolText(bool value) {
  return value ? "1" : "0";
}

template <typename... Pieces>
void logLine(const Pieces&... pieces) {
  const std::string_view views[] = {std::string_view(pieces)...};
  logPieces(views, sizeof...(pieces));
}
