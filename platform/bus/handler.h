#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "platform/bus/message.h"
#include "platform/unique_fd.h"

namespace tn {

class Looper;
class Switchboard;

// Posts are known by a number that is never used twice; 0 is none.
using PostId = std::uint64_t;
// Runs exactly once, from the loop: with the reply, or with an error message ("timeout", "unreachable").
using ReplyCallback = std::function<void(const message& reply)>;

// Base of everything that messages can be addressed to: registered with a Looper under an id, it is given each message
// whose path led to that id, path and sender already as the handler is to see them (its own id taken off the
// destination).
//
// A command slot returns the reply; the base sends it back when the sender asked for one and drops it otherwise. An
// error made by `errorMsg` is a reply like any other. Every slot that a handler does not override answers "unknown
// command".
//
// Destroying a handler takes it off its looper and cancels its posts; it may be destroyed in the middle of its own slot
// or callback. One that is not registered with a looper sends nothing: its messages are dropped, its posts never end
// (id 0).
//
// Descriptors. u32 field 0xff0015 of a message stands for an open descriptor.
// - Sending: the descriptor is given away with the call, whether or not the message can be sent. Its number must not be
//   used after it.
// - Receiving: the field is there only when a descriptor came with it, and its value is this process's own number. The
//   library keeps owning it until `takeDescriptor` is called, and closes what was not taken when the handler or the
//   reply callback returns (for the reply of exchangeMessage: when control returns to the loop). A message that is kept
//   longer keeps no descriptor; the number in it means nothing any more.
// - Sending a message on (or back) in the call that received it takes its descriptor along.
class Handler {
 public:
  Handler();
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;
  virtual ~Handler();

  virtual void loadPermData() {}
  virtual void savePermData() {}
  // Every message that reaches the handler. The base sends replies to handleReply, messages with a path left to
  // handleBrkpath, and the others to handleCmd.
  virtual void handle(message& msg);
  // A message whose destination goes on below this handler: answered with 0xfe0006 "no such service".
  virtual void handleBrkpath(message& msg);
  // Runs the callback of the post that the reply belongs to; a late reply finds none and is dropped.
  virtual void handleReply(message& msg);
  // Chooses the slot by the command field and sends its answer.
  virtual void handleCmd(message& msg);
  virtual message cmdGetPolicies(message& msg);
  virtual message cmdGet(message& msg);
  virtual message cmdSet(message& msg);
  virtual message cmdReset(message& msg);
  virtual message cmdGetObj(message& msg, std::uint32_t object);
  virtual message cmdSetObj(message& msg, std::uint32_t object);
  virtual message cmdGetAll(message& msg);
  virtual message cmdStopGetAll(message& msg);
  virtual message cmdAddObj(message& msg);
  virtual message cmdRemoveObj(message& msg, std::uint32_t object);
  virtual message cmdMoveObj(message& msg, std::uint32_t object);
  virtual message cmdGetCount(message& msg);
  virtual message cmdUnknown(message& msg, std::uint32_t command);
  // The base ends the loop when `isAllowed` says so and the sender is a program with a fixed id, which the broker gives
  // only to its own user and to root; to others it answers 0xfe0009 "not allowed".
  virtual message cmdShutdown(message& msg);
  // Whether a change is to be told to subscribers at once; the base says no, so it is told at the end of the turn.
  virtual bool shouldNotify(const message& change);
  // The handler was registered with a looper, or taken off it by the looper (not by its own destructor).
  virtual void attached(Looper& looper, std::uint32_t id);
  virtual void detached();
  // A session ended (the notice of group 0xff0001, which reaches all handlers of a program that joined the group): the
  // base forgets those who subscribed through it.
  virtual message cmdDisconnected(message& msg);
  // The link to the broker was made, or lost.
  virtual void linked() {}
  virtual void unlinked() {}
  // Somebody subscribed, or was forgotten; the message holds the path of the subscriber as its destination.
  virtual void subscribed(const message& subscriber);
  virtual void unsubscribed(const message& subscriber);
  virtual bool isAllowed(const message& msg) const;
  // Sends without wanting a reply. A message that cannot be delivered is dropped; a descriptor in it is closed.
  virtual void sendMessage(message msg);
  // Sends and waits for the reply, at the most `timeoutMs`; everything else that arrives meanwhile is kept and handled
  // later, in order. Timers that are armed afterwards count from the end of the wait. Returns the reply or an error
  // message.
  virtual message exchangeMessage(message msg, std::uint32_t timeoutMs);
  // Runs at the end of each turn in which something was left to tell.
  virtual void flush();

  // Sends, and gives the reply to `callback`. Never calls it before postMessage has returned.
  PostId postMessage(message msg, ReplyCallback callback, std::uint32_t timeoutMs);
  // After it the callback never runs. A post that is no longer pending is left alone.
  void cancelPost(PostId id);
  // The descriptor that came with the message, now the caller's; none when none came, or when it was taken before.
  // From a message that can be changed the field is taken, too.
  [[nodiscard]] UniqueFd takeDescriptor(const message& msg);
  [[nodiscard]] UniqueFd takeDescriptor(message& msg);

  // Answers a message by hand, for handlers whose answer comes later; `request` may be kept as a copy for that. Nothing
  // is sent when the request did not ask for a reply.
  void reply(const message& request, message answer);
  void replyError(const message& request, std::uint32_t code, std::string_view text);

  // Subscriptions: whoever asks (in a cmdGetAll that supports it) is told of changes until it asks no longer, its
  // session ends, or a change cannot be delivered. False: there are too many subscribers, or the request names no
  // sender.
  bool subscribe(const message& request);
  void unsubscribe(const message& request);
  // Tells a change to every subscriber, each with a copy. A descriptor in it is closed.
  void notify(message change);
  // Sends the changes that have not been told yet.
  void flushNotifies();
  [[nodiscard]] std::size_t subscriberCount() const;

  [[nodiscard]] std::uint32_t handlerId() const { return id_; }

 private:
  friend class Looper;
  friend class Switchboard;
  struct Subscriptions;
  message runSlot(message& msg);
  // Closes the descriptor of a message that will not be sent.
  static void dropDescriptor(message& msg);
  // Forgets the subscribers whose path begins like that.
  void forgetSubscribers(std::span<const std::uint32_t> path);
  void tell(const message& change);
  [[nodiscard]] bool hasUntold() const;

  Looper* looper_ = nullptr;
  std::uint32_t id_ = 0;
  std::unique_ptr<Subscriptions> subscriptions_;  // made by the first subscriber
};

}  // namespace tn
