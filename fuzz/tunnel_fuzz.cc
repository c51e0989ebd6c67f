#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "jsproxy/session.h"
#include "jsproxy/text_code.h"
#include "platform/byte_order.h"

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint32_t sessionId = 7;
constexpr std::size_t paddingBytes = 8;

// What is read of an input; zeros when it is spent.
class Input {
 public:
  explicit Input(Bytes bytes) : rest_(bytes) {}
  [[nodiscard]] bool empty() const { return rest_.empty(); }
  std::uint32_t number(std::size_t bytes) {
    std::uint32_t value = 0;
    for (; bytes > 0; --bytes) {
      value = value << 8 | (rest_.empty() ? 0U : rest_.front());
      if (!rest_.empty()) rest_ = rest_.subspan(1);
    }
    return value;
  }

 private:
  Bytes rest_;
};

const SessionKeys& keys() {
  static const SessionKeys derived = deriveSessionKeys(MasterKey());
  return derived;
}

// Beyond it no frame is begun: the keystream would become long.
constexpr std::uint32_t lastBase = 1U << 18;
// How far ahead of the base a frame can be taken, and how long a payload is made.
constexpr std::uint32_t mostAhead = 0x40000;
constexpr std::uint32_t longestPayload = 1500;

// The browser's keystream from position 1 on, the same one every time.
Bytes keystream() {
  static const std::vector<std::uint8_t> bytes = [] {
    std::vector<std::uint8_t> out(lastBase + 2 * mostAhead);
    startCipher(keys().receive).gen(out);
    return out;
  }();
  return bytes;
}

// The window as it is described, without a thought of speed. Positions stay far below 2^31 here.
struct Model {
  std::uint32_t base = 1;
  std::map<std::uint32_t, std::uint32_t> ranges;
  std::size_t buffered = 0;

  bool take(std::uint32_t pos, std::uint32_t n, bool goodPadding) {
    const std::uint32_t end = pos + n;
    if (base + buffered < end) {
      if (pos - base > 0x20000) return false;
      buffered = end - base;
    }
    if (static_cast<std::int32_t>(pos - base) < 0) return false;
    for (const auto& [start, length] : ranges) {
      if (start > end) break;
      if (start == end) continue;
      if (pos < start + length) return false;
    }
    if (goodPadding) record(pos, n);
    return goodPadding;
  }

  void record(std::uint32_t pos, std::uint32_t n) {
    if (pos == base) {
      base = pos + n;
      while (!ranges.empty() && ranges.begin()->first == base) {
        base += ranges.begin()->second;
        ranges.erase(ranges.begin());
      }
      buffered -= base - pos;
      return;
    }
    ranges.emplace(pos, n);
    if (buffered <= 65535) return;
    const auto excess = static_cast<std::uint32_t>(buffered - 65535);
    record(base, std::min(ranges.begin()->first - base, excess));
  }
};

void requireSame(const ReceiveWindow& window, const Model& model) {
  require(window.base() == model.base && window.buffered() == model.buffered);
  require(window.received().size() == model.ranges.size());
  auto range = window.received().begin();
  for (const auto& [start, length] : model.ranges) {
    require(range->start == start && range->length == length);
    ++range;
  }
}

std::uint32_t positionFor(Input& input, const Model& model) {
  const std::uint32_t kind = input.number(1);
  switch (kind % 6) {
    case 0:
      return model.base;
    case 1:
      return model.base + input.number(1);
    case 2:
      return model.base + input.number(3) % 0x21000;
    case 3:
      return model.base - input.number(1);
    case 4:
      if (model.ranges.empty()) return model.base;
      return model.ranges.rbegin()->first + model.ranges.rbegin()->second + input.number(1);
    default:
      return input.number(4);
  }
}

// Gaps take frames far ahead, not long ones, and those cost time.
std::uint32_t lengthFor(Input& input) {
  const std::uint32_t kind = input.number(1);
  const std::uint32_t payload = kind < 250 ? kind : input.number(2) % longestPayload;
  return payload + static_cast<std::uint32_t>(paddingBytes);
}

// Frames of any order, overlap and padding: the session takes those that the description takes, and gives back what
// was sent.
void sendFrames(Input input) {
  constexpr int maxFrames = 24;
  JsSession session(sessionId, IPAddr6(), keys(), 0);
  Model model;
  for (int frames = 0; frames < maxFrames && !input.empty() && model.base < lastBase; ++frames) {
    const std::uint32_t pos = positionFor(input, model);
    const std::uint32_t n = lengthFor(input);
    const std::uint32_t fault = input.number(1);  // below 8: this byte of the padding is wrong
    std::string plain(n - paddingBytes, static_cast<char>('a' + frames));
    plain += "        ";
    if (fault < paddingBytes) plain[n - 1 - fault] ^= 1;
    std::string frame(8 + n, '\0');
    storeBe32(asWritableBytes(frame).data(), sessionId);
    storeBe32(asWritableBytes(frame).data() + 4, pos);
    const bool reachable = pos != 0 && pos - model.base < mostAhead;
    const std::uint8_t* key = keystream().data() + (reachable ? pos - 1 : 0);
    for (std::uint32_t i = 0; i < n; ++i)
      frame[8 + i] = static_cast<char>(static_cast<std::uint8_t>(plain[i]) ^ key[i]);
    const bool expected = model.take(pos, n, fault >= paddingBytes);
    std::string payload;
    require(decryptFrame(session, asBytes(frame), payload) == expected);
    if (expected) require(payload == std::string_view(plain).substr(0, n - paddingBytes));
    requireSame(session.receiving, model);
  }
}

// Bytes as they are, as a frame.
void takeAnything(Bytes bytes) {
  JsSession session(sessionId, IPAddr6(), keys(), 0);
  std::string payload;
  const bool taken = decryptFrame(session, bytes, payload);
  require(taken == (session.receiving.base() != 1 || !session.receiving.received().empty()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Quiet quiet;
  sendFrames(Input(Bytes(data, size)));
  takeAnything(Bytes(data, size));
  return 0;
}
