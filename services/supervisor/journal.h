#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "services/common/newest.h"

namespace tnrun {

enum class Stream : std::uint8_t { output, errors };

// The last lines of the log of all programs, for those who ask for them. Bounded in lines and in bytes: the oldest go
// first. Lines are numbered from 1, without gaps, as they come.
class Journal {
 public:
  static constexpr std::size_t maxLines = 8192;
  static constexpr std::size_t maxBytes = 1U << 20U;  // texts and what each line costs besides
  static constexpr std::size_t bytesPerLine = 96;
  // A longer line is cut, and ends with `cutMark` then.
  static constexpr std::size_t maxTextBytes = 1024;
  static constexpr std::string_view cutMark = "...";

  struct Line {
    std::uint64_t number;
    std::uint64_t time;  // ms since 1970
    std::string program;
    std::string text;  // UTF-8 without control characters
    Stream stream;
  };
  struct Query {
    std::uint64_t after = 0;           // lines of greater numbers; one that is greater than the newest is none
    std::size_t most = 200;            // the newest ones, when there are more
    std::size_t mostBytes = maxBytes;  // texts and programs
    std::string_view containing;       // empty: any
    std::string_view program;          // empty: any
  };
  using Found = service::Newest<Line>;

  // A line without its end. Bytes that are no text, or that a terminal would obey, are escaped.
  void add(std::string_view program, Stream stream, std::string_view line, std::uint64_t time);
  [[nodiscard]] Found find(const Query& query) const;

 private:
  [[nodiscard]] static std::size_t cost(const Line& line) { return line.text.size() + bytesPerLine; }

  std::deque<Line> lines_;
  std::size_t bytes_ = 0;
  std::uint64_t newest_ = 0;
};

}  // namespace tnrun
