#pragma once

#include <cstdint>

#include "platform/bus/handler.h"
#include "platform/bus/timer_queue.h"
#include "services/hotspotd/forwarded.h"
#include "services/hotspotd/keeper.h"
#include "services/hotspotd/visitors.h"

namespace hotspot {

// Answers the requests of the hotspot's servers: a page to log in with an access code, and one to log out again. Who is
// logged in is known by address and tag, so no cookie is needed, and is forgotten when the process ends.
//
// Its settings are read and changed with the commands get and set.
class Portal : public tn::Handler {
 public:
  static constexpr std::uint32_t id = 15;

  // Both must outlive the portal.
  Portal(Keeper& keeper, const tn::TimerQueue& clock) : keeper_(keeper), clock_(clock) {}

  tn::message cmdGet(tn::message& msg) override;
  tn::message cmdSet(tn::message& msg) override;
  tn::message cmdUnknown(tn::message& msg, std::uint32_t command) override;

 private:
  [[nodiscard]] Page answer(const ForwardedRequest& request);
  [[nodiscard]] Page front(const ForwardedRequest& request) const;
  [[nodiscard]] Page act(const ForwardedRequest& request);
  [[nodiscard]] Page logIn(const ForwardedRequest& request);
  [[nodiscard]] Page logOut(const ForwardedRequest& request);

  Keeper& keeper_;
  const tn::TimerQueue& clock_;
  Visitors visitors_;
};

}  // namespace hotspot
