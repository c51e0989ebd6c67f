#include "services/sysd/status_handler.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/policies.h"
#include "services/sysd/errors.h"
#include "services/sysd/fields.h"

namespace sysd {
namespace {

constexpr std::array briefObjects = {Object::system, Object::memory, Object::storage, Object::interfaces};

tn::message bad(std::string_view why) {
  return tn::errorMsg(error::badRequest, why);
}

std::optional<Object> objectOf(std::uint32_t number) {
  if (number < 1 || number > objectCount) return std::nullopt;
  return static_cast<Object>(number);
}

tn::message listOf(const std::vector<tn::message>& objects) {
  tn::message msg;
  msg.insert_vector(field::all, objects);
  return msg;
}

// The objects that a subscription names, each once; nothing when one of them is none.
std::optional<std::vector<Object>> readObjects(const std::vector<std::uint32_t>& numbers) {
  std::vector<Object> objects;
  for (const std::uint32_t number : numbers) {
    const auto object = objectOf(number);
    if (!object) return std::nullopt;
    if (std::ranges::find(objects, *object) == objects.end()) objects.push_back(*object);
  }
  return objects;
}

}  // namespace

StatusHandler::StatusHandler(Source& source, tn::TimerQueue& timers)
    : board_(source), timers_(timers), tick_([this] { onTick(); }) {}

void StatusHandler::handleCmd(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::read) && msg.get(tn::field::command) != tn::command::disconnected) {
    return replyError(msg, tn::error::notAllowed, "not allowed");
  }
  switch (msg.get(tn::field::command).value_or(0)) {
    case command::subscribe:
      return reply(msg, onSubscribe(msg));
    case command::unsubscribe:
      return reply(msg, onUnsubscribe(msg));
    default:
      return Handler::handleCmd(msg);
  }
}

tn::message StatusHandler::cmdGetObj(tn::message& /*msg*/, std::uint32_t number) {
  const auto object = objectOf(number);
  if (!object) return tn::errorMsg(tn::error::noSuchService, "no such object");
  return board_.get(*object, timers_.now(), answerAge).object;
}

tn::message StatusHandler::cmdGetAll(tn::message& /*msg*/) {
  std::vector<tn::message> objects;
  objects.reserve(briefObjects.size());
  for (const Object object : briefObjects)
    objects.push_back(board_.get(object, timers_.now(), answerAge).object);
  return listOf(objects);
}

tn::message StatusHandler::onSubscribe(tn::message& msg) {
  const auto numbers = msg.get(field::subscription::objects);
  if (!numbers || numbers->empty()) return bad("the objects (u32 array 1) are missing");
  if (numbers->size() > objectCount) return bad("there are five objects (u32 array 1)");
  auto objects = readObjects(*numbers);
  if (!objects) return tn::errorMsg(tn::error::noSuchService, "no such object");
  const std::uint32_t interval = msg.get(field::subscription::interval).value_or(defaultIntervalMs);
  if (interval < tickMs || interval > longestIntervalMs) return bad("the interval (u32 2) is 500 to 3600000 ms");
  SubscriberList::Subscriber subscriber;
  subscriber.path = msg.get(tn::field::sender).value_or(SubscriberList::Path());
  subscriber.objects = std::move(*objects);
  subscriber.every = (interval + tickMs - 1) / tickMs;
  tn::message answer = listOf(news(subscriber));
  answer.insert(field::subscription::interval, subscriber.every * tickMs);
  switch (list_.put(std::move(subscriber))) {
    case SubscriberList::Taken::tooMany:
      return tn::errorMsg(error::tooMuch, "too many subscribers");
    case SubscriberList::Taken::tooManyOfSession:
      return tn::errorMsg(error::tooMuch, "too many subscribers in this session");
    case SubscriberList::Taken::taken:
      break;
  }
  if (!subscribe(msg)) {
    list_.remove(msg.get(tn::field::sender).value_or(SubscriberList::Path()));
    return bad("the path to the subscriber is too long");
  }
  if (!tick_.armed()) tick_.start(timers_, tickMs);
  return answer;
}

tn::message StatusHandler::onUnsubscribe(tn::message& msg) {
  unsubscribe(msg);
  return {};
}

void StatusHandler::unsubscribed(const tn::message& subscriber) {
  list_.remove(subscriber.get(tn::field::destination).value_or(SubscriberList::Path()));
  if (list_.empty()) tick_.cancel();
}

// Programs that come back have other numbers, so the paths lead nowhere.
void StatusHandler::unlinked() {
  std::vector<SubscriberList::Path> paths;
  for (const SubscriberList::Subscriber& subscriber : list_.all())
    paths.push_back(subscriber.path);
  for (const SubscriberList::Path& path : paths) {
    tn::message request;
    request.insert_vector(tn::field::sender, path);
    unsubscribe(request);
  }
}

void StatusHandler::onTick() {
  ++ticks_;
  for (SubscriberList::Subscriber& subscriber : list_.all()) {
    if (ticks_ % subscriber.every == 0) push(subscriber);
  }
  tick_.start(timers_, tickMs);
}

void StatusHandler::push(SubscriberList::Subscriber& subscriber) {
  const std::vector<tn::message> changed = news(subscriber);
  if (changed.empty()) return;
  tn::message told = listOf(changed);
  told.insert(tn::field::command, command::push);
  if (told.insert_vector(tn::field::destination, subscriber.path)) sendMessage(std::move(told));
}

std::vector<tn::message> StatusHandler::news(SubscriberList::Subscriber& subscriber) {
  std::vector<tn::message> changed;
  for (const Object object : subscriber.objects) {
    const Board::Entry& entry = board_.get(object, timers_.now(), answerAge);
    std::uint64_t& told = subscriber.told[static_cast<std::size_t>(object) - 1];
    if (std::exchange(told, entry.revision) != entry.revision) changed.push_back(entry.object);
  }
  return changed;
}

}  // namespace sysd
