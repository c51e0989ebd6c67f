#include <csignal>

#include "platform/bus/looper.h"
#include "services/sysd/kernel_source.h"
#include "services/sysd/status_handler.h"

// The status service: tells how the machine is.
int main() {
  signal(SIGPIPE, SIG_IGN);  // a log whose reader is gone must not end the service
  tn::Looper::Tuning tuning{};
  tuning.id = sysd::busId;
  tn::Looper looper(tuning);
  sysd::KernelSource source;
  sysd::StatusHandler status(source, looper.runner().timers());
  looper.addHandler(sysd::handlerId, status);
  looper.joinGroup(sysd::sessionGroup);
  looper.run();
  return 0;
}
