#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "platform/bus/bus_link.h"
#include "platform/bus/looper.h"
#include "platform/bus/message.h"
#include "tests/fakes/fake_runner.h"

namespace tn::fakes {

// A bus without a broker: it records what is sent and delivers what a test makes up. The link is there from the start.
class RecordingBus : public BusLink {
 public:
  static constexpr std::uint32_t ownId = 1000;

  // A frame as it would have gone to the broker.
  struct Sent {
    FrameKind kind;
    std::uint32_t peer;  // the program or group it is for
    message content;     // the destination without that first element, the sender path from the handler on
    UniqueFd descriptor;
  };
  std::vector<Sent> sent;

  // ---- What programs do

  // A message of program `from`. Its destination is the path within this program ({1} is handler 1); a descriptor
  // gets its field unless the message has it.
  void deliver(std::uint32_t from, message content, UniqueFd descriptor = UniqueFd()) {
    if (descriptor && !content.has(field::descriptor)) content.insert(field::descriptor, 0U);
    arrive(FrameKind::message, from, content, std::move(descriptor));
  }

  // A command of program `from` to a path within this program, wanting a reply: it is recorded with the number
  // that is returned, to peer `from`.
  std::uint32_t request(std::uint32_t from, std::span<const std::uint32_t> path, std::uint32_t command,
                        message content = {}, UniqueFd descriptor = UniqueFd()) {
    const std::uint32_t number = ++lastNumber_;
    content.insert_vector(field::destination, path);
    content.insert(field::command, command);
    content.insert(field::requestNumber, number);
    deliver(from, std::move(content), std::move(descriptor));
    return number;
  }
  std::uint32_t request(std::uint32_t from, std::uint32_t handler, std::uint32_t command, message content = {},
                        UniqueFd descriptor = UniqueFd()) {
    return request(from, std::array{handler}, command, std::move(content), std::move(descriptor));
  }

  // The answer of the program that a recorded request went to.
  void answer(const Sent& request, message content, UniqueFd descriptor = UniqueFd()) {
    answerFrom(request.peer, request, std::move(content), std::move(descriptor));
  }
  // The same from any program, be it the right one or not.
  void answerFrom(std::uint32_t from, const Sent& request, message content, UniqueFd descriptor = UniqueFd()) {
    const auto path = request.content.get(field::sender).value_or(std::vector<std::uint32_t>());
    content.insert_vector(field::destination, path);
    content.insert(field::requestNumber, request.content.get(field::requestNumber).value_or(0));
    content.insert(field::isReply, true);
    deliver(from, std::move(content), std::move(descriptor));
  }

  // The recorded reply to a number that `request` returned; null when there is none yet.
  [[nodiscard]] Sent* replyTo(std::uint32_t number) {
    for (Sent& frame : sent) {
      const bool isThat = frame.content.get(field::requestNumber) == number && isReply(frame.content);
      if (frame.kind == FrameKind::message && isThat) return &frame;
    }
    return nullptr;
  }

  // ---- What the broker does

  void bounce(const Sent& frame) { arrive(FrameKind::bounced, frame.peer, frame.content, UniqueFd()); }
  void answerControl(const message& content) { arrive(FrameKind::control, brokerId, content, UniqueFd()); }
  void show(std::span<const std::uint8_t> observed) {
    sink_->onFrame({FrameKind::observed, brokerId, observed, UniqueFd()});
  }
  void unlink() {
    id_ = 0;
    sink_->onUnlinked();
  }
  void link(std::uint32_t id = ownId) {
    id_ = id;
    sink_->onLinked(id);
  }

  bool refuseSends = false;  // as when too much is waiting for the broker
  // Called while exchangeMessage waits: delivers something, or returns false, and the time is over.
  std::function<bool()> whileWaiting;

  // ---- BusLink

  void open(Sink& sink) override {
    sink_ = &sink;
    atRest_ = true;
  }
  [[nodiscard]] std::uint32_t id() const override { return id_; }
  bool send(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload, UniqueFd descriptor) override {
    if (id_ == 0 || refuseSends) return false;
    Sent frame{kind, peer, {}, std::move(descriptor)};
    if (!frame.content.unflatten(payload)) return false;
    sent.push_back(std::move(frame));
    return true;
  }
  void flush() override {}
  bool resume() override { return false; }
  [[nodiscard]] Wait waitForFrames(Clock::time_point) override {
    if (id_ == 0) return Wait::lost;
    return whileWaiting && whileWaiting() ? Wait::frames : Wait::timedOut;
  }

 private:
  void arrive(FrameKind kind, std::uint32_t peer, const message& content, UniqueFd descriptor) {
    // Numbers of recorded frames may move while they are handled, so the payload is a copy.
    std::vector<std::uint8_t> payload;
    content.flatten(payload);
    sink_->onFrame({kind, peer, payload, std::move(descriptor)});
  }

  Sink* sink_ = nullptr;
  std::uint32_t id_ = ownId;
  std::uint32_t lastNumber_ = 0;
};

// A real Looper on a runner turned by hand and a recording bus.
//
//   TestLooper loop;
//   loop.looper.addHandler(1, server);
//   const auto number = loop.bus.request(68, 1, command::addObj, record);
//   EXPECT_TRUE(loop.bus.replyTo(number)->content.empty());
struct TestLooper {
  explicit TestLooper(const Looper::Tuning& tuning = {})
      : TestLooper(std::make_unique<FakeRunner>(), std::make_unique<RecordingBus>(), tuning) {}

  // Lets time pass and ends the turn, as the loop would.
  void advance(std::uint32_t ms) {
    runner.advance(ms);
    looper.finishTurn();
  }

  FakeRunner& runner;
  RecordingBus& bus;
  Looper looper;

 private:
  TestLooper(std::unique_ptr<FakeRunner> ownRunner, std::unique_ptr<RecordingBus> ownBus, const Looper::Tuning& tuning)
      : runner(*ownRunner), bus(*ownBus), looper(std::move(ownRunner), std::move(ownBus), tuning) {}
};

}  // namespace tn::fakes
