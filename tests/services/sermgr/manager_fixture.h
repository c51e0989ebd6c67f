#pragma once

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>

#include "platform/bus/text.h"
#include "platform/log.h"
#include "services/sermgr/manager.h"
#include "tests/fakes/recording_bus.h"

// A service manager with a store of its own, on a bus whose other programs the tests play.
namespace sermgr_test {

using tn::fakes::RecordingBus;
using tn::fakes::TestLooper;

inline constexpr std::uint32_t asker = 1500;   // whoever gives commands
inline constexpr std::uint32_t server = 1700;  // a program named www
inline constexpr std::uint32_t secondServer = 1701;

inline tn::message text(std::string_view typed) {
  tn::message read;
  EXPECT_FALSE(tn::readText(typed, read).has_value()) << typed;
  return read;
}

inline tn::message program(std::uint32_t id, std::string_view name) {
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

  // A file lies where the folder of the database should be.
  void beginWithoutStorage() {
    end();
    std::filesystem::remove_all(directory_);
    std::ofstream(directory_) << "a file in the way";
    begin();
  }

  // What was logged since the last call.
  static std::string log() {
    drainLog();
    std::string logged = ::testing::internal::GetCapturedStdout();
    ::testing::internal::CaptureStdout();
    return logged;
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
  // So many prefixes that the record needs a page of its own in the store.
  static std::string allPrefixes() {
    std::string typed = "M6:[";
    for (std::size_t i = 0; i < sermgr::maxPrefixes; ++i)
      typed.append(i == 0 ? "" : ",").append("{u1:1,u2:0xFFFFFFFF}");
    return typed.append("]");
  }

  static tn::message refused() { return tn::errorMsg(tn::error::cannotBind, "cannot bind service connection"); }

  std::string directory_;
  std::unique_ptr<TestLooper> loop_;
  std::unique_ptr<sermgr::Store> store_;
  std::unique_ptr<sermgr::Manager> manager_;
  std::size_t answered_ = 0;  // questions for the programs
};

}  // namespace sermgr_test
