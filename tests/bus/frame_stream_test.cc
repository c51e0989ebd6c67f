// The two ends of a link: what FrameQueue writes, FrameReader reads.

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <numeric>
#include <sys/uio.h>
#include <utility>
#include <vector>

#include "platform/bus/frame_queue.h"
#include "platform/bus/frame_reader.h"
#include "tests/bus/sockets.h"

namespace tn {
namespace {

using testing_support::openDescriptors;
using testing_support::Pipe;
using testing_support::sameFile;
using testing_support::SocketPair;
using Bytes = std::vector<std::uint8_t>;

Bytes pattern(std::size_t length) {
  Bytes bytes(length);
  std::iota(bytes.begin(), bytes.end(), std::uint8_t{7});
  return bytes;
}

Bytes frameBytes(std::uint32_t peer, const Bytes& payload) {
  Bytes bytes(frameHeaderBytes + payload.size());
  storeFrameHeader(bytes.data(), {static_cast<std::uint32_t>(payload.size()), peer, 0});
  std::ranges::copy(payload, bytes.begin() + frameHeaderBytes);
  return bytes;
}

// Sends bytes with descriptors in one call, as a peer would that keeps to no rule.
void sendRaw(int socket, const Bytes& bytes, const std::vector<int>& descriptors) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * 16)> control{};
  iovec part{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (!descriptors.empty()) {
    header.msg_control = control.data();
    header.msg_controllen = CMSG_SPACE(sizeof(int) * descriptors.size());
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
    std::memcpy(CMSG_DATA(rights), descriptors.data(), sizeof(int) * descriptors.size());
  }
  ASSERT_EQ(sendmsg(socket, &header, 0), static_cast<ssize_t>(bytes.size()));
}

struct Got {
  std::uint32_t peer;
  Bytes payload;
  UniqueFd descriptor;
};

class FrameStreamTest : public testing::Test {
 protected:
  // Reads until nothing more is there.
  void readAll() {
    FrameReader::Frame frame;
    while (true) {
      for (last = reader.next(frame); last == FrameReader::Next::frame; last = reader.next(frame)) {
        got.push_back(
            {frame.header.peer, Bytes(frame.payload.begin(), frame.payload.end()), std::move(frame.descriptor)});
      }
      if (last == FrameReader::Next::broken) return;
      received = reader.receive(pair.there.get());
      if (received != FrameReader::Receive::bytes) return;
    }
  }
  void append(std::uint32_t peer, const Bytes& payload, UniqueFd descriptor = UniqueFd()) {
    queue.append(FrameKind::message, peer, payload, std::move(descriptor));
  }

  const std::size_t openBefore = openDescriptors();
  SocketPair pair;
  FrameQueue queue;
  FrameReader reader{64};
  std::vector<Got> got;
  FrameReader::Next last = FrameReader::Next::incomplete;
  FrameReader::Receive received = FrameReader::Receive::wouldBlock;
};

TEST_F(FrameStreamTest, AFrameHasThisForm) {
  queue.append(FrameKind::control, 0x01020304, Bytes{0xAA, 0xBB}, UniqueFd());
  EXPECT_EQ(queue.bytes(), 14U);
  EXPECT_EQ(queue.flush(pair.here.get()), FrameQueue::Flush::done);
  Bytes raw(100);
  ASSERT_EQ(read(pair.there.get(), raw.data(), raw.size()), 14);
  raw.resize(14);
  EXPECT_EQ(raw, (Bytes{2, 0, 0, 0, 4, 3, 2, 1, 2, 0, 0, 0, 0xAA, 0xBB}));
}

TEST_F(FrameStreamTest, ManyFramesOfAllSizesArrive) {
  const std::vector<std::size_t> lengths{0, 1, 11, 12, 13, 51, 52, 53, 1000, 5, 70000, 0, 3};
  for (const std::size_t length : lengths)
    append(static_cast<std::uint32_t>(length), pattern(length));
  EXPECT_EQ(queue.flush(pair.here.get()), FrameQueue::Flush::done);
  EXPECT_EQ(queue.bytes(), 0U);
  readAll();
  ASSERT_EQ(got.size(), lengths.size());
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    EXPECT_EQ(got[i].peer, lengths[i]);
    EXPECT_EQ(got[i].payload, pattern(lengths[i]));
  }
  EXPECT_EQ(received, FrameReader::Receive::wouldBlock);
}

TEST_F(FrameStreamTest, FramesArriveByteByByte) {
  Bytes stream;
  for (const std::uint32_t length : {0U, 3U, 300U}) {
    const Bytes frame = frameBytes(length, pattern(length));
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  for (const std::uint8_t byte : stream) {
    EXPECT_FALSE(reader.hasFrame());
    ASSERT_EQ(write(pair.here.get(), &byte, 1), 1);
    ASSERT_EQ(reader.receive(pair.there.get()), FrameReader::Receive::bytes);
    if (!reader.hasFrame()) continue;
    FrameReader::Frame frame;
    ASSERT_EQ(reader.next(frame), FrameReader::Next::frame);
    EXPECT_EQ(frame.payload.size(), frame.header.peer);
    got.push_back({frame.header.peer, Bytes(frame.payload.begin(), frame.payload.end()), UniqueFd()});
  }
  ASSERT_EQ(got.size(), 3U);
  EXPECT_EQ(got[2].payload, pattern(300));
}

TEST_F(FrameStreamTest, AWriterThatIsBlockedGoesOnLater) {
  const Bytes large = pattern(maxPayloadBytes);
  append(1, large);
  append(2, pattern(10));
  int blocked = 0;
  FrameQueue::Flush state = queue.flush(pair.here.get());
  for (; state == FrameQueue::Flush::blocked; state = queue.flush(pair.here.get())) {
    ++blocked;
    append(3, pattern(1));
    readAll();
  }
  EXPECT_EQ(state, FrameQueue::Flush::done);
  EXPECT_GT(blocked, 1);
  readAll();
  ASSERT_EQ(got.size(), 2U + static_cast<std::size_t>(blocked));
  EXPECT_EQ(got[0].payload, large);
  EXPECT_EQ(got[1].peer, 2U);
}

TEST_F(FrameStreamTest, DescriptorsStayWithTheirFrames) {
  std::vector<Pipe> pipes(3);
  std::vector<UniqueFd> copies;
  for (const Pipe& pipe : pipes)
    copies.emplace_back(dup(pipe.writer.get()));
  append(1, pattern(5));
  append(2, pattern(300), std::move(pipes[0].writer));
  append(3, pattern(0), std::move(pipes[1].writer));
  append(4, pattern(7));
  append(5, pattern(7));
  append(6, pattern(9), std::move(pipes[2].writer));
  EXPECT_EQ(queue.flush(pair.here.get()), FrameQueue::Flush::done);
  readAll();
  ASSERT_EQ(got.size(), 6U);
  EXPECT_FALSE(got[0].descriptor);
  EXPECT_TRUE(sameFile(got[1].descriptor.get(), copies[0].get()));
  EXPECT_TRUE(sameFile(got[2].descriptor.get(), copies[1].get()));
  EXPECT_FALSE(got[3].descriptor);
  EXPECT_FALSE(got[4].descriptor);
  EXPECT_TRUE(sameFile(got[5].descriptor.get(), copies[2].get()));
  EXPECT_NE(fcntl(got[5].descriptor.get(), F_GETFD) & FD_CLOEXEC, 0);
  copies.clear();
  got.clear();
  for (const Pipe& pipe : pipes)
    EXPECT_TRUE(pipe.allWritersClosed());  // the sender kept no copy
}

TEST_F(FrameStreamTest, ASocketThatComesLingersNoMore) {
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const linger longest{1, 3600};
  ASSERT_EQ(setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &longest, sizeof longest), 0);
  append(1, pattern(5), std::move(socket));
  EXPECT_EQ(queue.flush(pair.here.get()), FrameQueue::Flush::done);
  readAll();
  ASSERT_EQ(got.size(), 1U);
  linger now{};
  socklen_t size = sizeof now;
  ASSERT_EQ(getsockopt(got[0].descriptor.get(), SOL_SOCKET, SO_LINGER, &now, &size), 0);
  EXPECT_EQ(now.l_onoff, 0);
}

TEST_F(FrameStreamTest, ADescriptorStaysWithAFrameThatIsSentInParts) {
  Pipe pipe;
  const Bytes large = pattern(1U << 20);
  append(1, large);
  append(2, large, std::move(pipe.writer));
  append(3, large);
  while (queue.flush(pair.here.get()) == FrameQueue::Flush::blocked)
    readAll();
  readAll();
  ASSERT_EQ(got.size(), 3U);
  EXPECT_FALSE(got[0].descriptor);
  EXPECT_TRUE(got[1].descriptor);
  EXPECT_FALSE(got[2].descriptor);
  EXPECT_EQ(got[1].payload, large);
}

TEST_F(FrameStreamTest, ADescriptorThatIsNoneLeavesTheFrame) {
  append(1, pattern(3), UniqueFd(987654));
  append(2, pattern(3));
  EXPECT_EQ(queue.flush(pair.here.get()), FrameQueue::Flush::done);
  readAll();
  ASSERT_EQ(got.size(), 2U);
  EXPECT_FALSE(got[0].descriptor);
}

TEST_F(FrameStreamTest, SurplusDescriptorsAreClosed) {
  Pipe first;
  Pipe surplus;
  sendRaw(pair.here.get(), frameBytes(1, pattern(3)), {first.writer.get(), surplus.writer.get()});
  sendRaw(pair.here.get(), frameBytes(2, pattern(3)), std::vector<int>(4, surplus.writer.get()));
  first.writer.reset();
  surplus.writer.reset();
  readAll();
  ASSERT_EQ(got.size(), 2U);
  EXPECT_TRUE(got[0].descriptor);
  EXPECT_FALSE(first.allWritersClosed());
  got.clear();
  EXPECT_TRUE(first.allWritersClosed());
  EXPECT_TRUE(surplus.allWritersClosed());
}

// What the kernel cuts off it closes itself; of the rest one is kept, as ever.
TEST_F(FrameStreamTest, MoreDescriptorsThanThereIsRoomForAreCutOff) {
  Pipe first;
  const Pipe surplus;
  std::vector<int> numbers(16, surplus.writer.get());
  numbers.front() = first.writer.get();
  sendRaw(pair.here.get(), frameBytes(1, pattern(3)), numbers);
  sendRaw(pair.here.get(), frameBytes(2, pattern(3)), {});
  first.writer.reset();
  readAll();
  ASSERT_EQ(got.size(), 2U);
  EXPECT_TRUE(got[0].descriptor);
  EXPECT_FALSE(got[1].descriptor);
  got.clear();
  EXPECT_TRUE(first.allWritersClosed());
}

TEST_F(FrameStreamTest, ADescriptorInTheMiddleOfAFrameIsClosed) {
  Pipe pipe;
  const Bytes frame = frameBytes(1, pattern(30));
  sendRaw(pair.here.get(), Bytes(frame.begin(), frame.begin() + 20), {});
  readAll();
  sendRaw(pair.here.get(), Bytes(frame.begin() + 20, frame.end()), {pipe.writer.get()});
  pipe.writer.reset();
  readAll();
  ASSERT_EQ(got.size(), 1U);
  EXPECT_FALSE(got[0].descriptor);
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(FrameStreamTest, ADescriptorOnACutHeaderBelongsToThatFrame) {
  Pipe pipe;
  const Bytes plain = frameBytes(1, pattern(3));
  const Bytes frame = frameBytes(2, pattern(3));
  sendRaw(pair.here.get(), plain, {});
  sendRaw(pair.here.get(), Bytes(frame.begin(), frame.begin() + 5), {pipe.writer.get()});
  sendRaw(pair.here.get(), Bytes(frame.begin() + 5, frame.end()), {});
  readAll();
  ASSERT_EQ(got.size(), 2U);
  EXPECT_FALSE(got[0].descriptor);
  EXPECT_TRUE(got[1].descriptor);
}

TEST_F(FrameStreamTest, ALengthAboveTheLimitIsBroken) {
  Bytes bad(frameHeaderBytes);
  storeFrameHeader(bad.data(), {maxPayloadBytes + 1, 1, 0});
  sendRaw(pair.here.get(), frameBytes(1, pattern(3)), {});
  sendRaw(pair.here.get(), bad, {});
  readAll();
  EXPECT_EQ(got.size(), 1U);
  EXPECT_EQ(last, FrameReader::Next::broken);
  FrameReader::Frame frame;
  EXPECT_EQ(reader.next(frame), FrameReader::Next::broken);
  EXPECT_FALSE(reader.hasFrame());
}

TEST_F(FrameStreamTest, AfterAResetTheNextStreamStartsAnew) {
  Pipe pipe;
  const Bytes frame = frameBytes(1, pattern(30));
  sendRaw(pair.here.get(), Bytes(frame.begin(), frame.begin() + 20), {pipe.writer.get()});
  pipe.writer.reset();
  readAll();
  reader.reset();
  EXPECT_TRUE(pipe.allWritersClosed());
  append(2, pattern(40));
  EXPECT_EQ(queue.flush(pair.here.get()), FrameQueue::Flush::done);
  readAll();
  ASSERT_EQ(got.size(), 1U);
  EXPECT_EQ(got[0].payload, pattern(40));
}

TEST_F(FrameStreamTest, TheEndIsToldToBothSides) {
  append(1, pattern(3));
  pair.there.reset();
  EXPECT_EQ(queue.flush(pair.here.get()), FrameQueue::Flush::failed);
  EXPECT_EQ(reader.receive(pair.here.get()), FrameReader::Receive::ended);
}

TEST_F(FrameStreamTest, ClearingTheQueueClosesItsDescriptors) {
  Pipe pipe;
  append(1, pattern(3), std::move(pipe.writer));
  queue.clear();
  EXPECT_EQ(queue.bytes(), 0U);
  EXPECT_TRUE(pipe.allWritersClosed());
  pipe.reader.reset();
  pair.here.reset();
  pair.there.reset();
  EXPECT_EQ(openDescriptors(), openBefore);
}

}  // namespace
}  // namespace tn
