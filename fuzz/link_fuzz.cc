#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "platform/bus/frame_reader.h"
#include "platform/bus/looper.h"
#include "platform/bus/socket_link.h"
#include "tests/fakes/fake_runner.h"

// A program on the bus whose broker does what the input says: frames whole, in pieces and of no sense, answers to what
// was asked and to what was not, descriptors, ends. The program has a handler that posts, waits, answers late and
// passes on. Whatever comes, each post ends at most once, what the program sends are whole frames of the kinds that a
// program sends, and no descriptor stays behind.
//
// An input is a list of steps, each a byte:
//
//     0..127  the broker sends the so many bytes, and one, that follow
//   128..159  a message with the command and the field that the next byte chooses; bit 0: with a descriptor, bit 1: it
//             wants a reply, bit 2: for no handler, bit 3: from a session, bit 4: a reply to what the program sent last
//   160..167  what the program sent last comes back
//   168..175  the answer to a join, or the control answer that the next byte chooses
//   176..199  the program reads
//   200..223  time passes, 8 ms to 4 s
//   224..231  the broker reads
//   232..235  the broker closes; it takes the next connection
//   236..239  the turn of the loop ends
//     others  nothing

namespace {

using Bytes = std::span<const std::uint8_t>;
using Buffer = std::vector<std::uint8_t>;

constexpr std::uint32_t busyId = 7;
constexpr std::uint32_t neighbour = 68;

// Does with a message whatever can be done with one.
class Busy : public tn::Handler {
 public:
  tn::message cmdGet(tn::message& msg) override {
    ask(msg);
    return {};
  }
  tn::message cmdSet(tn::message& msg) override {
    if (waiting_) return {};
    waiting_ = true;
    tn::message question;
    question.insert_vector(tn::field::destination, std::array{neighbour, busyId});
    const tn::message answer = exchangeMessage(question, 0);
    waiting_ = false;
    return tn::isError(answer) ? answer : msg;
  }
  tn::message cmdGetAll(tn::message& msg) override {
    const UniqueFd taken = takeDescriptor(msg);
    return tn::errorMsg(tn::error::notAllowed, taken ? "a descriptor" : "");
  }
  tn::message cmdAddObj(tn::message& msg) override {
    tn::message copy = msg;
    copy.insert_vector(tn::field::destination, std::array{neighbour, busyId});
    sendMessage(copy);
    return msg;
  }
  tn::message cmdReset(tn::message& msg) override {
    late_ = msg;
    return {};
  }
  tn::message cmdUnknown(tn::message& msg, std::uint32_t command) override {
    if (late_) reply(*std::exchange(late_, std::nullopt), tn::message());
    return Handler::cmdUnknown(msg, command);
  }

  [[nodiscard]] bool allAtMostOnce() const {
    return std::ranges::all_of(ends_, [](int count) { return count <= 1; });
  }

 private:
  void ask(const tn::message& msg) {
    if (ends_.size() == 64) return;
    tn::message question = msg;
    question.insert_vector(tn::field::destination, std::array{neighbour, busyId});
    ends_.push_back(0);
    const std::size_t number = ends_.size() - 1;
    postMessage(
        question, [this, number](const tn::message&) { ++ends_[number]; }, 1000);
  }

  bool waiting_ = false;
  std::optional<tn::message> late_;
  std::vector<int> ends_;  // of each post
};

// Where the broker listens: a name of this process's own, in no folder.
class Listener {
 public:
  Listener() : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    std::array<char, 32> text{};
    std::snprintf(text.data() + 1, text.size() - 1, "link_fuzz %d", static_cast<int>(getpid()));
    name_.assign(text.data(), text.size());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::ranges::copy(name_, address.sun_path);
    require(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    require(listen(socket_.get(), 16) == 0);
  }
  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] UniqueFd accept() const {
    return UniqueFd(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  }

 private:
  UniqueFd socket_;
  std::string name_;
};

const Listener& listener() {
  static const Listener instance;
  return instance;
}

tn::SocketLink::Settings settings() {
  tn::SocketLink::Settings settings;
  settings.path = listener().name();
  settings.name = "fuzz";
  settings.outQueueBytes = 100000;
  settings.readBufferBytes = 256;
  settings.framesPerTurn = 4;
  return settings;
}

class Harness {
 public:
  Harness() : Harness(std::make_unique<tn::fakes::FakeRunner>()) {}

  ~Harness() {
    peer_.reset();
    looper_.reset();
    require(busy_.allAtMostOnce());
    while (listener().accept()) {
    }
    sent_.descriptor.reset();
    reader_.reset();
    passed_.reset();
    char byte = 0;
    require(read(pipe_.get(), &byte, 1) == 0);
  }
  Harness(const Harness&) = delete;
  Harness& operator=(const Harness&) = delete;

  // Takes one step; returns how many bytes it used.
  std::size_t step(Bytes input) {
    const unsigned code = input[0];
    const std::uint8_t next = input.size() > 1 ? input[1] : 0;
    if (code < 128) {
      const std::size_t count = std::min<std::size_t>(code + 1, input.size() - 1);
      send(input.subspan(1, count), -1);
      return 1 + count;
    }
    if (code < 160) return sendMessage(code, next), std::min<std::size_t>(2, input.size());
    if (code >= 168 && code < 176) return sendAnswer(code, next), std::min<std::size_t>(2, input.size());
    plain(code);
    return 1;
  }

 private:
  explicit Harness(std::unique_ptr<tn::fakes::FakeRunner> runner) : runner_(*runner) {
    int ends[2];
    require(pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0);
    pipe_.reset(ends[0]);
    passed_.reset(ends[1]);
    tn::Looper::Tuning tuning{};
    tuning.maxPosts = 8;
    tuning.maxKept = 4;
    auto link = std::make_unique<tn::SocketLink>(runner_, settings());
    looper_ = std::make_unique<tn::Looper>(std::move(runner), std::move(link), tuning);
    looper_->addHandler(busyId, busy_);
    runner_.advance(0);
    peer_ = listener().accept();
    require(static_cast<bool>(peer_));
  }

  void plain(unsigned code) {
    if (code < 168) {
      sendFrame(tn::FrameKind::bounced, sent_.header.peer, sentBytes_, -1);
    } else if (code < 200) {
      for (const int fd : watched())
        runner_.ready(fd, tn::readable);
    } else if (code < 224) {
      runner_.advance((code - 199) * (code - 199) * 8);
    } else if (code < 232) {
      takeSent();
    } else if (code < 236) {
      peer_.reset();
      reader_.reset();
      if (UniqueFd next = listener().accept()) peer_ = std::move(next);
    } else if (code < 240) {
      looper_->finishTurn();
    }
  }

  // The link's socket is the last that was added, if it is watched still.
  [[nodiscard]] std::vector<int> watched() const {
    std::vector<int> found;
    for (const auto& call : runner_.calls) {
      const bool isAdd = call.operation == tn::fakes::FakeRunner::Operation::add;
      if (isAdd && runner_.watched(call.fd)) found = {call.fd};
    }
    return found;
  }

  void sendMessage(unsigned code, std::uint8_t next) {
    constexpr std::uint32_t commands[] = {
        tn::command::get,   tn::command::set,    tn::command::getAll, tn::command::addObj,
        tn::command::reset, tn::command::getObj, tn::command::getAll, 77};
    tn::message msg;
    const std::uint32_t handler = (code & 4) != 0 ? next : busyId;
    msg.insert_vector(tn::field::destination, std::array{handler});
    msg.insert(tn::field::command, commands[next % 8]);
    msg.insert_vector(tn::field::sender, std::array{std::uint32_t{next}});
    if ((code & 1) != 0) msg.insert(tn::field::descriptor, std::uint32_t{next});
    if ((code & 2) != 0) msg.insert(tn::field::requestNumber, 1U + next);
    if ((code & 8) != 0) msg.insert(tn::field::user, "somebody");
    if ((code & 16) != 0) {
      msg.insert(tn::field::isReply, true);
      msg.insert(tn::field::requestNumber, lastNumber_);
    }
    sendFrame(tn::FrameKind::message, neighbour, msg.flattened(), (code & 1) != 0 ? passed_.get() : -1);
  }

  void sendAnswer(unsigned code, std::uint8_t next) {
    tn::message msg;
    msg.insert(tn::u32_id(1), (code & 1) != 0 ? tn::control::join : std::uint32_t{next});
    msg.insert(tn::u32_id(2), next == 255 ? 0U : 1000U);
    if (next == 254) msg.insert(tn::field::errorCode, 1U);
    sendFrame(tn::FrameKind::control, tn::brokerId, msg.flattened(), -1);
  }

  void sendFrame(tn::FrameKind kind, std::uint32_t peer, Bytes payload, int descriptor) const {
    Buffer frame(tn::frameHeaderBytes);
    tn::storeFrameHeader(frame.data(),
                         {static_cast<std::uint32_t>(payload.size()), peer, static_cast<std::uint32_t>(kind)});
    frame.insert(frame.end(), payload.begin(), payload.end());
    send(frame, descriptor);
  }

  // What does not go into the socket is not sent.
  void send(Bytes bytes, int descriptor) const {
    if (!peer_ || bytes.empty()) return;
    iovec part{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(int))> space{};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (descriptor >= 0) {
      header.msg_control = space.data();
      header.msg_controllen = space.size();
      cmsghdr* const control = CMSG_FIRSTHDR(&header);
      control->cmsg_level = SOL_SOCKET;
      control->cmsg_type = SCM_RIGHTS;
      control->cmsg_len = CMSG_LEN(sizeof(int));
      std::copy_n(reinterpret_cast<const std::uint8_t*>(&descriptor), sizeof descriptor, CMSG_DATA(control));
    }
    (void)sendmsg(peer_.get(), &header, MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  void takeSent() {
    if (!peer_) return;
    while (reader_.receive(peer_.get()) == tn::FrameReader::Receive::bytes) {
      tn::FrameReader::Next next{};
      while ((next = reader_.next(sent_)) == tn::FrameReader::Next::frame) {
        require(sent_.header.kind == 0 || sent_.header.kind == 2);
        tn::message content;
        require(content.unflatten(sent_.payload));
        lastNumber_ = content.get(tn::field::requestNumber).value_or(0);
        sentBytes_.assign(sent_.payload.begin(), sent_.payload.end());
      }
      require(next == tn::FrameReader::Next::incomplete);
    }
  }

  tn::fakes::FakeRunner& runner_;
  std::unique_ptr<tn::Looper> looper_;
  Busy busy_;
  UniqueFd pipe_;
  UniqueFd passed_;
  UniqueFd peer_;
  tn::FrameReader reader_{256};
  tn::FrameReader::Frame sent_;  // the program's last
  Buffer sentBytes_;
  std::uint32_t lastNumber_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Quiet quiet;
  Harness harness;
  for (Bytes input(data, size); !input.empty();)
    input = input.subspan(harness.step(input));
  return 0;
}
