#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/bus/handler.h"
#include "platform/bus/looper.h"
#include "platform/bus/timer.h"
#include "services/sysd/frame_ring.h"
#include "services/sysd/secrecy.h"

namespace sysd {

// Bus handler 3: what passes over the bus (docs/services.md). Its `get all` needs every right that there is, since
// messages may hold anything.
//
// The broker is asked to show frames while somebody wants to see them, and for `watchMs` after the last question:
//
//   idle --a question--> watching --watchMs without one, or the link lost--> idle
//
// Frames from and to this program are not kept: each question would be followed by its own.
class ConsoleHandler : public tn::Handler {
 public:
  static constexpr std::uint32_t id = 3;
  static constexpr std::uint32_t watchMs = 10'000;
  static constexpr std::uint32_t mostFrames = 200;
  static constexpr std::uint32_t usualFrames = 100;
  // So that an answer fits the binary form of the tunnel.
  static constexpr std::size_t mostBytes = 60'000;

  // Becomes the looper's observer. The looper outlives this.
  explicit ConsoleHandler(tn::Looper& looper);
  ~ConsoleHandler() override;

  tn::message cmdGetAll(tn::message& msg) override;
  void unlinked() override;

  [[nodiscard]] bool watching() const { return stop_.armed(); }

 private:
  void watch();
  void stopWatching();
  void askBroker(bool off);
  void onFrame(std::uint32_t from, std::uint32_t to, tn::FrameKind kind, std::span<const std::uint8_t> payload);
  [[nodiscard]] std::string textOf(std::uint32_t from, std::uint32_t to, tn::FrameKind kind,
                                   std::span<const std::uint8_t> payload);

  tn::Looper& looper_;
  FrameRing ring_;
  Secrecy secrecy_;
  tn::Timer stop_;
  std::optional<tn::message> refusal_;  // of the broker, to be told once
};

}  // namespace sysd
