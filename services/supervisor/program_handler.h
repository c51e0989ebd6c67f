#pragma once

#include <cstdint>
#include <vector>

#include "platform/bus/handler.h"
#include "services/supervisor/enquiry.h"
#include "services/supervisor/program_list.h"
#include "services/supervisor/supervisor.h"

namespace tnrun {

// Bus handler 1: how the programs of the system are (docs/services.md). Its `get` needs the right to read.
class ProgramHandler : public tn::Handler {
 public:
  static constexpr std::uint32_t busHandlerId = 1;

  // All outlive this.
  ProgramHandler(const std::vector<Program>& programs, const Supervisor& supervisor, const BusEnquiry& enquiry)
      : programs_(programs), supervisor_(supervisor), enquiry_(enquiry) {}

  tn::message cmdGet(tn::message& msg) override;

 private:
  const std::vector<Program>& programs_;
  const Supervisor& supervisor_;
  const BusEnquiry& enquiry_;
};

}  // namespace tnrun
