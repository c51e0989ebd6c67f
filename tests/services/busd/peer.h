#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "platform/bus/frame.h"
#include "platform/bus/message.h"
#include "platform/unique_fd.h"
#include "services/busd/broker.h"
#include "services/busd/wire.h"

namespace busd {

using Payload = std::vector<std::uint8_t>;

inline Payload bytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

inline Payload frameOf(std::uint32_t peer, tn::FrameKind kind, std::span<const std::uint8_t> payload) {
  Payload frame(tn::frameHeaderBytes + payload.size());
  tn::storeFrameHeader(frame.data(),
                       {static_cast<std::uint32_t>(payload.size()), peer, static_cast<std::uint32_t>(kind)});
  std::ranges::copy(payload, frame.begin() + tn::frameHeaderBytes);
  return frame;
}

// What came to a peer.
struct Delivered {
  std::uint32_t peer;
  tn::FrameKind kind;
  Payload payload;
  PassedFd descriptor;

  [[nodiscard]] std::string text() const { return {payload.begin(), payload.end()}; }
  [[nodiscard]] tn::message message() const {
    tn::message parsed;
    EXPECT_TRUE(parsed.unflatten(payload));
    return parsed;
  }
};

// A program as a test plays it: one end of a socket pair whose other end a broker of the same process has adopted. What
// waits for the broker turns it meanwhile.
class Peer {
 public:
  explicit Peer(Broker& broker, uid_t uid = 0) : broker_(broker) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    socket_.reset(ends[0]);
    adopted_ = broker.adopt(UniqueFd(ends[1]), uid);
  }

  [[nodiscard]] bool adopted() const { return adopted_; }
  [[nodiscard]] std::uint32_t id() const { return id_; }
  [[nodiscard]] int fd() const { return socket_.get(); }
  void close() { socket_.reset(); }

  // Bytes as they are, waiting while the socket is full.
  void sendRaw(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n < 0 && errno != EAGAIN) return;  // the broker has disconnected it
      if (n < 0) broker_.turn(0);
      if (n > 0) bytes = bytes.subspan(static_cast<std::size_t>(n));
    }
  }
  // The first bytes of a message of that length, and no more.
  void sendBeginning(std::size_t payloadBytes, std::size_t bytes) {
    const Payload frame = frameOf(1, tn::FrameKind::message, Payload(payloadBytes));
    sendRaw(std::span(frame).first(bytes));
  }
  void send(std::uint32_t to, std::span<const std::uint8_t> payload) {
    sendRaw(frameOf(to, tn::FrameKind::message, payload));
  }
  void send(std::uint32_t to, std::string_view text) { send(to, bytesOf(text)); }
  void sendWithDescriptor(std::span<const std::uint8_t> bytes, int descriptor) {
    Payload copy(bytes.begin(), bytes.end());
    iovec part{copy.data(), copy.size()};
    const Sent sent = sendParts(socket_.get(), {&part, 1}, descriptor);
    EXPECT_EQ(sent.count, bytes.size());
  }
  void sendControl(const tn::message& request) {
    sendRaw(frameOf(tn::brokerId, tn::FrameKind::control, request.flattened()));
  }

  // The next frame; nothing when none comes although the broker has nothing left to do, and for `patience` more.
  std::optional<Delivered> receive(std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + patience;
    for (;;) {
      if (auto frame = takeFrame()) return frame;
      if (readSome()) continue;
      if (ended_ || std::chrono::steady_clock::now() > end) return std::nullopt;
    }
  }
  Delivered expectFrame() {
    auto frame = receive();
    EXPECT_TRUE(frame.has_value()) << "no frame came";
    return frame ? std::move(*frame) : Delivered{0, tn::FrameKind::observed, {}, PassedFd()};
  }
  tn::message ask(const tn::message& request) {
    sendControl(request);
    Delivered answer = expectFrame();
    EXPECT_EQ(answer.kind, tn::FrameKind::control);
    EXPECT_EQ(answer.peer, tn::brokerId);
    return answer.message();
  }
  tn::message ask(std::uint32_t operation, std::uint32_t number) {
    tn::message request;
    request.insert(field::operation, operation);
    request.insert(field::number, number);
    return ask(request);
  }
  tn::message ask(std::uint32_t operation) {
    tn::message request;
    request.insert(field::operation, operation);
    return ask(request);
  }
  tn::message join(std::uint32_t wanted = 0, std::string_view name = "peer") {
    tn::message request;
    request.insert(field::operation, tn::control::join);
    request.insert(field::number, wanted);
    request.insert(field::name, name);
    tn::message answer = ask(request);
    id_ = answer.get(field::number).value_or(0);
    return answer;
  }

  // Whether nothing is there for it once the broker has done what it had to do.
  [[nodiscard]] bool quiet() { return !receive(std::chrono::milliseconds(0)) && !ended_; }
  // Whether the broker ends the connection, whatever comes before the end.
  [[nodiscard]] bool disconnected() {
    while (receive()) {
    }
    return ended_;
  }

 private:
  std::optional<Delivered> takeFrame() {
    if (inbox_.size() < tn::frameHeaderBytes) return std::nullopt;
    const tn::FrameHeader header = tn::loadFrameHeader(inbox_.data());
    const std::size_t whole = tn::frameHeaderBytes + header.length;
    if (inbox_.size() < whole) return std::nullopt;
    const auto begin = inbox_.begin() + tn::frameHeaderBytes;
    const auto end = inbox_.begin() + static_cast<std::ptrdiff_t>(whole);
    Delivered frame{header.peer, tn::FrameKind{header.kind}, Payload(begin, end), PassedFd()};
    if (descriptorAt_ == 0) frame.descriptor = std::move(descriptor_);
    descriptorAt_ -= whole;
    inbox_.erase(inbox_.begin(), end);
    return frame;
  }

  // Where the last frame starts, whole or not.
  [[nodiscard]] std::size_t lastFrame() const {
    std::size_t at = 0;
    for (;;) {
      if (inbox_.size() - at < tn::frameHeaderBytes) return at;
      const std::size_t next = at + tn::frameHeaderBytes + tn::loadFrameHeader(inbox_.data() + at).length;
      if (next >= inbox_.size()) return at;
      at = next;
    }
  }

  // A descriptor belongs to the last frame that starts in what is read with it.
  bool readSome() {
    for (int i = 0; i < 4; ++i)
      broker_.turn(0);
    Payload space(1U << 16);
    iovec part{space.data(), space.size()};
    Received received = busd::receive(socket_.get(), {&part, 1});
    if (received.outcome == Received::Outcome::nothing) {
      broker_.turn(1);
      return false;
    }
    ended_ = received.outcome == Received::Outcome::end;
    inbox_.insert(inbox_.end(), space.begin(), space.begin() + static_cast<std::ptrdiff_t>(received.count));
    if (received.descriptor) {
      descriptor_ = std::move(received.descriptor);
      descriptorAt_ = lastFrame();
    }
    return received.count > 0;
  }

  Broker& broker_;
  UniqueFd socket_;
  bool adopted_ = false;
  bool ended_ = false;
  std::uint32_t id_ = 0;
  Payload inbox_;
  PassedFd descriptor_;
  std::size_t descriptorAt_ = 0;  // offset in inbox_ of the frame it came with
};

// Descriptors that this process has open.
inline std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

inline constexpr uid_t brokerUser = 500;
inline constexpr uid_t otherUser = 501;

// A broker of user 500 with shrunk limits, and programs made as they are needed.
class BrokerTest : public testing::Test {
 protected:
  explicit BrokerTest(const Limits& limits = {}) : broker_(limits, brokerUser) {}

  // A program that has joined.
  [[nodiscard]] Peer joined(std::string_view name = "peer", std::uint32_t id = 0, uid_t uid = 0) {
    Peer peer(broker_, uid);
    const tn::message answer = peer.join(id, name);
    EXPECT_FALSE(answer.has(tn::field::errorCode));
    return peer;
  }
  void settle() {
    for (int i = 0; i < 8; ++i)
      broker_.turn(0);
  }

  Broker broker_;
};

}  // namespace busd
