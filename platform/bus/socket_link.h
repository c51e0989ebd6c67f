#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/bus_link.h"
#include "platform/bus/frame_queue.h"
#include "platform/bus/frame_reader.h"
#include "platform/bus/message.h"
#include "platform/bus/thin_runner.h"

namespace tn {

// The link of real programs: a connection to the broker's socket, driven by the loop's runner.
//
// Whatever goes wrong with a connection - refused, closed, a join that is not answered, bytes that are no frames - ends
// in one place, drop(), which closes it and tries again after a pause that doubles from failure to failure. Each reason
// is logged once until a join succeeds.
class SocketLink : public BusLink {
 public:
  struct Settings {
    std::string path = busSocketPath;
    std::string name;  // told to the broker
    unsigned id = 0;   // to ask for; 0: any free one
    unsigned rejoinFirstMs = 20;
    unsigned rejoinMaxMs = 1000;
    unsigned joinTimeoutMs = 2000;
    unsigned outQueueBytes = maxQueueBytes;
    unsigned readBufferBytes = 64U << 10;
    unsigned framesPerTurn = 256;
  };

  SocketLink(ThinRunner& runner, Settings settings);
  ~SocketLink() override;

  // Takes effect with the next join.
  void setName(std::string name) { settings_.name = std::move(name); }

  void open(Sink& sink) override;
  [[nodiscard]] std::uint32_t id() const override { return id_; }
  bool send(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload, UniqueFd descriptor) override;
  void flush() override;
  bool resume() override;
  [[nodiscard]] Wait waitForFrames(Clock::time_point deadline) override;

 private:
  enum class State : std::uint8_t {
    pausing,  // not connected; timer_ ends the pause
    joining,  // the answer to the join is awaited; timer_ is the limit for it
    joined,   // frames come and go; timer_ is not armed
  };
  // Bytes that wait before they are written without waiting for the end of the turn.
  static constexpr std::size_t gatheredBytes = 64U << 10;
  static constexpr std::size_t toldReasons = 16;

  void onTimer();
  void onEvents(unsigned events);
  void connect();
  void sendJoin();
  void readFrames();
  unsigned deliver();
  void handleJoinAnswer(std::span<const std::uint8_t> payload);
  void write();
  void giveUp(std::string_view reason);
  void drop(std::string_view reason, std::string_view detail = {});

  ThinRunner& runner_;
  Settings settings_;
  Sink* sink_ = nullptr;
  State state_ = State::pausing;
  UniqueFd socket_;
  std::uint32_t id_ = 0;
  FrameReader reader_;
  FrameQueue queue_;
  bool blocked_ = false;   // the socket took no more; the runner tells when it does
  std::string_view dead_;  // why the connection was given up (a literal), while its end is about to be read
  Timer timer_;
  unsigned pauseMs_;
  std::vector<std::string> told_;
};

}  // namespace tn
