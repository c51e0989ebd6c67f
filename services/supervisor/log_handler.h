#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/bus/handler.h"
#include "services/supervisor/journal.h"

namespace tnrun {

// Bus handler 2: the last lines of the log of all programs (docs/services.md). Its `get all` needs the right to change
// settings, since a log tells more than the settings do.
class LogHandler : public tn::Handler {
 public:
  static constexpr std::uint32_t busHandlerId = 2;
  static constexpr std::uint32_t mostLines = 500;
  static constexpr std::uint32_t usualLines = 200;
  // So that an answer fits the binary form of the tunnel.
  static constexpr std::size_t mostBytes = 60'000;

  // The journal outlives this.
  explicit LogHandler(const Journal& journal) : journal_(journal) {}

  tn::message cmdGetAll(tn::message& msg) override;

 private:
  const Journal& journal_;
};

}  // namespace tnrun
