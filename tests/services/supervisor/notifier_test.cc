#include "services/supervisor/notifier.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "tests/fakes/fake_runner.h"

namespace tnrun {
namespace {

using Told = std::vector<std::string>;

// Who started the supervisor: a socket without a file, or with one.
class Starter {
 public:
  explicit Starter(const std::string& name) : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length), 0) << std::strerror(errno);
  }

  // What it was told since the last call.
  Told told() {
    Told lines;
    char text[256];
    for (ssize_t got = recv(socket_.get(), text, sizeof text, 0); got >= 0;
         got = recv(socket_.get(), text, sizeof text, 0))
      lines.emplace_back(text, static_cast<std::size_t>(got));
    return lines;
  }

 private:
  UniqueFd socket_;
};

std::string ownName() {
  return "@tarn-notifier-test-" + std::to_string(getpid());
}

std::string ownPid() {
  return std::to_string(getpid());
}

TEST(Notifier, TellsWhenTheSystemIsReady) {
  Starter starter(ownName());
  tn::fakes::FakeRunner runner;
  Notifier notifier({ownName(), {}, {}}, runner.timers());
  EXPECT_EQ(starter.told(), Told{});
  notifier.linked();
  EXPECT_EQ(starter.told(), Told{"READY=1"});
  notifier.linked();
  runner.advance(3'600'000);
  EXPECT_EQ(starter.told(), Told{});
  notifier.stopping();
  EXPECT_EQ(starter.told(), Told{"STOPPING=1"});
}

TEST(Notifier, TellsToASocketWithAFile) {
  const std::string path = testing::TempDir() + "notifier-" + ownPid();
  Starter starter(path);
  tn::fakes::FakeRunner runner;
  Notifier notifier({path, {}, {}}, runner.timers());
  notifier.linked();
  EXPECT_EQ(starter.told(), Told{"READY=1"});
  unlink(path.c_str());
}

TEST(Notifier, GivesSignsOfLifeTwiceInTheTimeAllowed) {
  Starter starter(ownName());
  tn::fakes::FakeRunner runner;
  Notifier notifier({ownName(), "30000000", ownPid()}, runner.timers());
  EXPECT_EQ(notifier.intervalMs(), 15'000U);
  runner.advance(60'000);
  EXPECT_EQ(starter.told(), Told{});
  notifier.linked();
  EXPECT_EQ(starter.told(), (Told{"READY=1", "WATCHDOG=1"}));
  runner.advance(14'999);
  EXPECT_EQ(starter.told(), Told{});
  runner.advance(1);
  EXPECT_EQ(starter.told(), Told{"WATCHDOG=1"});
  notifier.stopping();
  runner.advance(15'000);
  EXPECT_EQ(starter.told(), (Told{"STOPPING=1", "WATCHDOG=1"}));
}

TEST(Notifier, WithoutTheBrokerThereIsNoSignOfLife) {
  Starter starter(ownName());
  tn::fakes::FakeRunner runner;
  const Notifier notifier({ownName(), "30000000", {}}, runner.timers());
  runner.advance(60'000);
  EXPECT_EQ(starter.told(), Told{});
}

TEST(Notifier, KnowsWhoseSignOfLifeIsMeant) {
  tn::fakes::FakeRunner runner;
  const auto interval = [&runner](const char* usec, const std::optional<std::string>& pid) {
    return Notifier({{}, usec, pid}, runner.timers()).intervalMs();
  };
  EXPECT_EQ(interval("3000000", {}), 1500U);
  EXPECT_EQ(interval("3000000", ownPid()), 1500U);
  EXPECT_EQ(interval("3000000", "1"), 0U);
  EXPECT_EQ(interval("3000000", "me"), 0U);
  EXPECT_EQ(interval("1", {}), 1U);
  EXPECT_EQ(interval("0", {}), 0U);
  EXPECT_EQ(interval("", {}), 0U);
  EXPECT_EQ(interval("3s", {}), 0U);
  EXPECT_EQ(interval("18446744073709551615", {}), 4'294'967'295U);
}

TEST(Notifier, SocketsThatAreNoneAreLeftAlone) {
  tn::fakes::FakeRunner runner;
  for (const std::string& name : {std::string(), std::string("@"), std::string("relative"), "/" + std::string(200, 'a'),
                                  "@no-such-" + ownPid()}) {
    Notifier notifier({name, "1000000", {}}, runner.timers());
    notifier.linked();
    notifier.stopping();
    EXPECT_FALSE(runner.timers().nextDeadline().has_value()) << name;
  }
}

TEST(Notifier, AStarterThatWentAwayHarmsNobody) {
  tn::fakes::FakeRunner runner;
  auto starter = std::make_optional<Starter>(ownName());
  Notifier notifier({ownName(), "1000000", {}}, runner.timers());
  starter.reset();
  notifier.linked();
  runner.advance(10'000);
  notifier.stopping();
}

// Whoever has started the system waits for this one word.
TEST(Notifier, ThatTheSystemIsReadyIsTriedAgain) {
  Starter starter(ownName());
  tn::fakes::FakeRunner runner;
  Notifier notifier({ownName(), {}, {}}, runner.timers());
  testing::internal::CaptureStderr();
  // More than its queue holds.
  for (int i = 0; i < 10'000; ++i)
    notifier.stopping();
  notifier.linked();
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(starter.told().empty());
  runner.advance(Notifier::retryMs);
  EXPECT_EQ(starter.told(), Told{"READY=1"});
  runner.advance(10 * Notifier::retryMs);
  EXPECT_EQ(starter.told(), Told{});
}

TEST(Notifier, TheVariablesAreTaken) {
  setenv("NOTIFY_SOCKET", "/run/x", 1);
  setenv("WATCHDOG_USEC", "5", 1);
  setenv("WATCHDOG_PID", "7", 1);
  const Notifier::Wishes wishes = Notifier::takeWishes();
  EXPECT_EQ(wishes.socket, "/run/x");
  EXPECT_EQ(wishes.interval, "5");
  EXPECT_EQ(wishes.process, "7");
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
    EXPECT_EQ(getenv(name), nullptr) << name;
  EXPECT_FALSE(Notifier::takeWishes().socket.has_value());
}

}  // namespace
}  // namespace tnrun
