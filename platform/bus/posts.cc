#include "platform/bus/posts.h"

#include <utility>

#include "platform/bus/frame.h"
#include "platform/bus/looper.h"

namespace tn {

namespace {

message failureMessage(std::uint32_t code) {
  return errorMsg(code, code == error::timeout ? "timeout" : "unreachable");
}

}  // namespace

// What the callbacks hold may still come back here while it is destroyed.
Posts::~Posts() {
  std::exchange(posts_, {}).clear();
}

// The low half of the id is the request number: never 0, and none that is pending still.
PostId Posts::nextId() {
  do {
    ++lastId_;
  } while (static_cast<std::uint32_t>(lastId_) == 0 || posts_.contains(static_cast<std::uint32_t>(lastId_)));
  return lastId_;
}

std::uint32_t Posts::reserveNumber() {
  return static_cast<std::uint32_t>(nextId());
}

Posts::Post& Posts::emplace(std::uint32_t number) {
  if (spare_.empty()) return posts_[number];
  Table::node_type node = std::move(spare_.back());
  spare_.pop_back();
  node.key() = number;
  return posts_.insert(std::move(node)).position->second;
}

Posts::Ticket Posts::add(const Handler& owner, const Address& address, ReplyCallback callback,
                         std::uint32_t timeoutMs) {
  const PostId id = nextId();
  const auto number = static_cast<std::uint32_t>(id);
  Post& post = emplace(number);
  post.id = id;
  post.owner = &owner;
  post.address = address;
  post.callback = std::move(callback);
  post.failure = error::timeout;
  post.timer.setCallback([this, number] { expire(number); });
  post.timer.start(timers_, timeoutMs);
  return {id, number};
}

// Takes the post out of the table and keeps its node for the next one.
ReplyCallback Posts::remove(Table::iterator place) {
  ReplyCallback callback = std::exchange(place->second.callback, nullptr);
  place->second.timer.cancel();
  Table::node_type node = posts_.extract(place);
  if (spare_.size() < keptNodes) spare_.push_back(std::move(node));
  return callback;
}

bool Posts::complete(std::uint32_t number, const Address& address, const message& reply) {
  const auto place = posts_.find(number);
  if (place == posts_.end()) return false;
  const Address& expected = place->second.address;
  const bool anyone = expected.peer >= firstGroup;
  if (expected.handler != address.handler || (!anyone && expected.peer != address.peer)) return false;
  const ReplyCallback callback = remove(place);
  if (callback) callback(reply);
  return true;
}

void Posts::failPost(Post& post, std::uint32_t code) {
  post.failure = code;
  post.timer.start(timers_, 0);
}

void Posts::fail(std::uint32_t number, std::uint32_t code) {
  const auto place = posts_.find(number);
  if (place != posts_.end()) failPost(place->second, code);
}

void Posts::failAt(std::uint32_t number, std::uint32_t peer, std::uint32_t code) {
  const auto place = posts_.find(number);
  if (place != posts_.end() && place->second.address.peer == peer) failPost(place->second, code);
}

void Posts::failAll(std::uint32_t code) {
  for (auto& [number, post] : posts_)
    failPost(post, code);
}

void Posts::expire(std::uint32_t number) {
  const auto place = posts_.find(number);
  const std::uint32_t code = place->second.failure;
  const ReplyCallback callback = remove(place);
  if (callback) callback(failureMessage(code));
}

void Posts::cancel(PostId id) {
  const auto place = posts_.find(static_cast<std::uint32_t>(id));
  if (place != posts_.end() && place->second.id == id) (void)remove(place);
}

void Posts::cancelAllOf(const Handler& owner) {
  std::vector<ReplyCallback> dropped;  // what they hold may come back here when it is destroyed
  for (auto place = posts_.begin(); place != posts_.end();) {
    const auto next = std::next(place);
    if (place->second.owner == &owner) dropped.push_back(remove(place));
    place = next;
  }
}

}  // namespace tn
