#include "bench/bus/bus_clock.h"

#include <cstdio>

#include "bench/bus/bus_socket.h"

namespace {

double secondsOf(clockid_t clock) {
  timespec now{};
  if (clock_gettime(clock, &now) != 0) fail("clock_gettime");
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

clockid_t processorClockOf(pid_t process) {
  clockid_t clock = 0;
  if (clock_getcpuclockid(process, &clock) != 0) fail("clock_getcpuclockid");
  return clock;
}

}  // namespace

Spending::Spending(pid_t broker, pid_t echoer)
    : clocks_{CLOCK_MONOTONIC, processorClockOf(broker), processorClockOf(echoer), CLOCK_PROCESS_CPUTIME_ID} {
  for (std::size_t i = 0; i < clocks_.size(); ++i)
    began_[i] = secondsOf(clocks_[i]);
}

void Spending::print(std::uint32_t roundTrips) const {
  std::array<double, 4> spent{};
  for (std::size_t i = 0; i < clocks_.size(); ++i)
    spent[i] = secondsOf(clocks_[i]) - began_[i];
  const double trips = roundTrips;
  std::printf("%.0f %.3f %.3f\n", trips / spent[0], spent[1] / trips * 1e6,
              (spent[1] + spent[2] + spent[3]) / trips * 1e6);
}
