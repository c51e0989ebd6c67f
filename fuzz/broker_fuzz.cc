#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "platform/bus/frame.h"
#include "platform/bus/message.h"
#include "platform/unique_fd.h"
#include "services/busd/broker.h"
#include "services/busd/wire.h"

// A broker with four programs that do what the input says: whole frames and pieces of frames, descriptors, questions,
// groups, monitors, reading and not reading, leaving and coming back. Whatever they do, each is sent frames that are
// whole, of the kinds that a broker sends, from a program and not from a group; and no descriptor stays behind.
//
// An input is a list of steps. The low two bits of the first byte of a step say which program, the next four what it
// does (Step), the highest that the broker waits with its turn for the next step.

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t programs = 4;
constexpr std::uint32_t askedId = 70;
constexpr std::size_t smallQueue = 20000;

enum class Step : std::uint8_t {
  bytes,           // as many bytes as the next one says, as they are
  message,         // to whom, of how many bytes, and the bytes
  passDescriptor,  // the same with a descriptor
  largeMessage,    // to whom; more bytes than a socket holds
  join,            // with which id
  question,        // which operation, about which group
  read,            // everything
  readLittle,
  endSending,
  comeAgain,  // closes, and connects as a user that the next byte says
};

class Input {
 public:
  explicit Input(Bytes bytes) : rest_(bytes) {}
  [[nodiscard]] bool empty() const { return rest_.empty(); }
  std::uint8_t byte() {
    if (rest_.empty()) return 0;
    const std::uint8_t first = rest_.front();
    rest_ = rest_.subspan(1);
    return first;
  }
  Bytes bytes(std::size_t count) {
    const Bytes taken = rest_.first(std::min(count, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }

 private:
  Bytes rest_;
};

// What a program got, cut into frames and looked at.
class Received {
 public:
  void take(Bytes bytes) {
    held_.insert(held_.end(), bytes.begin(), bytes.end());
    std::size_t at = 0;
    while (held_.size() - at >= tn::frameHeaderBytes) {
      const tn::FrameHeader header = tn::loadFrameHeader(held_.data() + at);
      check(header);
      if (held_.size() - at - tn::frameHeaderBytes < header.length) break;
      const Bytes payload = Bytes(held_).subspan(at + tn::frameHeaderBytes, header.length);
      checkPayload(static_cast<tn::FrameKind>(header.kind), payload);
      at += tn::frameHeaderBytes + header.length;
    }
    held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(at));
  }
  void forget() { held_.clear(); }

 private:
  static void check(const tn::FrameHeader& header) {
    require(header.length <= tn::maxPayloadBytes && header.kind <= 3);
    switch (static_cast<tn::FrameKind>(header.kind)) {
      case tn::FrameKind::message:
        require(header.peer != tn::brokerId && header.peer < tn::firstGroup);
        break;
      case tn::FrameKind::bounced:
        break;  // from wherever it was sent to
      case tn::FrameKind::control:
      case tn::FrameKind::observed:
        require(header.peer == tn::brokerId);
        break;
    }
  }
  static void checkPayload(tn::FrameKind kind, Bytes payload) {
    tn::message answer;
    if (kind == tn::FrameKind::control) require(answer.unflatten(payload) && !answer.empty());
    if (kind == tn::FrameKind::observed) require(payload.size() >= 12 && loadLe32(payload.data() + 8) <= 2);
  }

  std::vector<std::uint8_t> held_;
};

busd::Limits limits() {
  busd::Limits small;
  small.clients = 8;
  small.trustedClients = 4;
  small.groupsPerClient = 2;
  small.membersPerGroup = 2;
  small.queueBytes = smallQueue;
  small.allQueuesBytes = 2 * smallQueue;
  small.queuedDescriptors = 2;
  small.unfinishedBytes = smallQueue;
  return small;
}

class Harness {
 public:
  Harness() : broker_(limits(), 0) {
    int ends[2];
    require(pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0);
    pipe_.reset(ends[0]);
    passed_.reset(ends[1]);
    for (std::size_t which = 0; which < programs; ++which)
      connect(which, 0);
  }

  void step(Input& input) {
    const std::uint8_t code = input.byte();
    act(code & 3, static_cast<Step>(code >> 2 & 15), input);
    if ((code & 0x80) == 0) broker_.turn(0);
    require(broker_.clients() <= programs);
  }

  // Everybody leaves: nothing is left, and nobody holds what was passed.
  void end() {
    for (std::size_t which = 0; which < programs; ++which) {
      broker_.turn(0);
      read(which, SIZE_MAX);
    }
    sockets_ = {};
    for (int turns = 0; broker_.clients() != 0; ++turns) {
      require(turns < 100);
      broker_.turn(0);
    }
    passed_.reset();
    char byte = 0;
    require(::read(pipe_.get(), &byte, 1) == 0);
  }

 private:
  void connect(std::size_t which, uid_t user) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    constexpr int little = 4096;
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
    sockets_[which].reset(ends[0]);
    received_[which].forget();
    broker_.adopt(UniqueFd(ends[1]), user);
  }

  void act(std::size_t which, Step what, Input& input) {
    switch (what) {
      case Step::bytes:
        return send(which, input.bytes(input.byte()), -1);
      case Step::message:
      case Step::passDescriptor: {
        const std::uint32_t to = address(input.byte());
        const Bytes payload = input.bytes(input.byte());
        return sendFrame(which, to, tn::FrameKind::message, payload, what == Step::passDescriptor ? passed_.get() : -1);
      }
      case Step::largeMessage:
        return sendFrame(which, address(input.byte()), tn::FrameKind::message, large(), -1);
      case Step::join:
        return join(which, input.byte());
      case Step::question:
        return ask(which, input.byte(), input.byte());
      case Step::read:
        return read(which, SIZE_MAX);
      case Step::readLittle:
        return read(which, 100);
      case Step::endSending:
        shutdown(sockets_[which].get(), SHUT_WR);
        return;
      case Step::comeAgain:
        leave(which);
        return connect(which, input.byte() % 2);
    }
  }

  // The broker reads what was sent before it finds the end, or has thrown the program out before.
  void leave(std::size_t which) {
    sockets_[which].reset();
    const std::size_t before = broker_.clients();
    for (int turns = 0; turns < 20 && broker_.clients() == before; ++turns)
      broker_.turn(0);
  }

  static Bytes large() {
    static const std::vector<std::uint8_t> bytes(9000, 'x');
    return bytes;
  }

  static std::uint32_t address(std::uint8_t code) {
    if (code < programs) return askedId + code;
    if (code < 8) return tn::firstFreeId + code - 4;
    if (code < 12) return tn::firstGroup + code - 8;
    return code - 12;
  }

  void join(std::size_t which, std::uint8_t id) {
    tn::message question;
    question.insert(tn::u32_id(1), tn::control::join);
    question.insert(tn::u32_id(2), id == 0 ? 0 : askedId + id % programs);
    question.insert(tn::string_id(3), "fuzz");
    sendFrame(which, 0, tn::FrameKind::control, question.flattened(), -1);
  }

  void ask(std::size_t which, std::uint8_t operation, std::uint8_t about) {
    tn::message question;
    question.insert(tn::u32_id(1), operation % 8U);
    question.insert(tn::u32_id(2), address(about));
    if (about % 2 != 0) question.insert(tn::bool_id(2), true);
    sendFrame(which, 0, tn::FrameKind::control, question.flattened(), -1);
  }

  void sendFrame(std::size_t which, std::uint32_t to, tn::FrameKind kind, Bytes payload, int descriptor) {
    std::vector<std::uint8_t> frame(tn::frameHeaderBytes);
    tn::storeFrameHeader(frame.data(),
                         {static_cast<std::uint32_t>(payload.size()), to, static_cast<std::uint32_t>(kind)});
    frame.insert(frame.end(), payload.begin(), payload.end());
    send(which, frame, descriptor);
  }

  // What does not go into the socket is not sent.
  void send(std::size_t which, Bytes bytes, int descriptor) {
    std::vector<std::uint8_t> copy(bytes.begin(), bytes.end());
    iovec part{copy.data(), copy.size()};
    if (!copy.empty()) (void)busd::sendParts(sockets_[which].get(), {&part, 1}, descriptor);
  }

  void read(std::size_t which, std::size_t limit) {
    std::array<std::uint8_t, 16384> space;
    while (limit != 0) {
      iovec part{space.data(), std::min(space.size(), limit)};
      std::array<char, CMSG_SPACE(sizeof(int))> control;
      msghdr header{};
      header.msg_iov = &part;
      header.msg_iovlen = 1;
      header.msg_control = control.data();
      header.msg_controllen = control.size();
      const ssize_t count = recvmsg(sockets_[which].get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
      if (count <= 0) return;
      closePassed(header);
      received_[which].take(Bytes(space).first(static_cast<std::size_t>(count)));
      limit -= static_cast<std::size_t>(count);
    }
  }

  static void closePassed(msghdr& header) {
    const cmsghdr* const control = CMSG_FIRSTHDR(&header);
    if (control == nullptr || control->cmsg_type != SCM_RIGHTS) return;
    int number = -1;
    std::copy_n(CMSG_DATA(control), sizeof number, reinterpret_cast<std::uint8_t*>(&number));
    close(number);
  }

  busd::Broker broker_;
  UniqueFd pipe_;
  UniqueFd passed_;
  std::array<UniqueFd, programs> sockets_;
  std::array<Received, programs> received_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Quiet quiet;
  Harness harness;
  for (Input input(Bytes(data, size)); !input.empty();)
    harness.step(input);
  harness.end();
  return 0;
}
