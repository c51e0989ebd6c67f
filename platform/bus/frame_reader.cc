#include "platform/bus/frame_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>

namespace tn {

namespace {

// One descriptor is expected. Room for a few more keeps what a peer sends against the rules out of the truncation flag,
// and the kernel closes what does not fit.
constexpr std::size_t descriptorRoom = 4;

struct alignas(cmsghdr) ControlBuffer {
  std::array<char, CMSG_SPACE(sizeof(int) * descriptorRoom)> bytes;
};

// The last close of a socket that lingers waits for its peer, non-blocking or not: as long as whoever sent it chose.
// What nobody asked for is closed as soon as it has come, and the loop must not stop for it.
void endLinger(int descriptor) {
  const linger none{};
  // Anything but a socket refuses, and does not linger.
  (void)setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

// The first descriptor of the message; the others are closed.
UniqueFd takeDescriptors(msghdr& header) {
  UniqueFd first;
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int number = -1;
      std::memcpy(&number, CMSG_DATA(part) + i * sizeof(int), sizeof number);
      UniqueFd descriptor(number);
      endLinger(number);
      if (!first) first = std::move(descriptor);
    }
  }
  return first;
}

}  // namespace

FrameReader::Receive FrameReader::receive(int socket) {
  makeRoom();
  ControlBuffer control;
  iovec part{buffer_.get() + end_, capacity_ - end_};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control.bytes.data();
  header.msg_controllen = control.bytes.size();
  const ssize_t n = recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (n < 0) return errno == EAGAIN || errno == EINTR ? Receive::wouldBlock : Receive::ended;
  UniqueFd descriptor = takeDescriptors(header);
  if (n == 0) return Receive::ended;
  const std::size_t before = end_;
  end_ += static_cast<std::size_t>(n);
  const std::size_t lastStart = scan(before);
  if (descriptor && lastStart != none) marks_.push_back({lastStart, std::move(descriptor)});
  return Receive::bytes;
}

std::size_t FrameReader::scan(std::size_t from) {
  std::size_t last = none;
  while (nextStart_ < end_) {
    if (nextStart_ >= from) last = nextStart_;
    if (end_ - nextStart_ < frameHeaderBytes) break;
    const std::uint32_t length = loadLe32(buffer_.get() + nextStart_);
    if (length > maxPayloadBytes) break;
    nextStart_ += frameHeaderBytes + length;
  }
  return last;
}

bool FrameReader::hasFrame() const {
  if (end_ - begin_ < frameHeaderBytes) return false;
  const std::uint32_t length = loadLe32(buffer_.get() + begin_);
  return length <= maxPayloadBytes && end_ - begin_ - frameHeaderBytes >= length;
}

FrameReader::Next FrameReader::next(Frame& frame) {
  frame.descriptor.reset();
  if (end_ - begin_ < frameHeaderBytes) return Next::incomplete;
  frame.header = loadFrameHeader(buffer_.get() + begin_);
  if (frame.header.length > maxPayloadBytes) return Next::broken;
  if (end_ - begin_ - frameHeaderBytes < frame.header.length) return Next::incomplete;
  frame.payload = {buffer_.get() + begin_ + frameHeaderBytes, frame.header.length};
  if (!marks_.empty() && marks_.front().start == begin_) {
    frame.descriptor = std::move(marks_.front().descriptor);
    marks_.erase(marks_.begin());
  }
  begin_ += frameHeaderBytes + frame.header.length;
  return Next::frame;
}

void FrameReader::reset() {
  begin_ = 0;
  end_ = 0;
  nextStart_ = 0;
  marks_.clear();
}

// What the buffer should hold in all: the usual read, or the frame at its front as soon as half of it has come, and
// always something more than is held.
std::size_t FrameReader::capacityWanted() const {
  const std::size_t held = end_ - begin_;
  std::size_t frame = 0;
  if (held >= frameHeaderBytes) frame = frameHeaderBytes + loadLe32(buffer_.get() + begin_);
  return std::max({usualBytes_, std::min(frame, held * 2), held + usualBytes_ / 4 + 1});
}

void FrameReader::makeRoom() {
  const std::size_t held = end_ - begin_;
  const std::size_t wanted = capacityWanted();
  const bool oversized = held == 0 && capacity_ > wanted;
  if (capacity_ < wanted || oversized) {
    moveTo(wanted);
  } else if (held == 0 || capacity_ - end_ < capacity_ / 2) {
    moveTo(capacity_);
  }
}

// Moves what is held to the front of a buffer of that capacity.
void FrameReader::moveTo(std::size_t capacity) {
  const std::size_t held = end_ - begin_;
  if (capacity != capacity_) {
    auto fresh = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
    if (held != 0) std::memcpy(fresh.get(), buffer_.get() + begin_, held);
    buffer_ = std::move(fresh);
    capacity_ = capacity;
  } else if (begin_ != 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, held);
  }
  for (Mark& mark : marks_)
    mark.start -= begin_;
  nextStart_ -= begin_;
  end_ = held;
  begin_ = 0;
}

}  // namespace tn
