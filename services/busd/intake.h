#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/uio.h>

#include "platform/bus/frame.h"
#include "services/busd/bytes.h"
#include "services/busd/passed_fd.h"
#include "services/busd/wire.h"

namespace busd {

// One whole frame that a program sent. Its bytes lie in the space it was read into, or in memory of its own.
struct Frame {
  std::uint8_t* bytes = nullptr;  // header and payload; whoever holds the frame may rewrite the header in place
  std::size_t length = 0;         // of both
  tn::FrameHeader header{};
  PassedFd descriptor;
  bool descriptorLost = false;  // one was sent with it and could not be received
  Bytes own;                    // not empty: what `bytes` points to

  [[nodiscard]] std::span<const std::uint8_t> payload() const {
    return {bytes + tn::frameHeaderBytes, length - tn::frameHeaderBytes};
  }
};

// Cuts what one program sends into frames, with one read's space shared by all programs.
//
// Most frames lie whole in that space and are handed on from there. Of a frame whose end has not come the beginning is
// kept here: a small one (or a cut header) is put back in front of the next read, so that it and those behind it
// are contiguous again; a large one gets memory of its own length, and the following reads go straight into that. So no
// byte of a large frame is moved, and of a small one at the most `carriedBytes` for each read. The memory of a large
// frame is announced by the program, not proved: the owner counts `heldBytes` and gives up on programs that only
// announce.
//
// A descriptor belongs to the last frame that starts in the bytes of the receive that brought it.
class Intake {
 public:
  // Frames up to this length are carried over, longer ones assembled.
  static constexpr std::size_t carriedBytes = 8192;

  // Where the next bytes are to be read to. `space` is larger than carriedBytes and stays until keepRest.
  struct Room {
    std::array<iovec, 2> parts;
    std::size_t count;
    std::size_t bytes;
  };
  [[nodiscard]] Room prepare(std::span<std::uint8_t> space);

  // Takes what a receive into that room brought. False: a descriptor came that belongs to no frame, or several.
  [[nodiscard]] bool arrived(Received& received);

  enum class Step : std::uint8_t {
    frame,   // `frame` holds the next one
    end,     // what is left is no whole frame: keepRest is due
    broken,  // what follows is no frame that this program may send now
  };
  [[nodiscard]] Step next(Frame& frame);

  enum class Rest : std::uint8_t {
    none,       // the program is between two frames
    newFrame,   // a frame has begun in this read
    sameFrame,  // the frame that was unfinished before still is
    noMemory,   // it cannot be held
  };
  [[nodiscard]] Rest keepRest();

  // Until then control frames alone are let through.
  void allowMessages() { messagesAllowed_ = true; }

  // Bytes of the space that frames, handed on, lie in.
  [[nodiscard]] std::size_t usedSpace() const { return static_cast<std::size_t>(cursor_ - begin_); }
  // Memory that an unfinished frame holds.
  [[nodiscard]] std::size_t heldBytes() const { return held_.size(); }

 private:
  [[nodiscard]] bool permitted(const tn::FrameHeader& header) const;
  [[nodiscard]] std::uint8_t* lastStart() const;
  [[nodiscard]] bool assembled() const { return assembling_ && filled_ == held_.size(); }
  void handOnAssembled(Frame& frame);

  Bytes held_;              // the beginning of an unfinished frame
  std::size_t filled_ = 0;  // bytes of it that are there
  PassedFd heldDescriptor_;
  PassedFd arrivedDescriptor_;
  // The space of the current read: carried-over bytes up to fresh_, then new ones; handed on up to cursor_.
  std::uint8_t* begin_ = nullptr;
  std::uint8_t* fresh_ = nullptr;
  std::uint8_t* cursor_ = nullptr;
  std::uint8_t* end_ = nullptr;
  std::uint8_t* marked_ = nullptr;  // start of the frame that the arrived descriptor belongs to
  bool assembling_ = false;         // held_ is as long as the frame will be
  bool heldDescriptorLost_ = false;
  bool arrivedDescriptorLost_ = false;
  bool messagesAllowed_ = false;
};

}  // namespace busd
