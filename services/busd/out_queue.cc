#include "services/busd/out_queue.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <sys/uio.h>
#include <utility>

#include "services/busd/wire.h"

namespace busd {

void OutQueue::count(std::size_t bytes) {
  bytes_ += bytes;
  total_ += bytes;
}

void OutQueue::add(Chunk chunk) {
  count(chunk.end - chunk.begin);
  if (chunk.descriptor) ++descriptors_;
  chunks_.push_back(std::move(chunk));
}

bool OutQueue::append(std::span<const std::uint8_t> bytes) {
  Chunk* last = chunks_.empty() ? nullptr : &chunks_.back();
  const bool fits = last != nullptr && last->block.size() - last->end >= bytes.size();
  if (!fits) {
    // As much again as waits already: few allocations, and never more than twice the memory that is counted.
    const std::size_t wanted = std::clamp(bytes_, smallestChunk, largestChunk);
    Bytes block = Bytes::tryMake(std::max(wanted, bytes.size()));
    if (!block) return false;
    add({std::move(block), 0, 0, PassedFd()});
    last = &chunks_.back();
  }
  std::memcpy(last->block.data() + last->end, bytes.data(), bytes.size());
  last->end += bytes.size();
  count(bytes.size());
  return true;
}

bool OutQueue::append(std::span<const std::uint8_t> bytes, PassedFd descriptor) {
  Bytes block = Bytes::tryMake(bytes.size());
  if (!block) return false;
  std::memcpy(block.data(), bytes.data(), bytes.size());
  add({std::move(block), 0, bytes.size(), std::move(descriptor)});
  return true;
}

void OutQueue::append(Bytes block, std::size_t begin, PassedFd descriptor) {
  const std::size_t end = block.size();
  add({std::move(block), begin, end, std::move(descriptor)});
}

// A chunk with a descriptor is written alone, so that the descriptor stays with the frame that starts in it.
bool OutQueue::send(int socket) {
  while (bytes_ > 0) {
    std::array<iovec, chunksPerSend> parts;
    std::size_t count = 0;
    std::size_t offered = 0;
    const int descriptor = chunks_[head_].descriptor.get();
    for (std::size_t i = head_; i < chunks_.size() && count < parts.size(); ++i) {
      const Chunk& chunk = chunks_[i];
      if (count > 0 && (chunk.descriptor || descriptor >= 0)) break;
      parts[count++] = {chunk.block.data() + chunk.begin, chunk.end - chunk.begin};
      offered += chunk.end - chunk.begin;
    }
    const Sent sent = sendParts(socket, std::span(parts).first(count), descriptor);
    if (!sent.ok && sent.error == SendError::descriptorRefused) {
      // The frame goes without it; its receiver answers a missing descriptor.
      chunks_[head_].descriptor.drop();
      --descriptors_;
      continue;
    }
    if (!sent.ok) return sent.error == SendError::blocked;
    consume(sent.count);
    if (sent.count < offered) return true;
  }
  return true;
}

void OutQueue::consume(std::size_t bytes) {
  bytes_ -= bytes;
  total_ -= bytes;
  while (bytes > 0) {
    Chunk& chunk = chunks_[head_];
    if (chunk.descriptor) {
      chunk.descriptor.delivered();
      --descriptors_;
    }
    const std::size_t taken = std::min(bytes, chunk.end - chunk.begin);
    chunk.begin += taken;
    bytes -= taken;
    if (chunk.begin < chunk.end) return;
    chunk.block = Bytes();
    ++head_;
  }
  dropSent();
}

// The list is freed with its last chunk: a program that blocked once is as small as before. What was sent is dropped
// when it is the larger half, so that a queue that never empties moves each chunk once on average.
void OutQueue::dropSent() {
  if (head_ == chunks_.size()) {
    chunks_ = std::vector<Chunk>();
    head_ = 0;
  } else if (head_ > chunks_.size() / 2) {
    chunks_.erase(chunks_.begin(), chunks_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
}

}  // namespace busd
