#pragma once

#include <cstdint>

#include "platform/bus/handler.h"
#include "services/tlsd/keeper.h"
#include "services/tlsd/sessions.h"

namespace tlsd {

// Handler 0 of the service: takes sockets over and gives back descriptors that speak plain bytes (docs/tls.md).
class HandOver : public tn::Handler {
 public:
  static constexpr std::uint32_t command = 1;

  // Both must outlive it and what is under way.
  HandOver(Keeper& keeper, Sessions& sessions) : keeper_(keeper), sessions_(sessions) {}

  void handleCmd(tn::message& msg) override;
  // Whoever handed over is answered by his own library that the broker is gone, and may have another number when it is
  // back.
  void unlinked() override { sessions_.abandonHandshakes(); }

 private:
  void take(tn::message& msg);
  void answer(const tn::message& address, Session::Outcome outcome);

  Keeper& keeper_;
  Sessions& sessions_;
};

}  // namespace tlsd
