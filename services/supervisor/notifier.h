#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bus/handler.h"
#include "platform/bus/timer.h"
#include "platform/unique_fd.h"

namespace tnrun {

// What the supervisor tells whoever started it, by datagrams to the socket that the environment names: systemd, and
// what speaks like it. Without such a socket nothing is told.
//
// It is registered with the looper as a handler, because the first link to the broker is what makes the system ready.
class Notifier : public tn::Handler {
 public:
  // Until the word that the system is ready is tried again: whoever waits for it in vain ends the system.
  static constexpr std::uint32_t retryMs = 1000;

  // The variables of the environment, as they stand there.
  struct Wishes {
    std::optional<std::string> socket;    // NOTIFY_SOCKET: a path, or a name without a file behind a "@"
    std::optional<std::string> interval;  // WATCHDOG_USEC: microseconds within which a sign of life is expected
    std::optional<std::string> process;   // WATCHDOG_PID: whose sign of life; absent: whoever reads this
  };

  // Takes the variables out of the environment: they are not for the programs that are started later.
  [[nodiscard]] static Wishes takeWishes();

  // `timers` must outlive this.
  Notifier(const Wishes& wishes, tn::TimerQueue& timers);

  // "READY=1", once, and from then on the signs of life.
  void linked() override;
  // "STOPPING=1". The signs of life go on: stopping has a time limit of its own.
  void stopping();

  // Milliseconds between two signs of life, half of what is allowed; 0: none is expected.
  [[nodiscard]] std::uint32_t intervalMs() const { return intervalMs_; }

 private:
  void beat();
  bool tell(std::string_view state);

  UniqueFd socket_;  // connected; none when nobody wants to know
  std::uint32_t intervalMs_ = 0;
  bool linked_ = false;
  bool ready_ = false;  // and told so
  tn::TimerQueue& timers_;
  tn::Timer timer_;
};

}  // namespace tnrun
