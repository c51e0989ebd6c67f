#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/bus/handler.h"

namespace sermgr {

// The handler of a server that takes records.
inline constexpr std::uint32_t serverHandler = 1;

// Why a server has not taken a command: an error code of the bus, and what it says.
struct ServerError {
  std::uint32_t code;
  std::string text;
  bool unheard = true;  // a server has not heard the command, as far as is known
};
// How a command fared with the servers: nothing when every one of them has taken it, else the first error.
using Outcome = std::optional<ServerError>;

// Brings commands to the running servers: the programs on the bus that are named "www", whose handler 1 takes records.
//
// Commands reach a server in the order of the calls that gave them, since the broker answers in order and keeps the
// order between two programs.
class Delivery {
 public:
  // Both limits together are what a change may wait for at the most.
  static constexpr std::uint32_t findMs = 1000;
  static constexpr std::uint32_t answerMs = 2000;

  // `from` sends; it must be registered with the process's looper, and outlive what is under way.
  explicit Delivery(tn::Handler& from) : from_(from) {}

  struct Found {
    std::vector<std::uint32_t> servers;  // ids of programs, in the broker's order
    Outcome failure;                     // why the broker did not say
  };
  // Asks the broker which servers there are. Calls back once, from the loop.
  void findServers(std::function<void(const Found&)> callback);

  // Sends a command to handler 1 of each server, and calls back once all of them have answered, or at once, with the
  // code of "no such service", when there are none. The callback may outlive the call by `answerMs`.
  void deliver(std::span<const std::uint32_t> servers, const tn::message& command,
               std::function<void(const Outcome&)> callback);

 private:
  tn::Handler& from_;
};

}  // namespace sermgr
