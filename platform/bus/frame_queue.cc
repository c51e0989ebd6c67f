#include "platform/bus/frame_queue.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

namespace tn {

namespace {

struct alignas(cmsghdr) ControlBuffer {
  std::array<char, CMSG_SPACE(sizeof(int))> bytes{};
};

ssize_t sendWithDescriptor(int socket, iovec part, int descriptor) {
  ControlBuffer control;
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control.bytes.data();
  header.msg_controllen = control.bytes.size();
  cmsghdr* rights = CMSG_FIRSTHDR(&header);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof descriptor);
  std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
  return sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// Errors that concern the descriptor alone: it is none (any more), or too many are under way.
bool descriptorRefused(int error) {
  return error == EBADF || error == ETOOMANYREFS || error == EINVAL;
}

}  // namespace

void FrameQueue::append(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload,
                        UniqueFd descriptor) {
  std::array<std::uint8_t, frameHeaderBytes> header{};
  storeFrameHeader(header.data(), {static_cast<std::uint32_t>(payload.size()), peer, static_cast<std::uint32_t>(kind)});
  const std::size_t start = bytes_.size();
  bytes_.insert(bytes_.end(), header.begin(), header.end());
  bytes_.insert(bytes_.end(), payload.begin(), payload.end());
  if (descriptor) marks_.push_back({start, bytes_.size(), std::move(descriptor)});
}

FrameQueue::Piece FrameQueue::nextPiece() const {
  if (marks_.empty()) return {bytes_.size() - sent_, -1};
  const Mark& mark = marks_.front();
  if (mark.start > sent_) return {mark.start - sent_, -1};
  return {mark.end - sent_, mark.descriptor.get()};
}

FrameQueue::Flush FrameQueue::flush(int socket) {
  while (sent_ < bytes_.size()) {
    const Piece piece = nextPiece();
    std::uint8_t* const data = bytes_.data() + sent_;
    const bool alone = piece.descriptor >= 0;
    const ssize_t n = alone ? sendWithDescriptor(socket, {data, piece.bytes}, piece.descriptor)
                            : send(socket, data, piece.bytes, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        dropSent();
        return Flush::blocked;
      }
      if (!alone || !descriptorRefused(errno)) return Flush::failed;
      // The frame goes without it: its receiver finds the field without a descriptor, which it has to expect anyway.
      marks_.pop_front();
      continue;
    }
    if (alone) marks_.pop_front();
    sent_ += static_cast<std::size_t>(n);
  }
  dropSent();
  return Flush::done;
}

// What is sent is dropped when it is all or the larger part, so that no byte is moved more than once on the average.
void FrameQueue::dropSent() {
  if (sent_ * 2 < bytes_.size()) return;
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(sent_));
  for (Mark& mark : marks_) {
    mark.start -= sent_;
    mark.end -= sent_;
  }
  sent_ = 0;
  if (bytes_.empty() && bytes_.capacity() > keptCapacity) bytes_.shrink_to_fit();
}

void FrameQueue::clear() {
  bytes_.clear();
  bytes_.shrink_to_fit();
  marks_.clear();
  sent_ = 0;
}

}  // namespace tn
