#include "services/busd/intake.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "services/busd/limits.h"

namespace busd {

using tn::frameHeaderBytes;

Intake::Room Intake::prepare(std::span<std::uint8_t> space) {
  begin_ = fresh_ = cursor_ = end_ = space.data();
  marked_ = nullptr;
  if (assembling_) {
    const std::size_t missing = held_.size() - filled_;
    return {{iovec{held_.data() + filled_, missing}, iovec{space.data(), space.size()}}, 2, missing + space.size()};
  }
  if (filled_ > 0) std::memcpy(space.data(), held_.data(), filled_);
  fresh_ = end_ = begin_ + filled_;
  return {{iovec{fresh_, space.size() - filled_}, iovec{}}, 1, space.size() - filled_};
}

bool Intake::arrived(Received& received) {
  std::size_t left = received.count;
  if (assembling_) {
    const std::size_t taken = std::min(left, held_.size() - filled_);
    filled_ += taken;
    left -= taken;
  }
  end_ += left;
  if (received.passed == Received::Descriptor::none) return true;
  if (received.passed == Received::Descriptor::several) return false;
  marked_ = lastStart();
  if (marked_ == nullptr || marked_ < fresh_) return false;
  arrivedDescriptor_ = std::move(received.descriptor);
  arrivedDescriptorLost_ = received.passed == Received::Descriptor::lost;
  return true;
}

// Start of the last frame that begins in the space, whole or not; null when none does.
std::uint8_t* Intake::lastStart() const {
  std::uint8_t* last = nullptr;
  std::uint8_t* at = begin_;
  while (at < end_) {
    last = at;
    const auto left = static_cast<std::size_t>(end_ - at);
    if (left < frameHeaderBytes) break;
    const std::size_t payload = tn::loadFrameHeader(at).length;
    if (left - frameHeaderBytes < payload) break;
    at += frameHeaderBytes + payload;
  }
  return last;
}

bool Intake::permitted(const tn::FrameHeader& header) const {
  switch (tn::FrameKind{header.kind}) {
    case tn::FrameKind::message:
      return messagesAllowed_ && header.length <= tn::maxPayloadBytes;
    case tn::FrameKind::control:
      return header.peer == tn::brokerId && header.length <= maxControlBytes;
    case tn::FrameKind::bounced:
    case tn::FrameKind::observed:
      break;
  }
  return false;
}

Intake::Step Intake::next(Frame& frame) {
  if (assembled()) {
    handOnAssembled(frame);
    return Step::frame;
  }
  const auto left = static_cast<std::size_t>(end_ - cursor_);
  if (assembling_ || left < frameHeaderBytes) return Step::end;
  frame.header = tn::loadFrameHeader(cursor_);
  if (!permitted(frame.header)) return Step::broken;
  if (left - frameHeaderBytes < frame.header.length) return Step::end;
  frame.bytes = cursor_;
  frame.length = frameHeaderBytes + frame.header.length;
  if (cursor_ == marked_) {
    frame.descriptor = std::move(arrivedDescriptor_);
    frame.descriptorLost = std::exchange(arrivedDescriptorLost_, false);
  } else if (cursor_ < fresh_) {
    frame.descriptor = std::move(heldDescriptor_);
    frame.descriptorLost = std::exchange(heldDescriptorLost_, false);
  }
  cursor_ += frame.length;
  return Step::frame;
}

void Intake::handOnAssembled(Frame& frame) {
  frame.header = tn::loadFrameHeader(held_.data());
  frame.bytes = held_.data();
  frame.length = held_.size();
  frame.descriptor = std::move(heldDescriptor_);
  frame.descriptorLost = std::exchange(heldDescriptorLost_, false);
  frame.own = std::move(held_);
  assembling_ = false;
  filled_ = 0;
}

Intake::Rest Intake::keepRest() {
  if (assembling_) return Rest::sameFrame;
  const auto left = static_cast<std::size_t>(end_ - cursor_);
  if (left == 0) {
    held_ = Bytes();
    filled_ = 0;
    return Rest::none;
  }
  std::size_t whole = 0;
  if (left >= frameHeaderBytes) whole = frameHeaderBytes + tn::loadFrameHeader(cursor_).length;
  assembling_ = whole > carriedBytes;
  held_ = Bytes::tryMake(assembling_ ? whole : left);
  if (!held_) return Rest::noMemory;
  std::memcpy(held_.data(), cursor_, left);
  filled_ = left;
  if (cursor_ < fresh_) return Rest::sameFrame;
  heldDescriptor_ = std::move(arrivedDescriptor_);
  heldDescriptorLost_ = std::exchange(arrivedDescriptorLost_, false);
  return Rest::newFrame;
}

}  // namespace busd
