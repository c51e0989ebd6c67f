#include "tools/reach.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace {

namespace fs = std::filesystem;

class Reach : public testing::Test {
 protected:
  Reach() {
    std::string name = (fs::temp_directory_path() / "reach_test.XXXXXX").string();
    folder_ = ::mkdtemp(name.data());
  }
  ~Reach() override { fs::remove_all(folder_); }

  [[nodiscard]] std::string path() const { return folder_ + "/bus"; }
  void bind() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::ranges::copy(path(), address.sun_path);
    ASSERT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }

  std::string folder_;
  UniqueFd socket_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

TEST_F(Reach, NothingThere) {
  EXPECT_EQ(tool::whyUnreachable(path()), "cannot reach the bus at " + path() + ": No such file or directory");
}

TEST_F(Reach, NobodyListens) {
  bind();
  EXPECT_EQ(tool::whyUnreachable(path()), "cannot reach the bus at " + path() + ": Connection refused");
}

TEST_F(Reach, SomebodyListens) {
  bind();
  ASSERT_EQ(::listen(socket_.get(), 4), 0);
  EXPECT_EQ(tool::whyUnreachable(path()), std::nullopt);
}

TEST_F(Reach, TheBacklogIsFull) {
  bind();
  ASSERT_EQ(::listen(socket_.get(), 0), 0);
  // A connection that was made stays in the backlog until it is accepted, also when it is closed.
  std::optional<std::string> reason;
  for (int i = 0; i < 10 && !reason; ++i)
    reason = tool::whyUnreachable(path());
  EXPECT_EQ(reason, "cannot reach the bus at " + path() + ": Resource temporarily unavailable");
}

TEST_F(Reach, ThePathIsTooLong) {
  const std::string far(200, 'x');
  EXPECT_EQ(tool::whyUnreachable(far), "cannot reach the bus at " + far + ": File name too long");
}

}  // namespace
