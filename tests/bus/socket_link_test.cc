#include "platform/bus/socket_link.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "platform/log.h"
#include "tests/bus/small_broker.h"
#include "tests/bus/sockets.h"
#include "tests/fakes/fake_runner.h"

namespace tn {
namespace {

using fakes::FakeRunner;
using testing_support::openDescriptors;
using testing_support::Pipe;
using testing_support::sameFile;
using testing_support::SocketFolder;
using Bytes = std::vector<std::uint8_t>;
using std::chrono::milliseconds;

Bytes pattern(std::size_t length) {
  Bytes bytes(length);
  std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
  return bytes;
}

Bytes frameBytes(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload) {
  Bytes bytes(frameHeaderBytes + payload.size());
  storeFrameHeader(bytes.data(), {static_cast<std::uint32_t>(payload.size()), peer, static_cast<std::uint32_t>(kind)});
  std::ranges::copy(payload, bytes.begin() + frameHeaderBytes);
  return bytes;
}

class RecordingSink : public BusLink::Sink {
 public:
  struct Frame {
    FrameKind kind;
    std::uint32_t peer;
    Bytes payload;
    UniqueFd descriptor;
  };
  void onLinked(std::uint32_t id) override { events.push_back("linked " + std::to_string(id)); }
  void onUnlinked() override { events.emplace_back("unlinked"); }
  void onFrame(BusLink::Arrival arrival) override {
    frames.push_back({arrival.kind, arrival.peer, Bytes(arrival.payload.begin(), arrival.payload.end()),
                      std::move(arrival.descriptor)});
    if (onEach) onEach();
  }
  std::vector<std::string> events;
  std::vector<Frame> frames;
  std::function<void()> onEach;
};

// The broker's end is held by the test; the link's end is turned by hand.
class SocketLinkTest : public testing::Test {
 protected:
  SocketLinkTest() {
    settings.path = folder.path();
    settings.name = "probe";
  }
  ~SocketLinkTest() override { flushLog(); }

  void open() {
    link.emplace(runner, settings);
    link->open(sink);
    runner.advance(0);
  }
  void listen() { listener = testing_support::listenAt(folder.path()); }
  // Takes the connection that waits; false when there is none.
  bool accept() {
    broker.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    fromLink.reset();
    return static_cast<bool>(broker);
  }
  // The next frame that the link sent.
  std::optional<message> readMessage() {
    FrameReader::Frame frame;
    while (fromLink.next(frame) != FrameReader::Next::frame) {
      if (fromLink.receive(broker.get()) != FrameReader::Receive::bytes) return std::nullopt;
    }
    lastHeader = frame.header;
    lastDescriptor = std::move(frame.descriptor);
    message content;
    EXPECT_TRUE(content.unflatten(frame.payload));
    return content;
  }
  void feed(const Bytes& bytes) const {
    ASSERT_EQ(send(broker.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  void feedFrame(FrameKind kind, std::uint32_t peer, const Bytes& payload) const {
    feed(frameBytes(kind, peer, payload));
  }
  void answerJoin(std::uint32_t id, std::string_view refusal = {}) const {
    message answer;
    answer.insert(u32_id(1), control::join);
    answer.insert(u32_id(2), id);
    if (!refusal.empty()) {
      answer.insert(field::errorCode, 1U);
      answer.insert(field::errorText, refusal);
    }
    Bytes payload;
    answer.flatten(payload);
    feedFrame(FrameKind::control, brokerId, payload);
  }
  // The link's descriptor, by what the runner was told last.
  int linkSocket() const {
    const auto isAdd = [](const FakeRunner::Call& call) { return call.operation == FakeRunner::Operation::add; };
    const auto last = std::ranges::find_if(runner.calls.rbegin(), runner.calls.rend(), isAdd);
    return last != runner.calls.rend() ? last->fd : -1;
  }
  void readable() { EXPECT_TRUE(runner.ready(linkSocket(), tn::readable)); }
  void join(std::uint32_t id = 1000) {
    listen();
    open();
    joinAgain(id);
  }
  void joinAgain(std::uint32_t id) {
    ASSERT_TRUE(accept());
    ASSERT_TRUE(readMessage());
    answerJoin(id);
    readable();
    ASSERT_EQ(link->id(), id);
  }
  bool send(std::uint32_t peer, const Bytes& payload, UniqueFd descriptor = UniqueFd()) {
    return link->send(FrameKind::message, peer, payload, std::move(descriptor));
  }
  static ssize_t send(int fd, const void* data, std::size_t size, int flags) { return ::send(fd, data, size, flags); }
  // What was logged since the last call.
  static std::string logged() {
    testing::internal::CaptureStdout();
    flushLog();
    return testing::internal::GetCapturedStdout();
  }

  const SocketFolder folder;
  SocketLink::Settings settings;
  FakeRunner runner;
  RecordingSink sink;
  std::optional<SocketLink> link;
  UniqueFd listener;
  UniqueFd broker;
  FrameReader fromLink{1U << 16};
  FrameHeader lastHeader{};
  UniqueFd lastDescriptor;
};

using Events = std::vector<std::string>;

TEST_F(SocketLinkTest, JoinsWithItsNameAndTheIdItAsksFor) {
  settings.id = 68;
  listen();
  open();
  ASSERT_TRUE(accept());
  const auto request = readMessage();
  ASSERT_TRUE(request);
  EXPECT_EQ(lastHeader.peer, brokerId);
  EXPECT_EQ(lastHeader.kind, static_cast<std::uint32_t>(FrameKind::control));
  EXPECT_EQ(request->get(u32_id(1)), control::join);
  EXPECT_EQ(request->get(u32_id(2)), 68U);
  EXPECT_EQ(request->get(string_id(3)), "probe");
  EXPECT_EQ(link->id(), 0U);
  EXPECT_FALSE(send(5, pattern(3)));
  answerJoin(68);
  readable();
  EXPECT_EQ(sink.events, Events{"linked 68"});
  EXPECT_EQ(link->id(), 68U);
  runner.advance(60000);
  EXPECT_EQ(sink.events.size(), 1U);
  EXPECT_EQ(logged(), "");
}

TEST_F(SocketLinkTest, WithoutABrokerItTriesWithGrowingPauses) {
  open();
  std::vector<int> pauses;
  for (int i = 0; i < 8; ++i) {
    pauses.push_back(runner.timers().nextTimeout());
    runner.advance(static_cast<std::uint32_t>(pauses.back()));
  }
  EXPECT_EQ(pauses, (std::vector<int>{20, 40, 80, 160, 320, 640, 1000, 1000}));
  EXPECT_EQ(logged(), "bus: cannot connect to the broker: No such file or directory\n");
  listen();
  runner.advance(1000);
  joinAgain(1000);
  EXPECT_EQ(logged(), "bus: joined as 1000\n");
  broker.reset();
  readable();
  EXPECT_EQ(runner.timers().nextTimeout(), 20);
  EXPECT_TRUE(sink.events.back() == "unlinked");
  EXPECT_EQ(logged(), "bus: the broker is gone\n");
}

TEST_F(SocketLinkTest, ARefusedJoinIsTriedAgainAndToldOnce) {
  listen();
  open();
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(accept());
    ASSERT_TRUE(readMessage());
    answerJoin(0, "id 68 is taken");
    readable();
    EXPECT_EQ(runner.timers().nextTimeout(), 20 << i);
    runner.advance(20U << i);
  }
  EXPECT_EQ(logged(), "bus: the broker refuses: id 68 is taken\n");
  joinAgain(68);
  EXPECT_EQ(sink.events, Events{"linked 68"});
}

TEST_F(SocketLinkTest, AJoinThatIsNotAnsweredIsGivenUp) {
  listen();
  open();
  ASSERT_TRUE(accept());
  runner.advance(1999);
  EXPECT_TRUE(runner.watched(linkSocket()));
  runner.advance(1);
  EXPECT_EQ(runner.watchedCount(), 0U);
  EXPECT_EQ(logged(), "bus: the broker does not answer\n");
  runner.advance(20);
  joinAgain(1001);
}

TEST_F(SocketLinkTest, NonsenseInsteadOfAnAnswerIsGivenUp) {
  listen();
  open();
  const std::vector<Bytes> nonsense{{1, 2, 3}, {0x4D, 0x32}};
  for (std::size_t i = 0; i < nonsense.size(); ++i) {
    ASSERT_TRUE(accept());
    feedFrame(FrameKind::control, brokerId, nonsense[i]);
    readable();
    EXPECT_EQ(runner.watchedCount(), 0U);
    runner.advance(20U << i);
  }
  EXPECT_EQ(logged(), "bus: the broker's answer is no message\nbus: the broker gave no id\n");
  EXPECT_EQ(sink.events, Events{});
}

TEST_F(SocketLinkTest, MessagesBeforeTheJoinAreDropped) {
  listen();
  open();
  ASSERT_TRUE(accept());
  Pipe pipe;
  FrameQueue queue;
  queue.append(FrameKind::message, 5, pattern(3), std::move(pipe.writer));
  ASSERT_EQ(queue.flush(broker.get()), FrameQueue::Flush::done);
  answerJoin(1000);
  readable();
  readable();
  EXPECT_EQ(sink.events, Events{"linked 1000"});
  EXPECT_TRUE(sink.frames.empty());
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(SocketLinkTest, FramesArriveByteByByte) {
  join();
  Bytes stream;
  for (const std::uint32_t length : {0U, 5U, 200U}) {
    const Bytes frame = frameBytes(FrameKind::message, length, pattern(length));
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  for (const std::uint8_t byte : stream) {
    feed({byte});
    readable();
  }
  ASSERT_EQ(sink.frames.size(), 3U);
  EXPECT_EQ(sink.frames[2].payload, pattern(200));
  EXPECT_EQ(sink.frames[2].peer, 200U);
}

TEST_F(SocketLinkTest, WhatIsSentInATurnLeavesInOneWrite) {
  join();
  EXPECT_FALSE(link->resume());
  EXPECT_TRUE(link->atRest());
  for (std::uint32_t i = 0; i < 10; ++i)
    EXPECT_TRUE(send(i, pattern(100)));
  EXPECT_FALSE(link->atRest());
  Bytes raw(1U << 16);
  EXPECT_EQ(read(broker.get(), raw.data(), raw.size()), -1);
  link->flush();
  EXPECT_EQ(read(broker.get(), raw.data(), raw.size()), 10 * 112);
}

TEST_F(SocketLinkTest, MuchIsWrittenWithoutWaitingForTheTurn) {
  join();
  for (std::uint32_t i = 0; i < 70; ++i)
    EXPECT_TRUE(send(i, pattern(1000)));
  Bytes raw(1U << 17);
  EXPECT_GT(read(broker.get(), raw.data(), raw.size()), 1 << 16);
}

TEST_F(SocketLinkTest, ABrokerThatDoesNotReadIsWaitedFor) {
  settings.outQueueBytes = 1U << 20;
  join();
  std::uint32_t sent = 0;
  const Bytes large = [] {
    Bytes bytes;
    message content;
    content.insert(raw_id(1), pattern(10000));
    content.flatten(bytes);
    return bytes;
  }();
  while (send(sent, large))
    ++sent;
  EXPECT_EQ(runner.mask(linkSocket()), tn::readable | tn::writable);
  std::uint32_t received = 0;
  for (int idle = 0; idle < 2;) {
    while (readMessage()) {
      EXPECT_EQ(lastHeader.peer, received);
      ++received;
      idle = 0;
    }
    ++idle;
    runner.ready(linkSocket(), tn::writable);
  }
  EXPECT_EQ(received, sent);
  EXPECT_EQ(runner.mask(linkSocket()), tn::readable);
  EXPECT_TRUE(send(1, large));
}

// Nobody would ever tell it that there is room again.
TEST_F(SocketLinkTest, ALinkThatTheKernelRefusesToWatchForRoomIsGivenUp) {
  join();
  runner.refuseChanges = true;
  while (send(1, pattern(10000))) {
  }
  runner.refuseChanges = false;
  EXPECT_FALSE(send(1, pattern(1)));
  readable();
  EXPECT_EQ(link->id(), 0U);
  runner.advance(20);
  joinAgain(1001);
}

TEST_F(SocketLinkTest, ManyFramesAreDealtWithInPortions) {
  settings.framesPerTurn = 4;
  join();
  EXPECT_FALSE(link->resume());
  for (std::uint32_t i = 0; i < 10; ++i)
    feedFrame(FrameKind::message, i, pattern(3));
  readable();
  EXPECT_EQ(sink.frames.size(), 4U);
  EXPECT_FALSE(link->atRest());
  EXPECT_TRUE(link->resume());
  EXPECT_EQ(sink.frames.size(), 8U);
  EXPECT_FALSE(link->atRest());
  EXPECT_FALSE(link->resume());
  EXPECT_TRUE(link->atRest());
  ASSERT_EQ(sink.frames.size(), 10U);
  for (std::uint32_t i = 0; i < 10; ++i)
    EXPECT_EQ(sink.frames[i].peer, i);
}

TEST_F(SocketLinkTest, DescriptorsTravelBothWays) {
  join();
  Pipe out;
  Pipe in;
  const UniqueFd outCopy(dup(out.writer.get()));
  const UniqueFd inCopy(dup(in.writer.get()));
  EXPECT_TRUE(send(5, Bytes{0x4D, 0x32}, std::move(out.writer)));
  link->flush();
  ASSERT_TRUE(readMessage());
  EXPECT_TRUE(sameFile(lastDescriptor.get(), outCopy.get()));
  FrameQueue queue;
  queue.append(FrameKind::message, 5, pattern(3), std::move(in.writer));
  ASSERT_EQ(queue.flush(broker.get()), FrameQueue::Flush::done);
  readable();
  ASSERT_EQ(sink.frames.size(), 1U);
  EXPECT_TRUE(sameFile(sink.frames[0].descriptor.get(), inCopy.get()));
}

TEST_F(SocketLinkTest, ABrokerThatDiesInTheMiddleOfAFrameIsJoinedAgain) {
  join();
  Bytes frame = frameBytes(FrameKind::message, 5, pattern(100));
  frame.resize(50);
  feed(frame);
  readable();
  EXPECT_TRUE(send(5, pattern(3)));
  broker.reset();
  readable();
  EXPECT_EQ(sink.events, (Events{"linked 1000", "unlinked"}));
  EXPECT_EQ(link->id(), 0U);
  EXPECT_FALSE(send(5, pattern(3)));
  runner.advance(20);
  joinAgain(1001);
  feedFrame(FrameKind::message, 6, pattern(2));
  readable();
  ASSERT_EQ(sink.frames.size(), 1U);
  EXPECT_EQ(sink.frames[0].peer, 6U);
  link->flush();
  EXPECT_FALSE(readMessage());  // what was meant for the dead broker is gone
}

TEST_F(SocketLinkTest, AFrameThatIsTooLongEndsTheLink) {
  join();
  feedFrame(FrameKind::message, 5, pattern(3));
  Bytes bad(frameHeaderBytes);
  storeFrameHeader(bad.data(), {maxPayloadBytes + 1, 5, 0});
  feed(bad);
  readable();
  EXPECT_EQ(sink.frames.size(), 1U);
  readable();
  EXPECT_EQ(sink.events, (Events{"linked 1000", "unlinked"}));
  EXPECT_EQ(logged(), "bus: the broker sent a frame that is too long\n");
  runner.advance(20);
  joinAgain(1001);
}

// The loss is found while writing, in the middle of somebody's call: nobody is told before the loop runs, and what the
// broker had sent before is read first.
TEST_F(SocketLinkTest, ALossFoundWhileWritingIsToldLater) {
  join();
  feedFrame(FrameKind::message, 5, pattern(3));
  broker.reset();
  EXPECT_TRUE(send(5, pattern(3)));
  link->flush();
  EXPECT_FALSE(send(5, pattern(3)));
  EXPECT_EQ(sink.events, Events{"linked 1000"});
  readable();
  EXPECT_EQ(sink.frames.size(), 1U);
  readable();
  EXPECT_EQ(sink.events, (Events{"linked 1000", "unlinked"}));
}

TEST_F(SocketLinkTest, DescriptorsThatWaitAreClosedWithTheLink) {
  join();
  Pipe pipe;
  EXPECT_TRUE(send(5, pattern(3), std::move(pipe.writer)));
  broker.reset();
  readable();
  EXPECT_TRUE(pipe.allWritersClosed());
  Pipe refused;
  EXPECT_FALSE(send(5, pattern(3), std::move(refused.writer)));
  EXPECT_TRUE(refused.allWritersClosed());
}

TEST_F(SocketLinkTest, FramesCanBeWaitedFor) {
  join();
  EXPECT_EQ(link->waitForFrames(Clock::now() - milliseconds(1)), BusLink::Wait::timedOut);
  EXPECT_EQ(link->waitForFrames(Clock::now() + milliseconds(2)), BusLink::Wait::timedOut);
  EXPECT_TRUE(send(5, Bytes{0x4D, 0x32}));
  EXPECT_FALSE(link->resume());
  feedFrame(FrameKind::message, 5, pattern(3));
  EXPECT_EQ(link->waitForFrames(Clock::now() + milliseconds(5000)), BusLink::Wait::frames);
  EXPECT_TRUE(readMessage());  // it was flushed before the wait
  EXPECT_FALSE(link->atRest());
  ASSERT_EQ(sink.frames.size(), 1U);
  broker.reset();
  EXPECT_EQ(link->waitForFrames(Clock::now() + milliseconds(5000)), BusLink::Wait::lost);
  EXPECT_EQ(sink.events, Events{"linked 1000"});
  readable();
  EXPECT_EQ(sink.events, (Events{"linked 1000", "unlinked"}));
  EXPECT_EQ(link->waitForFrames(Clock::now() + milliseconds(5000)), BusLink::Wait::lost);
}

TEST_F(SocketLinkTest, FramesCanBeWaitedForWhileOthersAreHandled) {
  join();
  bool waited = false;
  sink.onEach = [&] {
    if (std::exchange(waited, true)) return;
    EXPECT_EQ(link->waitForFrames(Clock::now() + milliseconds(5000)), BusLink::Wait::frames);
    EXPECT_EQ(sink.frames.size(), 3U);
    feedFrame(FrameKind::message, 4, pattern(70000));
    EXPECT_EQ(link->waitForFrames(Clock::now() + milliseconds(5000)), BusLink::Wait::frames);
  };
  for (std::uint32_t i = 1; i < 4; ++i)
    feedFrame(FrameKind::message, i, pattern(3));
  readable();
  ASSERT_EQ(sink.frames.size(), 4U);
  for (std::uint32_t i = 0; i < 4; ++i)
    EXPECT_EQ(sink.frames[i].peer, i + 1);
  EXPECT_EQ(sink.frames[3].payload, pattern(70000));
}

TEST_F(SocketLinkTest, APathThatIsTooLongIsTold) {
  settings.path = std::string(200, 'x');
  open();
  EXPECT_EQ(logged(), "bus: the path of the broker's socket is too long\n");
}

TEST_F(SocketLinkTest, NothingIsLeftOpen) {
  const std::size_t before = openDescriptors();
  join();
  EXPECT_TRUE(send(5, pattern(3)));
  link.reset();
  EXPECT_EQ(runner.watchedCount(), 0U);
  listener.reset();
  broker.reset();
  EXPECT_EQ(openDescriptors(), before);
  runner.advance(10000);
}

}  // namespace
}  // namespace tn
