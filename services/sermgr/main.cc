#include <csignal>

#include "platform/bus/looper.h"
#include "services/sermgr/manager.h"

// The service manager: keeps the server records and gives them to the servers.
int main() {
  signal(SIGPIPE, SIG_IGN);  // a log whose reader is gone must not end the service
  signal(SIGXFSZ, SIG_IGN);  // nor a file that may not grow
  tn::Looper::Tuning tuning{};
  tuning.id = sermgr::busId;
  tn::Looper looper(tuning);
  sermgr::Store store(sermgr::databasePath);
  sermgr::Manager manager(store);
  manager.start();
  looper.addHandler(sermgr::handlerId, manager);
  looper.run();
  return looper.exitStatus();
}
