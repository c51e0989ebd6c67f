#include "services/supervisor/vigil.h"

#include <utility>

namespace tnrun {

std::vector<std::size_t> Vigil::closeRound() {
  std::vector<std::size_t> hung;
  const bool busTurns = seats_[broker_].answered;
  for (std::size_t i = 0; i < seats_.size(); ++i) {
    Seat& seat = seats_[i];
    if (seat.answered) {
      seat.silent = 0;
    } else if (busTurns || i == broker_) {
      ++seat.silent;
    }
    seat.before = std::exchange(seat.answered, false);
    if (seat.silent >= patience) hung.push_back(i);
  }
  return hung;
}

}  // namespace tnrun
