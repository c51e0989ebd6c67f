#pragma once

#include <cstddef>
#include <vector>

namespace tnrun {

// The watchdog's book: who answered in this round of questions, and who has been silent for how many rounds.
//
// Everybody answers over the bus, so silence says nothing of the others while the broker itself is silent: a round in
// which the broker did not answer counts against the broker alone. Rounds are counted, not seconds: after the whole
// system was stopped for an hour nobody has been silent for an hour.
class Vigil {
 public:
  // Rounds of silence after which a program counts as hung; with one round every two seconds, ten seconds.
  static constexpr unsigned patience = 5;

  // Watches `count` programs, known by their index; `broker` is the index of the broker among them.
  Vigil(std::size_t count, std::size_t broker) : seats_(count), broker_(broker) {}

  void answered(std::size_t program) { seats_[program].answered = true; }
  // A program was started, or ended: it begins anew.
  void forgive(std::size_t program) { seats_[program] = {}; }
  // Whether the program has answered in this round or the one before.
  [[nodiscard]] bool answers(std::size_t program) const { return seats_[program].answered || seats_[program].before; }
  // Ends the round. Returns the programs that are hung now; each is named again every round until forgiven.
  [[nodiscard]] std::vector<std::size_t> closeRound();

 private:
  struct Seat {
    bool answered = false;  // in this round
    bool before = false;    // in the round before
    unsigned silent = 0;    // rounds in a row
  };

  std::vector<Seat> seats_;
  std::size_t broker_;
};

}  // namespace tnrun
