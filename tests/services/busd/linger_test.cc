#include <array>
#include <chrono>
#include <cstring>
#include <netinet/in.h>
#include <sys/resource.h>

#include "platform/byte_order.h"
#include "services/busd/passed_fd.h"
#include "tests/services/busd/peer.h"

namespace busd {
namespace {

using std::chrono::seconds;

// How long the sockets of these tests linger, and what is far enough below that to be no such waiting.
constexpr seconds lingering{60};
constexpr seconds atOnce{30};
// As many descriptors as the kernel takes with one send.
constexpr std::size_t mostAtOnce = 253;

class LingerTest : public BrokerTest {
 protected:
  explicit LingerTest(const Limits& limits = {}) : BrokerTest(limits) {}
  ~LingerTest() override { EXPECT_LT(std::chrono::steady_clock::now() - begin_, atOnce); }

  // A connected socket that is full, and whose peer does not read: its last close waits.
  UniqueFd fullSocket() {
    const UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    storeBe32(reinterpret_cast<std::uint8_t*>(&address.sin_addr), INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listener.get(), any, length), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    EXPECT_EQ(getsockname(listener.get(), any, &length), 0);
    UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(socket.get(), any, length), 0);
    peer_.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const linger option{1, static_cast<int>(lingering.count())};
    EXPECT_EQ(setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &option, sizeof option), 0);
    const Payload some(1U << 16);
    while (send(socket.get(), some.data(), some.size(), MSG_DONTWAIT) > 0) {
    }
    return socket;
  }

  // Sends bytes with a full socket, of which no copy is kept, behind so many other descriptors.
  void sendFull(int socket, Payload bytes, std::size_t others = 0) {
    const UniqueFd other(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const UniqueFd full = fullSocket();
    std::vector<int> numbers(others, other.get());
    numbers.push_back(full.get());
    sendWith(socket, std::move(bytes), numbers);
  }
  static void sendWith(int socket, Payload bytes, std::span<const int> numbers) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(mostAtOnce * sizeof(int))> control{};
    iovec part{bytes.data(), bytes.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = CMSG_SPACE(numbers.size_bytes());
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(numbers.size_bytes());
    std::memcpy(CMSG_DATA(rights), numbers.data(), numbers.size_bytes());
    ASSERT_EQ(sendmsg(socket, &header, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  static Payload toNobody() { return frameOf(68, tn::FrameKind::message, bytesOf("x")); }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  UniqueFd peer_;
};

// What closes last is the broker when the receiver is quicker.
TEST_F(LingerTest, DeliveredAndClosedByItsReceiver) {
  PassedFd passed(fullSocket());
  passed.delivered();
}

TEST_F(LingerTest, NotDelivered) {
  Peer from = joined();
  sendFull(from.fd(), toNobody());
  EXPECT_EQ(from.expectFrame().kind, tn::FrameKind::bounced);
}

TEST_F(LingerTest, BehindMoreThanAFrameMayCarry) {
  Peer from = joined();
  sendFull(from.fd(), toNobody(), mostAtOnce - 1);
  EXPECT_TRUE(from.disconnected());
}

// The kernel ends a receive behind a descriptor, so the second frame is never read.
TEST_F(LingerTest, UnreadWhenItsSenderIsDisconnected) {
  Peer from = joined();
  const UniqueFd other(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int number = other.get();
  sendWith(from.fd(), Payload(tn::frameHeaderBytes, 0xff), {&number, 1});
  sendFull(from.fd(), toNobody());
  EXPECT_TRUE(from.disconnected());
}

class FullBrokerTest : public LingerTest {
 protected:
  static Limits nobody() {
    Limits limits;
    limits.clients = limits.trustedClients = 0;
    return limits;
  }
  FullBrokerTest() : LingerTest(nobody()) {}
};

TEST_F(FullBrokerTest, UnreadWhenAConnectionIsRefused) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const UniqueFd program(ends[0]);
  UniqueFd connection(ends[1]);
  sendFull(program.get(), toNobody());
  EXPECT_FALSE(broker_.adopt(std::move(connection), 0));
}

class ScarceTest : public LingerTest {
 protected:
  static Limits scarce() {
    Limits limits;
    limits.scarceFrom = 0;
    return limits;
  }
  ScarceTest() : LingerTest(scarce()) {}
};

TEST_F(ScarceTest, ThereIsNoNumberForIt) {
  Peer from = joined();
  sendFull(from.fd(), toNobody());
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  settle();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(from.expectFrame().kind, tn::FrameKind::bounced);
}

}  // namespace
}  // namespace busd
