#pragma once

#include "core/server_entry.h"
#include "platform/bus/handler.h"
#include "platform/bus/timer.h"

// Bus handler 2: tells what the servers have counted since the process began (docs/services.md). Its `get` needs the
// right to read.
class CounterHandler : public tn::Handler {
 public:
  static constexpr std::uint32_t busHandlerId = 2;

  // The process counts as begun now.
  explicit CounterHandler(const ServerMap& servers);

  tn::message cmdGet(tn::message& msg) override;

 private:
  const ServerMap& servers_;
  const tn::Clock::time_point began_;
};
