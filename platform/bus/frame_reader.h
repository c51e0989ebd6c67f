#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "platform/bus/frame.h"
#include "platform/unique_fd.h"

namespace tn {

// Cuts the bytes of a stream socket into frames: many frames per read, any frame over many reads.
//
// Descriptors: a receive that brings one ends behind the bytes it was sent with, and a frame that carries one is sent
// by itself. So the descriptor belongs to the last frame that starts within the bytes of that receive. One that belongs
// to no frame, and any beyond the first of a receive, are closed here; the one of a frame is given out with the frame,
// and whoever gets it decides whether the frame may have one.
//
// The buffer grows with the bytes that have come, never with what a header announces, and shrinks again when it is
// empty.
class FrameReader {
 public:
  struct Frame {
    FrameHeader header{};
    std::span<const std::uint8_t> payload;  // until the next receive
    UniqueFd descriptor;
  };
  enum class Receive : std::uint8_t {
    bytes,       // something came; there may be more
    wouldBlock,  // nothing is there now
    ended,       // the peer closed the stream, or it failed
  };
  enum class Next : std::uint8_t {
    frame,       // `frame` holds it
    incomplete,  // more bytes are needed
    broken,      // an announced length is above maxPayloadBytes: what follows cannot be understood, now or later
  };

  explicit FrameReader(std::size_t bufferBytes) : usualBytes_(bufferBytes) {}

  // One receive, without waiting.
  [[nodiscard]] Receive receive(int socket);
  [[nodiscard]] Next next(Frame& frame);
  // Whether next would give a frame.
  [[nodiscard]] bool hasFrame() const;
  // Forgets everything that was read; for the next connection.
  void reset();

 private:
  // A descriptor, and where in the buffer the frame it belongs to starts.
  struct Mark {
    std::size_t start;
    UniqueFd descriptor;
  };

  void makeRoom();
  void moveTo(std::size_t capacity);
  [[nodiscard]] std::size_t capacityWanted() const;
  // Finds the frame starts within the bytes from `from` on and returns the last one, or `none`.
  std::size_t scan(std::size_t from);

  static constexpr std::size_t none = static_cast<std::size_t>(-1);

  std::size_t usualBytes_;
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;      // of the frame that next looks at
  std::size_t end_ = 0;        // of what was read
  std::size_t nextStart_ = 0;  // of the first frame that scan has not passed; may lie behind end_
  std::vector<Mark> marks_;    // in the order of their frames
};

}  // namespace tn
