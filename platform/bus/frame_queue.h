#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "platform/bus/frame.h"
#include "platform/unique_fd.h"

namespace tn {

// Frames that wait to be written, as one run of bytes: however many they are, one system call writes them. Only a frame
// that carries a descriptor goes in a call of its own, so that the receiver can tell whose descriptor it is.
class FrameQueue {
 public:
  enum class Flush : std::uint8_t {
    done,     // nothing is left
    blocked,  // the socket takes no more now
    failed,   // the peer is gone
  };

  // Appends a frame; the descriptor, unless it is none, goes with its first byte and is closed here once that is sent.
  void append(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload, UniqueFd descriptor);
  [[nodiscard]] Flush flush(int socket);

  [[nodiscard]] std::size_t bytes() const { return bytes_.size() - sent_; }
  // Drops the frames and closes their descriptors.
  void clear();

 private:
  struct Mark {
    std::size_t start;  // in bytes_
    std::size_t end;
    UniqueFd descriptor;
  };

  static constexpr std::size_t keptCapacity = 128U << 10;

  // The number of bytes that the next call writes, and the descriptor that goes along, or -1.
  struct Piece {
    std::size_t bytes;
    int descriptor;
  };
  [[nodiscard]] Piece nextPiece() const;
  void dropSent();

  std::vector<std::uint8_t> bytes_;
  std::size_t sent_ = 0;  // bytes at the front of bytes_ that are written already
  std::deque<Mark> marks_;
};

}  // namespace tn
