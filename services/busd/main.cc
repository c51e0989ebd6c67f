#include <algorithm>
#include <climits>
#include <csignal>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "platform/bus/frame.h"
#include "platform/log.h"
#include "services/busd/broker.h"
#include "services/busd/listener.h"
#include "services/busd/wire.h"

namespace {

// Descriptors for the broker itself, and for those that are on their way through it.
constexpr rlim_t spareDescriptors = 64;
// Between two looks at how many there are, no more of them are taken than one receive can bring, or one turn accepts.
constexpr rlim_t scarceDescriptors = 2 * busd::descriptorsPerSend;

// As many descriptors as the system allows; says how many that are.
rlim_t raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) logSystemError("setrlimit");
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
}

busd::Limits limitsFor(rlim_t descriptors) {
  busd::Limits limits;
  const rlim_t usable = descriptors > 2 * spareDescriptors ? descriptors - spareDescriptors : spareDescriptors;
  limits.clients = static_cast<std::size_t>(std::min<rlim_t>(limits.clients, usable));
  limits.trustedClients = std::min(limits.trustedClients, limits.clients / 2);
  if (descriptors < INT_MAX) {
    limits.scarceFrom = static_cast<int>(descriptors) - static_cast<int>(std::min(descriptors, scarceDescriptors));
  }
  return limits;
}

// SIGTERM and SIGINT become readable there instead of ending the process.
UniqueFd takeStopSignals() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  return UniqueFd(signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace

int main() {
  (void)signal(SIGPIPE, SIG_IGN);
  (void)signal(SIGXFSZ, SIG_IGN);  // of its log, where files are limited
  // Large frames come and go in blocks of their own length; each is to return to the system when it is done.
  constexpr int ownBlockBytes = 128 << 10;
  mallopt(M_MMAP_THRESHOLD, ownBlockBytes);
  const UniqueFd stop = takeStopSignals();
  if (!stop) {
    logSystemError("signalfd");
    return 1;
  }
  const busd::Limits limits = limitsFor(raiseDescriptorLimit());
  const auto listener = busd::Listener::open(tn::busSocketPath);
  if (!listener) {
    logLine("cannot start: ", listener.error());
    drainLog();
    return 1;
  }
  busd::Broker broker(limits, geteuid());
  if (!broker.listen(listener->fd())) {
    logSystemError("cannot start");
    return 1;
  }
  logLine("listening on ", tn::busSocketPath);
  flushLog();
  broker.run(stop.get());
  logLine("stopped");
  drainLog();
  return 0;
}
