#include "tools/session.h"

#include <deque>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

#include "platform/bus/bus_link.h"
#include "platform/bus/text.h"
#include "platform/byte_order.h"
#include "tests/fakes/fake_runner.h"

namespace {

using testing::HasSubstr;
using tn::FrameKind;
using tn::message;
using tool::Arguments;
using tool::ExitStatus;
using tool::Operation;

// One step of the script a turn; when it has come to its end, time passes.
class ScriptedRunner : public tn::fakes::FakeRunner {
 public:
  [[nodiscard]] bool turn(bool) override {
    if (steps.empty()) {
      advance(1000);
    } else {
      const auto step = std::move(steps.front());
      steps.pop_front();
      step();
    }
    return true;
  }

  std::deque<std::function<void()>> steps;
};

struct Sent {
  FrameKind kind;
  std::uint32_t peer;
  std::string text;
};

class RecordingLink : public tn::BusLink {
 public:
  void open(Sink& sink) override { sink_ = &sink; }
  [[nodiscard]] std::uint32_t id() const override { return id_; }
  bool send(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload, UniqueFd) override {
    if (id_ == 0) return false;
    message msg;
    EXPECT_TRUE(msg.unflatten(payload));
    sent.push_back({kind, peer, tn::writeText(msg)});
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
  void arrive(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload) {
    sink_->onFrame({kind, peer, payload, UniqueFd()});
  }

  std::vector<Sent> sent;

 private:
  Sink* sink_ = nullptr;
  std::uint32_t id_ = 0;
};

message reading(std::string_view text) {
  message m;
  EXPECT_FALSE(tn::readText(text, m)) << text;
  return m;
}

class Session : public testing::Test {
 protected:
  Session() {
    auto runner = std::make_unique<ScriptedRunner>();
    auto link = std::make_unique<RecordingLink>();
    runner_ = runner.get();
    link_ = link.get();
    tn::Looper::Tuning tuning{};
    tuning.stopSignals = 1;
    looper_ = std::make_unique<tn::Looper>(std::move(runner), std::move(link), tuning);
    arguments_.path = {68, 1};
    arguments_.command = tn::command::get;
  }

  void link() {
    runner_->steps.emplace_back([this] { link_->link(); });
  }
  void lose() {
    runner_->steps.emplace_back([this] { link_->lose(); });
  }
  void arrives(FrameKind kind, std::uint32_t peer, std::string_view text) {
    runner_->steps.emplace_back(
        [this, kind, peer, msg = reading(text)] { link_->arrive(kind, peer, msg.flattened()); });
  }
  void observed(std::uint32_t from, std::uint32_t to, FrameKind kind, std::string_view text) {
    std::vector<std::uint8_t> payload(12);
    storeLe32(payload.data(), from);
    storeLe32(payload.data() + 4, to);
    storeLe32(payload.data() + 8, static_cast<std::uint32_t>(kind));
    const message msg = reading(text);
    payload.insert(payload.end(), msg.flattened().begin(), msg.flattened().end());
    runner_->steps.emplace_back([this, payload] { link_->arrive(FrameKind::observed, 0, payload); });
  }

  ExitStatus run(Operation operation, std::string_view request = "{}") {
    arguments_.operation = operation;
    message msg = reading(request);
    msg.insert(tn::field::command, arguments_.command);
    msg.insert_vector(tn::field::destination, arguments_.path);
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* out = ::open_memstream(&text, &size);
    testing::internal::CaptureStderr();
    const ExitStatus status = tool::Session(*looper_, arguments_, msg, out).run();
    error_ = testing::internal::GetCapturedStderr();
    std::fclose(out);
    output_.assign(text, size);
    std::free(text);  // NOLINT(cppcoreguidelines-no-malloc): open_memstream's
    return status;
  }

  Arguments arguments_;
  ScriptedRunner* runner_ = nullptr;
  RecordingLink* link_ = nullptr;
  std::unique_ptr<tn::Looper> looper_;
  std::string output_;
  std::string error_;
};

constexpr std::string_view reply = "{Uff0001:[1],Uff0002:[1],uff0020:1,bff0021:1,u9:77}";

TEST_F(Session, ListsThePrograms) {
  link();
  arrives(FrameKind::control, 0, "{u1:4,M4:[{u2:0,s3:'busd'},{u2:68,s3:'sermgr'}]}");
  EXPECT_EQ(run(Operation::list), ExitStatus::done);
  EXPECT_EQ(output_, " 0  busd\n68  sermgr\n");
  EXPECT_EQ(error_, "");
  ASSERT_EQ(link_->sent.size(), 1U);
  EXPECT_EQ(link_->sent[0].kind, FrameKind::control);
  EXPECT_EQ(link_->sent[0].text, "{u1:4}");
}

TEST_F(Session, ShowsTheStatistics) {
  arguments_.lineForm = true;
  link();
  arrives(FrameKind::control, 0, "{u1:5,q5:9}");
  EXPECT_EQ(run(Operation::stats), ExitStatus::done);
  EXPECT_EQ(output_, "{u1:5,q5:9}\n");
}

TEST_F(Session, CallsAndShowsTheAnswer) {
  link();
  arrives(FrameKind::message, 68, reply);
  EXPECT_EQ(run(Operation::call, "{u5:6}"), ExitStatus::done);
  EXPECT_EQ(output_, "u9: 77\n");
  EXPECT_EQ(error_, "");
  ASSERT_EQ(link_->sent.size(), 1U);
  EXPECT_EQ(link_->sent[0].peer, 68U);
  const message sent = reading(link_->sent[0].text);
  EXPECT_EQ(sent.get(tn::u32_id(5)), 6U);
  EXPECT_EQ(sent.get(tn::field::command), tn::command::get);
  EXPECT_EQ(sent.get(tn::field::destination), std::vector<std::uint32_t>{1});
  EXPECT_TRUE(sent.has(tn::field::requestNumber));
}

TEST_F(Session, QuietPrintsNothing) {
  arguments_.quiet = true;
  link();
  arrives(FrameKind::message, 68, reply);
  EXPECT_EQ(run(Operation::call), ExitStatus::done);
  EXPECT_EQ(output_, "");
}

TEST_F(Session, AnErrorIsOneLineAndAStatus) {
  link();
  arrives(FrameKind::message, 68,
          "{Uff0001:[1],Uff0002:[1],uff0020:1,bff0021:1,uff0022:0xfe0006,sff0023:'no such service'}");
  EXPECT_EQ(run(Operation::call), ExitStatus::refused);
  EXPECT_EQ(error_, "tn: error 0xfe0006: no such service\n");
  EXPECT_EQ(output_, "");
}

TEST_F(Session, ABouncedCallIsUnreachable) {
  link();
  runner_->steps.emplace_back([this] {
    const message back = reading(link_->sent.at(0).text);
    link_->arrive(FrameKind::bounced, 68, back.flattened());
  });
  EXPECT_EQ(run(Operation::call), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000e: unreachable\n");
}

TEST_F(Session, SilenceIsATimeOut) {
  arguments_.timeoutMs = 2500;
  link();
  EXPECT_EQ(run(Operation::call), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000d: timeout\n");
}

TEST_F(Session, NoLinkIsATimeOutToo) {
  EXPECT_EQ(run(Operation::list), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: cannot reach the bus at /run/tn/bus: no answer\n");
  EXPECT_TRUE(link_->sent.empty());
}

TEST_F(Session, ALostBrokerFailsTheCall) {
  link();
  lose();
  EXPECT_EQ(run(Operation::call), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000e: unreachable\n");
}

TEST_F(Session, TheOperationIsDoneOnceHoweverOftenTheLinkIsMade) {
  link();
  lose();
  link();
  EXPECT_EQ(run(Operation::call), ExitStatus::unreachable);
  EXPECT_EQ(link_->sent.size(), 1U);
}

TEST_F(Session, SendsAndWaitsForTheBrokerToHaveIt) {
  link();
  arrives(FrameKind::control, 0, "{u1:4}");
  EXPECT_EQ(run(Operation::send, "{s1:'x'}"), ExitStatus::done);
  EXPECT_EQ(output_, "");
  ASSERT_EQ(link_->sent.size(), 2U);
  EXPECT_EQ(link_->sent[0].kind, FrameKind::message);
  EXPECT_EQ(link_->sent[0].peer, 68U);
  EXPECT_FALSE(reading(link_->sent[0].text).has(tn::field::requestNumber));
  EXPECT_EQ(link_->sent[1].kind, FrameKind::control);
}

TEST_F(Session, MonitorsAsManyFramesAsAskedFor) {
  arguments_.count = 2;
  arguments_.lineForm = true;
  link();
  arrives(FrameKind::control, 0, "{u1:6}");
  observed(1003, 68, FrameKind::message, "{u1:5}");
  observed(68, 1003, FrameKind::bounced, "{}");
  observed(1, 2, FrameKind::message, "{u1:7}");
  EXPECT_EQ(run(Operation::monitor), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("{u1:1003,u2:68,u3:0,q4:"));
  EXPECT_THAT(output_, HasSubstr(",m5:{u1:5}}\n"));
  EXPECT_THAT(output_, HasSubstr("{u1:68,u2:1003,u3:1,q4:"));
  EXPECT_EQ(output_.find("u1:7"), std::string::npos);
  EXPECT_EQ(link_->sent.at(0).text, "{u1:6}");
}

TEST_F(Session, MonitorShowsFramesThatHoldNoMessage) {
  arguments_.count = 1;
  link();
  runner_->steps.emplace_back([this] {
    const std::vector<std::uint8_t> payload = {1, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 'x', 'y', 'z'};
    link_->arrive(FrameKind::observed, 0, payload);
  });
  EXPECT_EQ(run(Operation::monitor), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("1 -> 2 message, 3 bytes that are no message\n"));
}

TEST_F(Session, MonitorMayBeRefused) {
  link();
  arrives(FrameKind::control, 0, "{u1:6,uff0022:0xfe0009,sff0023:'monitoring is not allowed for this user'}");
  EXPECT_EQ(run(Operation::monitor), ExitStatus::refused);
  EXPECT_EQ(error_, "tn: error 0xfe0009: monitoring is not allowed for this user\n");
}

TEST_F(Session, MonitorEndsWithTheBroker) {
  link();
  arrives(FrameKind::control, 0, "{u1:6}");
  lose();
  EXPECT_EQ(run(Operation::monitor), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: the bus is gone\n");
}

TEST_F(Session, ALoopThatIsEndedFromOutsideIsNoSuccessButForAMonitor) {
  for (const Operation operation : {Operation::monitor, Operation::call}) {
    link();
    runner_->steps.emplace_back([this] { looper_->quit(); });
    EXPECT_EQ(run(operation), operation == Operation::monitor ? ExitStatus::done : ExitStatus::unreachable);
  }
}

TEST_F(Session, OutputThatCannotBeWrittenIsAnError) {
  std::FILE* const full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  link();
  arrives(FrameKind::control, 0, "{u1:4,M4:[{u2:68,s3:'sermgr'}]}");
  arguments_.operation = Operation::list;
  testing::internal::CaptureStderr();
  EXPECT_EQ(tool::Session(*looper_, arguments_, message(), full).run(), ExitStatus::unreachable);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "tn: cannot write: No space left on device\n");
  std::fclose(full);
}

}  // namespace
