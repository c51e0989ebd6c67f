#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/looper.h"
#include "tools/verb.h"

namespace tool {

// This program's place on the bus, for code that does one thing after the other: each call turns the loop until what it
// waits for is there. Lives beside the looper. Must not be used from within its own callbacks.
class Bus : public tn::Handler {
 public:
  Bus(tn::Looper& looper, std::uint32_t timeoutMs);
  ~Bus() override;

  // Waits for the link. False: it was not made in time.
  [[nodiscard]] bool join();

  // The answer to a message: what the service says, or an error of the bus ("timeout", "unreachable").
  [[nodiscard]] tn::message ask(std::span<const std::uint32_t> path, std::uint32_t command, tn::message fields = {});
  [[nodiscard]] tn::message askMessage(tn::message request);
  // The broker's own answer.
  [[nodiscard]] tn::message control(std::uint32_t operation);
  // Sends a message that wants no answer, and waits until the broker has it. The answer is an error when it was not to
  // be reached.
  [[nodiscard]] tn::message deliver(tn::message msg);

  // The bus id of the first program of that name; 0 when there is none, and then `error` is an error message.
  [[nodiscard]] std::uint32_t find(std::string_view name, tn::message& error);

  // Turns the loop for that long, less when the link is made or lost, a signal ends the program, or endWait() is
  // called.
  void wait(std::uint32_t milliseconds);
  // Turns it without an end of its own.
  void waitForEver();
  void endWait();

  // The link is there no longer.
  [[nodiscard]] bool isLost() const { return lost_; }
  // A signal has ended a wait: the program is to end in good order.
  [[nodiscard]] bool isStopped() const { return stopped_; }
  [[nodiscard]] tn::Looper& looper() { return looper_; }

  void linked() override;
  void unlinked() override;

 private:
  // Runs the loop until `answer` is there.
  tn::message await();
  void take(const tn::message& answer);

  tn::Looper& looper_;
  const std::uint32_t timeoutMs_;
  bool linked_ = false;
  bool lost_ = false;
  bool stopped_ = false;
  bool asking_ = false;    // an answer is waited for, which comes also when the link is lost
  bool ended_ = false;     // the loop ends because this object wants it
  bool answered_ = false;  // `answer_` is what was asked for
  tn::message answer_;
};

// What an answer means for the program's end.
[[nodiscard]] ExitStatus statusOf(const tn::message& answer);

}  // namespace tool
