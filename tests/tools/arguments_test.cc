#include "tools/arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/bus/field.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using tool::Arguments;
using tool::Operation;

Arguments parsed(const std::vector<const char*>& words) {
  Arguments arguments;
  const auto error = tool::parseArguments(words, arguments);
  EXPECT_FALSE(error) << *error;
  return arguments;
}

std::string refusal(const std::vector<const char*>& words) {
  Arguments arguments;
  return tool::parseArguments(words, arguments).value_or("accepted");
}

TEST(Arguments, OperationsWithoutOperands) {
  EXPECT_EQ(parsed({"list"}).operation, Operation::list);
  EXPECT_EQ(parsed({"stats"}).operation, Operation::stats);
  EXPECT_EQ(parsed({"monitor"}).operation, Operation::monitor);
  EXPECT_EQ(parsed({"monitor"}).count, 0U);
  EXPECT_EQ(parsed({"list"}).timeoutMs, 5000U);
  EXPECT_FALSE(parsed({"list"}).lineForm);
  EXPECT_FALSE(parsed({"list"}).quiet);
}

TEST(Arguments, CallAndSend) {
  const Arguments call = parsed({"call", "68/1", "0x30003"});
  EXPECT_EQ(call.operation, Operation::call);
  EXPECT_THAT(call.path, ElementsAre(68, 1));
  EXPECT_EQ(call.command, 0x30003U);
  EXPECT_EQ(call.message, "{}");

  const Arguments send = parsed({"send", "0xff0001/0x10/3", "get", "{u1:5}"});
  EXPECT_EQ(send.operation, Operation::send);
  EXPECT_THAT(send.path, ElementsAre(0xff0001, 16, 3));
  EXPECT_EQ(send.command, tn::command::get);
  EXPECT_EQ(send.message, "{u1:5}");

  EXPECT_THAT(parsed({"call", "0", "1", "-"}).path, ElementsAre(0));
  EXPECT_EQ(parsed({"call", "0", "1", "-"}).message, "-");
  EXPECT_EQ(parsed({"call", "1", "removeObj"}).command, tn::command::removeObj);
}

TEST(Arguments, OptionsStandAnywhere) {
  for (const auto& words : std::vector<std::vector<const char*>>{
           {"-t", "250", "-j", "-q", "call", "1/2", "get"},
           {"call", "-t250", "1/2", "--json", "get", "--quiet"},
           {"call", "1/2", "get", "--timeout", "250", "-j", "-q"},
           {"call", "--timeout=250", "1/2", "-q", "-j", "--", "get"},
       }) {
    const Arguments arguments = parsed(words);
    EXPECT_EQ(arguments.operation, Operation::call);
    EXPECT_THAT(arguments.path, ElementsAre(1, 2));
    EXPECT_EQ(arguments.command, tn::command::get);
    EXPECT_EQ(arguments.timeoutMs, 250U);
    EXPECT_TRUE(arguments.lineForm);
    EXPECT_TRUE(arguments.quiet);
  }
  EXPECT_EQ(parsed({"monitor", "--count", "3"}).count, 3U);
  EXPECT_EQ(parsed({"-n18446744073709551615", "monitor"}).count, 18446744073709551615U);
}

TEST(Arguments, ADoubleDashEndsTheOptions) {
  EXPECT_EQ(parsed({"call", "1", "get", "--", "-j"}).message, "-j");
  EXPECT_EQ(refusal({"--", "-j"}), "unknown operation \"-j\"");
}

TEST(Arguments, HelpWins) {
  EXPECT_EQ(parsed({"--help"}).operation, Operation::help);
  EXPECT_EQ(parsed({"-h", "nonsense"}).operation, Operation::help);
  EXPECT_EQ(parsed({"call", "--help"}).operation, Operation::help);
}

TEST(Arguments, SaysWhatIsWrong) {
  EXPECT_EQ(refusal({}), "what is to be done?");
  EXPECT_EQ(refusal({"-j"}), "what is to be done?");
  EXPECT_EQ(refusal({"lst"}), "unknown operation \"lst\"");
  EXPECT_EQ(refusal({""}), "unknown operation \"\"");
  EXPECT_EQ(refusal({"list", "1"}), "usage: tn list");
  EXPECT_EQ(refusal({"call", "1"}), "usage: tn call PATH COMMAND [MESSAGE]");
  EXPECT_EQ(refusal({"send", "1", "2", "3", "4"}), "usage: tn send PATH COMMAND [MESSAGE]");
  EXPECT_EQ(refusal({"monitor", "5"}), "usage: tn monitor [--count N]");
  EXPECT_EQ(refusal({"-x", "list"}), "unknown option \"-x\"");
  EXPECT_EQ(refusal({"--tim", "list"}), "unknown option \"--tim\"");
  EXPECT_EQ(refusal({"list", "--timeout"}), "option --timeout needs a number");
  EXPECT_EQ(refusal({"list", "-t"}), "option -t needs a number");
  EXPECT_EQ(refusal({"list", "--json=1"}), "option --json takes no value");
  EXPECT_EQ(refusal({"list", "-jq"}), "option -j takes no value");
  EXPECT_EQ(refusal({"list", "-n", "1"}), "--count goes with monitor alone");
}

TEST(Arguments, RefusesWrongNumbers) {
  for (const char* wrong : {"", "0", "-1", "+1", "1s", " 1", "3600001", "0x", "99999999999999999999"}) {
    EXPECT_THAT(refusal({"list", "-t", wrong}), HasSubstr("--timeout needs milliseconds from 1 to 3600000")) << wrong;
  }
  EXPECT_EQ(parsed({"list", "-t", "3600000"}).timeoutMs, 3600000U);
  for (const char* wrong : {"", "0", "x", "18446744073709551616"}) {
    EXPECT_THAT(refusal({"monitor", "-n", wrong}), HasSubstr("--count needs a number above 0")) << wrong;
  }
  for (const char* wrong : {"", "/", "68/", "/1", "68//1", "a/1", "68/1x", "4294967296", "68 /1"}) {
    EXPECT_THAT(refusal({"call", wrong, "get"}), HasSubstr("is no path such as 68/1")) << wrong;
  }
  for (const char* wrong : {"", "Get", "getall", "4294967296", "0x100000000", "12a"}) {
    EXPECT_THAT(refusal({"call", "1", wrong}), HasSubstr("is neither a command's number nor one of its names"))
        << wrong;
  }
}

TEST(Arguments, GroupsCannotBeCalled) {
  EXPECT_THAT(refusal({"call", "0xff0001/1", "get"}), HasSubstr("is a group"));
  EXPECT_EQ(parsed({"call", "0xfeffff", "get"}).operation, Operation::call);
  EXPECT_EQ(parsed({"send", "0xff0000", "get"}).operation, Operation::send);
}

TEST(Arguments, ErrorsAreOneHarmlessLine) {
  const std::string error = refusal({("x\n\x1b[31m" + std::string(500, 'y')).c_str()});
  EXPECT_EQ(error.find('\n'), std::string::npos);
  EXPECT_EQ(error.find('\x1b'), std::string::npos);
  EXPECT_LT(error.size(), 100U);
}

TEST(Help, NamesEverythingAndFitsATerminal) {
  const std::string_view help = tool::helpText();
  for (const char* word : {"tn list", "tn call", "tn send", "tn monitor", "tn stats", "--timeout", "--count", "--json",
                           "--quiet", "--help", "PATH", "COMMAND", "MESSAGE", "Exit status"}) {
    EXPECT_THAT(help, HasSubstr(word));
  }
  std::size_t lines = 0;
  for (std::size_t at = 0; at < help.size(); ++lines) {
    const std::size_t end = help.find('\n', at);
    ASSERT_NE(end, std::string_view::npos);
    EXPECT_LE(end - at, 80U) << help.substr(at, end - at);
    at = end + 1;
  }
  EXPECT_LE(lines, 30U);
}

}  // namespace
