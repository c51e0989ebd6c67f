#include "platform/bus/socket_link.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

#include "platform/log.h"

namespace tn {

namespace {

constexpr u32_id operationField{1};
constexpr u32_id idField{2};
constexpr string_id nameField{3};

// Milliseconds until then, rounded up, none when it has passed.
int millisecondsUntil(Clock::time_point then) {
  using std::chrono::milliseconds;
  const auto left = std::chrono::ceil<milliseconds>(then - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, 1 << 30));
}

}  // namespace

SocketLink::SocketLink(ThinRunner& runner, Settings settings)
    : runner_(runner),
      settings_(std::move(settings)),
      reader_(settings_.readBufferBytes),
      timer_([this] { onTimer(); }),
      pauseMs_(settings_.rejoinFirstMs) {}

SocketLink::~SocketLink() {
  if (socket_) runner_.forgetSocket(socket_.get());
}

void SocketLink::open(Sink& sink) {
  sink_ = &sink;
  timer_.start(runner_.timers(), 0);
}

void SocketLink::onTimer() {
  if (state_ == State::pausing) {
    connect();
  } else {
    drop("the broker does not answer");
  }
}

void SocketLink::connect() {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return drop("cannot make a socket: ", std::strerror(errno));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = settings_.path.size();
  if (length >= sizeof address.sun_path) return drop("the path of the broker's socket is too long");
  std::memcpy(address.sun_path, settings_.path.data(), length);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return drop("cannot connect to the broker: ", std::strerror(errno));
  }
  const auto callback = [this](int, unsigned events) { onEvents(events); };
  // Level: the kernel would announce room in a unix socket at each read of the broker's, asked for or not.
  if (!runner_.addSocket(socket.get(), readable, callback, Trigger::level)) {
    return drop("cannot watch the socket: ", std::strerror(errno));
  }
  socket_ = std::move(socket);
  sendJoin();
}

void SocketLink::sendJoin() {
  message join;
  join.insert(operationField, control::join);
  join.insert(idField, settings_.id);
  join.insert(nameField, settings_.name);
  queue_.append(FrameKind::control, brokerId, join.flattened(), UniqueFd());
  state_ = State::joining;
  timer_.start(runner_.timers(), settings_.joinTimeoutMs);
  write();
}

void SocketLink::onEvents(unsigned events) {
  if ((events & writable) != 0) write();
  if ((events & (readable | hangUp)) != 0) readFrames();
}

void SocketLink::readFrames() {
  atRest_ = false;
  if (deliver() != 0) return;
  const FrameReader::Receive received = reader_.receive(socket_.get());
  if (received == FrameReader::Receive::ended) return drop(dead_.empty() ? "the broker is gone" : dead_);
  if (received == FrameReader::Receive::bytes) deliver();
}

// Hands out at the most framesPerTurn frames and returns their number.
unsigned SocketLink::deliver() {
  unsigned count = 0;
  FrameReader::Frame frame;
  while (count < settings_.framesPerTurn && state_ != State::pausing) {
    const FrameReader::Next next = reader_.next(frame);
    if (next == FrameReader::Next::broken) giveUp("the broker sent a frame that is too long");
    if (next != FrameReader::Next::frame) break;
    ++count;
    const auto kind = static_cast<FrameKind>(frame.header.kind);
    if (state_ == State::joined) {
      sink_->onFrame({kind, frame.header.peer, frame.payload, std::move(frame.descriptor)});
    } else if (kind == FrameKind::control) {
      handleJoinAnswer(frame.payload);
    }
  }
  return count;
}

void SocketLink::handleJoinAnswer(std::span<const std::uint8_t> payload) {
  message answer;
  if (!answer.unflatten(payload)) return drop("the broker's answer is no message");
  if (answer.has(field::errorCode)) {
    return drop("the broker refuses: ", answer.get(field::errorText).value_or("no reason given"));
  }
  const std::uint32_t given = answer.get(idField).value_or(0);
  if (given == 0) return drop("the broker gave no id");
  id_ = given;
  state_ = State::joined;
  timer_.cancel();
  pauseMs_ = settings_.rejoinFirstMs;
  if (!told_.empty()) logLine("bus: joined as ", NumberText(id_));
  told_.clear();
  sink_->onLinked(id_);
}

bool SocketLink::send(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload, UniqueFd descriptor) {
  if (state_ != State::joined || !dead_.empty() || payload.size() > maxPayloadBytes) return false;
  if (queue_.bytes() + payload.size() + frameHeaderBytes > settings_.outQueueBytes) return false;
  queue_.append(kind, peer, payload, std::move(descriptor));
  atRest_ = false;
  if (queue_.bytes() > gatheredBytes) flush();
  return true;
}

void SocketLink::flush() {
  if (!blocked_ && queue_.bytes() != 0) write();
}

void SocketLink::write() {
  switch (queue_.flush(socket_.get())) {
    case FrameQueue::Flush::done:
      if (blocked_) blocked_ = !runner_.changeSocket(socket_.get(), readable);
      break;
    case FrameQueue::Flush::blocked:
      if (!blocked_) blocked_ = runner_.changeSocket(socket_.get(), readable | writable);
      if (!blocked_) giveUp("cannot watch the socket");
      break;
    case FrameQueue::Flush::failed:
      giveUp("the broker is gone");
      break;
  }
}

// The connection is useless, but this may be the middle of somebody's call, or frames may still wait to be read. Shut
// down, it is read to its end by the loop, which then drops it.
void SocketLink::giveUp(std::string_view reason) {
  dead_ = reason;
  queue_.clear();
  shutdown(socket_.get(), SHUT_RDWR);
}

// A flush follows, so that frames sent meanwhile leave no work behind.
bool SocketLink::resume() {
  atRest_ = true;
  if (!reader_.hasFrame()) return false;
  deliver();
  atRest_ = !reader_.hasFrame();
  return !atRest_;
}

BusLink::Wait SocketLink::waitForFrames(Clock::time_point deadline) {
  atRest_ = false;
  while (state_ == State::joined && dead_.empty()) {
    if (deliver() != 0) return Wait::frames;
    flush();
    pollfd entry{socket_.get(), static_cast<short>(blocked_ ? POLLIN | POLLOUT : POLLIN), 0};
    const int timeout = millisecondsUntil(deadline);
    const int n = poll(&entry, 1, timeout);
    runner_.timers().setNow(Clock::now());
    if (n == 0 && timeout == 0) return Wait::timedOut;
    if (n <= 0) continue;
    if ((entry.revents & POLLOUT) != 0) write();
    if ((entry.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    if (reader_.receive(socket_.get()) == FrameReader::Receive::ended) break;
  }
  return Wait::lost;
}

void SocketLink::drop(std::string_view reason, std::string_view detail) {
  std::string text(reason);
  text += detail;
  if (told_.size() < toldReasons && std::ranges::find(told_, text) == told_.end()) {
    logLine("bus: ", text);
    told_.push_back(std::move(text));
  }
  if (socket_) runner_.forgetSocket(socket_.get());
  socket_.reset();
  reader_.reset();
  queue_.clear();
  blocked_ = false;
  dead_ = {};
  id_ = 0;
  const State before = std::exchange(state_, State::pausing);
  timer_.start(runner_.timers(), pauseMs_);
  pauseMs_ = std::min(pauseMs_ * 2, settings_.rejoinMaxMs);
  if (before == State::joined) sink_->onUnlinked();
}

}  // namespace tn
