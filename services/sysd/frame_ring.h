#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/bus/frame.h"
#include "platform/bus/message.h"
#include "services/common/newest.h"

namespace sysd {

// The last frames that were seen on the bus, with their messages as text. Bounded: the oldest go first.
class FrameRing {
 public:
  static constexpr std::size_t maxFrames = 2048;
  static constexpr std::size_t maxBytes = 1U << 20U;  // of texts and what each frame costs besides
  static constexpr std::size_t bytesPerFrame = 96;
  // A longer text is cut.
  static constexpr std::size_t maxTextBytes = 2048;
  // The text of a payload that is longer is not made.
  static constexpr std::size_t maxShownPayload = 256U << 10U;

  struct Frame {
    std::uint64_t number;  // from 1, without gaps
    std::uint64_t time;    // ms since 1970
    std::uint32_t from;
    std::uint32_t to;
    std::uint32_t kind;
    std::uint32_t bytes;  // of the payload
    std::string text;
  };
  struct Query {
    std::uint64_t after = 0;  // frames of greater numbers; one that is greater than the newest is none
    std::size_t most = 1;     // the newest ones, when there are more
    std::size_t mostBytes = maxBytes;
    std::optional<std::uint32_t> program;  // only frames from or to it
    std::string_view containing;           // empty: any
  };
  using Found = service::Newest<Frame>;

  // The number of the frame is given here.
  void add(Frame frame);
  // Forgets all frames; numbers go on.
  void clear();
  [[nodiscard]] Found find(const Query& query) const;

 private:
  [[nodiscard]] static std::size_t cost(const Frame& frame) { return frame.text.size() + bytesPerFrame; }

  std::deque<Frame> frames_;
  std::size_t bytes_ = 0;
  std::uint64_t newest_ = 0;
};

// A message in the line form, at the most FrameRing::maxTextBytes; what is left out costs nothing.
[[nodiscard]] std::string shownText(const tn::message& msg);

}  // namespace sysd
