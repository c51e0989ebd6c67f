#include "services/busd/router.h"

#include <algorithm>
#include <array>
#include <sys/uio.h>
#include <utility>

#include "services/busd/wire.h"

namespace busd {

using tn::frameHeaderBytes;
using tn::FrameKind;

namespace {

constexpr std::size_t observedBytes = 12;  // from, to and kind, before the payload of an observed frame

std::size_t frameLength(const std::uint8_t* frame) {
  return frameHeaderBytes + tn::loadFrameHeader(frame).length;
}

void rewriteHeader(Frame& frame, std::uint32_t peer, FrameKind kind) {
  frame.header.peer = peer;
  frame.header.kind = static_cast<std::uint32_t>(kind);
  tn::storeFrameHeader(frame.bytes, frame.header);
}

}  // namespace

void Router::route(Client& from, Frame& frame) {
  if (pieces_.size() >= maxPieces) flush();
  const std::uint32_t peer = frame.header.peer;
  totals_.taken.add(frame.length);
  from.sent.add(frame.length);
  if (!monitors_.empty()) observe(from.id, peer, FrameKind::message, frame.payload());
  if (peer >= tn::firstGroup) {
    routeToGroup(from, frame);
    return;
  }
  Client* const to = directory_.find(peer);
  if (to == nullptr || to->state == Client::State::gone || frame.descriptorLost) {
    bounce(from, frame, peer);
    return;
  }
  rewriteHeader(frame, from.id, FrameKind::message);
  deliver(*to, frame, Undeliverable::bounce);
}

void Router::routeToGroup(Client& from, Frame& frame) {
  frame.descriptor.drop();
  const auto members = directory_.members(frame.header.peer);
  rewriteHeader(frame, from.id, FrameKind::message);
  for (Client* const member : members) {
    if (member == &from || member->state == Client::State::gone) continue;
    gather(*member, frame.bytes, frame.length, Undeliverable::drop);
  }
  if (frame.own) flush();
}

void Router::deliver(Client& to, Frame& frame, Undeliverable otherwise) {
  if (frame.descriptor || frame.own) {
    sendAlone(to, frame, otherwise);
  } else {
    gather(to, frame.bytes, frame.length, otherwise);
  }
}

// A frame that lies behind the last one for the same destination only makes that piece longer.
void Router::gather(Client& to, std::uint8_t* bytes, std::size_t length, Undeliverable otherwise) {
  to.delivered.add(length);
  if (to.lastPiece != Client::noPiece) {
    Piece& last = pieces_[to.lastPiece];
    if (last.bytes + last.length == bytes && last.otherwise == otherwise) {
      last.length += length;
      return;
    }
  }
  const auto index = static_cast<std::uint32_t>(pieces_.size());
  (to.lastPiece == Client::noPiece ? to.firstPiece : pieces_[to.lastPiece].next) = index;
  to.lastPiece = index;
  pieces_.push_back({bytes, length, Client::noPiece, otherwise});
  touch(to);
}

void Router::sendAlone(Client& to, Frame& frame, Undeliverable otherwise) {
  flush(to);
  to.delivered.add(frame.length);
  std::size_t sent = 0;
  if (to.state != Client::State::gone && to.queue.empty()) {
    iovec part{frame.bytes, frame.length};
    const Sent result = sendParts(to.socket.get(), {&part, 1}, frame.descriptor.get());
    sent = result.count;
    if (!result.ok && result.error == SendError::failed) disconnect(to, "closed");
    if (!result.ok && result.error == SendError::descriptorRefused) {
      refuse(to, frame, otherwise);
      return;
    }
  }
  if (sent > 0) frame.descriptor.delivered();
  if (sent == frame.length) return;
  if (!queueAlone(to, frame, sent)) refuse(to, frame, otherwise);
}

// What of a frame was written already, so that its rest must follow, is not refused for want of room.
bool Router::queueAlone(Client& to, Frame& frame, std::size_t sent) {
  if (to.state == Client::State::gone) return false;
  const bool descriptorFits = !frame.descriptor || to.queue.descriptors() < limits_.queuedDescriptors;
  if (sent == 0 && !(descriptorFits && hasRoom(to, frame.length))) return false;
  if (frame.own) {
    to.queue.append(std::move(frame.own), sent, std::move(frame.descriptor));
  } else if (!to.queue.append({frame.bytes + sent, frame.length - sent}, std::move(frame.descriptor))) {
    disconnect(to, "no memory for its queue");
    return false;
  }
  waitForRoom(to, true);
  return true;
}

// `frame` was stamped with its sender and is not delivered to `unreached`.
void Router::refuse(Client& unreached, Frame& frame, Undeliverable otherwise) {
  unreached.delivered.remove(frame.length);
  frame.descriptor.drop();
  Client* const from = otherwise == Undeliverable::bounce ? directory_.find(frame.header.peer) : nullptr;
  if (from == nullptr || from->state == Client::State::gone) {
    ++totals_.dropped;
    return;
  }
  bounce(*from, frame, unreached.id);
}

void Router::bounce(Client& from, Frame& frame, std::uint32_t unreached) {
  frame.descriptor.drop();
  rewriteHeader(frame, unreached, FrameKind::bounced);
  ++totals_.bounced;
  ++from.bounced;
  if (!monitors_.empty()) observe(unreached, from.id, FrameKind::bounced, frame.payload());
  deliver(from, frame, Undeliverable::drop);
}

void Router::touch(Client& client) {
  if (client.touched) return;
  client.touched = true;
  touched_.push_back(&client);
}

// Bouncing touches further programs, which so come to stand at the end of the list.
void Router::flush() {
  for (std::size_t i = 0; i < touched_.size(); ++i) {
    if (touched_[i]->touched) flush(*touched_[i]);
  }
  touched_.clear();
  pieces_.clear();
}

void Router::flush(Client& to) {
  to.touched = false;
  Position position{std::exchange(to.firstPiece, Client::noPiece), 0};
  to.lastPiece = Client::noPiece;
  if (!to.waitsForRoom) sendQueue(to);
  if (to.queue.empty() && to.state != Client::State::gone) position = sendPieces(to, position);
  keepPieces(to, position);
  if (!to.queue.empty()) waitForRoom(to, true);
}

void Router::sendQueue(Client& to) {
  if (to.state != Client::State::gone && !to.queue.send(to.socket.get())) disconnect(to, "closed");
}

void Router::resume(Client& client) {
  sendQueue(client);
  if (client.queue.empty()) waitForRoom(client, false);
}

void Router::waitForRoom(Client& client, bool wanted) {
  if (client.waitsForRoom == wanted || client.state == Client::State::gone) return;
  client.waitsForRoom = wanted;
  poller_.announceRoom(client.socket.get(), &client, wanted);
}

// Returns what the socket did not take.
Router::Position Router::sendPieces(Client& to, Position from) {
  while (from.piece != Client::noPiece) {
    std::array<iovec, partsPerSend> parts;
    std::size_t count = 0;
    std::size_t offered = 0;
    for (std::uint32_t i = from.piece; i != Client::noPiece && count < parts.size(); i = pieces_[i].next) {
      parts[count++] = {pieces_[i].bytes, pieces_[i].length};
      offered += pieces_[i].length;
    }
    const Sent sent = sendParts(to.socket.get(), std::span(parts).first(count));
    advance(from, sent.count);
    if (!sent.ok && sent.error != SendError::blocked) disconnect(to, "closed");
    if (sent.count < offered) break;
  }
  return from;
}

void Router::advance(Position& position, std::size_t sent) const {
  while (sent > 0) {
    const Piece& piece = pieces_[position.piece];
    if (sent < piece.length) {
      position.offset = sent;
      return;
    }
    sent -= piece.length;
    position.piece = piece.next;
  }
}

// The list may grow, and so move, while frames bounce.
void Router::keepPieces(Client& to, Position from) {
  while (from.piece != Client::noPiece) {
    const Piece piece = pieces_[from.piece];
    keepPiece(to, piece, from.offset);
    from = {piece.next, 0};
  }
}

// The frame that `offset` cuts, if any, has to be completed whatever the limits; those behind it wait while there is
// room for them.
void Router::keepPiece(Client& to, const Piece& piece, std::size_t offset) {
  std::size_t end = 0;
  while (end < offset)
    end += frameLength(piece.bytes + end);
  if (to.state != Client::State::gone) {
    while (end < piece.length) {
      const std::size_t next = end + frameLength(piece.bytes + end);
      if (!hasRoom(to, next - offset)) break;
      end = next;
    }
    if (end > offset && !to.queue.append({piece.bytes + offset, end - offset})) {
      disconnect(to, "no memory for its queue");
    }
  }
  refuseFrames(to, piece, end);
}

void Router::refuseFrames(Client& to, const Piece& piece, std::size_t at) {
  while (at < piece.length) {
    Frame frame;
    frame.bytes = piece.bytes + at;
    frame.header = tn::loadFrameHeader(frame.bytes);
    frame.length = frameHeaderBytes + frame.header.length;
    at += frame.length;
    refuse(to, frame, piece.otherwise);
  }
}

// The more waits for all programs, the less may wait for each.
bool Router::hasRoom(const Client& client, std::size_t length) const {
  const std::size_t left = limits_.allQueuesBytes - std::min(queuedTotal_, limits_.allQueuesBytes);
  return client.queue.bytes() + length <= std::min(limits_.queueBytes, left);
}

bool Router::queueCopy(Client& to, std::span<const std::uint8_t> head, std::span<const std::uint8_t> payload) {
  if (to.state == Client::State::gone || !hasRoom(to, head.size() + payload.size())) return false;
  touch(to);
  if (to.queue.append(head) && to.queue.append(payload)) return true;
  disconnect(to, "no memory for its queue");
  return false;
}

void Router::answer(Client& to, std::span<const std::uint8_t> payload) {
  if (!to.monitoring && !monitors_.empty()) observe(tn::brokerId, to.id, FrameKind::control, payload);
  if (to.firstPiece != Client::noPiece) flush(to);
  std::array<std::uint8_t, frameHeaderBytes> head;
  tn::storeFrameHeader(head.data(), {static_cast<std::uint32_t>(payload.size()), tn::brokerId,
                                     static_cast<std::uint32_t>(FrameKind::control)});
  if (!queueCopy(to, head, payload)) ++totals_.dropped;
}

void Router::observeControl(const Client& from, std::span<const std::uint8_t> payload) {
  if (!from.monitoring && !monitors_.empty()) observe(from.id, tn::brokerId, FrameKind::control, payload);
}

// What would be larger than any frame a program must expect is left out as if there were no room for it.
void Router::observe(std::uint32_t from, std::uint32_t to, FrameKind kind, std::span<const std::uint8_t> payload) {
  if (payload.size() > tn::maxPayloadBytes - observedBytes) {
    totals_.unobserved += monitors_.size();
    return;
  }
  std::array<std::uint8_t, frameHeaderBytes + observedBytes> head;
  tn::storeFrameHeader(head.data(), {static_cast<std::uint32_t>(observedBytes + payload.size()), tn::brokerId,
                                     static_cast<std::uint32_t>(FrameKind::observed)});
  storeLe32(head.data() + frameHeaderBytes, from);
  storeLe32(head.data() + frameHeaderBytes + 4, to);
  storeLe32(head.data() + frameHeaderBytes + 8, static_cast<std::uint32_t>(kind));
  for (Client* const monitor : monitors_) {
    if (!queueCopy(*monitor, head, payload)) ++totals_.unobserved;
  }
}

void Router::setMonitoring(Client& client, bool wanted) {
  if (client.monitoring == wanted) return;
  client.monitoring = wanted;
  if (wanted) {
    monitors_.push_back(&client);
  } else {
    std::erase(monitors_, &client);
  }
}

void Router::disconnect(Client& client, std::string_view why) {
  if (client.state == Client::State::gone) return;
  client.state = Client::State::gone;
  client.farewell = why;
  gone_.push_back(&client);
}

std::vector<Client*> Router::takeGone() {
  return std::exchange(gone_, {});
}

}  // namespace busd
