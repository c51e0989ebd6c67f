#pragma once

#include <cstdint>

#include "platform/bus/handler.h"
#include "services/tlsd/keeper.h"
#include "services/tlsd/sessions.h"

namespace tlsd {

// Handler 1 of the service: tells of the certificate and the connections, and changes the certificate (docs/tls.md).
class Management : public tn::Handler {
 public:
  // Reads the files now instead of at the next look.
  static constexpr std::uint32_t reloadCommand = 0x60001;

  // Both must outlive it.
  Management(Keeper& keeper, const Sessions& sessions, bool offload)
      : keeper_(keeper), sessions_(sessions), offload_(offload) {}

  tn::message cmdGet(tn::message& msg) override;
  tn::message cmdSet(tn::message& msg) override;
  tn::message cmdReset(tn::message& msg) override;
  tn::message cmdUnknown(tn::message& msg, std::uint32_t command) override;

 private:
  Keeper& keeper_;
  const Sessions& sessions_;
  const bool offload_;
};

}  // namespace tlsd
