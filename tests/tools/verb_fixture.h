#pragma once

#include <deque>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/bus_link.h"
#include "platform/bus/text.h"
#include "platform/byte_order.h"
#include "tests/fakes/fake_runner.h"
#include "tools/context.h"

// A verb on a bus that is a script: each step is one turn of the loop.
namespace fixture {

// Timers that are due run after each step. When the script has come to its end, time passes.
class ScriptedRunner : public tn::fakes::FakeRunner {
 public:
  [[nodiscard]] bool turn(bool) override {
    if (steps.empty()) {
      advance(1000);
    } else {
      const auto step = std::move(steps.front());
      steps.pop_front();
      step();
      advance(0);
    }
    return true;
  }

  std::deque<std::function<void()>> steps;
};

inline tn::message reading(std::string_view text) {
  tn::message m;
  EXPECT_FALSE(tn::readText(text, m)) << text;
  return m;
}

struct Sent {
  tn::FrameKind kind;
  std::uint32_t peer;
  tn::message msg;
};

class RecordingLink : public tn::BusLink {
 public:
  void open(Sink& sink) override { sink_ = &sink; }
  [[nodiscard]] std::uint32_t id() const override { return id_; }
  bool send(tn::FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload, UniqueFd) override {
    if (id_ == 0) return false;
    tn::message msg;
    EXPECT_TRUE(msg.unflatten(payload));
    sent.push_back({kind, peer, std::move(msg)});
    return true;
  }
  void flush() override {}
  bool resume() override { return false; }
  [[nodiscard]] Wait waitForFrames(tn::Clock::time_point) override { return Wait::lost; }

  void link() {
    id_ = 1000;
    sink_->onLinked(id_);
  }
  void lose() {
    id_ = 0;
    sink_->onUnlinked();
  }
  void arrive(tn::FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload) {
    sink_->onFrame({kind, peer, payload, UniqueFd()});
  }

  std::vector<Sent> sent;

 private:
  Sink* sink_ = nullptr;
  std::uint32_t id_ = 0;
};

class VerbTest : public testing::Test {
 protected:
  VerbTest() {
    auto runner = std::make_unique<ScriptedRunner>();
    auto link = std::make_unique<RecordingLink>();
    runner_ = runner.get();
    link_ = link.get();
    tn::Looper::Tuning tuning{};
    tuning.stopSignals = 1;
    looper_ = std::make_unique<tn::Looper>(std::move(runner), std::move(link), tuning);
  }

  void link() {
    runner_->steps.emplace_back([this] { link_->link(); });
  }
  void lose() {
    runner_->steps.emplace_back([this] { link_->lose(); });
  }
  void stop() {
    runner_->steps.emplace_back([this] { looper_->quit(); });
  }
  // The broker's answer.
  void brokerSays(std::string_view text) { arrives(tn::FrameKind::control, 0, text); }
  void arrives(tn::FrameKind kind, std::uint32_t peer, std::string_view text) {
    runner_->steps.emplace_back(
        [this, kind, peer, msg = reading(text)] { link_->arrive(kind, peer, msg.flattened()); });
  }
  // The answer to what was sent last.
  void serviceSays(std::string_view text) {
    runner_->steps.emplace_back([this, reply = reading(text)]() mutable {
      ASSERT_FALSE(link_->sent.empty());
      const Sent& last = link_->sent.back();
      ASSERT_EQ(last.kind, tn::FrameKind::message);
      reply.insert_vector(tn::field::destination, *last.msg.get(tn::field::sender));
      reply.insert_vector(tn::field::sender, *last.msg.get(tn::field::destination));
      reply.insert(tn::field::requestNumber, *last.msg.get(tn::field::requestNumber));
      reply.insert(tn::field::isReply, true);
      link_->arrive(tn::FrameKind::message, last.peer, reply.flattened());
    });
  }
  // What was sent last comes back.
  void bounces() {
    runner_->steps.emplace_back([this] {
      const Sent last = link_->sent.back();
      link_->arrive(tn::FrameKind::bounced, last.peer, last.msg.flattened());
    });
  }
  void observed(std::uint32_t from, std::uint32_t to, tn::FrameKind kind, std::string_view text) {
    const tn::message msg = reading(text);
    observedBytes(from, to, kind, {msg.flattened().begin(), msg.flattened().end()});
  }
  void observedBytes(std::uint32_t from, std::uint32_t to, tn::FrameKind kind, const std::vector<std::uint8_t>& bytes) {
    std::vector<std::uint8_t> payload(12);
    storeLe32(payload.data(), from);
    storeLe32(payload.data() + 4, to);
    storeLe32(payload.data() + 8, static_cast<std::uint32_t>(kind));
    payload.insert(payload.end(), bytes.begin(), bytes.end());
    runner_->steps.emplace_back([this, payload] { link_->arrive(tn::FrameKind::observed, 0, payload); });
  }

  tool::ExitStatus run(const std::vector<const char*>& words) {
    tool::Arguments arguments;
    const auto wrong = tool::parseArguments(words, tool::allVerbs(), arguments);
    EXPECT_FALSE(wrong) << *wrong;
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const memory = ::open_memstream(&text, &size);
    look_.form = arguments.form;
    look_.quiet = arguments.quiet;
    tool::Output output(out_ != nullptr ? out_ : memory, look_);
    testing::internal::CaptureStderr();
    tool::ExitStatus status{};
    {
      tool::Context context(arguments, output, looper_.get());
      status = output.finish(tool::findVerb(tool::allVerbs(), arguments.verb)->run(context));
    }
    error_ = testing::internal::GetCapturedStderr();
    std::fclose(memory);
    output_.assign(text, size);
    std::free(text);  // NOLINT(cppcoreguidelines-no-malloc): open_memstream's
    return status;
  }

  // What was sent as the `index`th frame, without what the bus itself put in, in the line form.
  std::string sent(std::size_t index) {
    if (index >= link_->sent.size()) return "nothing";
    tn::message msg = link_->sent[index].msg;
    msg.remove(tn::field::sender);
    msg.remove(tn::field::requestNumber);
    return tn::writeText(msg);
  }

  ScriptedRunner* runner_ = nullptr;
  RecordingLink* link_ = nullptr;
  std::unique_ptr<tn::Looper> looper_;
  tool::Output::Look look_;
  std::FILE* out_ = nullptr;  // where output goes instead of output_
  std::string output_;
  std::string error_;
};

}  // namespace fixture
