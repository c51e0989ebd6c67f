#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace tnrun {

// Makes lines of what comes out of a pipe in pieces. Pure: it has no descriptor.
class LineCutter {
 public:
  // A line that is longer comes in several pieces.
  static constexpr std::size_t maxPieceBytes = 32U << 10U;

  struct Piece {
    std::string_view text;  // without the end of the line; dies when `take` returns
    bool begins;            // a line
    bool ends;              // it
  };

  // Calls take(Piece) for all that is whole now, in order.
  template <typename Take>
  void feed(std::string_view bytes, Take&& take) {
    while (!bytes.empty()) {
      const std::size_t room = std::min(maxPieceBytes - held_.size(), bytes.size());
      const std::size_t length = std::min(bytes.find('\n'), room);
      const bool ends = length < bytes.size() && bytes[length] == '\n';
      held_ += bytes.substr(0, length);
      bytes.remove_prefix(ends ? length + 1 : length);
      if (!ends && held_.size() < maxPieceBytes) return;
      give(take, ends);
    }
  }

  // There will be no more: what is left is a line, too.
  template <typename Take>
  void finish(Take&& take) {
    if (within_ || !held_.empty()) give(take, true);
  }

 private:
  template <typename Take>
  void give(Take&& take, bool ends) {
    take(Piece{held_, !within_, ends});
    held_.clear();
    within_ = !ends;
  }

  std::string held_;
  bool within_ = false;  // a piece of the line was given before
};

}  // namespace tnrun
