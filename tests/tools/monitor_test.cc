#include <csignal>
#include <unistd.h>

#include "tests/tools/verb_fixture.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using tn::FrameKind;
using tool::ExitStatus;

class Monitor : public fixture::VerbTest {
 protected:
  // The broker tells who is there, and begins to show frames.
  void begin() {
    link();
    brokerSays("{u1:4,M4:[{u2:13,s3:'userd'},{u2:68,s3:'sermgr'},{u2:1003,s3:'www'}]}");
    brokerSays("{u1:6}");
  }
  // A request of www to the service manager and its answer, one of userd that comes back, and a question to the broker.
  void showFour() {
    observed(1003, 68, FrameKind::message, "{Uff0001:[1],Uff0002:[5],uff0007:0xfe0102,uff0020:7,s1:'http'}");
    observed(68, 1003, FrameKind::message, "{Uff0001:[5],Uff0002:[1],uff0020:7,bff0021:1,u2:8080}");
    observed(68, 13, FrameKind::bounced, "{Uff0001:[1],Uff0002:[2],uff0007:0x30003}");
    observed(1003, 0, FrameKind::control, "{u1:4}");
  }
  // Which of the four frames pass, in the line form; the last one always comes, as the sign that all were seen.
  std::string passing(std::vector<const char*> filters) {
    begin();
    showFour();
    stop();
    filters.insert(filters.begin(), {"monitor", "-l"});
    EXPECT_EQ(run(filters), ExitStatus::done);
    std::string which;
    if (output_.find("s1:'http'") != std::string::npos) which += "request ";
    if (output_.find("u2:8080") != std::string::npos) which += "reply ";
    if (output_.find("uff0007:196611") != std::string::npos) which += "bounced ";
    if (output_.find("m5:{u1:4}") != std::string::npos) which += "control ";
    return which;
  }
};

TEST_F(Monitor, ShowsFramesForAPerson) {
  begin();
  showFour();
  EXPECT_EQ(run({"monitor", "-n", "4"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr(" 1003/5 (www) -> 68/1 (sermgr) request get, "));
  EXPECT_THAT(output_, HasSubstr("  s1 name: 'http'\n"));
  EXPECT_THAT(output_, HasSubstr(" 68/1 (sermgr) -> 1003/5 (www) reply get, "));
  EXPECT_THAT(output_, HasSubstr("  u2 port: 8080\n"));
  EXPECT_THAT(output_, HasSubstr(" 68/1 (sermgr) -> 13/2 (userd) bounced sendAll, "));
  EXPECT_THAT(output_, HasSubstr(" 1003 (www) -> 0 control, 7 bytes\n  u1: 4\n"));
  EXPECT_EQ(sent(1), "{u1:6}");
}

TEST_F(Monitor, ShowsFramesForPrograms) {
  begin();
  showFour();
  EXPECT_EQ(run({"monitor", "-n", "2", "-l"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("{u1:1003,u2:68,u3:0,q4:"));
  EXPECT_THAT(output_, HasSubstr(",m5:{Uff0001:[1],Uff0002:[5],uff0007:16646402,uff0020:7,s1:'http'}}\n"));
  EXPECT_THAT(output_, Not(HasSubstr("uff0007:196611")));
  const std::string line = output_.substr(0, output_.find('\n'));
  EXPECT_EQ(fixture::reading(line).get(tn::u32_id(2)), 68U);
}

TEST_F(Monitor, ShowsFramesAsJson) {
  begin();
  showFour();
  EXPECT_EQ(run({"monitor", "-n", "2", "-j"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("{\"from\":1003,\"to\":68,\"kind\":0,\"time-ms\":"));
  EXPECT_THAT(output_, HasSubstr("\"port\":8080}}\n"));
}

TEST_F(Monitor, FiltersByProgram) {
  EXPECT_EQ(passing({}), "request reply bounced control ");
  EXPECT_EQ(passing({"-p", "userd"}), "bounced ");
  EXPECT_EQ(passing({"-p", "13"}), "bounced ");
  EXPECT_EQ(passing({"--from", "www"}), "request control ");
  EXPECT_EQ(passing({"--to", "www"}), "reply ");
  EXPECT_EQ(passing({"--from", "www", "--to", "sermgr"}), "request ");
  EXPECT_EQ(passing({"-p", "nobody"}), "");
}

TEST_F(Monitor, FiltersByKind) {
  EXPECT_EQ(passing({"-k", "message"}), "request reply ");
  EXPECT_EQ(passing({"-k", "request"}), "request ");
  EXPECT_EQ(passing({"-k", "reply"}), "reply ");
  EXPECT_EQ(passing({"-k", "error"}), "");
  EXPECT_EQ(passing({"-k", "bounced"}), "bounced ");
  EXPECT_EQ(passing({"-k", "control"}), "control ");
}

TEST_F(Monitor, FiltersByPathAndCommandWithTheAnswers) {
  EXPECT_EQ(passing({"--path", "sermgr/servers"}), "request reply bounced ");
  EXPECT_EQ(passing({"--path", "68/2"}), "");
  EXPECT_EQ(passing({"--path", "68"}), "request reply bounced ");
  EXPECT_EQ(passing({"--path", "userd"}), "");
  EXPECT_EQ(passing({"-c", "get"}), "request reply ");
  EXPECT_EQ(passing({"-c", "0x30003"}), "bounced ");
  EXPECT_EQ(passing({"-c", "sendAll"}), "bounced ");
  EXPECT_EQ(passing({"-c", "get", "-k", "reply"}), "reply ");
}

TEST_F(Monitor, SaysWhatIsWrongWithAFilter) {
  EXPECT_EQ(run({"monitor", "--path", "68/"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: \"68/\" is no path such as 68/1 or sermgr/servers\n");
  EXPECT_EQ(run({"monitor", "-c", "gte"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: \"gte\" is neither a command's number nor one of its names\n");
  EXPECT_EQ(run({"monitor", "-k", "x"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: --kind needs message, request, reply, error, bounced or control, not \"x\"\n");
  EXPECT_TRUE(link_->sent.empty());
}

TEST_F(Monitor, AsksWhoANewProgramIs) {
  begin();
  observed(1007, 68, FrameKind::message, "{u1:1}");
  observed(1007, 68, FrameKind::message, "{u1:2}");
  brokerSays("{u1:4,M4:[{u2:68,s3:'sermgr'},{u2:1007,s3:'new'}]}");
  observed(1007, 68, FrameKind::message, "{u1:3}");
  EXPECT_EQ(run({"monitor", "-n", "3"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr(" 1007 -> 68 (sermgr) message, "));
  EXPECT_THAT(output_, HasSubstr(" 1007 (new) -> 68 (sermgr) message, "));
  EXPECT_EQ(link_->sent.size(), 3U);
}

TEST_F(Monitor, AsksOnceWhoIsNotThere) {
  constexpr std::string_view others = "{u1:4,M4:[{u2:13,s3:'userd'},{u2:68,s3:'sermgr'},{u2:1003,s3:'www'}]}";
  begin();
  for (int i = 0; i < 3; ++i) {
    observed(5, 1003, FrameKind::bounced, "{}");
    if (i == 0) brokerSays(others);
    observed(6, 1003, FrameKind::bounced, "{}");
    if (i == 0) brokerSays(others);
  }
  // It has come.
  observed(5, 1003, FrameKind::message, "{}");
  brokerSays("{u1:4,M4:[{u2:5,s3:'late'}]}");
  observed(5, 68, FrameKind::message, "{}");
  EXPECT_EQ(run({"monitor", "-n", "8"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr(" 5 (late) -> 68 message, "));
  // The list, the watch, and three questions.
  EXPECT_EQ(link_->sent.size(), 6U);
}

TEST_F(Monitor, ShowsFramesThatHoldNoMessage) {
  begin();
  observedBytes(13, 68, FrameKind::message, {'x', 'y', 'z'});
  EXPECT_EQ(run({"monitor", "-n", "1"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("13 (userd) -> 68 (sermgr) message, 3 bytes that are no message\n"));
}

TEST_F(Monitor, MayBeRefused) {
  link();
  brokerSays("{u1:4}");
  brokerSays("{u1:6,uff0022:0xfe0009,sff0023:'monitoring is not allowed for this user'}");
  EXPECT_EQ(run({"monitor"}), ExitStatus::refused);
  EXPECT_EQ(error_, "tn: error 0xfe0009: monitoring is not allowed for this user\n");
}

TEST_F(Monitor, EndsWithTheBroker) {
  begin();
  lose();
  EXPECT_EQ(run({"monitor"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: the bus is gone\n");
}

TEST_F(Monitor, EndsWellWhenItIsStopped) {
  begin();
  stop();
  EXPECT_EQ(run({"monitor"}), ExitStatus::done);
  EXPECT_EQ(error_, "");
}

TEST_F(Monitor, EndsQuietlyWhenItsReaderHasGone) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  std::signal(SIGPIPE, SIG_IGN);
  out_ = ::fdopen(ends[1], "w");
  begin();
  showFour();
  EXPECT_EQ(run({"monitor"}), ExitStatus::done);
  EXPECT_EQ(error_, "");
  std::fclose(out_);
}

}  // namespace
