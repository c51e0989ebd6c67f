#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/bus/handler.h"
#include "platform/bus/timer.h"
#include "services/sysd/board.h"
#include "services/sysd/subscriber_list.h"

namespace sysd {

// Commands of the status, beside those of every handler; docs/services.md.
namespace command {
inline constexpr std::uint32_t subscribe = 0x20011;
inline constexpr std::uint32_t unsubscribe = 0x20012;
inline constexpr std::uint32_t push = 0x20013;
}  // namespace command

inline constexpr std::uint32_t busId = 24;
inline constexpr std::uint32_t handlerId = 1;
// Told when a session of the web interface ends.
inline constexpr std::uint32_t sessionGroup = 0xff0001;

// Tells the status to whoever asks, and pushes what has changed to subscribers.
//
// One timer ticks while there are subscribers; their intervals are counted in its ticks, all from the same one, so that
// those who are due together are told of one reading. The bus library forgets a subscriber whose session ended or whose
// program is gone, and says so by `unsubscribed`.
class StatusHandler : public tn::Handler {
 public:
  static constexpr std::uint32_t tickMs = 500;
  static constexpr std::uint32_t defaultIntervalMs = 1000;
  static constexpr std::uint32_t longestIntervalMs = 3'600'000;
  // How old an answer may be, and a push.
  static constexpr std::chrono::milliseconds answerAge{200};

  // Both must outlive this.
  StatusHandler(Source& source, tn::TimerQueue& timers);

  void handleCmd(tn::message& msg) override;
  tn::message cmdGetObj(tn::message& msg, std::uint32_t object) override;
  tn::message cmdGetAll(tn::message& msg) override;
  void unsubscribed(const tn::message& subscriber) override;
  void unlinked() override;

  [[nodiscard]] std::size_t subscribers() const { return list_.size(); }

 private:
  [[nodiscard]] tn::message onSubscribe(tn::message& msg);
  [[nodiscard]] tn::message onUnsubscribe(tn::message& msg);
  void onTick();
  void push(SubscriberList::Subscriber& subscriber);
  // Appends those of the objects that the subscriber was not told as they are now.
  [[nodiscard]] std::vector<tn::message> news(SubscriberList::Subscriber& subscriber);

  Board board_;
  tn::TimerQueue& timers_;
  SubscriberList list_;
  tn::Timer tick_;
  std::uint64_t ticks_ = 0;
};

}  // namespace sysd
