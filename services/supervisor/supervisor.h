#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/bus/thin_runner.h"
#include "services/supervisor/enquiry.h"
#include "services/supervisor/listener.h"
#include "services/supervisor/processes.h"
#include "services/supervisor/program_list.h"
#include "services/supervisor/restart_pause.h"
#include "services/supervisor/vigil.h"

namespace tnrun {

// Keeps the programs of the system running: starts them in order, starts again what ended, kills what hangs, and at the
// end stops them in reverse order.
//
// What a person has to know (a program ended or hung) is said on standard error; the rest is for the log.
class Supervisor {
 public:
  static constexpr std::uint32_t roundMs = 2000;     // between two questions of the watchdog
  static constexpr std::uint32_t farewellMs = 3000;  // from the polite signal to the other one

  // `programs`, with the broker at index `broker`, and the other references must outlive this. `allStopped` runs once,
  // after stop().
  Supervisor(const std::vector<Program>& programs, std::size_t broker, tn::ThinRunner& runner, Processes& processes,
             Enquiry& enquiry, Listener& listener, std::function<void()> allStopped);

  void start();
  // A child was reaped. One that the supervisor does not know is somebody's orphan and nobody's business.
  void onEnded(pid_t pid, int status);
  // Stops all programs; a second call changes nothing.
  void stop();

  // How a program is.
  struct Condition {
    pid_t pid = 0;  // 0: it does not run
    std::uint32_t startedAgain = 0;
    std::uint64_t runningMs = 0;
    bool answers = false;
  };
  [[nodiscard]] Condition condition(std::size_t program) const;

 private:
  enum class State : std::uint8_t {
    waiting,  // not there; `timer` starts it
    running,  // `pid` is its own; no timer
    leaving,  // was told to end; `timer` kills it
    ended,    // not there and not wanted
  };
  struct Seat {
    State state = State::waiting;
    pid_t pid = 0;  // while running or leaving
    tn::Clock::time_point began{};
    std::uint32_t starts = 0;  // that succeeded
    RestartPause pause;
    tn::Timer timer;
  };

  void launch(std::size_t program);
  void startLater(std::size_t program, std::string_view what);
  void closeRound();
  void stopNext();
  void say(std::size_t program, std::string_view what);
  [[nodiscard]] std::uint64_t ranMs(const Seat& seat) const;

  const std::vector<Program>& programs_;
  tn::ThinRunner& runner_;
  Processes& processes_;
  Enquiry& enquiry_;
  Listener& listener_;
  std::function<void()> allStopped_;
  Vigil vigil_;
  tn::Timer round_;
  bool stopping_ = false;
  std::deque<Seat> seats_;  // by index of the program; timers do not move
};

}  // namespace tnrun
