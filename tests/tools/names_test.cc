#include "tools/names.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace {

using testing::ElementsAre;

// Names and keys have to be unambiguous in each message, at every depth.
void expectUnambiguous(const tn::FieldNames& names, std::string_view where) {
  std::set<std::string_view> seen;
  std::set<std::uint32_t> keys;
  for (const tn::FieldName& field : names.fields) {
    EXPECT_TRUE(seen.insert(field.name).second) << where << ": " << field.name;
    EXPECT_TRUE(keys.insert(field.key).second) << where << ": " << field.name;
    EXPECT_EQ(field.name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-"), std::string::npos) << field.name;
    if (field.below != nullptr) expectUnambiguous(*field.below, where);
  }
  for (const tn::FieldNames* const object : names.byObject) {
    if (object != nullptr) expectUnambiguous(*object, where);
  }
}

TEST(Names, AreUnambiguous) {
  std::set<std::pair<std::string_view, std::string_view>> handlers;
  for (const tool::HandlerShape& handler : tool::knownHandlers()) {
    EXPECT_TRUE(handlers.insert({handler.program, handler.name}).second);
    EXPECT_EQ(tool::handlerNamed(handler.program, handler.name), &handler);
    std::set<std::string_view> names;
    std::set<std::uint32_t> numbers;
    for (const tool::CommandShape& command : handler.commands) {
      EXPECT_TRUE(names.insert(command.name).second) << command.name;
      EXPECT_TRUE(numbers.insert(command.number).second) << command.name;
      EXPECT_FALSE(command.about.empty());
      if (command.in != nullptr) expectUnambiguous(*command.in, command.name);
      if (command.out != nullptr) expectUnambiguous(*command.out, command.name);
      // A name that all handlers share means the same here.
      const auto slot = tn::commandNumber(command.name);
      EXPECT_EQ(slot.value_or(command.number), command.number) << handler.program << ' ' << command.name;
    }
  }
}

std::string pathOf(std::string_view text) {
  const auto path = tool::readPath(text);
  if (!path) return "none";
  std::string out(path->program);
  for (const std::uint32_t element : path->path)
    out += '/' + std::to_string(element);
  if (path->handler != nullptr) out.append(" ").append(path->handler->program).append(" ").append(path->handler->name);
  return out;
}

TEST(Paths, AreNumbersOrNames) {
  EXPECT_EQ(pathOf("68/1"), "/68/1 sermgr servers");
  EXPECT_EQ(pathOf("0x44/0x1"), "/68/1 sermgr servers");
  EXPECT_EQ(pathOf("sermgr/servers"), "/68/1 sermgr servers");
  EXPECT_EQ(pathOf("userd/2"), "/13/2 userd users");
  EXPECT_EQ(pathOf("13/groups"), "/13/3 userd groups");
  EXPECT_EQ(pathOf("www/counters"), "www/0/2 www counters");
  EXPECT_EQ(pathOf("www"), "www/0");
  EXPECT_EQ(pathOf("other/5/6"), "other/0/5/6");
  EXPECT_EQ(pathOf("0xff0001/0x10/3"), "/16711681/16/3");
  EXPECT_EQ(pathOf("0"), "/0");
  for (const char* wrong : {"", "/", "68/", "/1", "68//1", "68/1x", "4294967296", "68 /1", "1x/1", "sermgr/users",
                            "other/name", "68/servers/servers"}) {
    EXPECT_EQ(pathOf(wrong), "none") << wrong;
  }
  EXPECT_EQ(pathOf(std::string(64, 'a') + "/1"), std::string(64, 'a') + "/0/1");
  EXPECT_EQ(pathOf(std::string(65, 'a') + "/1"), "none");
}

TEST(Commands, AreNumbersOrNames) {
  const tool::HandlerShape* const users = tool::handlerNamed("userd", "users");
  EXPECT_EQ(tool::commandNumbered(users, "0x20001"), 0x20001U);
  EXPECT_EQ(tool::commandNumbered(users, "setPassword"), 0x20001U);
  EXPECT_EQ(tool::commandNumbered(users, "list"), tn::command::getAll);
  EXPECT_EQ(tool::commandNumbered(users, "getAll"), tn::command::getAll);
  EXPECT_EQ(tool::commandNumbered(nullptr, "remove"), tn::command::removeObj);
  EXPECT_EQ(tool::commandNumbered(tool::handlerNamed("sysd", "status"), "subscribe"), 0x20011U);
  EXPECT_EQ(tool::commandNumbered(tool::handlerNamed("tlsd", "certificate"), "reload"), 0x60001U);
  for (const char* wrong : {"", "Get", "getall", "4294967296", "0x100000000", "12a", "subscribe"}) {
    EXPECT_EQ(tool::commandNumbered(users, wrong), std::nullopt) << wrong;
  }
  EXPECT_EQ(tool::commandText(users, 0x20001), "setPassword");
  EXPECT_EQ(tool::commandText(nullptr, 0x20001), "0x20001");
  EXPECT_EQ(tool::commandText(nullptr, tn::command::getAll), "getAll");
}

TEST(Names, TheDocumentIsMadeOfThem) {
  std::ifstream file("docs/tn-names.md");
  std::stringstream document;
  document << file.rdbuf();
  EXPECT_EQ(document.str(), tool::namesDocument()) << "make it anew: tn names --markdown >docs/tn-names.md";
}

}  // namespace
