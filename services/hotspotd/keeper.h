#pragma once

#include <optional>
#include <string>
#include <utility>

#include "services/hotspotd/state_file.h"

namespace hotspot {

// The state of the process and its file. A change is stored before it counts.
class Keeper {
 public:
  explicit Keeper(std::string path) : file_(std::move(path)), state_(file_.load()) {}

  // Whether there is a state; nothing else may be asked without one.
  [[nodiscard]] bool isLoaded() const { return state_.has_value(); }
  [[nodiscard]] const State& state() const { return *state_; }

  // Nothing when the change was made, else what failed; the state is then as it was.
  [[nodiscard]] Problem change(State next) {
    if (Problem problem = file_.save(next)) return problem;
    state_ = std::move(next);
    return std::nullopt;
  }

 private:
  StateFile file_;
  std::optional<State> state_;
};

}  // namespace hotspot
