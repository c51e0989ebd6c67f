#include "services/busd/impatience.h"

#include <cerrno>
#include <csignal>
#include <sys/time.h>

namespace busd {

namespace {

constexpr suseconds_t patienceUs = 1000;

unsigned depth = 0;

void onAlarm(int /*number*/) {}

// A signal that is ignored or blocked ends no wait.
void catchAlarms() {
  struct sigaction action {};
  action.sa_handler = onAlarm;
  action.sa_flags = SA_RESTART;
  (void)sigaction(SIGALRM, &action, nullptr);
  sigset_t alarms;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  (void)sigprocmask(SIG_UNBLOCK, &alarms, nullptr);
}

void sendAlarms(suseconds_t everyUs) {
  const itimerval timer{{0, everyUs}, {0, everyUs}};
  const int saved = errno;
  (void)setitimer(ITIMER_REAL, &timer, nullptr);
  errno = saved;
}

}  // namespace

Impatience::Impatience() {
  static const bool caught = (catchAlarms(), true);
  (void)caught;
  if (depth++ == 0) sendAlarms(patienceUs);
}

Impatience::~Impatience() {
  if (--depth == 0) sendAlarms(0);
}

}  // namespace busd
