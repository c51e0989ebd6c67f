#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/bus/timer.h"
#include "platform/unique_fd.h"
#include "services/busd/intake.h"
#include "services/busd/out_queue.h"

namespace busd {

struct Traffic {
  std::uint64_t frames = 0;
  std::uint64_t bytes = 0;  // headers included

  void add(std::size_t length) {
    ++frames;
    bytes += length;
  }
  void remove(std::size_t length) {
    --frames;
    bytes -= length;
  }
};

// What the broker knows of one connected program: a record that Broker owns and reads into, Router writes out from, and
// Control names. It lives until the end of the turn in which it was marked as gone.
struct Client {
  enum class State : std::uint8_t {
    joining,  // nothing but a join is awaited; `timer` is the limit for it
    joined,   // `id` is its own; `timer` is armed while a frame is unfinished
    gone,     // nothing is read from it or written to it any more
  };

  Client(UniqueFd connection, uid_t peerUid, bool isTrusted, std::size_t& queuedTotal)
      : socket(std::move(connection)), uid(peerUid), trusted(isTrusted), queue(queuedTotal) {}

  const UniqueFd socket;
  const uid_t uid;
  const bool trusted;  // its user is the broker's own or root

  State state = State::joining;
  std::uint32_t id = 0;  // 0 until it has joined
  std::string name;
  std::vector<std::uint32_t> groups;
  bool monitoring = false;
  std::string_view farewell;  // why it is gone; a literal

  Intake intake;
  std::size_t heldBytes = 0;        // what the broker has counted of intake.heldBytes()
  std::uint64_t unfinishedAge = 0;  // smaller: its unfinished frame began earlier
  tn::Timer timer;
  bool ending = false;     // the kernel announced that its end is to be read
  bool readAgain = false;  // more may be there that the kernel does not announce

  OutQueue queue;
  bool waitsForRoom = false;  // the kernel is asked to announce room in the socket
  // Frames gathered for it in this turn: indexes into Router's list.
  static constexpr std::uint32_t noPiece = 0xffffffff;
  std::uint32_t firstPiece = noPiece;
  std::uint32_t lastPiece = noPiece;
  bool touched = false;  // Router::flush is to look at it

  Traffic sent;               // by it
  Traffic delivered;          // to it
  std::uint64_t bounced = 0;  // of what it sent

  std::size_t slot = 0;  // its place in Broker's list
};

}  // namespace busd
