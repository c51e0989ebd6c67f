#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "platform/bus/frame.h"
#include "platform/bus/handler.h"
#include "platform/bus/thin_runner.h"

namespace tn {

class BusLink;
class SocketLink;
class Switchboard;

// The event loop of a program and its place on the bus: one per process, on the stack of main. It is itself the handler
// of id 0, which every message without a further path reaches.
//
// It connects to the broker in the background and joins again, with a growing pause, whenever the broker goes away;
// pending posts then fail with "unreachable" and everything else goes on. Messages sent while there is no link fail the
// same way.
class Looper : public Handler {
 public:
  // Thirteen limits and times; 0 takes the default that is named behind each.
  struct Tuning {
    unsigned id;               // bus id to ask for; 0: any free one from 1000 up
    unsigned rejoinFirstMs;    // first pause before joining again; 20
    unsigned rejoinMaxMs;      // longest pause; 1000
    unsigned joinTimeoutMs;    // how long the broker may take to answer a join; 2000
    unsigned outQueueBytes;    // bytes waiting for the broker before messages are refused; 8 MiB
    unsigned readBufferBytes;  // one read from the broker; 64 KiB
    unsigned eventsPerWait;    // readiness events taken per wait; 64
    unsigned roundsPerTurn;    // times a cached socket is called again before the kernel is asked; 4
    unsigned framesPerTurn;    // frames handled before sockets get a turn; 256
    unsigned maxPosts;         // pending posts before one is refused as unreachable; 65536
    unsigned maxKept;          // messages kept while an exchange waits; 4096
    unsigned openFiles;        // descriptors wanted; the hard limit
    unsigned stopSignals;      // 1: SIGTERM and SIGINT are left as they are
  };

  // Raises the soft limit of open descriptors.
  explicit Looper(const Tuning& tuning = {});
  // For tests (tests/fakes): with this runner and this way to the broker.
  Looper(std::unique_ptr<ThinRunner> runner, std::unique_ptr<BusLink> link, const Tuning& tuning = {});
  ~Looper() override;

  [[nodiscard]] ThinRunner& runner() { return *runner_; }

  // Registers a handler under an id; it takes the place of one that had it. The handler is not owned.
  void addHandler(std::uint32_t id, Handler& handler);
  void removeHandler(std::uint32_t id);

  // Name told to the broker; the program's own name unless set before run().
  void setName(std::string name);
  // The id that the broker gave; 0 while there is no link.
  [[nodiscard]] std::uint32_t busId() const;
  void joinGroup(std::uint32_t group);
  void leaveGroup(std::uint32_t group);

  // Asks the broker itself: `request` holds the operation (u32 1) and its fields, see docs/bus-protocol.md. The
  // callback gets the broker's answer, or "timeout", or "unreachable" when there is no link or it is lost; never before
  // this has returned. Two requests of one operation are answered in their order.
  void control(const message& request, ReplyCallback callback, std::uint32_t timeoutMs);
  // Who is shown the frames that pass the broker, once the control operation `monitor` asked for them. The payload is a
  // flattened message as its sender sent it, unchecked, and a view that dies when the observer returns.
  using Observer =
      std::function<void(std::uint32_t from, std::uint32_t to, FrameKind kind, std::span<const std::uint8_t> payload)>;
  void setObserver(Observer observer);

  // Runs until quit(), cmdShutdown, SIGTERM or SIGINT. Before it returns, what is queued for the broker and the log is
  // written as far as it goes.
  void run();
  void quit() { quitting_ = true; }
  // For the end of the program, after run(): 0, or 1 when the loop could not go on, as the log then says.
  [[nodiscard]] int exitStatus() const { return broken_ ? 1 : 0; }
  // What run() does between two turns: delivers what exchangeMessage kept aside, closes descriptors that nobody took,
  // has handlers tell their subscribers, writes to the broker. True: messages are left over. For tests that turn the
  // loop by hand.
  bool finishTurn();

  // The base passes the notice that a session ended on to all handlers.
  message cmdDisconnected(message& msg) override;

 private:
  friend class Handler;
  friend class Switchboard;
  class StopSignals;

  Looper(std::unique_ptr<ThinRunner> runner, const Tuning& tuning);
  void start(std::unique_ptr<BusLink> link, const Tuning& tuning);
  [[nodiscard]] Switchboard& switchboard() { return *switchboard_; }

  std::unique_ptr<ThinRunner> runner_;
  std::unique_ptr<BusLink> link_;
  SocketLink* socketLink_ = nullptr;  // link_, when it is the real one
  std::unique_ptr<Switchboard> switchboard_;
  const bool leaveSignals_;
  bool quitting_ = false;
  bool broken_ = false;
};

// The process's looper and its runner: set by the constructor of Looper, cleared by its destructor.
[[nodiscard]] Looper* getLooper();
[[nodiscard]] ThinRunner* getRunner();

[[nodiscard]] message errorMsg(std::uint32_t code, std::string_view text);
[[nodiscard]] bool isError(const message& msg);
// The text of an error message, or its code in hexadecimal when it has no text; empty when it is no error.
[[nodiscard]] std::string getError(const message& msg);
[[nodiscard]] bool isReply(const message& msg);

namespace policies {
// Whether a message may do what needs a policy: its policies field is absent (a neighbour on the box) or not 0.
[[nodiscard]] bool is_allowed(const message& msg);
// Whether a message comes from a program of the system itself: it has neither the policies nor the user that the tunnel
// puts into every message of a session.
[[nodiscard]] bool isOfSystem(const message& msg);
// Whether the sender has a right, a bit of platform/policies.h. Programs of the system have all; a session has those in
// the policies of its login.
[[nodiscard]] bool holds(const message& msg, std::uint32_t right);
}  // namespace policies

}  // namespace tn
