#include "services/sysd/frame_ring.h"

#include <utility>

#include "platform/bus/text_parts.h"
#include "services/common/beginning.h"

namespace sysd {
namespace {

bool fits(const FrameRing::Frame& frame, const FrameRing::Query& query) {
  if (query.program && frame.from != *query.program && frame.to != *query.program) return false;
  return frame.text.find(query.containing) != std::string::npos;
}

}  // namespace

void FrameRing::add(Frame frame) {
  frame.number = ++newest_;
  bytes_ += cost(frame);
  frames_.push_back(std::move(frame));
  while (frames_.size() > maxFrames || bytes_ > maxBytes) {
    bytes_ -= cost(frames_.front());
    frames_.pop_front();
  }
}

void FrameRing::clear() {
  frames_.clear();
  bytes_ = 0;
}

FrameRing::Found FrameRing::find(const Query& query) const {
  const auto fitting = [&query](const Frame& frame) { return fits(frame, query); };
  return service::findNewest(query, frames_, newest_, fitting, cost);
}

// A value is at least as long as text as it is flattened, but for numbers, so that one which cannot fit is not made: a
// list of a million elements would take long for a few that are shown.
std::string shownText(const tn::message& msg) {
  constexpr std::size_t tooLong = 16 * FrameRing::maxTextBytes;
  std::string text = "{";
  msg.forEach([&text](const tn::message::Field& field) {
    if (text.size() > FrameRing::maxTextBytes) return;
    if (text.size() > 1) text += ',';
    tn::appendKey(text, field);
    text += ':';
    if (field.bytes.size() > tooLong) {
      text.append("(").append(std::to_string(field.bytes.size())).append(" bytes)");
    } else {
      tn::appendValue(text, field);
    }
  });
  text += '}';
  return std::string(service::beginningOf(text, FrameRing::maxTextBytes));
}

}  // namespace sysd
