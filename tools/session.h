#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>

#include "platform/bus/frame.h"
#include "platform/bus/looper.h"
#include "platform/bus/timer.h"
#include "tools/arguments.h"

namespace tool {

enum class ExitStatus : std::uint8_t {
  done = 0,
  refused = 1,  // the answer was an error
  usage = 2,
  unreachable = 3,  // no bus, no service, or no answer in time
};

// One run of the program on the bus: waits for the link, does the one thing it was asked for, prints what comes back
// and ends the loop. Lives on the stack of main, beside the looper.
class Session : public tn::Handler {
 public:
  // `request` is what call and send send; the others leave it empty. What is asked for is printed on `out`.
  Session(tn::Looper& looper, const Arguments& arguments, tn::message request, std::FILE* out);

  // Runs the loop until the end.
  [[nodiscard]] ExitStatus run();

  void linked() override;
  void unlinked() override;

 private:
  void start();
  void call();
  void send();
  void ask(std::uint32_t operation);
  void startMonitor();

  void onAnswer(const tn::message& answer);
  void onObserved(std::uint32_t from, std::uint32_t to, tn::FrameKind kind, std::span<const std::uint8_t> payload);
  void onLinkTimeout();

  [[nodiscard]] std::string render(const tn::message& answer) const;
  void finish(ExitStatus status);
  void fail(ExitStatus status, std::string_view error);
  void print(std::string_view text);

  tn::Looper& looper_;
  const Arguments& arguments_;
  tn::message request_;
  std::FILE* const out_;
  tn::Timer linkTimer_;
  bool started_ = false;
  bool finished_ = false;
  ExitStatus status_ = ExitStatus::done;
  std::uint64_t observed_ = 0;
  tn::Clock::time_point monitorBegan_{};
};

// Writes "tn: ", the error and a line end on standard error.
void printError(std::string_view error);

}  // namespace tool
