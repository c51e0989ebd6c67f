#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "platform/bus/looper.h"
#include "platform/bus/timer.h"

namespace hotspot {

// Knows which servers (programs named "www") are on the bus, and says once of each that it can be given its records.
//
// A server that has just started asks all services for records, unless one has come by then. So it is let alone until
// it asks, or until it has been there for a whole round: records that come before would keep it from asking, and the
// other services, which do not watch, would not give it theirs.
class Watch {
 public:
  static constexpr std::uint32_t roundMs = 1000;
  static constexpr std::uint32_t answerMs = 5000;

  using Ready = std::function<void(std::uint32_t program)>;

  // The looper must outlive the watch. `ready` runs from the loop.
  Watch(tn::Looper& looper, Ready ready);
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  void start() { round(); }
  // A program has asked for records. One that is no server is not answered.
  void asked(std::uint32_t program);
  // The link to the broker was lost: every server that comes is a new one.
  void forget();

  // Those that have been given their records.
  [[nodiscard]] std::vector<std::uint32_t> served() const;

 private:
  void round();
  void look(bool endsRound);
  void onList(const tn::message& list, bool endsRound);

  tn::Looper& looper_;
  Ready ready_;
  tn::Timer timer_;
  bool looking_ = false;                   // the broker's list is on its way
  std::set<std::uint32_t> askers_;         // since the last list
  std::map<std::uint32_t, bool> servers_;  // by program: whether it was given its records
};

}  // namespace hotspot
