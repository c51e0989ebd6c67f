#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

// What a measurement of the bus costs, by the clocks of the system.
class Spending {
 public:
  // Starts now; the processor time of a broker, of the process that answers, and of this one.
  Spending(pid_t broker, pid_t echoer);

  // Prints the line that both clients print: round trips per second, and microseconds of processor time for each round
  // trip, of the broker and of all three processes.
  void print(std::uint32_t roundTrips) const;

 private:
  using Clocks = std::array<clockid_t, 4>;

  Clocks clocks_;
  std::array<double, 4> began_{};
};
