#include "services/sermgr/manager.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>

#include "platform/bus/text.h"
#include "platform/log.h"
#include "tests/fakes/recording_bus.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using tn::fakes::RecordingBus;
using tn::fakes::TestLooper;

constexpr std::uint32_t asker = 1500;   // whoever gives commands
constexpr std::uint32_t server = 1700;  // a program named www
constexpr std::uint32_t secondServer = 1701;

tn::message text(std::string_view typed) {
  tn::message read;
  EXPECT_FALSE(tn::readText(typed, read).has_value()) << typed;
  return read;
}

tn::message program(std::uint32_t id, std::string_view name) {
  tn::message listed;
  listed.insert(tn::u32_id(2), id);
  listed.insert(tn::string_id(3), name);
  return listed;
}

class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "sermgr_manager_XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    ::testing::internal::CaptureStdout();
    begin();
  }
  void TearDown() override {
    end();
    drainLog();
    ::testing::internal::GetCapturedStdout();
    std::filesystem::remove_all(directory_);
  }

  // Starts the service, as the supervisor would.
  void begin() {
    answered_ = 0;
    loop_ = std::make_unique<TestLooper>();
    store_ = std::make_unique<sermgr::Store>(directory_ + "/servers.db");
    manager_ = std::make_unique<sermgr::Manager>(*store_);
    manager_->start();
    loop_->looper.addHandler(sermgr::handlerId, *manager_);
  }
  void end() {
    manager_.reset();
    store_.reset();
    loop_.reset();
  }
  void beginAgain() {
    end();
    begin();
  }

  RecordingBus& bus() { return loop_->bus; }

  std::uint32_t ask(std::uint32_t command, std::string_view typed = "{}", std::uint32_t from = asker) {
    return bus().request(from, sermgr::handlerId, command, text(typed));
  }

  // The answer as it was typed back, without what carried it; "none" when there is none yet.
  std::string answerTo(std::uint32_t number) {
    const RecordingBus::Sent* reply = bus().replyTo(number);
    if (reply == nullptr) return "none";
    if (tn::isError(reply->content)) {
      const auto code = reply->content.get(tn::field::errorCode).value_or(0);
      return std::string(NumberText(code, 16)) + ' ' + tn::getError(reply->content);
    }
    tn::message content;
    reply->content.forEach([&content, reply](const tn::message::Field& found) {
      if (found.type == tn::FieldType::messageArray) {
        content.insert_vector(tn::message_array_id(found.id), *reply->content.get(tn::message_array_id(found.id)));
      }
      if (found.id >= 0xfe0000 && found.id != tn::field::disabled.id) return;
      if (found.type == tn::FieldType::u32) {
        content.insert(tn::u32_id(found.id), *reply->content.get(tn::u32_id(found.id)));
      }
      if (found.type == tn::FieldType::string) {
        content.insert(tn::string_id(found.id), *reply->content.get(tn::string_id(found.id)));
      }
      if (found.type == tn::FieldType::boolean) {
        content.insert(tn::bool_id(found.id), *reply->content.get(tn::bool_id(found.id)));
      }
    });
    return tn::writeText(content);
  }

  // The records' texts, as getAll lists them.
  std::vector<std::string> records() {
    const std::uint32_t number = ask(tn::command::getAll);
    std::vector<std::string> texts;
    const auto listed = bus().replyTo(number)->content.get(tn::message_array_id(1));
    EXPECT_TRUE(listed.has_value());
    for (const tn::message& record : listed.value_or(std::vector<tn::message>())) {
      std::string line(record.get(tn::string_id(1)).value_or("?"));
      line.append(record.get(tn::field::disabled).value_or(false) ? " off" : " on");
      line.append(" ").append(NumberText(record.get(tn::u32_id(2)).value_or(0)));
      line.append(record.get(tn::bool_id(0x11)).value_or(false) ? " applied" : "");
      if (const auto left = record.get(tn::u32_id(0x12))) line.append(" for ").append(NumberText(*left)).append(" s");
      const auto error = record.get(tn::string_id(0x10)).value_or("?");
      if (!error.empty()) line.append(": ").append(error);
      texts.push_back(std::move(line));
    }
    return texts;
  }

  // The broker answers every question for the programs that is open.
  void list(const std::vector<tn::message>& programs) {
    tn::message answer;
    answer.insert(tn::u32_id(1), tn::control::list);
    answer.insert_vector(tn::message_array_id(4), programs);
    const std::size_t asked = questions();
    for (; answered_ < asked; ++answered_)
      bus().answerControl(answer);
    loop_->advance(0);
  }
  void listServer() { list({program(68, "sermgr"), program(server, "www"), program(asker, "tn")}); }

  std::size_t questions() {
    std::size_t count = 0;
    for (const RecordingBus::Sent& frame : bus().sent) {
      if (frame.kind == tn::FrameKind::control && frame.content.get(tn::u32_id(1)) == tn::control::list) ++count;
    }
    return count;
  }

  // Commands to a program that have not been looked at yet: everything to it that is no reply.
  std::vector<const RecordingBus::Sent*> commandsTo(std::uint32_t id) {
    std::vector<const RecordingBus::Sent*> commands;
    for (const RecordingBus::Sent& frame : bus().sent) {
      const bool message = frame.kind == tn::FrameKind::message && frame.peer == id;
      if (message && !tn::isReply(frame.content)) commands.push_back(&frame);
    }
    return commands;
  }
  // What such a command says: "<destination> <command> <name> on|off <port>".
  static std::string said(const RecordingBus::Sent& frame) {
    const auto path = frame.content.get(tn::field::destination).value_or(std::vector<std::uint32_t>());
    std::string line(path.size() == 1 ? std::string_view(NumberText(path[0])) : "?");
    line.append(" ").append(NumberText(frame.content.get(tn::field::command).value_or(0), 16));
    line.append(" ").append(frame.content.get(tn::string_id(1)).value_or("?"));
    if (const auto port = frame.content.get(tn::u32_id(2))) {
      line.append(frame.content.get(tn::field::disabled).value_or(false) ? " off " : " on ");
      line.append(NumberText(*port));
    }
    return line;
  }
  std::vector<std::string> saidTo(std::uint32_t id) {
    std::vector<std::string> lines;
    for (const RecordingBus::Sent* frame : commandsTo(id))
      lines.push_back(said(*frame));
    return lines;
  }

  // The server's answer to its n-th command.
  void answer(std::size_t index, tn::message content = {}, std::uint32_t id = server) {
    const auto commands = commandsTo(id);
    ASSERT_LT(index, commands.size());
    // A copy: what is sent because of the answer moves the frames.
    const RecordingBus::Sent request{tn::FrameKind::message, id, commands[index]->content, UniqueFd()};
    bus().answer(request, std::move(content));
    loop_->advance(0);
  }
  static tn::message refused() { return tn::errorMsg(tn::error::cannotBind, "cannot bind service connection"); }

  std::string directory_;
  std::unique_ptr<TestLooper> loop_;
  std::unique_ptr<sermgr::Store> store_;
  std::unique_ptr<sermgr::Manager> manager_;
  std::size_t answered_ = 0;  // questions for the programs
};

TEST_F(ManagerTest, StartsWithTheDefaultRecords) {
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'https'}")),
            tn::writeText(text("{s1:'https',bfe000a:0,u2:8443,u5:1,M6:[{u1:0x7F000000,u2:0xFF000000},"
                               "{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}],s10:'',b11:0}")));
}

TEST_F(ManagerTest, KnowsNoRecordOfAnotherName) {
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'HTTP'}")), "fe0006 no such service");
  EXPECT_EQ(answerTo(ask(tn::command::get)), "fe0006 no such service");
}

TEST_F(ManagerTest, AnswersAChangeWhenTheServerHasTakenIt) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081}");
  EXPECT_EQ(answerTo(number), "none");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081"));
  EXPECT_EQ(answerTo(number), "none");
  answer(0);
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied", "https on 8443"));
}

TEST_F(ManagerTest, GivesTheServerTheWholeRecord) {
  ask(tn::command::set, "{s1:'https',u2:8444}");
  listServer();
  ASSERT_EQ(commandsTo(server).size(), 1U);
  tn::message told = commandsTo(server)[0]->content;
  EXPECT_EQ(told.get(tn::u32_id(2)), 8444U);
  EXPECT_EQ(told.get(tn::u32_id(5)), 1U);
  EXPECT_EQ(told.get(tn::field::disabled), false);
  ASSERT_TRUE(told.get(tn::message_array_id(6)).has_value());
  EXPECT_EQ(told.get(tn::message_array_id(6))->size(), 2U);
}

TEST_F(ManagerTest, KeepsARecordThatTheServerRefusesAndSaysSo) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:81}");
  listServer();
  answer(0, refused());
  EXPECT_EQ(answerTo(number), "{s10:'cannot bind service connection'}");
  EXPECT_THAT(records(), ElementsAre("http on 81: cannot bind service connection", "https on 8443"));
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 81", "https on 8443"));
}

TEST_F(ManagerTest, ForgetsAnErrorOnceTheRecordIsTaken) {
  ask(tn::command::set, "{s1:'http',u2:81}");
  listServer();
  answer(0, refused());
  ask(tn::command::set, "{s1:'http',u2:82}");
  EXPECT_THAT(records(), ElementsAre("http on 82", "https on 8443"));
  listServer();
  answer(1);
  EXPECT_THAT(records(), ElementsAre("http on 82 applied", "https on 8443"));
}

TEST_F(ManagerTest, WaitsForEveryServer) {
  const auto number = ask(tn::command::set, "{s1:'http',bfe000a:1}");
  list({program(server, "www"), program(secondServer, "www"), program(1702, "www2"), program(1703, "ww")});
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http off 8080"));
  EXPECT_THAT(saidTo(secondServer), ElementsAre("1 30001 http off 8080"));
  EXPECT_THAT(saidTo(1702), IsEmpty());
  EXPECT_THAT(saidTo(1703), IsEmpty());
  answer(0, refused(), secondServer);
  EXPECT_EQ(answerTo(number), "none");
  answer(0);
  EXPECT_EQ(answerTo(number), "{s10:'cannot bind service connection'}");
}

TEST_F(ManagerTest, SaysThatNoServerRuns) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081}");
  list({program(asker, "tn")});
  EXPECT_EQ(answerTo(number), "{s10:'no server is running'}");
  EXPECT_THAT(records(), ElementsAre("http on 8081: no server is running", "https on 8443"));
}

TEST_F(ManagerTest, SaysThatTheServerIsSilentOrGone) {
  const auto silent = ask(tn::command::set, "{s1:'http',u2:8081}");
  listServer();
  loop_->advance(sermgr::Delivery::answerMs);
  EXPECT_EQ(answerTo(silent), "{s10:'timeout'}");
  const auto gone = ask(tn::command::set, "{s1:'http',u2:8082}");
  listServer();
  const RecordingBus::Sent frame{tn::FrameKind::message, server, commandsTo(server)[1]->content, UniqueFd()};
  bus().bounce(frame);
  loop_->advance(0);
  EXPECT_EQ(answerTo(gone), "{s10:'unreachable'}");
}

TEST_F(ManagerTest, AnswersWithinThreeSecondsInAnyCase) {
  static_assert(sermgr::Delivery::findMs + sermgr::Delivery::answerMs <= 3000);
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081}");
  loop_->advance(sermgr::Delivery::findMs);
  EXPECT_EQ(answerTo(number), "{s10:'the bus does not answer: timeout'}");
  EXPECT_THAT(records(), ElementsAre("http on 8081: the bus does not answer: timeout", "https on 8443"));
}

TEST_F(ManagerTest, ChangesNothingOnAnError) {
  const std::size_t asked = questions();
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'other',u2:1}")), "fe0006 no such service");
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'other'}")), "fe0006 no such service");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:0}")), "fe0010 the port (u32 2) is 1 to 65535");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9,M6:[{}]}")),
            "fe0010 allowed prefix 1: either an IPv4 or an IPv6 address is needed");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',s2:'9'}")), "fe0010 field 2 is not known with this type");
  constexpr const char* name = "fe0010 the name (string 1) has 1 to 64 printable ASCII characters";
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{u2:9}")), name);
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'a\\nb'}")), name);
  EXPECT_EQ(answerTo(ask(tn::command::removeObj)), name);
  EXPECT_EQ(answerTo(ask(tn::command::set)), name);
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'new',u2:65536}")), "fe0010 the port (u32 2) is 1 to 65535");
  EXPECT_EQ(questions(), asked);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, AddsARecord) {
  const auto number = ask(tn::command::addObj, "{s1:'guest',u2:8090,M6:[{u1:0x0A000000,u2:0xFF000000}]}");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 guest on 8090"));
  answer(0, tn::errorMsg(tn::error::noSuchService, "no such service"));
  EXPECT_EQ(answerTo(number), "{s10:'no such service'}");
  EXPECT_THAT(records(), ElementsAre("guest on 8090: no such service", "http on 8080", "https on 8443"));
  beginAgain();
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'guest'}")),
            tn::writeText(text("{s1:'guest',bfe000a:0,u2:8090,M6:[{u1:0x0A000000,u2:0xFF000000}],s10:'',b11:0}")));
}

TEST_F(ManagerTest, ReplacesARecordThatIsAddedAgainAsAWhole) {
  ask(tn::command::addObj, "{s1:'https'}");
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'https'}")),
            tn::writeText(text("{s1:'https',bfe000a:0,u2:80,M6:[],s10:'',b11:0}")));
}

TEST_F(ManagerTest, TakesAsManyRecordsAsItKeeps) {
  for (std::size_t i = 2; i < sermgr::maxServers; ++i) {
    const std::string typed = std::string("{s1:'n").append(std::to_string(i)).append("'}");
    EXPECT_EQ(answerTo(ask(tn::command::addObj, typed)), "none");
  }
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'one more'}")), "fe0010 at most 64 servers can be kept");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'http',u2:1}")), "none");
  EXPECT_EQ(records().size(), sermgr::maxServers);
  beginAgain();
  EXPECT_EQ(records().size(), sermgr::maxServers);
}

TEST_F(ManagerTest, RemovesARecord) {
  const auto number = ask(tn::command::removeObj, "{s1:'http'}");
  EXPECT_EQ(answerTo(number), "none");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 fe010a http"));
  answer(0);
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(records(), ElementsAre("https on 8443"));
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'http'}")), "fe0006 no such service");
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("https on 8443"));
}

TEST_F(ManagerTest, SaysThatARemovalWasNotHeard) {
  const auto number = ask(tn::command::removeObj, "{s1:'http'}");
  listServer();
  loop_->advance(sermgr::Delivery::answerMs);
  EXPECT_EQ(answerTo(number), "{s10:'timeout'}");
  EXPECT_THAT(records(), ElementsAre("https on 8443"));
}

TEST_F(ManagerTest, FindsNothingWrongWithARemovalWhereNothingListens) {
  const auto unknown = ask(tn::command::removeObj, "{s1:'http'}");
  listServer();
  answer(0, tn::errorMsg(tn::error::noSuchService, "no such service"));
  EXPECT_EQ(answerTo(unknown), "{}");
  const auto nobody = ask(tn::command::removeObj, "{s1:'https'}");
  list({});
  EXPECT_EQ(answerTo(nobody), "{}");
}

// Changes of one record in a row: each is told, in order, and only the last one's answer says how the record is.
TEST_F(ManagerTest, GoesByTheLastOfSeveralChanges) {
  const auto first = ask(tn::command::set, "{s1:'http',u2:1}");
  const auto second = ask(tn::command::set, "{s1:'http',u2:2}");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 1", "1 30001 http on 2"));
  answer(1);
  answer(0, refused());
  EXPECT_EQ(answerTo(first), "{s10:'cannot bind service connection'}");
  EXPECT_EQ(answerTo(second), "{}");
  EXPECT_THAT(records(), ElementsAre("http on 2 applied", "https on 8443"));
}

TEST_F(ManagerTest, GivesAServerThatAsksAllRecordsEnabledOnesFirst) {
  ask(tn::command::set, "{s1:'http',bfe000a:1}");
  list({});
  const auto number = ask(sermgr::command::askRecords, "{}", server);
  listServer();
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 https on 8443", "1 30001 http off 8080"));
  answer(0, refused());
  answer(1);
  EXPECT_THAT(records(), ElementsAre("http off 8080 applied", "https on 8443: cannot bind service connection"));
}

TEST_F(ManagerTest, GivesRecordsToWhoeverAsksButGoesByServersAlone) {
  const auto number = ask(sermgr::command::askRecords);
  listServer();
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(saidTo(asker), ElementsAre("1 30001 http on 8080", "1 30001 https on 8443"));
  EXPECT_THAT(saidTo(server), IsEmpty());
  for (const RecordingBus::Sent* frame : commandsTo(asker)) {
    EXPECT_FALSE(frame->content.has(tn::field::requestNumber));
  }
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, GivesRecordsAlsoWhenTheBrokerDoesNotSayWhoAsks) {
  ask(sermgr::command::askRecords, "{}", server);
  loop_->advance(sermgr::Delivery::findMs);
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8080", "1 30001 https on 8443"));
}

TEST_F(ManagerTest, GivesRecordsOnceToAnImpatientServer) {
  ask(sermgr::command::askRecords, "{}", server);
  EXPECT_EQ(answerTo(ask(sermgr::command::askRecords, "{}", server)), "{}");
  EXPECT_EQ(questions(), 1U);
  listServer();
  EXPECT_EQ(saidTo(server).size(), 2U);
  ask(sermgr::command::askRecords, "{}", server);
  listServer();
  EXPECT_EQ(saidTo(server).size(), 4U);
}

TEST_F(ManagerTest, GivesAllRecordsToEveryServerWhenTheLinkIsMade) {
  bus().unlink();
  loop_->advance(0);
  bus().link();
  loop_->advance(0);
  list({program(server, "www"), program(secondServer, "www")});
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8080", "1 30001 https on 8443"));
  EXPECT_THAT(saidTo(secondServer), ElementsAre("1 30001 http on 8080", "1 30001 https on 8443"));
  for (const std::uint32_t id : {server, secondServer}) {
    answer(0, {}, id);
    answer(1, id == server ? tn::message() : refused(), id);
  }
  EXPECT_THAT(records(), ElementsAre("http on 8080 applied", "https on 8443: cannot bind service connection"));
}

TEST_F(ManagerTest, FindsNoServerWhenTheLinkIsMade) {
  bus().link();
  loop_->advance(0);
  list({program(asker, "tn")});
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, AnswersAChangeWhenTheBrokerIsLost) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081}");
  listServer();
  bus().unlink();
  loop_->advance(0);
  EXPECT_EQ(answerTo(number), "none");  // there is no way for it
  bus().link();
  loop_->advance(0);
  EXPECT_THAT(records(), ElementsAre("http on 8081: unreachable", "https on 8443"));
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8081", "1 30001 https on 8443"));
  answer(1);
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied", "https on 8443"));
}

TEST_F(ManagerTest, LetsOnlyThoseChangeWhoMay) {
  constexpr const char* refusal = "fe0009 not allowed";
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:1,uff000b:0}")), refusal);
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'new',uff000b:0}")), refusal);
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'http',uff000b:0}")), refusal);
  EXPECT_EQ(answerTo(ask(sermgr::command::askRecords, "{uff000b:0}")), refusal);
  EXPECT_EQ(questions(), 0U);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:1,uff000b:0x100}")), "none");
  EXPECT_THAT(records(), ElementsAre("http on 1", "https on 8443"));
}

TEST_F(ManagerTest, AnswersOtherCommandsAsEveryHandler) {
  EXPECT_EQ(answerTo(ask(tn::command::reset)), "fe0007 unknown command");
  EXPECT_EQ(answerTo(ask(0x30001, "{s1:'http'}")), "fe0007 unknown command");
  EXPECT_EQ(answerTo(ask(0)), "fe0007 unknown command");
}

TEST_F(ManagerTest, ChangesAlsoForThoseWhoWantNoAnswer) {
  tn::message command = text("{s1:'http',u2:8081}");
  command.insert_vector(tn::field::destination, std::array{sermgr::handlerId});
  command.insert(tn::field::command, tn::command::set);
  bus().deliver(asker, command);
  listServer();
  answer(0);
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied", "https on 8443"));
  for (const RecordingBus::Sent& frame : bus().sent) {
    const bool aboutTheChange = frame.peer == asker && !frame.content.has(tn::message_array_id(1));
    EXPECT_FALSE(aboutTheChange) << tn::writeText(frame.content);
  }
}

TEST_F(ManagerTest, RefusesMoreChangesThanItCanAnswerInTime) {
  for (std::size_t i = 0; i < sermgr::Manager::maxChanges; ++i)
    ask(tn::command::set, "{s1:'http',u2:8081}");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9}")), "fe0012 too many changes at once");
  list({});
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9}")), "none");
}

TEST_F(ManagerTest, RefusesAChangeThatCannotBeStored) {
  store_->limitPages(1);
  std::string typed = "{s1:'http',u2:9,M6:[";
  for (std::size_t i = 0; i < sermgr::maxPrefixes; ++i)
    typed.append(i == 0 ? "" : ",").append("{u1:1,u2:0xFFFFFFFF}");
  typed.append("]}");
  EXPECT_EQ(answerTo(ask(tn::command::set, typed)), "fe0011 cannot store the record: database or disk is full");
  EXPECT_EQ(questions(), 0U);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, ServesTheDefaultsWhereThereIsNoStorage) {
  end();
  std::filesystem::remove_all(directory_);
  std::ofstream(directory_) << "a file in the way";
  begin();
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9}")), "fe0011 cannot store the record: no database");
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'http'}")), "fe0011 cannot remove the record: no database");
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

// The store holds other records than the defaults, which were served meanwhile: the servers are told those, and that
// the rest is gone.
TEST_F(ManagerTest, TakesTheRecordsOnceTheStorageCanBeUsed) {
  ask(tn::command::set, "{s1:'http',u2:9}");
  ask(tn::command::removeObj, "{s1:'https'}");
  end();
  const std::string away = directory_ + ".away";
  std::filesystem::rename(directory_, away);
  std::ofstream(directory_) << "a file in the way";
  begin();
  loop_->advance(10 * sermgr::Manager::retryMs);
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:7}")), "fe0011 cannot store the record: no database");
  std::filesystem::remove(directory_);
  std::filesystem::rename(away, directory_);
  loop_->advance(sermgr::Manager::retryMs);
  EXPECT_THAT(records(), ElementsAre("http on 9"));
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 fe010a https", "1 30001 http on 9"));
  drainLog();
  const std::string log = ::testing::internal::GetCapturedStdout();
  ::testing::internal::CaptureStdout();
  EXPECT_THAT(log, testing::HasSubstr("; the defaults serve and changes are refused, trying again\nrecords: they can"));
  ask(tn::command::set, "{s1:'http',u2:10}");
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 10"));
}

TEST_F(ManagerTest, EndsWithAnswersUnderWay) {
  ask(tn::command::set, "{s1:'http',u2:8081}");
  listServer();
  ask(tn::command::set, "{s1:'http',u2:8082}");
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 8082", "https on 8443"));
}

TEST_F(ManagerTest, ASessionSeesAndChangesWhatItsPoliciesPermit) {
  const std::string guest = "sff000a:'guest',uff000b:0x10";
  const std::string nobody = "sff000a:'guest',uff000b:0x40";
  EXPECT_THAT(answerTo(ask(tn::command::getAll, "{" + guest + "}")), testing::StartsWith("{M1:"));
  EXPECT_EQ(answerTo(ask(tn::command::getAll, "{" + nobody + "}")), "fe0009 not allowed");
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'http'," + nobody + "}")), "fe0009 not allowed");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:81," + guest + "}")), "fe0009 not allowed");
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'http'," + guest + "}")), "fe0009 not allowed");
  EXPECT_EQ(answerTo(ask(0x30003, "{sff000a:'owner',uff000b:0xffffffff}")), "fe0009 not allowed");
  const std::uint32_t change = ask(tn::command::set, "{s1:'http',u2:81,sff000a:'owner',uff000b:0x100}");
  EXPECT_EQ(answerTo(change), "none");  // until the servers have been told
}

// ---- Trials

TEST_F(ManagerTest, TakesATrialBackWhenItsTimeIsUp) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081"));
  EXPECT_FALSE(commandsTo(server)[0]->content.has(tn::u32_id(0x12)));
  answer(0);
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied for 20 s", "https on 8443"));
  loop_->advance(18001);
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied for 2 s", "https on 8443"));
  loop_->advance(1998);
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied for 1 s", "https on 8443"));
  loop_->advance(1);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8080"));
  answer(1);
  EXPECT_THAT(records(), ElementsAre("http on 8080 applied", "https on 8443"));
  loop_->advance(100000);
  EXPECT_EQ(saidTo(server).size(), 2U);
  drainLog();
  const std::string log = ::testing::internal::GetCapturedStdout();
  ::testing::internal::CaptureStdout();
  EXPECT_THAT(log, testing::HasSubstr("record http: enabled=1 port=8081, on trial for 20 s\n"
                                      "record http: enabled=1 port=8080, taken back\n"));
}

TEST_F(ManagerTest, StoresATrialThatIsConfirmed) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:60}");
  listServer();
  answer(0);
  const auto number = ask(tn::command::set, "{s1:'http',u5:3}");
  listServer();
  answer(1);
  EXPECT_EQ(answerTo(number), "{}");
  loop_->advance(60000);
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8081"));
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied", "https on 8443"));
  beginAgain();
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'http'}")),
            tn::writeText(text("{s1:'http',bfe000a:0,u2:8081,u5:3,M6:[{u1:0x7F000000,u2:0xFF000000},"
                               "{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}],s10:'',b11:0}")));
}

TEST_F(ManagerTest, StoresNothingOfATrial) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

// The second one begins with what the first one gave, and what comes back is what was stored.
TEST_F(ManagerTest, BeginsAnewWithAnotherTrial) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:5}");
  loop_->advance(4000);
  ask(tn::command::set, "{s1:'http',bfe000a:1,u12:5}");
  loop_->advance(4999);
  EXPECT_THAT(records(), ElementsAre("http off 8081 for 1 s: the bus does not answer: timeout", "https on 8443"));
  loop_->advance(1);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, HasATrialForEachRecord) {
  ask(tn::command::set, "{s1:'http',u2:1,u12:5}");
  ask(tn::command::set, "{s1:'https',u2:2,u12:7}");
  listServer();
  answer(0);
  answer(1);
  loop_->advance(5000);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 2 applied for 2 s"));
  loop_->advance(2000);
  EXPECT_THAT(records(), ElementsAre("http on 8080: the bus does not answer: timeout", "https on 8443"));
}

TEST_F(ManagerTest, TakesOneToSixtySecondsForATrial) {
  constexpr const char* refusal = "fe0010 a trial (u32 12) takes 1 to 60 seconds";
  for (const char* wrong : {"0", "61", "0xFFFFFFFF"}) {
    EXPECT_EQ(answerTo(ask(tn::command::set, std::string("{s1:'http',u2:9,u12:") + wrong + "}")), refusal);
  }
  for (const char* wrong : {"s12:'20'", "q12:20", "b12:1", "U12:[20]"}) {
    EXPECT_EQ(answerTo(ask(tn::command::set, std::string("{s1:'http',u2:9,") + wrong + "}")),
              "fe0010 field 12 is not known with this type");
  }
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'other',u12:20}")), "fe0006 no such service");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:0,u12:20}")), "fe0010 the port (u32 2) is 1 to 65535");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'http',u2:9,u12:20}")), "fe0010 only set takes a trial (u32 12)");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'new',u12:20}")), "fe0010 only set takes a trial (u32 12)");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9,u12:20,uff000b:0}")), "fe0009 not allowed");
  EXPECT_EQ(questions(), 0U);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  ask(tn::command::set, "{s1:'http',u2:9,u12:1}");
  ask(tn::command::set, "{s1:'https',u2:9,u12:60}");
  EXPECT_THAT(records(), ElementsAre("http on 9 for 1 s", "https on 9 for 60 s"));
}

TEST_F(ManagerTest, EndsATrialByReplacingOrRemovingTheRecord) {
  ask(tn::command::set, "{s1:'http',u2:1,u12:5}");
  ask(tn::command::set, "{s1:'https',u2:2,u12:5}");
  ask(tn::command::addObj, "{s1:'http',u2:3}");
  ask(tn::command::removeObj, "{s1:'https'}");
  EXPECT_THAT(records(), ElementsAre("http on 3"));
  listServer();
  answer(2);
  loop_->advance(10000);
  EXPECT_THAT(records(), ElementsAre("http on 3 applied"));
  EXPECT_THAT(saidTo(server),
              ElementsAre("1 30001 http on 1", "1 30001 https on 2", "1 30001 http on 3", "1 fe010a https"));
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 3"));
}

TEST_F(ManagerTest, GivesWhatIsOnTrialToServersThatAskOrAreFound) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  list({});
  ask(sermgr::command::askRecords, "{}", server);
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 https on 8443"));
  bus().unlink();
  loop_->advance(0);
  bus().link();
  loop_->advance(0);
  list({program(secondServer, "www")});
  EXPECT_THAT(saidTo(secondServer), ElementsAre("1 30001 http on 8081", "1 30001 https on 8443"));
}

TEST_F(ManagerTest, KeepsATrialRunningThatTheServerRefuses) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:81,u12:20}");
  listServer();
  answer(0, refused());
  EXPECT_EQ(answerTo(number), "{s10:'cannot bind service connection'}");
  EXPECT_THAT(records(), ElementsAre("http on 81 for 20 s: cannot bind service connection", "https on 8443"));
  loop_->advance(20000);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

// Whatever keeps the record from the servers: the broker is silent, lost, without servers; a server is silent.
TEST_F(ManagerTest, BringsWhatWasTakenBackUntilItWasHeard) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:1}");
  listServer();
  answer(0);
  loop_->advance(1000);
  loop_->advance(sermgr::Delivery::findMs);  // the broker does not say who is there
  EXPECT_THAT(records(), ElementsAre("http on 8080: the bus does not answer: timeout", "https on 8443"));
  loop_->advance(sermgr::Manager::bringMs);
  answered_ = questions() - 1;
  list({});
  EXPECT_THAT(records(), ElementsAre("http on 8080: no server is running", "https on 8443"));
  loop_->advance(sermgr::Manager::bringMs);
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8080"));
  loop_->advance(sermgr::Delivery::answerMs);
  EXPECT_THAT(records(), ElementsAre("http on 8080: timeout", "https on 8443"));
  bus().unlink();
  loop_->advance(sermgr::Manager::bringMs);
  loop_->advance(sermgr::Manager::bringMs);
  bus().link();
  EXPECT_THAT(records(), ElementsAre("http on 8080: the bus does not answer: unreachable", "https on 8443"));
  loop_->advance(0);
  answered_ = questions() - 1;
  list({});  // the servers are not back yet
  loop_->advance(sermgr::Manager::bringMs);
  list({program(server, "www"), program(secondServer, "www")});
  EXPECT_EQ(saidTo(server).size(), 3U);
  answer(2, refused());
  loop_->advance(sermgr::Delivery::answerMs);  // the second server is silent
  loop_->advance(sermgr::Manager::bringMs);
  list({program(server, "www"), program(secondServer, "www")});
  EXPECT_EQ(saidTo(server).size(), 4U);
  answer(3, refused());
  answer(1, {}, secondServer);
  loop_->advance(100000);
  EXPECT_EQ(saidTo(server).size(), 4U);
  EXPECT_THAT(records(), ElementsAre("http on 8080: cannot bind service connection", "https on 8443"));
}

// Who takes it back himself is as safe as who waits.
TEST_F(ManagerTest, BringsAlsoWhatEndedATrialUntilItWasHeard) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  listServer();
  answer(0);
  const auto number = ask(tn::command::set, "{s1:'http',u2:8080}");
  loop_->advance(sermgr::Delivery::findMs);
  EXPECT_EQ(answerTo(number), "{s10:'the bus does not answer: timeout'}");
  ask(tn::command::set, "{s1:'http',u2:8082}");
  loop_->advance(sermgr::Delivery::findMs);
  loop_->advance(sermgr::Manager::bringMs);
  answered_ = questions() - 1;
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8082"));
  answer(1);
  loop_->advance(100000);
  EXPECT_EQ(saidTo(server).size(), 2U);
}

TEST_F(ManagerTest, LetsATrialRunOnThatCannotBeStored) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  listServer();
  answer(0);
  store_->limitPages(1);
  std::string typed = "{s1:'http',M6:[";
  for (std::size_t i = 0; i < sermgr::maxPrefixes; ++i)
    typed.append(i == 0 ? "" : ",").append("{u1:1,u2:0xFFFFFFFF}");
  EXPECT_EQ(answerTo(ask(tn::command::set, typed + "]}")), "fe0011 cannot store the record: database or disk is full");
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied for 20 s", "https on 8443"));
  loop_->advance(20000);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8080"));
}

TEST_F(ManagerTest, TriesNothingOutWhereThereIsNoStorage) {
  end();
  std::filesystem::remove_all(directory_);
  std::ofstream(directory_) << "a file in the way";
  begin();
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9,u12:5}")), "fe0011 cannot store the record: no database");
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, EndsWithATrialUnderWay) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:1}");
  ask(tn::command::set, "{s1:'https',u2:8444,u12:1}");
  listServer();
  loop_->advance(1000);
  loop_->advance(sermgr::Delivery::findMs);
  beginAgain();
  loop_->advance(100000);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

}  // namespace
