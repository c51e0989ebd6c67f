#include <array>
#include <csignal>
#include <ctime>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "services/tlsd/hand_over.h"
#include "services/tlsd/management.h"

// The TLS service: takes accepted sockets over, makes the handshake, and gives back descriptors that speak plain bytes.

namespace {

constexpr unsigned busId = 12;
constexpr std::uint32_t handOverHandler = 0;
constexpr std::uint32_t managementHandler = 1;
constexpr char folder[] = "/rw/store/tls";

std::string hostName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

// The loop has raised the limit before this.
std::size_t descriptorLimit() {
  rlimit limit{};
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? static_cast<std::size_t>(limit.rlim_cur) : 0;
}

}  // namespace

int main() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a file that may not grow must not end the service
  tn::Looper::Tuning tuning{};
  tuning.id = busId;
  tn::Looper looper(tuning);
  const bool offload = tlsd::kernelOffersTls();
  logLine("the kernel's TLS: ", offload ? "yes" : "no, all connections are relayed");
  tlsd::Sessions::Limits limits;
  limits.sessions = tlsd::sessionsFor(descriptorLimit());
  tlsd::Sessions sessions(looper.runner(), limits, offload);
  tlsd::Keeper keeper(tlsd::PairStore(folder), hostName(), offload, looper.runner().timers(),
                      [] { return std::int64_t{std::time(nullptr)}; });
  keeper.start();
  tlsd::HandOver handOver(keeper, sessions);
  tlsd::Management management(keeper, sessions, offload);
  looper.addHandler(handOverHandler, handOver);
  looper.addHandler(managementHandler, management);
  looper.run();
  return looper.exitStatus();
}
