#include <csignal>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "services/hotspotd/desk.h"
#include "services/hotspotd/keeper.h"
#include "services/hotspotd/portal.h"
#include "services/hotspotd/servers.h"

namespace {

constexpr std::uint32_t busId = 63;
constexpr char statePath[] = "/rw/store/hotspot.conf";

}  // namespace

// The hotspot service: adds servers of its own to the HTTP server, and answers their requests with a login page.
int main() {
  signal(SIGPIPE, SIG_IGN);  // a log whose reader is gone must not end the service
  signal(SIGXFSZ, SIG_IGN);  // nor a file that may not grow
  tn::Looper::Tuning tuning{};
  tuning.id = busId;
  tn::Looper looper(tuning);
  hotspot::Keeper keeper(statePath);
  if (!keeper.isLoaded()) {
    drainLog();
    return 1;
  }
  hotspot::Servers servers(keeper, looper);
  hotspot::Desk desk(servers);
  hotspot::Portal portal(keeper, looper.runner().timers());
  looper.addHandler(hotspot::Desk::id, desk);
  looper.addHandler(hotspot::Servers::id, servers);
  looper.addHandler(hotspot::Portal::id, portal);
  servers.start();
  looper.run();
  return looper.exitStatus();
}
