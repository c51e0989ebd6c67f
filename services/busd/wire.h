#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/uio.h>

#include "services/busd/passed_fd.h"

namespace busd {

// As many descriptors as the kernel takes with one send.
inline constexpr std::size_t descriptorsPerSend = 253;

// One receive and one send on a connected unix stream socket, with at most one descriptor. Neither ever blocks.

struct Received {
  enum class Outcome : std::uint8_t {
    bytes,    // `count` bytes came
    nothing,  // none are there now; the kernel announces the next ones
    end,      // the peer is gone
  };
  enum class Descriptor : std::uint8_t {
    none,
    one,      // in `descriptor`
    lost,     // one was sent, but no number was free for it here
    several,  // more than the one that a frame may carry; all are closed
  };
  Outcome outcome = Outcome::nothing;
  Descriptor passed = Descriptor::none;
  std::size_t count = 0;
  PassedFd descriptor;
  int highest = -1;  // of the numbers that the descriptors that came got here, -1 without any
};

// The kernel ends a receive behind the piece of the stream that brought a descriptor: after Descriptor other than none
// there may be more to read, whatever the count.
[[nodiscard]] Received receive(int socket, std::span<iovec> parts);

enum class SendError : std::uint8_t {
  blocked,            // nothing was taken; the kernel announces when there is room
  descriptorRefused,  // nothing was taken; the kernel lets no more descriptors be under way
  failed,             // the peer is gone
};

struct Sent {
  std::size_t count = 0;
  bool ok = true;
  SendError error = SendError::failed;  // when not ok
};

// `descriptor`, unless -1, goes with the first byte; the caller keeps its own copy to close.
[[nodiscard]] Sent sendParts(int socket, std::span<iovec> parts, int descriptor = -1);

}  // namespace busd
