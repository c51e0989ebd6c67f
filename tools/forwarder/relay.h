#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/bus/thin_runner.h"
#include "platform/bus/timer.h"
#include "platform/unique_fd.h"
#include "tools/forwarder/forwarding_header.h"

namespace forwarder {

// One client's connection: its request goes to the server's local listener with a forwarding header in front, and the
// response comes back. It carries one request; then it ends.
class Relay {
 public:
  static constexpr std::uint32_t headMs = 5000;    // for the client's request head
  static constexpr std::uint32_t serverMs = 3000;  // for the server's listener to have room
  static constexpr std::uint32_t retryMs = 20;
  static constexpr std::uint32_t idleMs = 30000;  // without a byte
  static constexpr std::uint32_t leaveMs = 2000;  // for the client to see the end

  // `client` is non-blocking. The runner must outlive this.
  Relay(UniqueFd client, std::uint32_t serverPort, std::uint32_t tag, tn::ThinRunner& runner);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay();

  // `ended` is called once, when it is over: the last thing that is done here, so it may destroy this. It may be called
  // before start returns.
  void start(std::function<void()> ended);

 private:
  enum class State : std::uint8_t {
    readingHead,  // the request head is awaited; the timer ends the relay
    connecting,   // the server's listener is full; the timer tries again
    relaying,     // bytes go both ways; the timer ends the relay
    leaving,      // all has been said; the client's end is awaited, or the timer's
  };
  // Bytes of one direction that were read and not written yet.
  struct Flow {
    std::string held;
    bool ended = false;   // there will be no more
    bool passed = false;  // and the other side was told
  };

  void onClient();
  void onServer();
  void onTimer();
  void takeHead();
  void connect();
  void refuse();
  void pump();
  void leave();
  void end();
  // False: the connection is broken.
  [[nodiscard]] static bool fill(const UniqueFd& from, Flow& flow, std::size_t room);
  [[nodiscard]] static bool drain(const UniqueFd& to, Flow& flow);
  void watch();

  UniqueFd client_;
  UniqueFd server_;
  std::uint32_t serverPort_;
  std::uint32_t tag_;
  tn::ThinRunner& runner_;
  std::function<void()> ended_;
  State state_ = State::readingHead;
  Flow toServer_;
  Flow toClient_;
  unsigned retriesLeft_ = serverMs / retryMs;
  tn::Timer timer_;
};

}  // namespace forwarder
