#include "services/busd/out_queue.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "gtest/gtest.h"
#include "services/busd/wire.h"

namespace busd {
namespace {

using Payload = std::vector<std::uint8_t>;

class OutQueueTest : public testing::Test {
 protected:
  OutQueueTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    near_.reset(ends[0]);
    far_.reset(ends[1]);
  }

  // One receive at the far end.
  Received take(Payload& out, std::size_t most = 1U << 20) {
    Payload space(most);
    iovec part{space.data(), space.size()};
    Received received = receive(far_.get(), {&part, 1});
    out.insert(out.end(), space.begin(), space.begin() + static_cast<std::ptrdiff_t>(received.count));
    return received;
  }
  Payload takeAll() {
    Payload all;
    while (take(all).count > 0) {
    }
    return all;
  }
  static PassedFd someDescriptor() { return PassedFd(UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC))); }

  UniqueFd near_;
  UniqueFd far_;
  std::size_t total_ = 0;
  OutQueue queue_{total_};
};

TEST_F(OutQueueTest, SendsInOrderAndCounts) {
  Payload expected;
  for (int i = 0; i < 1000; ++i) {
    const Payload piece(static_cast<std::size_t>(1 + i % 90), static_cast<std::uint8_t>(i));
    ASSERT_TRUE(queue_.append(piece));
    expected.insert(expected.end(), piece.begin(), piece.end());
  }
  EXPECT_EQ(queue_.bytes(), expected.size());
  EXPECT_EQ(total_, expected.size());
  EXPECT_TRUE(queue_.send(near_.get()));
  EXPECT_TRUE(queue_.empty());
  EXPECT_EQ(total_, 0U);
  EXPECT_EQ(takeAll(), expected);
}

TEST_F(OutQueueTest, GoesOnWhereTheSocketWasFull) {
  Payload expected(3U << 20);
  for (std::size_t i = 0; i < expected.size(); ++i)
    expected[i] = static_cast<std::uint8_t>(i * 7 / 5);
  Bytes block = Bytes::tryMake(1U << 20);
  std::memcpy(block.data(), expected.data(), block.size());
  queue_.append(std::move(block), 100, PassedFd());
  ASSERT_TRUE(queue_.append(std::span(expected).subspan(1U << 20)));
  EXPECT_EQ(queue_.bytes(), expected.size() - 100);
  Payload got;
  for (int i = 0; i < 1000 && !queue_.empty(); ++i) {
    ASSERT_TRUE(queue_.send(near_.get()));
    take(got, 70000);
    EXPECT_EQ(total_, queue_.bytes());
  }
  const Payload rest = takeAll();
  got.insert(got.end(), rest.begin(), rest.end());
  EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.begin() + 100, expected.end()));
}

// More may be appended while earlier bytes wait.
TEST_F(OutQueueTest, TakesMoreWhileItWaits) {
  Payload expected;
  Payload got;
  for (int i = 0; i < 400; ++i) {
    const Payload piece(5000, static_cast<std::uint8_t>(i));
    ASSERT_TRUE(queue_.append(piece));
    expected.insert(expected.end(), piece.begin(), piece.end());
    ASSERT_TRUE(queue_.send(near_.get()));
    if (i % 3 == 0) take(got, 9000);
  }
  while (!queue_.empty()) {
    take(got);
    ASSERT_TRUE(queue_.send(near_.get()));
  }
  const Payload rest = takeAll();
  got.insert(got.end(), rest.begin(), rest.end());
  EXPECT_TRUE(got == expected);
}

TEST_F(OutQueueTest, SendsADescriptorWithItsOwnBytesAlone) {
  ASSERT_TRUE(queue_.append(Payload(10, 'a')));
  ASSERT_TRUE(queue_.append(Payload(20, 'b'), someDescriptor()));
  ASSERT_TRUE(queue_.append(Payload(30, 'c')));
  ASSERT_TRUE(queue_.append(Payload(40, 'd'), someDescriptor()));
  EXPECT_EQ(queue_.descriptors(), 2U);
  ASSERT_TRUE(queue_.send(near_.get()));
  EXPECT_EQ(queue_.descriptors(), 0U);
  Payload first;
  const Received one = take(first);
  EXPECT_EQ(one.passed, Received::Descriptor::one);
  EXPECT_EQ(first.size(), 30U);  // the receive ends behind what carried the descriptor
  Payload second;
  const Received two = take(second);
  EXPECT_EQ(two.passed, Received::Descriptor::one);
  EXPECT_EQ(second.size(), 70U);
}

TEST_F(OutQueueTest, ClosesWhatItDoesNotSend) {
  PassedFd descriptor = someDescriptor();
  const int number = descriptor.get();
  {
    OutQueue queue(total_);
    ASSERT_TRUE(queue.append(Payload(20, 'b'), std::move(descriptor)));
    EXPECT_NE(fcntl(number, F_GETFD), -1);
    EXPECT_EQ(total_, 20U);
  }
  EXPECT_EQ(fcntl(number, F_GETFD), -1);
  EXPECT_EQ(total_, 0U);
}

TEST_F(OutQueueTest, SaysWhenThePeerIsGone) {
  ASSERT_TRUE(queue_.append(Payload(10, 'a')));
  far_.reset();
  EXPECT_FALSE(queue_.send(near_.get()));
}

}  // namespace
}  // namespace busd
