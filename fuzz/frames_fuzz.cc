#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/socket.h>
#include <utility>
#include <vector>

#include "fuzz/require.h"
#include "platform/bus/frame_reader.h"
#include "platform/unique_fd.h"

namespace {

using tn::FrameReader;
using Bytes = std::span<const std::uint8_t>;
using Frames = std::vector<std::vector<std::uint8_t>>;  // headers included

struct Outcome {
  Frames frames;
  bool broken = false;
  friend bool operator==(const Outcome&, const Outcome&) = default;
};

// What the stream holds, read in one go.
Outcome expected(Bytes stream) {
  Outcome outcome;
  while (stream.size() >= tn::frameHeaderBytes) {
    const std::size_t length = tn::loadFrameHeader(stream.data()).length;
    outcome.broken = length > tn::maxPayloadBytes;
    if (outcome.broken || stream.size() - tn::frameHeaderBytes < length) break;
    const Bytes frame = stream.first(tn::frameHeaderBytes + length);
    outcome.frames.emplace_back(frame.begin(), frame.end());
    stream = stream.subspan(frame.size());
  }
  return outcome;
}

void takeFrames(FrameReader& reader, Outcome& outcome) {
  FrameReader::Frame frame;
  while (true) {
    const bool announced = reader.hasFrame();
    const FrameReader::Next next = reader.next(frame);
    require(announced == (next == FrameReader::Next::frame));
    if (next == FrameReader::Next::broken) outcome.broken = true;
    if (next != FrameReader::Next::frame) return;
    std::vector<std::uint8_t> bytes(tn::frameHeaderBytes);
    tn::storeFrameHeader(bytes.data(), frame.header);
    bytes.insert(bytes.end(), frame.payload.begin(), frame.payload.end());
    outcome.frames.push_back(std::move(bytes));
    require(!frame.descriptor);
  }
}

}  // namespace

// A stream of frames of any bytes, behind a first byte that says in pieces of which length it arrives: the reader finds
// the same frames however it is cut.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t pieceBytes = std::max<std::size_t>(data[0], 1);
  Bytes stream = Bytes(data, size).subspan(1);
  const Outcome right = expected(stream);

  std::array<int, 2> ends{};
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0);
  const UniqueFd here(ends[0]);
  UniqueFd there(ends[1]);
  FrameReader reader(16);
  Outcome outcome;
  while (!stream.empty() && !outcome.broken) {
    const Bytes piece = stream.first(std::min(pieceBytes, stream.size()));
    require(send(there.get(), piece.data(), piece.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(piece.size()));
    while (!outcome.broken && reader.receive(here.get()) == FrameReader::Receive::bytes)
      takeFrames(reader, outcome);
    stream = stream.subspan(piece.size());
  }
  require(outcome == right);
  there.reset();
  require(outcome.broken || reader.receive(here.get()) == FrameReader::Receive::ended);
  return 0;
}
