#include "platform/client_pace.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "platform/unique_fd.h"

namespace {

using std::chrono::milliseconds;

class ClientPaceTest : public ::testing::Test {
 protected:
  // Bytes beyond what was sent that the socket takes; 0: as many as the kernel likes.
  [[nodiscard]] int limit() const {
    int bytes = -1;
    socklen_t size = sizeof bytes;
    EXPECT_EQ(getsockopt(socket_.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &bytes, &size), 0);
    return bytes;
  }
  void begin() { pace_.begin(socket_.get()); }
  void fullFor(milliseconds time) {
    pace_.full(now_);
    now_ += time;
    pace_.room(socket_.get(), now_);
  }

  UniqueFd socket_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  ClientPace pace_;
  ClientPace::Time now_{};
};

TEST_F(ClientPaceTest, LeavesASocketAloneBeforeMuchIsSent) {
  for (int i = 0; i < 20; ++i)
    fullFor(milliseconds(1));
  EXPECT_EQ(limit(), 0);
}

TEST_F(ClientPaceTest, LimitsUntilTheClientHasBeenQuickSeveralTimes) {
  begin();
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(limit(), 131072) << i;
    fullFor(milliseconds(50));
  }
  EXPECT_EQ(limit(), 0);
}

TEST_F(ClientPaceTest, KeepsTheLimitOfOneThatWasSlowOnce) {
  begin();
  for (int i = 0; i < 7; ++i)
    fullFor(milliseconds(1));
  fullFor(milliseconds(51));
  for (int i = 0; i < 20; ++i)
    fullFor(milliseconds(1));
  EXPECT_EQ(limit(), 131072);
}

TEST_F(ClientPaceTest, CountsOnlyWaits) {
  begin();
  for (int i = 0; i < 20; ++i)
    pace_.room(socket_.get(), now_);
  EXPECT_EQ(limit(), 131072);
}

TEST_F(ClientPaceTest, DoesNotAskAgain) {
  begin();
  for (int i = 0; i < 8; ++i)
    fullFor(milliseconds(0));
  begin();
  EXPECT_EQ(limit(), 0);
}

}  // namespace
