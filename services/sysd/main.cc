#include <csignal>

#include "platform/bus/looper.h"
#include "services/sysd/console_handler.h"
#include "services/sysd/file_store.h"
#include "services/sysd/files_handler.h"
#include "services/sysd/kernel_source.h"
#include "services/sysd/status_handler.h"

// The status service: tells how the machine is, lists the files of the user store, and shows what passes over the bus.
int main() {
  signal(SIGPIPE, SIG_IGN);  // a log whose reader is gone must not end the service
  signal(SIGXFSZ, SIG_IGN);  // nor a file that may not grow
  tn::Looper::Tuning tuning{};
  tuning.id = sysd::busId;
  tn::Looper looper(tuning);
  sysd::KernelSource source;
  sysd::StatusHandler status(source, looper.runner().timers());
  looper.addHandler(sysd::handlerId, status);
  const sysd::FileStore store({"/rw/disk", "/flash", "/rw/pckg/flash"});
  sysd::FilesHandler files(store, looper.runner().timers());
  looper.addHandler(sysd::FilesHandler::id, files);
  sysd::ConsoleHandler console(looper);
  looper.addHandler(sysd::ConsoleHandler::id, console);
  looper.joinGroup(sysd::sessionGroup);
  looper.run();
  return looper.exitStatus();
}
