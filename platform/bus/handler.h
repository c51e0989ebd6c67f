#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "platform/bus/message.h"

namespace tn {

class Looper;

// Posts are known by a number that is never used twice; 0 is none.
using PostId = std::uint64_t;
// Runs exactly once, from the loop: with the reply, or with an error message ("timeout", "unreachable").
using ReplyCallback = std::function<void(const message& reply)>;

// Base of everything that messages can be addressed to: registered with a Looper under an id, it is given each message
// whose path led to that id, path and sender already as the handler is to see them (its own id taken off the destination).
//
// A command slot returns the reply; the base sends it back when the sender asked for one and drops it otherwise. An
// error made by `errorMsg` is a reply like any other. Every slot that a handler does not override answers "unknown
// command".
//
// Destroying a handler takes it off its looper and cancels its posts.
class Handler {
 public:
  Handler() = default;
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
  // The base ends the loop when the sender's policies allow it.
  virtual message cmdShutdown(message& msg);
  // Whether a change is to be told to subscribers now; the base says no.
  virtual bool shouldNotify(const message& change);
  virtual void attached(Looper& looper, std::uint32_t id);
  virtual void detached();
  virtual message cmdDisconnected(message& msg);
  // The link to the broker was made, or lost.
  virtual void linked() {}
  virtual void unlinked() {}
  virtual void subscribed(const message& subscriber);
  virtual void unsubscribed(const message& subscriber);
  virtual bool isAllowed(const message& msg) const;
  // Sends without wanting a reply. A message that cannot be delivered is dropped; a descriptor in it is closed.
  virtual void sendMessage(message msg);
  // Sends and waits for the reply, at the most `timeoutMs`; everything else that arrives meanwhile is kept and handled
  // later, in order. Returns the reply or an error message.
  virtual message exchangeMessage(message msg, std::uint32_t timeoutMs);
  virtual void flush();

  // Sends, and gives the reply to `callback`. Never calls it before postMessage has returned.
  PostId postMessage(message msg, ReplyCallback callback, std::uint32_t timeoutMs);
  // After it the callback never runs. A post that is no longer pending is left alone.
  void cancelPost(PostId id);

  // Answers a message by hand, for handlers whose answer comes later; `request` may be kept as a copy for that. Nothing is
  // sent when the request did not ask for a reply.
  void reply(const message& request, message answer);
  void replyError(const message& request, std::uint32_t code, std::string_view text);
  void flushNotifies();

  [[nodiscard]] std::uint32_t handlerId() const { return id_; }

 private:
  friend class Looper;
  Looper* looper_ = nullptr;
  std::uint32_t id_ = 0;
};

}  // namespace tn
