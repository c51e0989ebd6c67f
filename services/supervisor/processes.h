#pragma once

#include <expected>
#include <string>
#include <sys/types.h>

namespace tnrun {

// How the supervisor starts and signals programs. Tests count instead.
class Processes {
 public:
  Processes() = default;
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;
  virtual ~Processes() = default;

  // Starts the program at `path`, without arguments. Returns its process id, or the errno of what failed.
  [[nodiscard]] virtual std::expected<pid_t, int> start(const std::string& path) = 0;
  // Sends a signal to a child that has not been reaped; one that is a zombie by now takes no notice.
  virtual void signal(pid_t pid, int number) = 0;
};

// Real children. Each writes its log where this program does, standard error included, belongs to a process group of
// its own (the terminal's Ctrl-C is for the supervisor), has no other descriptor of this program, and is killed by the
// kernel when this program ends.
class RealProcesses : public Processes {
 public:
  [[nodiscard]] std::expected<pid_t, int> start(const std::string& path) override;
  void signal(pid_t pid, int number) override;
};

}  // namespace tnrun
