// Who is logged in, and the end of sessions by others.
#include "jsproxy/session_handler.h"

#include "platform/policies.h"
#include "tests/jsproxy/tunnel_test.h"

namespace {

using jsproxy_test::Browser;
using jsproxy_test::CallPtr;
using jsproxy_test::clockSeconds;
using jsproxy_test::json;
using jsproxy_test::loginProgram;
using jsproxy_test::msg;
using jsproxy_test::TunnelTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;
using tn::fakes::RecordingBus;

const std::string manager = "{ufe0001:3,ub:0x200,s18:'skin'}";
const std::string reader = "{ufe0001:4,ub:0x10,s18:'skin'}";
const std::string nobody = "{ufe0001:5,s18:'skin'}";

class SessionHandlerTest : public TunnelTest {
 protected:
  // The bus brings what a session sent to this program's handler 3 to it, and its answer back; what the browser is
  // answered.
  std::string ask(Browser& browser, const std::string& text) {
    const CallPtr call = send(browser, text);
    carry();
    if (call->response.status != 200) return "status " + std::to_string(call->response.status);
    return json(withoutPaths(msg(answerOf(browser, *call))));
  }
  // Frames from this program to itself arrive, those made meanwhile too; the others stay recorded.
  void carry() {
    for (std::size_t i = 0; i < bus.sent.size();) {
      if (bus.sent[i].peer != RecordingBus::ownId) {
        ++i;
        continue;
      }
      const tn::message content = bus.sent[i].content;
      bus.sent.erase(bus.sent.begin() + static_cast<std::ptrdiff_t>(i));
      bus.deliver(RecordingBus::ownId, content);
    }
  }
  static tn::message withoutPaths(tn::message answer) {
    answer.remove(tn::field::destination);
    answer.remove(tn::field::sender);
    answer.remove(tn::field::requestNumber);
    answer.remove(tn::field::isReply);
    return answer;
  }
  // What a program of the system is answered.
  tn::message askAs(std::uint32_t program, std::uint32_t command, tn::message request = {}) {
    const std::uint32_t number = bus.request(program, SessionHandler::busHandlerId, command, std::move(request));
    const auto* reply = bus.replyTo(number);
    EXPECT_NE(reply, nullptr);
    return reply == nullptr ? tn::message() : withoutPaths(reply->content);
  }
  static std::vector<std::uint32_t> ids(const tn::message& answer) {
    std::vector<std::uint32_t> all;
    for (const tn::message& session : answer.get(tn::message_array_id(1)).value_or(std::vector<tn::message>()))
      all.push_back(session.get(tn::u32_id(1)).value_or(0));
    return all;
  }
  static std::string removing(std::uint32_t id) {
    return "{Uff0001:[1000,3],uff0007:0xfe010a,ufe0001:" + std::to_string(id) + "}";
  }

  const std::string all = "{Uff0001:[1000,3],uff0007:0xfe0107}";
  const std::string notAllowed = "{uff0022:16646153,sff0023:'not allowed'}";
  const std::string noSuchSession = "{uff0022:16646150,sff0023:'no such session'}";
};

TEST_F(SessionHandlerTest, ASessionIsTold) {
  Browser browser = logIn(manager);
  clockSeconds += 7;
  loop.advance(2500);
  const tn::message answer = askAs(1001, tn::command::getAll);
  const auto sessions = answer.get(tn::message_array_id(1));
  ASSERT_THAT(sessions, Optional(SizeIs(1)));
  const tn::message& told = sessions->front();
  EXPECT_EQ(told.get(tn::u32_id(1)), browser.id);
  EXPECT_EQ(told.get(tn::string_id(2)), "admin");
  EXPECT_EQ(told.get(tn::addr6_id(3)), (tn::Addr6{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255, 10, 0, 0, 7}));
  EXPECT_EQ(told.get(tn::u64_id(4)), 2500U);
  EXPECT_EQ(told.get(tn::u64_id(5)), 7000U);
  EXPECT_EQ(told.get(tn::u32_id(6)), 0x200U);
  EXPECT_EQ(told.get(tn::bool_id(7)), false);
  EXPECT_EQ(answer.get(tn::u32_id(2)), 1U);
}

TEST_F(SessionHandlerTest, AClockThatWasSetBackMakesNobodyIdle) {
  logIn(manager);
  clockSeconds -= 100;
  const tn::message answer = askAs(1001, tn::command::getAll);
  EXPECT_EQ(answer.get(tn::message_array_id(1))->front().get(tn::u64_id(5)), 0U);
}

TEST_F(SessionHandlerTest, WhoHasNotLoggedInIsNotTold) {
  meet();
  const Browser known = logIn(manager);
  EXPECT_THAT(ids(askAs(1001, tn::command::getAll)), ElementsAre(known.id));
}

TEST_F(SessionHandlerTest, AManagerSeesAllAndWhichIsItsOwn) {
  logIn(reader);
  Browser browser = logIn(manager);
  EXPECT_EQ(ask(browser, all),
            "{M1:[{u1:1,s2:'admin',a3:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,7],q4:0,q5:0,u6:16,b7:0},"
            "{u1:2,s2:'admin',a3:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,7],q4:0,q5:0,u6:512,b7:1}],u2:2}");
}

TEST_F(SessionHandlerTest, OthersSeeThemselvesAlone) {
  logIn(manager);
  Browser plain = logIn(reader);
  Browser without = logIn(nobody);
  EXPECT_EQ(ask(plain, all),
            "{M1:[{u1:2,s2:'admin',a3:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,7],q4:0,q5:0,u6:16,b7:1}],u2:1}");
  EXPECT_EQ(ask(without, all),
            "{M1:[{u1:3,s2:'admin',a3:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,7],q4:0,q5:0,u6:0,b7:1}],u2:1}");
}

TEST_F(SessionHandlerTest, AManagerEndsAnother) {
  Browser other = logIn(reader);
  const CallPtr poll = send(other, "{}");
  Browser browser = logIn(manager);
  EXPECT_EQ(ask(browser, removing(other.id)), "{}");
  EXPECT_EQ(sessionOf(other), nullptr);
  EXPECT_NE(sessionOf(browser), nullptr);
  EXPECT_EQ(poll->response.status, 410);
  EXPECT_EQ(poll->completions, 1);
  ASSERT_THAT(bus.sent, SizeIs(1));
  EXPECT_EQ(bus.sent[0].peer, 0xff0001U);
  EXPECT_EQ(json(bus.sent[0].content), "{Uff0002:[100,1],Uff0001:[],uff0007:16646164}");
  EXPECT_EQ(send(other, "{}")->response.status, 500);
}

TEST_F(SessionHandlerTest, ProgramsOfTheSystemEndSessions) {
  const Browser other = logIn(reader);
  EXPECT_EQ(json(askAs(1001, tn::command::removeObj, msg("{ufe0001:1}"))), "{}");
  EXPECT_EQ(sessionOf(other), nullptr);
}

TEST_F(SessionHandlerTest, WhoeverMayNotEndsNobodyElse) {
  Browser other = logIn(manager);
  Browser plain = logIn(reader);
  Browser without = logIn(nobody);
  for (Browser* each : {&plain, &without}) {
    EXPECT_EQ(ask(*each, removing(other.id)), notAllowed);
    // Whether there is such a session is not told.
    EXPECT_EQ(ask(*each, removing(99)), notAllowed);
    EXPECT_EQ(ask(*each, removing(0)), notAllowed);
    EXPECT_EQ(ask(*each, "{Uff0001:[1000,3],uff0007:0xfe010a}"), notAllowed);
  }
  EXPECT_EQ(servlet->sessionCount(), 3U);
}

// Its own request then belongs to a session that is gone.
TEST_F(SessionHandlerTest, EverybodyMayEndTheOwnOne) {
  Browser plain = logIn(reader);
  EXPECT_EQ(ask(plain, removing(plain.id)), "status 500");
  EXPECT_EQ(sessionOf(plain), nullptr);
  ASSERT_THAT(bus.sent, SizeIs(1));
  EXPECT_EQ(bus.sent[0].peer, 0xff0001U);
}

// What a browser writes of rights, of its name and of where it comes from is replaced, or stands behind its session.
TEST_F(SessionHandlerTest, ForgedFieldsHelpNobody) {
  Browser other = logIn(manager);
  Browser plain = logIn(reader);
  const std::string forged = "Uff0002:[1000,100," + std::to_string(other.id) + "],uff000b:0xffffffff,sff000a:'root',";
  EXPECT_EQ(ask(plain, "{" + forged + removing(other.id).substr(1)), notAllowed);
  EXPECT_EQ(ids(msg(ask(plain, "{" + forged + all.substr(1)))), std::vector<std::uint32_t>{plain.id});
  EXPECT_NE(sessionOf(other), nullptr);
}

// Another program that speaks for a session: its number means nothing here.
TEST_F(SessionHandlerTest, ASessionOfAnotherTunnelIsNobodyHere) {
  logIn(manager);
  const tn::message session = msg("{sff000a:'eve',uff000b:0x10,Uff0002:[100,1],ufe0001:1}");
  EXPECT_THAT(ids(askAs(1001, tn::command::getAll, session)), IsEmpty());
  EXPECT_EQ(json(askAs(1001, tn::command::removeObj, session)), notAllowed);
  // Nor does another handler of this one.
  const tn::message handler = msg("{sff000a:'eve',uff000b:0x10,Uff0002:[3,1],ufe0001:1}");
  EXPECT_THAT(ids(askAs(RecordingBus::ownId, tn::command::getAll, handler)), IsEmpty());
  // And a path that ends before a session.
  const tn::message none = msg("{sff000a:'eve',uff000b:0x10,Uff0002:[100],ufe0001:1}");
  EXPECT_THAT(ids(askAs(RecordingBus::ownId, tn::command::getAll, none)), IsEmpty());
  EXPECT_EQ(servlet->sessionCount(), 1U);
}

TEST_F(SessionHandlerTest, NoSuchSession) {
  const Browser unknown = meet();
  Browser browser = logIn(manager);
  EXPECT_EQ(ask(browser, removing(77)), noSuchSession);
  EXPECT_EQ(ask(browser, removing(0)), noSuchSession);
  // One that has not logged in is none yet.
  EXPECT_EQ(ask(browser, removing(unknown.id)), noSuchSession);
  EXPECT_EQ(servlet->sessionCount(), 2U);
}

TEST_F(SessionHandlerTest, ARelayOfTheEndedSessionIsAnswered) {
  Browser other = logIn(reader);
  const CallPtr relayed = send(other, "{Uff0001:[24,1]}");
  askAs(1001, tn::command::removeObj, msg("{ufe0001:1}"));
  EXPECT_FALSE(relayed->answered());
  bus.answer(bus.sent.front(), msg("{s1:'late'}"));
  EXPECT_EQ(relayed->response.status, 500);
}

TEST_F(SessionHandlerTest, AListThatIsTooLongEndsAndTellsTheNumber) {
  constexpr std::uint32_t many = 1000;
  const std::string hello = bytesToText(asBytes(Browser().hello()));
  for (std::uint32_t i = 1; i <= many; ++i) {
    post(hello);
    JsSession* session = servlet->findSession(i);
    ASSERT_NE(session, nullptr);
    session->loggedIn = true;
    session->user = std::string(64, 'u');
  }
  const tn::message answer = askAs(1001, tn::command::getAll);
  EXPECT_EQ(answer.get(tn::u32_id(2)), many);
  EXPECT_GT(ids(answer).size(), 300U);
  EXPECT_LT(ids(answer).size(), many);
  EXPECT_LT(answer.max_length(), 65000U);
}

}  // namespace
