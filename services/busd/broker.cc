#include "services/busd/broker.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

#include "platform/log.h"
#include "services/busd/impatience.h"
#include "services/busd/wire.h"

namespace busd {

// A read always has room for a carried-over frame and a fair amount behind it.
constexpr std::size_t leastRead = 4 * Intake::carriedBytes;

Broker::Broker(const Limits& limits, uid_t uid)
    : limits_(limits),
      uid_(uid),
      router_(directory_, poller_, limits_, queuedTotal_),
      control_(directory_, router_, limits_),
      space_(std::make_unique_for_overwrite<std::array<std::uint8_t, spaceBytes>>()),
      acceptPause_([this] { pauseAccepting(false); }) {}

Broker::~Broker() = default;

bool Broker::listen(int listener) {
  listener_ = listener;
  return poller_.addLevel(listener_, &listener_);
}

void Broker::run(int stopFd) {
  stopFd_ = stopFd;
  if (!poller_.addLevel(stopFd_, &stopFd_)) {
    logSystemError("epoll_ctl");
    return;
  }
  while (!stopped_)
    turn(-1);
}

void Broker::turn(int timeoutMs) {
  std::array<epoll_event, eventsPerWait> space;
  const int untilDeadline = timers_.nextTimeout();
  int timeout = timeoutMs;
  if (timeout < 0 || (untilDeadline >= 0 && untilDeadline < timeout)) timeout = untilDeadline;
  if (!again_.empty()) timeout = 0;
  const auto events = poller_.wait(space, timeout);
  timers_.setNow(tn::Clock::now());

  const std::vector<Client*> again = std::exchange(again_, {});
  for (const epoll_event& event : events)
    onEvent(event);
  for (Client* const client : again) {
    if (std::exchange(client->readAgain, false)) read(*client);
  }
  router_.flush();
  spaceUsed_ = 0;
  timers_.runExpired(timers_.now());
  buryGone();
  control_.endTurn();
  flushLog();
}

void Broker::onEvent(const epoll_event& event) {
  if (event.data.ptr == &listener_) {
    accept();
  } else if (event.data.ptr == &stopFd_) {
    stopped_ = true;
  } else {
    auto& client = *static_cast<Client*>(event.data.ptr);
    if ((event.events & EPOLLOUT) != 0) router_.resume(client);
    constexpr unsigned hangUp = EPOLLHUP | EPOLLRDHUP | EPOLLERR;
    if ((event.events & hangUp) != 0) client.ending = true;
    if ((event.events & (EPOLLIN | hangUp)) != 0) read(client);
  }
}

void Broker::accept() {
  for (std::size_t i = 0; i < acceptsPerTurn; ++i) {
    UniqueFd socket(accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) {
      if (errno == ECONNABORTED || errno == EINTR) continue;
      if (errno == EAGAIN) return;
      // Out of descriptors or memory: the connection stays where it is and would be announced without end.
      if (!std::exchange(acceptFailing_, true)) logSystemError("accept");
      pauseAccepting(true);
      return;
    }
    acceptFailing_ = false;
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) adopt(std::move(socket), peer.uid);
  }
}

void Broker::pauseAccepting(bool paused) {
  // Where the listener is not watched again now, it is tried again later.
  const bool done = poller_.pauseLevel(listener_, &listener_, paused);
  if (paused || !done) acceptPause_.start(timers_, limits_.acceptPauseMs);
}

bool Broker::adopt(UniqueFd socket, uid_t uid) {
  noteNumber(socket.get());
  const bool trusted = uid == 0 || uid == uid_;
  if (clients_.size() >= limits_.clients - (trusted ? 0 : limits_.trustedClients)) {
    turnAway(std::move(socket));
    return false;
  }
  auto client = std::make_unique<Client>(std::move(socket), uid, trusted, queuedTotal_);
  if (!poller_.addConnection(client->socket.get(), client.get())) {
    logSystemError("epoll_ctl");
    const Impatience impatience;
    client.reset();
    return false;
  }
  client->timer.setCallback([this, &joining = *client] { onDeadline(joining); });
  client->timer.start(timers_, limits_.joinMs);
  client->slot = clients_.size();
  clients_.push_back(std::move(client));
  return true;
}

void Broker::turnAway(UniqueFd socket) {
  const tn::message answer = Control::tooManyPrograms();
  const auto payload = answer.flattened();
  std::array<std::uint8_t, tn::frameHeaderBytes> head;
  tn::storeFrameHeader(head.data(), {static_cast<std::uint32_t>(payload.size()), tn::brokerId,
                                     static_cast<std::uint32_t>(tn::FrameKind::control)});
  std::vector<std::uint8_t> frame(head.begin(), head.end());
  frame.insert(frame.end(), payload.begin(), payload.end());
  iovec part{frame.data(), frame.size()};
  (void)sendParts(socket.get(), {&part, 1});
  logLine("a program was refused: too many programs");
  const Impatience impatience;
  socket.reset();
}

void Broker::noteNumber(int descriptor) {
  if (descriptor >= limits_.scarceFrom) scarce_ = true;
}

// A read that takes less than it was offered has taken all there was, and the kernel announces what comes later; but it
// stops behind a descriptor whatever follows, and an end that was announced has to be read.
void Broker::read(Client& client) {
  if (client.state == Client::State::gone) return;
  if (space_->size() - spaceUsed_ < leastRead) {
    router_.flush();
    spaceUsed_ = 0;
  }
  const auto space = std::span(*space_).subspan(spaceUsed_);
  Intake::Room room = client.intake.prepare(space.first(std::min(space.size(), bytesPerRead)));
  // What finds no number here is closed by the kernel.
  std::optional<Impatience> impatience;
  if (scarce_) impatience.emplace();
  Received received = receive(client.socket.get(), std::span(room.parts).first(room.count));
  impatience.reset();
  noteNumber(received.highest);
  switch (received.outcome) {
    case Received::Outcome::nothing:
      return;
    case Received::Outcome::end:
      router_.disconnect(client, "closed");
      return;
    case Received::Outcome::bytes:
      break;
  }
  const bool full = received.count == room.bytes;
  if (full || client.ending || received.passed != Received::Descriptor::none) readAgain(client);
  if (!client.intake.arrived(received)) {
    router_.disconnect(client, "sent a descriptor that belongs to no frame");
    return;
  }
  serve(client);
  spaceUsed_ += client.intake.usedSpace();
}

void Broker::readAgain(Client& client) {
  if (!std::exchange(client.readAgain, true)) again_.push_back(&client);
}

void Broker::serve(Client& client) {
  while (client.state != Client::State::gone) {
    Frame frame;
    switch (client.intake.next(frame)) {
      case Intake::Step::frame:
        if (frame.header.kind == static_cast<std::uint32_t>(tn::FrameKind::control)) {
          serveControl(client, frame);
        } else {
          router_.route(client, frame);
        }
        break;
      case Intake::Step::end:
        keepRest(client);
        return;
      case Intake::Step::broken:
        router_.disconnect(client, "broke the framing");
        return;
    }
  }
}

void Broker::serveControl(Client& client, const Frame& frame) {
  router_.observeControl(client, frame.payload());
  control_.setUnfinishedBytes(heldTotal_);
  switch (control_.handle(client, frame.payload())) {
    case Control::Verdict::served:
      return;
    case Control::Verdict::refused:
      router_.flush(client);
      router_.disconnect(client, "refused");
      return;
    case Control::Verdict::broken:
      router_.disconnect(client, client.id == 0 ? "did not join first" : "sent no control message");
      return;
  }
}

void Broker::keepRest(Client& client) {
  const Intake::Rest rest = client.intake.keepRest();
  countHeld(client, client.intake.heldBytes());
  const bool joined = client.state == Client::State::joined;
  switch (rest) {
    case Intake::Rest::none:
      if (joined && client.timer.armed()) client.timer.cancel();
      return;
    case Intake::Rest::newFrame:
      client.unfinishedAge = ++framesBegun_;
      if (joined) client.timer.start(timers_, limits_.frameMs);
      break;
    case Intake::Rest::sameFrame:
      break;
    case Intake::Rest::noMemory:
      router_.disconnect(client, "no memory for its frame");
      return;
  }
  if (heldTotal_ > limits_.unfinishedBytes) giveUpOldest();
}

void Broker::countHeld(Client& client, std::size_t held) {
  heldTotal_ += held;
  heldTotal_ -= std::exchange(client.heldBytes, held);
}

// Whoever means to send a frame sends it; the one that has been at it longest most likely does not.
void Broker::giveUpOldest() {
  Client* oldest = nullptr;
  for (const auto& client : clients_) {
    if (client->heldBytes == 0 || client->state == Client::State::gone) continue;
    if (oldest == nullptr || client->unfinishedAge < oldest->unfinishedAge) oldest = client.get();
  }
  if (oldest == nullptr) return;
  router_.disconnect(*oldest, "its frame was unfinished for the longest time");
  countHeld(*oldest, 0);
}

void Broker::onDeadline(Client& client) {
  const bool joining = client.state == Client::State::joining;
  router_.disconnect(client, joining ? "did not join in time" : "did not finish a frame in time");
}

void Broker::buryGone() {
  const std::vector<Client*> gone = router_.takeGone();
  for (Client* const client : gone)
    bury(*client);
}

void Broker::bury(Client& client) {
  if (client.id != 0) {
    logLine(client.name, " (", NumberText(client.id), ") left: ", client.farewell);
  } else if (client.farewell != "closed" && client.farewell != "refused") {
    logLine("a program (uid ", NumberText(client.uid), ") was refused: ", client.farewell);
  }
  countHeld(client, 0);
  directory_.release(client);
  router_.setMonitoring(client, false);
  if (client.readAgain) std::erase(again_, &client);
  const std::size_t slot = client.slot;
  std::swap(clients_[slot], clients_.back());
  clients_[slot]->slot = slot;
  // It may have sent descriptors that nobody will read.
  const Impatience impatience;
  clients_.pop_back();
}

}  // namespace busd
