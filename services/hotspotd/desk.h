#pragma once

#include <cstdint>

#include "platform/bus/handler.h"
#include "services/hotspotd/servers.h"

namespace hotspot {

// The program's own handler, which the server asks for records: a message to the program without a path below it.
class Desk : public tn::Handler {
 public:
  static constexpr std::uint32_t id = 0;
  static constexpr std::uint32_t askRecords = 0x30003;

  // The servers must outlive the desk.
  explicit Desk(Servers& servers) : servers_(servers) {}

  // Every other command is answered as by any program; that an answer comes is what the supervisor wants to see.
  tn::message cmdUnknown(tn::message& msg, std::uint32_t command) override;

 private:
  Servers& servers_;
};

}  // namespace hotspot
