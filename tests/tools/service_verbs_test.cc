// servers, users, sessions, log and status.

#include <fcntl.h>
#include <unistd.h>

#include "tests/tools/verb_fixture.h"

namespace {

using testing::HasSubstr;
using tool::ExitStatus;

class Verbs : public fixture::VerbTest {
 protected:
  void brokerListsWww() { brokerSays("{u1:4,M4:[{u2:1003,s3:'www'}]}"); }
};

constexpr std::string_view records =
    "{M1:[{s1:'http',bfe000a:0,u2:8080,M6:[{u1:0x7f000000,u2:0xff000000},{a3:[254,128,0,0,0,0,0,0,0,0,0,0,0,0,0,0],u4:"
    "10}],"
    "s10:'',b11:1},{s1:'https',bfe000a:1,u2:8443,u5:1,M6:[],s10:'cannot bind service connection',b11:0}]}";

TEST_F(Verbs, ServersAreATable) {
  link();
  serviceSays(records);
  EXPECT_EQ(run({"servers"}), ExitStatus::done);
  EXPECT_EQ(output_, R"(name   state  port  tls  allowed                 error
http   on     8080  no   127.0.0.0/8, fe80::/10
https  off    8443  1    everyone                cannot bind service connection
)");
  EXPECT_EQ(sent(0), "{uff0007:16646407,Uff0001:[1]}");
}

TEST_F(Verbs, ServersAreAnObjectALine) {
  link();
  serviceSays("{M1:[{s1:'a',u2:1},{s1:'b'}]}");
  EXPECT_EQ(run({"servers", "list", "-j"}), ExitStatus::done);
  EXPECT_EQ(output_, "{\"name\":\"a\",\"port\":1}\n{\"name\":\"b\"}\n");
}

TEST_F(Verbs, AServerIsChanged) {
  link();
  serviceSays("{}");
  EXPECT_EQ(run({"servers", "set", "http", "port=8081", "enabled=no", "tls=no", "allowed=10.0.0.0/8,192.168.1.7,::1"}),
            ExitStatus::done);
  EXPECT_EQ(link_->sent[0].peer, 68U);
  EXPECT_EQ(
      sent(0),
      "{s1:'http',u2:8081,bfe000a:1,u5:4294967295,M6:[{u1:167772160,u2:4278190080},"
      "{u1:3232235783,u2:4294967295},{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}],uff0007:16646403,Uff0001:[1]}");
  EXPECT_EQ(output_, "");
}

TEST_F(Verbs, AServerIsAddedAndRemoved) {
  link();
  serviceSays("{}");
  EXPECT_EQ(run({"servers", "add", "guest", "allowed=everyone"}), ExitStatus::done);
  EXPECT_EQ(sent(0), "{s1:'guest',M6:[],uff0007:16646409,Uff0001:[1]}");
  serviceSays("{}");
  EXPECT_EQ(run({"servers", "remove", "guest"}), ExitStatus::done);
  EXPECT_EQ(sent(1), "{s1:'guest',uff0007:16646410,Uff0001:[1]}");
}

TEST_F(Verbs, AChangeThatTheServerDidNotTakeIsTold) {
  link();
  serviceSays("{s10:'cannot bind service connection'}");
  EXPECT_EQ(run({"servers", "set", "http", "port=80"}), ExitStatus::refused);
  EXPECT_EQ(error_, "tn: the record is stored, but not applied: cannot bind service connection\n");
}

TEST_F(Verbs, ServersSayWhatIsWrong) {
  const auto refusal = [&](const std::vector<const char*>& words) {
    EXPECT_EQ(run(words), ExitStatus::usage);
    return error_;
  };
  EXPECT_EQ(refusal({"servers", "set", "a", "port=0"}), "tn: port needs a number from 1 to 65535, not \"0\"\n");
  EXPECT_EQ(refusal({"servers", "set", "a", "port=65536"}), "tn: port needs a number from 1 to 65535, not \"65536\"\n");
  EXPECT_EQ(refusal({"servers", "set", "a", "enabled=x"}), "tn: enabled needs yes or no, not \"x\"\n");
  EXPECT_EQ(refusal({"servers", "set", "a", "tls=x"}), "tn: tls needs the number of a certificate or no, not \"x\"\n");
  EXPECT_EQ(refusal({"servers", "set", "a", "prot=1"}),
            "tn: a server has port, enabled, tls and allowed, not \"prot\"\n");
  EXPECT_EQ(refusal({"servers", "set", "a", "port"}), "tn: \"port\" is not of the kind port=8081\n");
  for (const char* wrong : {"allowed=x", "allowed=10.0.0.0/33", "allowed=::1/129", "allowed=::1/", "allowed=10.0.0.0/x",
                            "allowed=10.0.0.0/8,,::1", "allowed=", "allowed=::1,"}) {
    EXPECT_THAT(refusal({"servers", "set", "a", wrong}), HasSubstr("allowed needs prefixes")) << wrong;
  }
  for (const auto& words : std::vector<std::vector<const char*>>{{"servers", "set"},
                                                                 {"servers", "set", "a"},
                                                                 {"servers", "remove", "a", "b"},
                                                                 {"servers", "frob"},
                                                                 {"servers", "list", "x"}}) {
    EXPECT_THAT(refusal(words), HasSubstr("tn: usage: tn servers "));
  }
  EXPECT_TRUE(link_->sent.empty());
}

TEST_F(Verbs, UsersAndGroupsAreTables) {
  link();
  serviceSays(
      "{M1:[{ufe0001:1,s1:'admin',s11:'',s12:'administrators',b1c:0,bfe000a:0,ub:0x43d0},"
      "{ufe0001:2,s1:'bob',s11:'Bob\\x1b',s12:'users',b1c:1,bfe000a:1,ub:0xd0}]}");
  EXPECT_EQ(run({"users"}), ExitStatus::done);
  EXPECT_EQ(output_, R"(name   full name  group           state     start page
admin             administrators  enabled   shown
bob    Bob\x1b    users           disabled  hidden
)");
  serviceSays("{M1:[{ufe0001:1,s1:'users',ub:0xd0,s18:'default',u2:3},{s1:'odd',ub:0x1010},{s1:'none',ub:0}]}");
  EXPECT_EQ(run({"users", "groups"}), ExitStatus::done);
  EXPECT_EQ(output_, R"(name   users  skin     policies
users      3  default  read, read-files, write-files
odd        0           read, 0x1000
none       0           none
)");
}

TEST_F(Verbs, UsersAreAddedChangedAndRemoved) {
  link();
  for (int i = 0; i < 3; ++i)
    serviceSays("{}");
  EXPECT_EQ(run({"users", "add", "bob", "password=correct horse", "full-name=Bob", "hidden=no"}), ExitStatus::done);
  EXPECT_EQ(sent(0), "{s3:'correct horse',s11:'Bob',b1c:0,s1:'bob',uff0007:16646409,Uff0001:[2]}");
  EXPECT_EQ(run({"users", "set", "bob", "disabled=yes"}), ExitStatus::done);
  EXPECT_EQ(sent(1), "{bfe000a:1,s1:'bob',uff0007:16646406,Uff0001:[2]}");
  EXPECT_EQ(run({"users", "remove", "bob"}), ExitStatus::done);
  EXPECT_EQ(sent(2), "{s1:'bob',uff0007:16646410,Uff0001:[2]}");
}

TEST_F(Verbs, GroupsAreAddedChangedAndRemoved) {
  link();
  for (int i = 0; i < 3; ++i)
    serviceSays("{}");
  EXPECT_EQ(run({"users", "groups", "add", "w", "policies=read,write-files,0x1000", "skin=bare"}), ExitStatus::done);
  EXPECT_EQ(sent(0), "{ub:4240,s18:'bare',s1:'w',uff0007:16646409,Uff0001:[3]}");
  EXPECT_EQ(run({"users", "groups", "set", "w", "policies=none"}), ExitStatus::done);
  EXPECT_EQ(sent(1), "{ub:0,s1:'w',uff0007:16646406,Uff0001:[3]}");
  EXPECT_EQ(run({"users", "groups", "remove", "w"}), ExitStatus::done);
  EXPECT_EQ(sent(2), "{s1:'w',uff0007:16646410,Uff0001:[3]}");
}

// Standard input of the program while it lives.
class Input {
 public:
  explicit Input(std::string_view text) : before_(::dup(STDIN_FILENO)) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe(ends), 0);
    EXPECT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(ends[1]);
    ::dup2(ends[0], STDIN_FILENO);
    ::close(ends[0]);
  }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  ~Input() {
    ::dup2(before_, STDIN_FILENO);
    ::close(before_);
  }

 private:
  int before_;
};

TEST_F(Verbs, APasswordIsTheFirstLineOfTheInput) {
  link();
  serviceSays("{}");
  const Input input("pass 'word'\nmore\n");
  EXPECT_EQ(run({"users", "password", "bob"}), ExitStatus::done);
  EXPECT_EQ(sent(0), "{s1:'bob',s3:'pass \\'word\\'',uff0007:131073,Uff0001:[2]}");
}

TEST_F(Verbs, WithoutAPasswordNothingIsDone) {
  {
    const Input input("");
    EXPECT_EQ(run({"users", "add", "bob"}), ExitStatus::usage);
    EXPECT_EQ(error_, "tn: no password was given\n");
  }
  const Input input(std::string(2000, 'x'));
  EXPECT_EQ(run({"users", "add", "bob"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: the password is too long\n");
  EXPECT_TRUE(link_->sent.empty());
}

TEST_F(Verbs, UsersSayWhatIsWrong) {
  for (const auto& words : std::vector<std::vector<const char*>>{{"users", "frob"},
                                                                 {"users", "add"},
                                                                 {"users", "set", "bob"},
                                                                 {"users", "password"},
                                                                 {"users", "groups", "frob"},
                                                                 {"users", "groups", "set", "w"}}) {
    EXPECT_EQ(run(words), ExitStatus::usage);
    EXPECT_THAT(error_, HasSubstr("tn: usage: tn users "));
  }
  EXPECT_EQ(run({"users", "set", "bob", "name=robert"}), ExitStatus::usage);
  EXPECT_THAT(error_, HasSubstr("a new name needs the number"));
  EXPECT_EQ(run({"users", "groups", "add", "w", "policies=reed"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: policies needs names such as read,read-files, not \"reed\"\n");
  EXPECT_TRUE(link_->sent.empty());
}

TEST_F(Verbs, SessionsAreATable) {
  link();
  brokerListsWww();
  serviceSays(
      "{M1:[{u1:7,s2:'admin',a3:[0,0,0,0,0,0,0,0,0,0,255,255,127,0,0,1],q4:65000,q5:3000,u6:17360,b7:0}],u2:1}");
  EXPECT_EQ(run({"sessions"}), ExitStatus::done);
  EXPECT_EQ(output_, "id  user   address    logged in  idle\n 7  admin  127.0.0.1  1 min      3 s\n");
  EXPECT_EQ(sent(1), "{uff0007:16646407,Uff0001:[3]}");
  brokerListsWww();
  serviceSays("{M1:[],u2:0}");
  EXPECT_EQ(run({"sessions", "list"}), ExitStatus::done);
  EXPECT_EQ(output_, "nobody is logged in\n");
}

TEST_F(Verbs, ASessionIsEnded) {
  link();
  brokerListsWww();
  serviceSays("{}");
  EXPECT_EQ(run({"sessions", "end", "7"}), ExitStatus::done);
  EXPECT_EQ(sent(1), "{ufe0001:7,uff0007:16646410,Uff0001:[3]}");
  brokerListsWww();
  serviceSays("{uff0022:0xfe0006,sff0023:'no such session'}");
  EXPECT_EQ(run({"sessions", "end", "8"}), ExitStatus::refused);
  EXPECT_EQ(error_, "tn: error 0xfe0006: no such session\n");
  EXPECT_EQ(run({"sessions", "end", "admin"}), ExitStatus::usage);
  EXPECT_EQ(run({"sessions", "end"}), ExitStatus::usage);
}

TEST_F(Verbs, AServiceThatIsNotThereIsNamed) {
  link();
  bounces();
  EXPECT_EQ(run({"log"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000e: tnrun is not on the bus\n");
  brokerSays("{u1:4,M4:[]}");
  EXPECT_EQ(run({"sessions"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000e: www is not on the bus\n");
}

TEST_F(Verbs, TheLogIsShown) {
  link();
  serviceSays("{M1:[{q1:1,q2:1000,s3:'www',s4:'adding \\x1b'},{q1:2,q2:2000,s3:'tlsd',s4:'x',b5:1}],q2:2,q3:9}");
  EXPECT_EQ(run({"log", "-n", "5", "-p", "www", "add"}), ExitStatus::done);
  EXPECT_EQ(output_, "1970-01-01 00:00:01.000 www: adding \\x1b\n1970-01-01 00:00:02.000 tlsd: x\n");
  EXPECT_EQ(sent(0), "{u2:5,s3:'add',s4:'www',uff0007:16646407,Uff0001:[2]}");
  EXPECT_EQ(error_, "");
  EXPECT_EQ(run({"log", "-n", "501"}), ExitStatus::usage);
}

TEST_F(Verbs, TheLogIsFollowedFromWhereItWas) {
  link();
  // What was lost before it began is none of the follower's business.
  serviceSays("{M1:[{q1:3,q2:1000,s3:'www',s4:'a'}],q2:3,q3:2}");
  runner_->steps.emplace_back([this] { runner_->advance(1000); });
  serviceSays("{M1:[{q1:4,q2:2000,s3:'www',s4:'b'}],q2:4}");
  stop();
  EXPECT_EQ(run({"log", "-f"}), ExitStatus::done);
  EXPECT_EQ(output_, "1970-01-01 00:00:01.000 www: a\n1970-01-01 00:00:02.000 www: b\n");
  EXPECT_EQ(error_, "");
  EXPECT_EQ(sent(0), "{uff0007:16646407,Uff0001:[2]}");
  EXPECT_EQ(sent(1), "{q1:3,u2:500,uff0007:16646407,Uff0001:[2]}");
}

TEST_F(Verbs, WhatIsMissedOfAFollowedLogIsTold) {
  const auto follow = [&](std::vector<const char*> words) {
    link();
    serviceSays("{q2:1}");
    for (const char* answer : {"{M1:[{q1:6}],q2:6,q3:4}", "{M1:[{q1:9}],q2:9,q3:1}", "{M1:[{q1:20}],q2:20}"}) {
      runner_->steps.emplace_back([this] { runner_->advance(1000); });
      serviceSays(answer);
    }
    stop();
    words.insert(words.begin(), {"log", "-f"});
    EXPECT_EQ(run(words), ExitStatus::done);
    return error_;
  };
  // Four are kept no longer; of the next three two are not shown, of the next eleven ten.
  EXPECT_EQ(follow({}),
            "tn: 4 lines of the log were lost\ntn: 2 lines of the log were lost\ntn: 10 lines of the log were lost\n");
  EXPECT_EQ(follow({"-p", "www"}), "tn: 4 lines of the log were lost\ntn: 1 lines of the log were lost\n");
  EXPECT_EQ(follow({"text"}), "tn: 4 lines of the log were lost\ntn: 1 lines of the log were lost\n");
}

TEST_F(Verbs, MoreFilteredLinesThanFitAnAnswerAreTold) {
  link();
  serviceSays("{q2:1}");
  runner_->steps.emplace_back([this] { runner_->advance(1000); });
  std::string lines = "{}";
  for (int i = 1; i < 500; ++i)
    lines += ",{}";
  serviceSays("{M1:[" + lines + "],q2:900}");
  stop();
  EXPECT_EQ(run({"log", "-f", "text"}), ExitStatus::done);
  EXPECT_EQ(error_, "tn: more lines of the log came than can be shown\n");
}

TEST_F(Verbs, AFollowedLogEndsWithTheBroker) {
  link();
  serviceSays("{q2:1}");
  lose();
  EXPECT_EQ(run({"log", "-f"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: the bus is gone\n");
}

TEST_F(Verbs, WhatNoMessageHasRoomForIsNotLeftOut) {
  const std::string text(70000, 'a');
  const std::vector<std::vector<const char*>> commands = {
      {"log", text.c_str()},
      {"log", "-p", text.c_str()},
      {"servers", "remove", text.c_str()},
      {"servers", "set", text.c_str(), "port=1"},
      {"users", "set", text.c_str(), "number=1", "full-name=x"},
      {"users", "groups", "remove", text.c_str()},
  };
  link();
  for (const auto& command : commands) {
    EXPECT_EQ(run(command), ExitStatus::usage) << command[0];
    EXPECT_THAT(error_, testing::EndsWith(" is too long\n"));
  }
  EXPECT_TRUE(link_->sent.empty());
}

constexpr std::string_view statistics =
    "{u1:5,q5:12,q6:2048,q7:1,q8:2,qa:0,M4:[{u2:68,s3:'sermgr',q5:10,q6:1000,q7:0,qa:5,qc:20,qd:21},"
    "{u2:1003,s3:'www',q5:2}]}";

TEST_F(Verbs, TheStatusPutsItTogether) {
  link();
  brokerSays(statistics);
  brokerListsWww();
  serviceSays(
      "{M1:[{s1:'http',b2:1,u3:8080,q5:3,q6:1,q7:9,q9:2,qb:100,qc:4096,qd:1,qe:2,qf:3,q10:4,u11:1,b12:1},"
      "{s1:'https',b2:1,u3:8443},{s1:'x'}],u2:1,u3:1000,q4:61000,q5:7}");
  brokerListsWww();
  serviceSays("{M1:[],u2:2}");
  serviceSays(
      "{M1:[{s1:'www',u2:1003,u3:123,u4:1,q5:61000,b6:1},{s1:'sermgr',u2:68,u3:124,q5:1000,b6:0},{s1:'sysd',u4:5}]}");
  EXPECT_EQ(run({"status"}), ExitStatus::done);
  EXPECT_EQ(output_, R"(web server   up 1 min, 1 of 1000 connections open, 7 lines of the log dropped
sessions     2
bus          12 messages, 2.0K, 1 bounced, 2 dropped, 0 queued

server    port  open  accepted  refused  2xx  3xx  4xx  5xx   in   out   late  pauses
http      8080     1         3        1    9    0    2    0  100  4.0K  1/2/3       4
https   closed     0         0        0    0    0    0    0    0     0  0/0/0       0
x          off     0         0        0    0    0    0    0    0     0  0/0/0       0

  id  program  pid  state      up  restarts  sent  bytes  received  bytes  bounced  queued
  68  sermgr   124  silent    1 s         0    10   1000        20     21        0       5
1003  www      123  runs    1 min         1     2      0         0      0        0       0
   -  sysd       0  ended    0 ms         5     -      -         -      -        -       -
)");
  EXPECT_EQ(error_, "");
}

TEST_F(Verbs, TheStatusShowsWhatThereIs) {
  link();
  brokerSays(statistics);
  brokerSays("{u1:4,M4:[]}");
  brokerSays("{u1:4,M4:[]}");
  bounces();
  EXPECT_EQ(run({"status"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("12 messages"));
  EXPECT_THAT(output_, HasSubstr("1003  www        -  -       -         -"));
  EXPECT_EQ(error_,
            "tn: www tells nothing: error 0xfe000e: www is not on the bus\n"
            "tn: www tells nothing: error 0xfe000e: www is not on the bus\n"
            "tn: tnrun tells nothing: error 0xfe000e: tnrun is not on the bus\n");
}

TEST_F(Verbs, TheStatusForPrograms) {
  const auto script = [&] {
    brokerSays("{u1:5,q5:12}");
    brokerListsWww();
    serviceSays("{u2:1}");
    brokerListsWww();
    serviceSays("{uff0022:0xfe0009,sff0023:'not allowed'}");
    serviceSays("{M1:[{s1:'www'}]}");
  };
  link();
  script();
  EXPECT_EQ(run({"status", "-j"}), ExitStatus::done);
  EXPECT_EQ(output_,
            "{\"bus\":{\"operation\":5,\"frames\":12},\"web-server\":{\"open\":1},"
            "\"supervisor\":{\"programs\":[{\"name\":\"www\"}]}}\n");
  script();
  EXPECT_EQ(run({"status", "-l"}), ExitStatus::done);
  EXPECT_EQ(output_, "{m1:{u1:5,q5:12},m2:{u2:1},m4:{M1:[{s1:'www'}]}}\n");
  EXPECT_EQ(fixture::reading(output_).get(tn::message_id(2))->get(tn::u32_id(2)), 1U);
}

TEST_F(Verbs, TheStatusEndsWhenTheBrokerGoesAway) {
  link();
  brokerSays(statistics);
  lose();
  EXPECT_EQ(run({"status"}), ExitStatus::unreachable);
  EXPECT_THAT(error_, HasSubstr("tn: the bus is gone\n"));
}

}  // namespace
