#pragma once

#include <expected>
#include <string>
#include <sys/types.h>

#include "platform/unique_fd.h"

namespace tnrun {

// A program that was started, and the ends of its pipes to read what it writes from.
struct Started {
  pid_t pid;
  UniqueFd output;
  UniqueFd errors;
};

// How the supervisor starts and signals programs. Tests count instead.
class Processes {
 public:
  Processes() = default;
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;
  virtual ~Processes() = default;

  // Starts the program at `path`, without arguments. Returns what it is, or the errno of what failed.
  [[nodiscard]] virtual std::expected<Started, int> start(const std::string& path) = 0;
  // Sends a signal to a child that has not been reaped; one that is a zombie by now takes no notice.
  virtual void signal(pid_t pid, int number) = 0;
};

// Real children. Each has pipes for standard output and standard error, belongs to a process group of its own (the
// terminal's Ctrl-C is for the supervisor), has no other descriptor of this program, and is killed by the kernel when
// this program ends.
class RealProcesses : public Processes {
 public:
  // What a program may write before somebody has to read, where the system lets pipes be that large: a log that is
  // not read in time loses lines.
  static constexpr int pipeBytes = 256 << 10;

  [[nodiscard]] std::expected<Started, int> start(const std::string& path) override;
  void signal(pid_t pid, int number) override;
};

}  // namespace tnrun
