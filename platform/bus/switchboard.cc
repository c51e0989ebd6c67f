#include "platform/bus/switchboard.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <fcntl.h>
#include <utility>

#include "platform/bus/looper.h"
#include "platform/log.h"

namespace tn {

namespace {

constexpr u32_id operationField{1};
constexpr u32_id groupField{2};

// What stands before the payload of an observed frame: u32 from, u32 to, u32 kind.
constexpr std::size_t observedHeaderBytes = 12;

// What no descriptor is called.
constexpr std::uint32_t noNumber = 0xFFFFFFFF;

message unreachable() {
  return errorMsg(error::unreachable, "unreachable");
}

void clearBusFields(message& msg) {
  msg.remove(field::requestNumber);
  msg.remove(field::isReply);
  msg.remove(field::errorCode);
  msg.remove(field::errorText);
}

}  // namespace

Switchboard::Switchboard(Looper& looper, BusLink& link, TimerQueue& timers, const Limits& limits)
    : looper_(looper), link_(link), timers_(timers), limits_(limits), posts_(timers) {
  looper_.looper_ = &looper_;
  handlers_[looper_.id_] = &looper_;
}

Switchboard::~Switchboard() {
  for (const auto& [id, handler] : handlers_)
    handler->looper_ = nullptr;
  looper_.looper_ = nullptr;
}

// ---- Handlers

void Switchboard::addHandler(std::uint32_t id, Handler& handler) {
  removeHandler(id);
  forget(handler);
  handlers_[id] = &handler;
  handler.looper_ = &looper_;
  handler.id_ = id;
  untold_ = untold_ || handler.hasUntold();
  handler.attached(looper_, id);
}

void Switchboard::removeHandler(std::uint32_t id) {
  const auto found = handlers_.find(id);
  if (found == handlers_.end() || found->second == &looper_) return;
  Handler& handler = *found->second;
  forget(handler);
  handler.detached();
}

// The looper itself is the handler of id 0 whenever no other is; it goes on sending and receiving replies there.
void Switchboard::forget(Handler& handler) {
  const auto found = handlers_.find(handler.id_);
  if (found == handlers_.end() || found->second != &handler) return;
  posts_.cancelAllOf(handler);
  handlers_.erase(handler.id_);
  if (handler.id_ == looper_.id_ && &handler != &looper_) handlers_[looper_.id_] = &looper_;
  handler.looper_ = nullptr;
  handler.id_ = 0;
}

template <typename Visitor>
void Switchboard::forEachHandler(Visitor&& visit) {
  std::vector<std::uint32_t> ids;
  ids.reserve(handlers_.size());
  for (const auto& [id, handler] : handlers_)
    ids.push_back(id);
  for (const std::uint32_t id : ids) {
    const auto found = handlers_.find(id);
    if (found != handlers_.end()) visit(*found->second);
  }
}

void Switchboard::tellDisconnected(message& msg) {
  forEachHandler([&](Handler& handler) {
    if (&handler != &looper_) (void)handler.cmdDisconnected(msg);
  });
}

void Switchboard::flushHandlers() {
  const auto hasUntold = [](const auto& entry) { return entry.second->hasUntold(); };
  if (std::ranges::any_of(handlers_, hasUntold)) forEachHandler([](Handler& handler) { handler.flush(); });
  untold_ = std::ranges::any_of(handlers_, hasUntold);
}

// ---- Going out

std::vector<Switchboard::ArrivedDescriptor>::iterator Switchboard::findArrived(const message& msg) {
  const auto number = msg.get(field::descriptor);
  return number ? std::ranges::find(arrived_, *number, &ArrivedDescriptor::number) : arrived_.end();
}

UniqueFd Switchboard::takeDescriptor(const message& msg) {
  const auto found = findArrived(msg);
  if (found == arrived_.end()) return UniqueFd();
  UniqueFd descriptor = std::move(found->fd);
  // Its number is the handler's from now on, to be given away as any other.
  found->number = noNumber;
  return descriptor;
}

UniqueFd Switchboard::adoptDescriptor(message& msg) {
  const auto number = msg.get(field::descriptor);
  if (!number) return UniqueFd();
  if (*number <= INT_MAX) {
    const int fd = static_cast<int>(*number);
    // Only this one failure says that there is no such descriptor: with any other it must be closed some time.
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) return UniqueFd(fd);
  }
  msg.remove(field::descriptor);
  return UniqueFd();
}

// A message that goes out again with the descriptor that it came with takes it along.
UniqueFd Switchboard::takeOutgoingDescriptor(message& msg) {
  const auto found = findArrived(msg);
  if (found == arrived_.end()) return adoptDescriptor(msg);
  if (!found->fd) msg.remove(field::descriptor);
  return std::move(found->fd);
}

std::optional<Switchboard::Departure> Switchboard::prepare(std::uint32_t handlerId, message& msg) {
  UniqueFd descriptor = takeOutgoingDescriptor(msg);
  clearBusFields(msg);
  const auto peer = msg.popFront(field::destination);
  if (!peer || !msg.pushFront(field::sender, handlerId)) return std::nullopt;
  return Departure{*peer, std::move(descriptor)};
}

bool Switchboard::depart(Departure departure, const message& msg) {
  return link_.send(FrameKind::message, departure.peer, msg.flattened(), std::move(departure.descriptor));
}

void Switchboard::send(const Handler& from, message msg) {
  auto departure = prepare(from.id_, msg);
  if (departure) depart(std::move(*departure), msg);
}

PostId Switchboard::post(const Handler& from, message msg, ReplyCallback callback, std::uint32_t timeoutMs) {
  auto departure = prepare(from.id_, msg);
  const std::uint32_t peer = departure ? departure->peer : brokerId;
  const Posts::Ticket ticket = posts_.add(from, {from.id_, peer}, std::move(callback), timeoutMs);
  const bool sent = departure && posts_.pending() <= limits_.maxPosts &&
                    msg.insert(field::requestNumber, ticket.number) && depart(std::move(*departure), msg);
  if (!sent) posts_.fail(ticket.number, error::unreachable);
  return ticket.id;
}

void Switchboard::reply(std::uint32_t handlerId, const message& request, message answer) {
  UniqueFd descriptor = takeOutgoingDescriptor(answer);
  const auto number = request.get(field::requestNumber);
  const auto path = request.get(field::sender);
  if (!number || isReply(request) || !path || path->empty()) return;
  answer.insert(field::requestNumber, *number);
  answer.insert(field::isReply, true);
  answer.insert_vector(field::sender, std::array{handlerId});
  if (!answer.insert_vector(field::destination, std::span(*path).subspan(1))) return;
  depart({path->front(), std::move(descriptor)}, answer);
}

message Switchboard::exchange(const Handler& from, message msg, std::uint32_t timeoutMs) {
  auto departure = prepare(from.id_, msg);
  if (!departure || exchange_ != nullptr) return unreachable();
  Exchange wait{posts_.reserveNumber(), {from.id_, departure->peer}, std::nullopt};
  if (!msg.insert(field::requestNumber, wait.number) || !depart(std::move(*departure), msg)) return unreachable();
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  exchange_ = &wait;
  while (!wait.reply) {
    const BusLink::Wait waited = link_.waitForFrames(deadline);
    if (wait.reply) break;
    if (waited == BusLink::Wait::timedOut) wait.reply = errorMsg(error::timeout, "timeout");
    const bool full = kept_.size() >= limits_.maxKept || keptBytes_ >= maxQueueBytes;
    if (waited == BusLink::Wait::lost || full) wait.reply = unreachable();
  }
  exchange_ = nullptr;
  return std::move(*wait.reply);
}

// ---- Coming in

void Switchboard::onFrame(BusLink::Arrival arrival) {
  switch (arrival.kind) {
    case FrameKind::message:
      if (auto arrived = receive(arrival)) onMessage(std::move(*arrived));
      break;
    case FrameKind::bounced:
      onBounced(arrival.peer, arrival.payload);
      break;
    case FrameKind::control:
      onControlAnswer(arrival.payload);
      break;
    case FrameKind::observed:
      onObserved(arrival.payload);
      break;
  }
}

std::optional<Switchboard::Message> Switchboard::receive(BusLink::Arrival& arrival) {
  Message arrived{arrival.peer, {}, std::move(arrival.descriptor)};
  if (!arrived.content.unflatten(arrival.payload)) return std::nullopt;
  if (!arrived.content.has(field::descriptor)) {
    arrived.descriptor.reset();
  } else if (!arrived.descriptor) {
    arrived.content.remove(field::descriptor);
  } else {
    arrived.content.insert(field::descriptor, static_cast<std::uint32_t>(arrived.descriptor.get()));
  }
  if (!arrived.content.pushFront(field::sender, arrived.peer)) return std::nullopt;
  return arrived;
}

void Switchboard::onMessage(Message arrived) {
  if (exchange_ != nullptr && isAwaited(arrived)) {
    arrived.content.popFront(field::destination);
    if (arrived.descriptor) arrived_.emplace_back(std::move(arrived.descriptor));
    exchange_->reply = std::move(arrived.content);
  } else if (exchange_ != nullptr || !kept_.empty()) {
    keep(std::move(arrived));
  } else {
    dispatch(std::move(arrived));
  }
}

bool Switchboard::isAwaited(const Message& arrived) const {
  const Exchange& wait = *exchange_;
  if (wait.reply || !isReply(arrived.content)) return false;
  if (arrived.content.get(field::requestNumber) != wait.number) return false;
  if (arrived.peer != wait.address.peer && wait.address.peer < firstGroup) return false;
  const auto path = arrived.content.get(field::destination);
  return path && !path->empty() && path->front() == wait.address.handler;
}

void Switchboard::keep(Message arrived) {
  keptBytes_ += arrived.content.max_length();
  kept_.push_back(std::move(arrived));
}

// Those that are kept now; what comes meanwhile is left for the next turn.
void Switchboard::dispatchKept() {
  if (kept_.empty()) return;
  for (std::size_t count = kept_.size(); count > 0; --count) {
    Message next = std::move(kept_.front());
    kept_.pop_front();
    keptBytes_ -= next.content.max_length();
    dispatch(std::move(next));
  }
}

void Switchboard::dispatch(Message arrived) {
  const auto before = static_cast<std::ptrdiff_t>(arrived_.size());
  if (arrived.descriptor) arrived_.emplace_back(std::move(arrived.descriptor));
  message& msg = arrived.content;
  const std::uint32_t id = msg.popFront(field::destination).value_or(looper_.id_);
  const auto found = handlers_.find(id);
  if (found != handlers_.end()) {
    found->second->handle(msg);
  } else {
    reply(id, msg, errorMsg(error::noSuchService, "no such service"));
  }
  arrived_.erase(arrived_.begin() + before, arrived_.end());
}

bool Switchboard::completePost(const Handler& at, const message& reply) {
  const auto number = reply.get(field::requestNumber);
  const auto path = reply.get(field::sender);
  if (!number || !path || path->empty()) return false;
  return posts_.complete(*number, {at.id_, path->front()}, reply);
}

// The payload is the message as it was sent. A reply that came back is nobody's loss here.
void Switchboard::onBounced(std::uint32_t peer, std::span<const std::uint8_t> payload) {
  message returned;
  if (!returned.unflatten(payload) || isReply(returned)) return;
  const auto number = returned.get(field::requestNumber);
  if (!number) return onUndelivered(peer, returned);
  if (exchange_ != nullptr && exchange_->number == *number && exchange_->address.peer == peer) {
    exchange_->reply = unreachable();
  } else {
    posts_.failAt(*number, peer, error::unreachable);
  }
}

// What was told to a subscriber who is there no longer. While an exchange waits nothing else runs; the next one comes
// back too.
void Switchboard::onUndelivered(std::uint32_t peer, const message& returned) {
  const auto path = returned.get(field::sender);
  if (exchange_ != nullptr || !path || path->empty()) return;
  const auto found = handlers_.find(path->front());
  if (found != handlers_.end()) found->second->forgetSubscribers(std::array{peer});
}

void Switchboard::onObserved(std::span<const std::uint8_t> payload) const {
  if (!observer_ || payload.size() < observedHeaderBytes) return;
  const std::uint8_t* header = payload.data();
  observer_(loadLe32(header), loadLe32(header + 4), static_cast<FrameKind>(loadLe32(header + 8)),
            payload.subspan(observedHeaderBytes));
}

// ---- The broker

void Switchboard::onLinked(std::uint32_t) {
  for (const std::uint32_t group : groups_)
    sendGroup(control::joinGroup, group);
  forEachHandler([](Handler& handler) { handler.linked(); });
}

void Switchboard::onUnlinked() {
  posts_.failAll(error::unreachable);
  for (ControlPost& post : controls_)
    endControl(post, unreachable());
  forEachHandler([](Handler& handler) { handler.unlinked(); });
}

void Switchboard::joinGroup(std::uint32_t group) {
  if (groups_.insert(group).second) sendGroup(control::joinGroup, group);
}

void Switchboard::leaveGroup(std::uint32_t group) {
  if (groups_.erase(group) != 0) sendGroup(control::leaveGroup, group);
}

// Without a link it is not sent; joining sends it.
void Switchboard::sendGroup(std::uint32_t operation, std::uint32_t group) {
  message request;
  request.insert(operationField, operation);
  request.insert(groupField, group);
  link_.send(FrameKind::control, brokerId, request.flattened(), UniqueFd());
}

void Switchboard::control(const message& request, ReplyCallback callback, std::uint32_t timeoutMs) {
  controls_.emplace_back();
  const auto place = std::prev(controls_.end());
  place->operation = request.get(operationField).value_or(0);
  place->callback = std::move(callback);
  place->answer = errorMsg(error::timeout, "timeout");
  place->ended = false;
  place->timer.setCallback([this, place] {
    std::list<ControlPost> ended;
    ended.splice(ended.end(), controls_, place);
    if (place->callback) place->callback(place->answer);
  });
  place->timer.start(timers_, timeoutMs);
  if (!link_.send(FrameKind::control, brokerId, request.flattened(), UniqueFd())) endControl(*place, unreachable());
}

void Switchboard::endControl(ControlPost& post, message answer) {
  post.answer = std::move(answer);
  post.ended = true;
  post.timer.start(timers_, 0);
}

// The broker answers in order and names the operation. An answer that nobody waits for is the one to a group.
void Switchboard::onControlAnswer(std::span<const std::uint8_t> payload) {
  message answer;
  if (!answer.unflatten(payload)) return;
  const std::uint32_t operation = answer.get(operationField).value_or(0);
  const auto isFor = [operation](const ControlPost& post) { return post.operation == operation && !post.ended; };
  const auto found = std::ranges::find_if(controls_, isFor);
  if (found != controls_.end()) {
    endControl(*found, std::move(answer));
  } else if (isError(answer)) {
    logLine("bus: the broker refuses: ", getError(answer));
  }
}

// ---- The loop

bool Switchboard::finishBusyTurn() {
  arrived_.clear();
  dispatchKept();
  const bool more = link_.resume();
  if (untold_) flushHandlers();
  link_.flush();
  return more || !kept_.empty();
}

}  // namespace tn
