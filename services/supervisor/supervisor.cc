#include "services/supervisor/supervisor.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <utility>

namespace tnrun {
namespace {

constexpr std::string_view ownPrefix = "tnrun: ";

std::string endText(int status) {
  if (WIFSIGNALED(status)) return "was ended by signal " + std::to_string(WTERMSIG(status));
  return "ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

Supervisor::Supervisor(const std::vector<Program>& programs, std::size_t broker, tn::ThinRunner& runner,
                       Processes& processes, Enquiry& enquiry, Listener& listener, std::function<void()> allStopped)
    : programs_(programs),
      runner_(runner),
      processes_(processes),
      enquiry_(enquiry),
      listener_(listener),
      allStopped_(std::move(allStopped)),
      vigil_(programs.size(), broker),
      round_([this] { closeRound(); }),
      seats_(programs.size()) {
  for (std::size_t i = 0; i < seats_.size(); ++i)
    seats_[i].timer.setCallback([this, i] { launch(i); });
}

void Supervisor::start() {
  for (std::size_t i = 0; i < seats_.size(); ++i)
    launch(i);
  round_.start(runner_.timers(), roundMs);
}

void Supervisor::launch(std::size_t program) {
  Seat& seat = seats_[program];
  seat.began = runner_.timers().now();
  vigil_.forgive(program);
  auto started = processes_.start(programs_[program].path);
  if (!started) return startLater(program, "cannot be started (" + std::string(std::strerror(started.error())) + ")");
  seat.pid = started->pid;
  seat.state = State::running;
  ++seat.starts;
  listener_.say(Stream::output, std::string(ownPrefix)
                                    .append("started ")
                                    .append(programs_[program].name)
                                    .append(", process ")
                                    .append(std::to_string(seat.pid)));
  listener_.began(program, std::move(started->output), std::move(started->errors));
}

std::uint64_t Supervisor::ranMs(const Seat& seat) const {
  const auto ran = std::chrono::duration_cast<std::chrono::milliseconds>(runner_.timers().now() - seat.began);
  return static_cast<std::uint64_t>(ran.count());
}

void Supervisor::startLater(std::size_t program, std::string_view what) {
  Seat& seat = seats_[program];
  const std::uint32_t pause = seat.pause.after(ranMs(seat));
  say(program, std::string(what) + ", starting again in " + std::to_string(pause) + " ms");
  seat.pid = 0;
  seat.state = State::waiting;
  seat.timer.start(runner_.timers(), pause);
}

void Supervisor::onEnded(pid_t pid, int status) {
  const auto found = std::find_if(seats_.begin(), seats_.end(), [pid](const Seat& seat) { return seat.pid == pid; });
  if (found == seats_.end()) return;
  const auto program = static_cast<std::size_t>(found - seats_.begin());
  listener_.ended(program);
  if (!stopping_) return startLater(program, endText(status));

  const bool wasLeaving = found->state == State::leaving;
  found->timer.cancel();
  found->pid = 0;
  found->state = State::ended;
  if (wasLeaving) stopNext();
}

void Supervisor::closeRound() {
  for (const std::size_t program : vigil_.closeRound()) {
    const Seat& seat = seats_[program];
    vigil_.forgive(program);
    if (seat.state != State::running) continue;
    say(program, "does not answer and is killed");
    processes_.signal(seat.pid, SIGKILL);
  }
  enquiry_.ask([this](std::size_t program) { vigil_.answered(program); });
  round_.start(runner_.timers(), roundMs);
}

void Supervisor::stop() {
  if (std::exchange(stopping_, true)) return;
  round_.cancel();
  for (std::size_t i = 0; i < seats_.size(); ++i) {
    Seat& seat = seats_[i];
    seat.timer.cancel();
    if (seat.state == State::waiting) seat.state = State::ended;
    seat.timer.setCallback([this, i] {
      say(i, "does not end and is killed");
      processes_.signal(seats_[i].pid, SIGKILL);
    });
  }
  stopNext();
}

// The last program that still runs is told to end; when it has ended, this is called again.
void Supervisor::stopNext() {
  const auto last =
      std::find_if(seats_.rbegin(), seats_.rend(), [](const Seat& seat) { return seat.state == State::running; });
  if (last == seats_.rend()) return allStopped_();
  last->state = State::leaving;
  last->timer.start(runner_.timers(), farewellMs);
  processes_.signal(last->pid, SIGTERM);
}

// Standard error: the log is for whoever looks for it, this is for whoever sits in front of the machine.
void Supervisor::say(std::size_t program, std::string_view what) {
  std::string line(ownPrefix);
  line.append(programs_[program].name).append(" ").append(what);
  listener_.say(Stream::errors, line);
}

Supervisor::Condition Supervisor::condition(std::size_t program) const {
  const Seat& seat = seats_[program];
  Condition condition;
  condition.startedAgain = seat.starts == 0 ? 0 : seat.starts - 1;
  if (seat.pid == 0) return condition;
  condition.pid = seat.pid;
  condition.runningMs = ranMs(seat);
  condition.answers = vigil_.answers(program);
  return condition;
}

}  // namespace tnrun
