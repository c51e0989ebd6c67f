#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

#include "platform/bus/frame.h"
#include "platform/bus/message.h"

namespace sysd {

// Which frames on the bus are not to be shown, because they could hold a password or a key.
//
// Of what goes to the user service, only commands that ask are shown, and these not when they hold the fields of
// passwords; of what comes from it, only the answers to those. A message to the TLS service with a key is not shown.
class Secrecy {
 public:
  // Looks at every frame that passes, in order. `msg` is its payload, empty when that is no message.
  [[nodiscard]] bool mayBeShown(std::uint32_t from, std::uint32_t to, tn::FrameKind kind, const tn::message& msg,
                                bool isMessage);

 private:
  // Requests to the user service that were shown and not answered yet, by asker and number; the oldest go first.
  static constexpr std::size_t maxRequests = 1024;

  [[nodiscard]] bool isHarmlessAnswer(std::uint32_t asker, const tn::message& msg);
  void note(std::uint32_t asker, const tn::message& msg, bool harmless);

  std::deque<std::pair<std::uint32_t, std::uint32_t>> shown_;
};

}  // namespace sysd
