#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "services/busd/bytes.h"
#include "services/busd/passed_fd.h"

namespace busd {

// Bytes that wait until a program reads again, in order, and the descriptors that go with some of them. It enforces no
// limit: whoever appends has asked first whether there is room.
class OutQueue {
 public:
  // `total` counts the bytes of all queues and outlives this one.
  explicit OutQueue(std::size_t& total) : total_(total) {}
  OutQueue(const OutQueue&) = delete;
  OutQueue& operator=(const OutQueue&) = delete;
  ~OutQueue() { total_ -= bytes_; }

  [[nodiscard]] bool empty() const { return bytes_ == 0; }
  [[nodiscard]] std::size_t bytes() const { return bytes_; }
  [[nodiscard]] std::size_t descriptors() const { return descriptors_; }

  // Each false: no memory, and nothing was appended.
  [[nodiscard]] bool append(std::span<const std::uint8_t> bytes);
  // The same for bytes whose first one carries a descriptor; none takes no descriptor. The descriptor is taken in any
  // case.
  [[nodiscard]] bool append(std::span<const std::uint8_t> bytes, PassedFd descriptor);
  // Takes a block over without a copy, from `begin` to its end.
  void append(Bytes block, std::size_t begin, PassedFd descriptor);

  // Writes until the queue is empty or the socket takes no more. False: the peer is gone.
  [[nodiscard]] bool send(int socket);

 private:
  struct Chunk {
    Bytes block;
    std::size_t begin;
    std::size_t end;
    PassedFd descriptor;
  };
  static constexpr std::size_t smallestChunk = 2048;
  static constexpr std::size_t largestChunk = 65536;
  static constexpr std::size_t chunksPerSend = 16;

  void add(Chunk chunk);
  void count(std::size_t bytes);
  void consume(std::size_t bytes);
  void dropSent();

  std::size_t& total_;
  std::vector<Chunk> chunks_;
  std::size_t head_ = 0;  // chunks before it are sent and empty
  std::size_t bytes_ = 0;
  std::size_t descriptors_ = 0;
};

}  // namespace busd
