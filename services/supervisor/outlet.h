#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/bus/timer.h"
#include "platform/bus/timer_queue.h"
#include "platform/unique_fd.h"

namespace tnrun {

// Passes lines on to standard output or standard error without ever waiting for whoever reads them. What is not taken
// at once is kept and tried again; what does not fit any more is dropped, and once the reader goes on it is told in a
// line of its own how many lines that were ("log: N lines dropped").
//
// Where a write fails otherwise (the disk is full, the reader is gone), what it was to hold is dropped as well; each
// line that comes later tries again.
//
// A terminal or a pipe is opened anew for this, where that can be done, so that it may refuse to take more without
// being made non-blocking for the other programs that share it. A file makes nobody wait.
class Outlet {
 public:
  static constexpr std::size_t maxKeptBytes = 256U << 10U;
  static constexpr std::uint32_t retryMs = 50;

  // The descriptor is not owned; it and the queue must outlive this.
  Outlet(tn::TimerQueue& timers, int fd);

  // One line or several, with their ends; kept or dropped together.
  void write(std::string_view lines);
  // Waits at the most `ms` for the reader to take what is kept: before an orderly end.
  void drain(int ms);

  [[nodiscard]] std::size_t keptBytes() const { return kept_.size(); }

 private:
  enum class Sink : std::uint8_t { file, reopened, socket, shared };

  void flush();
  [[nodiscard]] bool takes() const;
  [[nodiscard]] long writeSome(std::string_view bytes) const;
  void tellDropped();
  // A write failed when that much of what is kept had been written.
  void fail(std::size_t done);
  // Whether it can be told by now what was dropped.
  bool takesAgain();

  tn::TimerQueue& timers_;
  UniqueFd own_;  // the descriptor that was opened anew
  int fd_;
  Sink sink_ = Sink::shared;
  std::string kept_;
  std::uint64_t dropped_ = 0;  // lines, not told yet
  bool failed_ = false;        // the last write did, and nothing is kept
  bool torn_ = false;          // what was written last ends within a line
  tn::Timer retry_;
};

}  // namespace tnrun
