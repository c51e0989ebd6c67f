#include "platform/bus/handler.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/bus/frame.h"
#include "platform/bus/looper.h"
#include "platform/bus/switchboard.h"

namespace tn {

namespace {

using Path = std::vector<std::uint32_t>;

constexpr std::size_t maxSubscribers = 1024;
// A path that is kept; real ones have three or four elements.
constexpr std::size_t maxSubscriberPath = 64;
// Changes that wait for the end of the turn; with more they are told at once.
constexpr std::size_t maxUntold = 1024;

message notAllowed() {
  return errorMsg(error::notAllowed, "not allowed");
}

bool beginsWith(const Path& path, std::span<const std::uint32_t> beginning) {
  return path.size() >= beginning.size() && std::ranges::equal(std::span(path).first(beginning.size()), beginning);
}

message addressed(const Path& path) {
  message msg;
  msg.insert_vector(field::destination, path);
  return msg;
}

std::uint32_t objectOf(const message& msg) {
  return msg.get(field::objectNumber).value_or(0);
}

}  // namespace

struct Handler::Subscriptions {
  std::vector<Path> subscribers;
  std::vector<message> untold;
};

Handler::Handler() = default;

Handler::~Handler() {
  if (looper_ != nullptr) looper_->switchboard().forget(*this);
}

// ---- What arrives

void Handler::handle(message& msg) {
  if (isReply(msg)) return handleReply(msg);
  const auto path = msg.get(field::destination);
  if (path && !path->empty()) return handleBrkpath(msg);
  handleCmd(msg);
}

void Handler::handleBrkpath(message& msg) {
  replyError(msg, error::noSuchService, "no such service");
}

void Handler::handleReply(message& msg) {
  if (looper_ != nullptr) looper_->switchboard().completePost(*this, msg);
}

// The slot may destroy this handler; the answer is sent all the same.
void Handler::handleCmd(message& msg) {
  Looper* const looper = looper_;
  const std::uint32_t id = id_;
  message answer = runSlot(msg);
  if (looper != nullptr) looper->switchboard().reply(id, msg, std::move(answer));
}

message Handler::runSlot(message& msg) {
  const std::uint32_t code = msg.get(field::command).value_or(0);
  switch (code) {
    case command::getPolicies:
      return cmdGetPolicies(msg);
    case command::get:
      return cmdGet(msg);
    case command::set:
      return cmdSet(msg);
    case command::reset:
      return cmdReset(msg);
    case command::getObj:
      return cmdGetObj(msg, objectOf(msg));
    case command::setObj:
      return cmdSetObj(msg, objectOf(msg));
    case command::getAll:
      return cmdGetAll(msg);
    case command::stopGetAll:
      return cmdStopGetAll(msg);
    case command::addObj:
      return cmdAddObj(msg);
    case command::removeObj:
      return cmdRemoveObj(msg, objectOf(msg));
    case command::moveObj:
      return cmdMoveObj(msg, objectOf(msg));
    case command::getCount:
      return cmdGetCount(msg);
    case command::shutdown:
      return cmdShutdown(msg);
    case command::disconnected:
      return cmdDisconnected(msg);
    default:
      return cmdUnknown(msg, code);
  }
}

message Handler::cmdGetPolicies(message& msg) {
  return cmdUnknown(msg, command::getPolicies);
}
message Handler::cmdGet(message& msg) {
  return cmdUnknown(msg, command::get);
}
message Handler::cmdSet(message& msg) {
  return cmdUnknown(msg, command::set);
}
message Handler::cmdReset(message& msg) {
  return cmdUnknown(msg, command::reset);
}
message Handler::cmdGetObj(message& msg, std::uint32_t) {
  return cmdUnknown(msg, command::getObj);
}
message Handler::cmdSetObj(message& msg, std::uint32_t) {
  return cmdUnknown(msg, command::setObj);
}
message Handler::cmdGetAll(message& msg) {
  return cmdUnknown(msg, command::getAll);
}
message Handler::cmdStopGetAll(message& msg) {
  return cmdUnknown(msg, command::stopGetAll);
}
message Handler::cmdAddObj(message& msg) {
  return cmdUnknown(msg, command::addObj);
}
message Handler::cmdRemoveObj(message& msg, std::uint32_t) {
  return cmdUnknown(msg, command::removeObj);
}
message Handler::cmdMoveObj(message& msg, std::uint32_t) {
  return cmdUnknown(msg, command::moveObj);
}
message Handler::cmdGetCount(message& msg) {
  return cmdUnknown(msg, command::getCount);
}

message Handler::cmdUnknown(message&, std::uint32_t) {
  return errorMsg(error::unknownCommand, "unknown command");
}

// The first element of the sender path is the broker's word; ids below firstFreeId are given to trusted users alone.
message Handler::cmdShutdown(message& msg) {
  const auto path = msg.get(field::sender);
  const bool trusted = path && !path->empty() && path->front() < firstFreeId;
  if (looper_ == nullptr || !trusted || !isAllowed(msg)) return notAllowed();
  looper_->quit();
  return {};
}

message Handler::cmdDisconnected(message& msg) {
  const auto path = msg.get(field::sender);
  if (path && !path->empty()) forgetSubscribers(*path);
  return {};
}

bool Handler::shouldNotify(const message&) {
  return false;
}
void Handler::attached(Looper&, std::uint32_t) {}
void Handler::detached() {}
void Handler::subscribed(const message&) {}
void Handler::unsubscribed(const message&) {}
bool Handler::isAllowed(const message& msg) const {
  return policies::is_allowed(msg);
}

// ---- What is sent

void Handler::dropDescriptor(message& msg) {
  if (Looper* looper = getLooper()) {
    looper->switchboard().dropDescriptor(msg);
  } else {
    (void)Switchboard::adoptDescriptor(msg);
  }
}

void Handler::sendMessage(message msg) {
  if (looper_ != nullptr) return looper_->switchboard().send(*this, std::move(msg));
  dropDescriptor(msg);
}

PostId Handler::postMessage(message msg, ReplyCallback callback, std::uint32_t timeoutMs) {
  if (looper_ != nullptr) {
    return looper_->switchboard().post(*this, std::move(msg), std::move(callback), timeoutMs);
  }
  dropDescriptor(msg);
  return 0;
}

message Handler::exchangeMessage(message msg, std::uint32_t timeoutMs) {
  if (looper_ != nullptr) return looper_->switchboard().exchange(*this, std::move(msg), timeoutMs);
  dropDescriptor(msg);
  return errorMsg(error::unreachable, "unreachable");
}

void Handler::cancelPost(PostId id) {
  if (looper_ != nullptr) looper_->switchboard().cancelPost(id);
}

UniqueFd Handler::takeDescriptor(const message& msg) {
  return looper_ != nullptr ? looper_->switchboard().takeDescriptor(msg) : UniqueFd();
}

UniqueFd Handler::takeDescriptor(message& msg) {
  UniqueFd descriptor = takeDescriptor(std::as_const(msg));
  msg.remove(field::descriptor);
  return descriptor;
}

void Handler::reply(const message& request, message answer) {
  if (looper_ != nullptr) return looper_->switchboard().reply(id_, request, std::move(answer));
  dropDescriptor(answer);
}

void Handler::replyError(const message& request, std::uint32_t code, std::string_view text) {
  reply(request, errorMsg(code, text));
}

// ---- Subscriptions

bool Handler::subscribe(const message& request) {
  auto path = request.get(field::sender);
  if (!path || path->empty() || path->size() > maxSubscriberPath) return false;
  if (!subscriptions_) subscriptions_ = std::make_unique<Subscriptions>();
  std::vector<Path>& all = subscriptions_->subscribers;
  if (std::ranges::find(all, *path) != all.end()) return true;
  if (all.size() >= maxSubscribers) return false;
  const message subscriber = addressed(*path);
  all.push_back(std::move(*path));
  subscribed(subscriber);
  return true;
}

void Handler::unsubscribe(const message& request) {
  const auto path = request.get(field::sender);
  if (!path || !subscriptions_) return;
  std::vector<Path>& all = subscriptions_->subscribers;
  const auto found = std::ranges::find(all, *path);
  if (found == all.end()) return;
  all.erase(found);
  unsubscribed(addressed(*path));
}

void Handler::forgetSubscribers(std::span<const std::uint32_t> path) {
  if (!subscriptions_) return;
  std::vector<Path> forgotten;
  std::erase_if(subscriptions_->subscribers, [&](Path& subscriber) {
    if (!beginsWith(subscriber, path)) return false;
    forgotten.push_back(subscriber);
    return true;
  });
  for (const Path& subscriber : forgotten)
    unsubscribed(addressed(subscriber));
}

std::size_t Handler::subscriberCount() const {
  return subscriptions_ ? subscriptions_->subscribers.size() : 0;
}

void Handler::notify(message change) {
  dropDescriptor(change);
  if (subscriberCount() == 0) return;
  if (shouldNotify(change)) return tell(change);
  subscriptions_->untold.push_back(std::move(change));
  if (looper_ != nullptr) looper_->switchboard_->expectUntold();
  if (subscriptions_->untold.size() >= maxUntold) flush();
}

void Handler::tell(const message& change) {
  const std::vector<Path> subscribers = subscriptions_->subscribers;
  for (const Path& path : subscribers) {
    message copy = change;
    if (copy.insert_vector(field::destination, path)) sendMessage(std::move(copy));
  }
}

bool Handler::hasUntold() const {
  return subscriptions_ && !subscriptions_->untold.empty();
}

void Handler::flush() {
  flushNotifies();
}

void Handler::flushNotifies() {
  if (!subscriptions_) return;
  for (const message& change : std::exchange(subscriptions_->untold, {}))
    tell(change);
}

}  // namespace tn
