#include "services/busd/listener.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "gtest/gtest.h"

namespace busd {
namespace {

class ListenerTest : public testing::Test {
 protected:
  ListenerTest() {
    std::string folder = std::filesystem::temp_directory_path() / "busd-listener-XXXXXX";
    EXPECT_NE(mkdtemp(folder.data()), nullptr);
    folder_ = folder;
    path_ = folder + "/run/tn/bus";
  }
  ~ListenerTest() override { std::filesystem::remove_all(folder_); }

  // A listening socket at the path, as another program would make it.
  UniqueFd foreign() {
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    UniqueFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    EXPECT_EQ(bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(made.get(), 1), 0);
    return made;
  }
  bool answers() {
    const UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    return connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  std::filesystem::path folder_;
  std::string path_;
};

TEST_F(ListenerTest, MakesItsFoldersAndServesAllUsers) {
  const auto listener = Listener::open(path_);
  ASSERT_TRUE(listener.has_value()) << listener.error();
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777U, 0666U);
  EXPECT_TRUE(answers());
}

TEST_F(ListenerTest, RemovesTheSocketAtTheEnd) {
  {
    const auto listener = Listener::open(path_);
    ASSERT_TRUE(listener.has_value());
    EXPECT_TRUE(std::filesystem::exists(path_));
  }
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_TRUE(Listener::open(path_).has_value());
}

TEST_F(ListenerTest, RefusesASecondBroker) {
  const auto first = Listener::open(path_);
  ASSERT_TRUE(first.has_value());
  const auto second = Listener::open(path_);
  ASSERT_FALSE(second.has_value());
  EXPECT_EQ(second.error(), "another broker serves " + path_);
  EXPECT_TRUE(answers());
}

TEST_F(ListenerTest, NeverReplacesASocketThatAnswers) {
  const UniqueFd other = foreign();
  const auto listener = Listener::open(path_);
  ASSERT_FALSE(listener.has_value());
  EXPECT_EQ(listener.error(), "another broker serves " + path_);
  EXPECT_TRUE(answers());
}

TEST_F(ListenerTest, ReplacesAStaleSocket) {
  foreign().reset();
  ASSERT_TRUE(std::filesystem::exists(path_));
  EXPECT_FALSE(answers());
  const auto listener = Listener::open(path_);
  ASSERT_TRUE(listener.has_value()) << listener.error();
  EXPECT_TRUE(answers());
}

TEST_F(ListenerTest, SaysWhatIsWrong) {
  const std::string longPath = folder_.string() + "/" + std::string(200, 'x');
  const auto tooLong = Listener::open(longPath);
  ASSERT_FALSE(tooLong.has_value());
  EXPECT_EQ(tooLong.error(), "the path " + longPath + " is too long for a socket");

  std::ofstream(folder_ / "file") << "no folder";
  const auto noFolder = Listener::open(folder_.string() + "/file/bus");
  ASSERT_FALSE(noFolder.has_value());
  EXPECT_EQ(noFolder.error(), "cannot open " + folder_.string() + "/file/bus.lock: Not a directory");

  std::filesystem::create_directories(folder_ / "bus");
  const auto occupied = Listener::open(folder_.string() + "/bus");
  ASSERT_FALSE(occupied.has_value());
  EXPECT_EQ(occupied.error(), "cannot remove " + folder_.string() + "/bus: Is a directory");
}

}  // namespace
}  // namespace busd
