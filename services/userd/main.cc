#include <csignal>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "platform/byte_order.h"
#include "platform/log.h"
#include "services/userd/password.h"
#include "services/userd/service.h"
#include "services/userd/worker_hasher.h"

namespace {

constexpr char databasePath[] = "/rw/store/users.db";
constexpr char notePath[] = "/rw/store/first-login";

// What the service makes is for root alone, and no image of its memory is left behind.
void keepSecrets() {
  umask(077);
  const rlimit none{};
  if (setrlimit(RLIMIT_CORE, &none) != 0) logSystemError("setrlimit");
}

bool makeSettings(userd::Service::Settings& settings) {
  std::array<std::uint8_t, 4> login{};
  if (getrandom(settings.seed.data(), settings.seed.size(), 0) != static_cast<ssize_t>(settings.seed.size()) ||
      getrandom(login.data(), login.size(), 0) != static_cast<ssize_t>(login.size())) {
    return false;
  }
  const auto password = userd::makePassword();
  const auto hash = password ? userd::hashPassword(*password) : std::nullopt;
  if (!hash) return false;
  settings.databasePath = databasePath;
  settings.notePath = notePath;
  // Numbers of this run are not those of the one before it, whose sessions may still be there.
  settings.firstLogin = loadLe32(login.data());
  settings.dummyHash = *hash;
  return true;
}

}  // namespace

// The user service: keeps the users and looks at their passwords.
int main() {
  signal(SIGPIPE, SIG_IGN);  // a log whose reader is gone must not end the service
  signal(SIGXFSZ, SIG_IGN);  // nor a file that may not grow
  keepSecrets();
  userd::Service::Settings settings{};
  if (!makeSettings(settings)) {
    logSystemError("no password can be hashed");
    return 1;
  }
  tn::Looper::Tuning tuning{};
  tuning.id = userd::busId;
  tn::Looper looper(tuning);
  const auto hasher = userd::WorkerHasher::make(looper.runner());
  if (!hasher) {
    logSystemError("hashing thread");
    return 1;
  }
  userd::Service service(looper, *hasher, settings);
  service.start();
  looper.run();
  return looper.exitStatus();
}
