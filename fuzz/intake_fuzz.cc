#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "fuzz/require.h"
#include "services/busd/intake.h"
#include "services/busd/limits.h"

namespace {

using busd::Intake;
using busd::Received;
using Bytes = std::span<const std::uint8_t>;
using Stream = std::vector<std::uint8_t>;

struct Outcome {
  std::vector<Stream> frames;
  std::vector<bool> marked;  // which of them a descriptor came with
  bool broken = false;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

// How a stream arrives: in pieces of one length, some of which bring a descriptor.
struct Arrival {
  std::size_t pieceBytes;
  std::uint8_t withDescriptor;  // bit n: piece n

  [[nodiscard]] bool brings(std::size_t piece) const { return piece < 8 && (withDescriptor >> piece & 1) != 0; }
};

bool permitted(const tn::FrameHeader& header) {
  if (header.kind == 0) return header.length <= tn::maxPayloadBytes;
  return header.kind == 2 && header.peer == 0 && header.length <= busd::maxControlBytes;
}

// What the broker's rules say of the stream, found by looking at all of it. A piece in which a rule is broken by a
// descriptor gives no frames; frames before a header that is not permitted are given.
Outcome expected(Bytes stream, const Arrival& arrival) {
  Outcome outcome;
  std::vector<std::size_t> starts;
  std::vector<std::size_t> given;
  std::size_t at = 0;
  for (std::size_t piece = 0; piece * arrival.pieceBytes < stream.size() && !outcome.broken; ++piece) {
    const std::size_t begin = piece * arrival.pieceBytes;
    const std::size_t end = std::min(begin + arrival.pieceBytes, stream.size());
    while (starts.empty() || at < end) {
      if (starts.empty() || starts.back() != at) starts.push_back(at);
      if (end - at < tn::frameHeaderBytes) break;
      const std::size_t length = tn::loadFrameHeader(stream.data() + at).length;
      if (end - at - tn::frameHeaderBytes < length) break;
      at += tn::frameHeaderBytes + length;
    }
    const bool placed = starts.back() >= begin && starts.back() < end;
    if (arrival.brings(piece) && !placed) outcome.broken = true;
    if (outcome.broken) break;
    outcome.marked.resize(starts.size());
    if (arrival.brings(piece)) outcome.marked[starts.size() - 1] = true;
    for (std::size_t i = outcome.frames.size(); i < starts.size() && !outcome.broken; ++i) {
      if (end - starts[i] < tn::frameHeaderBytes) break;
      const tn::FrameHeader header = tn::loadFrameHeader(stream.data() + starts[i]);
      outcome.broken = !permitted(header);
      if (outcome.broken || end - starts[i] - tn::frameHeaderBytes < header.length) break;
      const Bytes frame = stream.subspan(starts[i], tn::frameHeaderBytes + header.length);
      outcome.frames.emplace_back(frame.begin(), frame.end());
    }
  }
  outcome.marked.resize(outcome.frames.size());
  return outcome;
}

// As the broker does it: what a receive gives is laid where the intake wants it.
bool feed(Intake& intake, std::span<std::uint8_t> space, Bytes piece, bool descriptor, Outcome& outcome) {
  const Intake::Room room = intake.prepare(space);
  require(room.bytes >= piece.size());
  Received received;
  received.count = piece.size();
  if (descriptor) received.passed = Received::Descriptor::lost;
  for (std::size_t i = 0; i < room.count; ++i) {
    const std::size_t n = std::min(piece.size(), room.parts[i].iov_len);
    if (n > 0) std::memcpy(room.parts[i].iov_base, piece.data(), n);
    piece = piece.subspan(n);
  }
  if (!intake.arrived(received)) return false;
  for (;;) {
    busd::Frame frame;
    const Intake::Step step = intake.next(frame);
    if (step == Intake::Step::broken) return false;
    if (step == Intake::Step::end) break;
    require(frame.payload().size() == frame.header.length);
    outcome.frames.emplace_back(frame.bytes, frame.bytes + frame.length);
    outcome.marked.push_back(frame.descriptorLost);
  }
  const Intake::Rest rest = intake.keepRest();
  require((rest == Intake::Rest::none) == (intake.heldBytes() == 0));
  return true;
}

}  // namespace

// A stream of any bytes behind three that say how it arrives: the length of the pieces, which of the first eight bring
// a descriptor, and how many times 64 zeros follow, so that large frames are completed too. However the stream is cut,
// the same frames come out of it, each with the descriptor that belongs to it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t headBytes = 3;
  if (size < headBytes) return 0;
  const Arrival arrival{std::max<std::size_t>(data[0], 1) * (data[2] == 0 ? 1 : 16), data[1]};
  Stream stream(size - headBytes + data[2] * std::size_t{64});
  std::copy(data + headBytes, data + size, stream.begin());

  Intake intake;
  intake.allowMessages();
  static std::vector<std::uint8_t> space(Intake::carriedBytes + 8192);
  Outcome outcome;
  for (std::size_t piece = 0; piece * arrival.pieceBytes < stream.size() && !outcome.broken; ++piece) {
    const Bytes left = Bytes(stream).subspan(piece * arrival.pieceBytes);
    const Bytes bytes = left.first(std::min(arrival.pieceBytes, left.size()));
    outcome.broken = !feed(intake, space, bytes, arrival.brings(piece), outcome);
  }
  require(outcome == expected(stream, arrival));
  return 0;
}
