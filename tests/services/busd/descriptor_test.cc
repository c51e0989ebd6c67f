#include <array>
#include <cstring>

#include "gtest/gtest.h"
#include "tests/services/busd/peer.h"

namespace busd {
namespace {

Limits fewDescriptors() {
  Limits limits;
  limits.queuedDescriptors = 3;
  return limits;
}

class DescriptorTest : public BrokerTest {
 protected:
  DescriptorTest() : BrokerTest(fewDescriptors()) {}

  // The writing end of a pipe, whose reading end tells when the last copy of the other is closed.
  UniqueFd pipeEnd() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    reading_.reset(ends[0]);
    return UniqueFd(ends[1]);
  }
  bool allClosed() {
    std::uint8_t byte = 0;
    return read(reading_.get(), &byte, 1) == 0;
  }
  // Sends a frame with a descriptor of which no copy stays here.
  void sendDescriptor(Peer& from, std::uint32_t to, std::string_view text) {
    const UniqueFd end = pipeEnd();
    from.sendWithDescriptor(frameOf(to, tn::FrameKind::message, bytesOf(text)), end.get());
  }

  UniqueFd reading_;
};

TEST_F(DescriptorTest, ArrivesWithItsFrame) {
  Peer from = joined();
  Peer to = joined();
  from.send(to.id(), "before");
  sendDescriptor(from, to.id(), "with");
  from.send(to.id(), "behind");
  EXPECT_FALSE(to.expectFrame().descriptor);
  {
    const Delivered got = to.expectFrame();
    EXPECT_EQ(got.text(), "with");
    ASSERT_TRUE(got.descriptor);
    EXPECT_EQ(write(got.descriptor.get(), "x", 1), 1);
    std::uint8_t byte = 0;
    EXPECT_EQ(read(reading_.get(), &byte, 1), 1);
  }
  EXPECT_FALSE(to.expectFrame().descriptor);
  EXPECT_TRUE(allClosed());
}

TEST_F(DescriptorTest, ArriveInARow) {
  Peer from = joined();
  Peer to = joined();
  for (int i = 0; i < 20; ++i)
    sendDescriptor(from, to.id(), std::to_string(i));
  for (int i = 0; i < 20; ++i) {
    const Delivered got = to.expectFrame();
    EXPECT_EQ(got.text(), std::to_string(i));
    EXPECT_TRUE(got.descriptor);
  }
}

TEST_F(DescriptorTest, ArrivesWithALargeFrame) {
  Peer from = joined();
  Peer to = joined();
  const Payload frame = frameOf(to.id(), tn::FrameKind::message, Payload(tn::maxPayloadBytes, 'd'));
  {
    const UniqueFd end = pipeEnd();
    from.sendWithDescriptor(std::span(frame).first(5000), end.get());
  }
  from.sendRaw(std::span(frame).subspan(5000));
  {
    const Delivered got = to.expectFrame();
    EXPECT_EQ(got.payload.size(), tn::maxPayloadBytes);
    EXPECT_TRUE(got.descriptor);
  }
  EXPECT_TRUE(allClosed());
}

TEST_F(DescriptorTest, IsClosedWhenItsFrameBounces) {
  Peer from = joined();
  sendDescriptor(from, 68, "nobody");
  const Delivered got = from.expectFrame();
  EXPECT_EQ(got.kind, tn::FrameKind::bounced);
  EXPECT_FALSE(got.descriptor);
  EXPECT_TRUE(allClosed());
}

TEST_F(DescriptorTest, IsClosedWhenItIsForAGroup) {
  Peer from = joined();
  Peer member = joined();
  member.ask(tn::control::joinGroup, 0xff0001);
  sendDescriptor(from, 0xff0001, "all");
  const Delivered got = member.expectFrame();
  EXPECT_EQ(got.text(), "all");
  EXPECT_FALSE(got.descriptor);
  EXPECT_TRUE(allClosed());
}

TEST_F(DescriptorTest, IsClosedWhenItComesWithAControlFrame) {
  Peer peer = joined();
  tn::message list;
  list.insert(field::operation, tn::control::list);
  {
    const UniqueFd end = pipeEnd();
    peer.sendWithDescriptor(frameOf(tn::brokerId, tn::FrameKind::control, list.flattened()), end.get());
  }
  EXPECT_FALSE(peer.expectFrame().descriptor);
  EXPECT_TRUE(allClosed());
}

TEST_F(DescriptorTest, IsClosedWhenItsSenderDiesInTheMiddle) {
  for (const std::size_t payload : {std::size_t{100}, std::size_t{50000}}) {
    Peer from = joined();
    const Payload frame = frameOf(1, tn::FrameKind::message, Payload(payload));
    {
      const UniqueFd end = pipeEnd();
      from.sendWithDescriptor(std::span(frame).first(60), end.get());
    }
    settle();
    EXPECT_FALSE(allClosed());
    from.close();
    settle();
    EXPECT_TRUE(allClosed());
  }
}

TEST_F(DescriptorTest, IsClosedWhenItsReceiverIsGone) {
  Peer from = joined();
  Peer to = joined();
  sendDescriptor(from, to.id(), "crossing");
  to.close();
  EXPECT_EQ(from.expectFrame().kind, tn::FrameKind::bounced);
  EXPECT_TRUE(allClosed());
}

TEST_F(DescriptorTest, IsNotForTheMiddleOfAFrame) {
  Peer from = joined();
  const Payload frame = frameOf(from.id(), tn::FrameKind::message, Payload(100));
  from.sendRaw(std::span(frame).first(50));
  settle();
  {
    const UniqueFd end = pipeEnd();
    from.sendWithDescriptor(std::span(frame).subspan(50), end.get());
  }
  EXPECT_TRUE(from.disconnected());
  EXPECT_TRUE(allClosed());
}

TEST_F(DescriptorTest, IsOneForEachFrame) {
  Peer from = joined();
  Payload frame = frameOf(from.id(), tn::FrameKind::message, bytesOf("two"));
  {
    const UniqueFd end = pipeEnd();
    const std::array<int, 2> both = {end.get(), end.get()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof both)];
    iovec part{frame.data(), frame.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof both);
    std::memcpy(CMSG_DATA(rights), both.data(), sizeof both);
    ASSERT_EQ(sendmsg(from.fd(), &header, MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
  }
  EXPECT_TRUE(from.disconnected());
  EXPECT_TRUE(allClosed());
}

// Fills the receiver's socket, so that what follows waits in its queue.
void fill(Peer& from, std::uint32_t to) {
  from.send(to, Payload(1U << 20, 'f'));
}

TEST_F(DescriptorTest, WaitsWithItsFrameForASlowReader) {
  Peer from = joined();
  Peer to = joined();
  fill(from, to.id());
  for (int i = 0; i < 3; ++i) {
    sendDescriptor(from, to.id(), std::to_string(i));
    from.send(to.id(), "between");
  }
  settle();
  EXPECT_TRUE(from.quiet());
  EXPECT_EQ(to.expectFrame().payload.size(), 1U << 20);
  for (int i = 0; i < 3; ++i) {
    const Delivered with = to.expectFrame();
    EXPECT_EQ(with.text(), std::to_string(i));
    EXPECT_TRUE(with.descriptor);
    const Delivered without = to.expectFrame();
    EXPECT_EQ(without.text(), "between");
    EXPECT_FALSE(without.descriptor);
  }
}

TEST_F(DescriptorTest, BouncesBeyondTheQueueLimit) {
  Peer from = joined();
  Peer to = joined();
  fill(from, to.id());
  for (int i = 0; i < 3; ++i)
    sendDescriptor(from, to.id(), "kept");
  sendDescriptor(from, to.id(), "one too many");
  from.send(to.id(), "without");
  const Delivered got = from.expectFrame();
  EXPECT_EQ(got.kind, tn::FrameKind::bounced);
  EXPECT_EQ(got.text(), "one too many");
  EXPECT_TRUE(allClosed());
  EXPECT_TRUE(from.quiet());
}

TEST_F(DescriptorTest, AreClosedWithTheQueueOfAProgramThatLeaves) {
  Peer from = joined();
  Peer to = joined();
  fill(from, to.id());
  sendDescriptor(from, to.id(), "waiting");
  settle();
  EXPECT_FALSE(allClosed());
  to.close();
  settle();
  EXPECT_TRUE(allClosed());
}

// A socket that lingers, whose last close would wait until its peer reads. The copy that stays here tells what became
// of it.
TEST_F(DescriptorTest, DoesNotLingerWhenItIsClosedUndelivered) {
  Peer from = joined();
  Peer to = joined();
  for (const bool delivered : {false, true}) {
    const UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const linger longest{1, 3600};
    ASSERT_EQ(setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &longest, sizeof longest), 0);
    from.sendWithDescriptor(frameOf(delivered ? to.id() : 68, tn::FrameKind::message, bytesOf("x")), socket.get());
    const Delivered got = delivered ? to.expectFrame() : from.expectFrame();
    linger now{};
    socklen_t size = sizeof now;
    ASSERT_EQ(getsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &now, &size), 0);
    EXPECT_EQ(now.l_onoff != 0, delivered);
  }
}

TEST_F(DescriptorTest, NeverLeak) {
  const std::size_t before = openDescriptors();
  {
    Peer from = joined();
    Peer to = joined();
    Peer member = joined();
    member.ask(tn::control::joinGroup, 0xff0001);
    for (int i = 0; i < 50; ++i) {
      for (const std::uint32_t where : {to.id(), 68U, 0xff0001U, 0U})
        sendDescriptor(from, where, "x");
      to.expectFrame();
      member.expectFrame();
    }
    fill(from, to.id());
    for (int i = 0; i < 10; ++i)
      sendDescriptor(from, to.id(), "queued or bounced");
    settle();
  }
  settle();
  reading_.reset();
  EXPECT_EQ(broker_.clients(), 0U);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace busd
