#include "tools/arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/verb.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using tool::Arguments;
using tool::Form;

Arguments parsed(const std::vector<const char*>& words) {
  Arguments arguments;
  const auto error = tool::parseArguments(words, tool::allVerbs(), arguments);
  EXPECT_FALSE(error) << *error;
  return arguments;
}

std::string refusal(const std::vector<const char*>& words) {
  Arguments arguments;
  return tool::parseArguments(words, tool::allVerbs(), arguments).value_or("accepted");
}

TEST(Arguments, TheFirstOperandIsTheVerb) {
  EXPECT_EQ(parsed({"list"}).verb, "list");
  EXPECT_THAT(parsed({"list"}).operands, ElementsAre());
  EXPECT_EQ(parsed({"list"}).timeoutMs, 5000U);
  EXPECT_EQ(parsed({"list"}).form, Form::readable);
  EXPECT_FALSE(parsed({"list"}).quiet);
  EXPECT_EQ(parsed({"call", "68/1", "get", "-"}).verb, "call");
  EXPECT_THAT(parsed({"call", "68/1", "get", "-"}).operands, ElementsAre("68/1", "get", "-"));
}

TEST(Arguments, OptionsStandAnywhere) {
  for (const auto& words : std::vector<std::vector<const char*>>{
           {"-t", "250", "-l", "-q", "call", "1/2", "get"},
           {"call", "-t250", "1/2", "--lines", "get", "--quiet"},
           {"call", "1/2", "get", "--timeout", "250", "-l", "-q"},
           {"call", "--timeout=250", "1/2", "-q", "-l", "--", "get"},
       }) {
    const Arguments arguments = parsed(words);
    EXPECT_EQ(arguments.verb, "call");
    EXPECT_THAT(arguments.operands, ElementsAre("1/2", "get"));
    EXPECT_EQ(arguments.timeoutMs, 250U);
    EXPECT_EQ(arguments.form, Form::lines);
    EXPECT_TRUE(arguments.quiet);
  }
  EXPECT_EQ(parsed({"monitor", "--count", "3"}).count, 3U);
  EXPECT_EQ(parsed({"-n18446744073709551615", "monitor"}).count, 18446744073709551615U);
  EXPECT_EQ(parsed({"list", "-j"}).form, Form::json);
  EXPECT_EQ(parsed({"list", "--json"}).form, Form::json);
}

TEST(Arguments, FiltersAndTheLog) {
  const Arguments monitor =
      parsed({"monitor", "-p", "www", "--from=13", "--to", "sysd", "--path", "68/1", "-c", "get", "-krequest"});
  EXPECT_EQ(monitor.program, "www");
  EXPECT_EQ(monitor.from, "13");
  EXPECT_EQ(monitor.to, "sysd");
  EXPECT_EQ(monitor.path, "68/1");
  EXPECT_EQ(monitor.command, "get");
  EXPECT_EQ(monitor.kind, "request");
  const Arguments log = parsed({"log", "-f", "certificate", "-p", "tlsd", "-n", "20"});
  EXPECT_TRUE(log.follow);
  EXPECT_EQ(log.program, "tlsd");
  EXPECT_EQ(log.count, 20U);
  EXPECT_THAT(log.operands, ElementsAre("certificate"));
}

TEST(Arguments, ADoubleDashEndsTheOptions) {
  EXPECT_THAT(parsed({"call", "1", "get", "--", "-j"}).operands, ElementsAre("1", "get", "-j"));
  EXPECT_EQ(refusal({"--", "-j"}), "unknown command \"-j\"");
}

TEST(Arguments, HelpAndVersionWin) {
  EXPECT_TRUE(parsed({"--help"}).help);
  EXPECT_TRUE(parsed({"-h", "nonsense"}).help);
  EXPECT_TRUE(parsed({"call", "--help"}).help);
  EXPECT_TRUE(parsed({"--version"}).version);
}

TEST(Arguments, SaysWhatIsWrong) {
  EXPECT_EQ(refusal({}), "what is to be done?");
  EXPECT_EQ(refusal({"-j"}), "what is to be done?");
  EXPECT_EQ(refusal({"lst"}), "unknown command \"lst\"");
  EXPECT_EQ(refusal({""}), "unknown command \"\"");
  EXPECT_EQ(refusal({"list", "1"}), "usage: tn list");
  EXPECT_EQ(refusal({"call", "1"}), "usage: tn call PATH COMMAND [MESSAGE | FIELD=VALUE...]");
  EXPECT_EQ(refusal({"monitor", "5"}), "usage: tn monitor [FILTER...]");
  EXPECT_EQ(refusal({"-x", "list"}), "unknown option \"-x\"");
  EXPECT_EQ(refusal({"--tim", "list"}), "unknown option \"--tim\"");
  EXPECT_EQ(refusal({"list", "--timeout"}), "option --timeout needs a value");
  EXPECT_EQ(refusal({"list", "-t"}), "option -t needs a value");
  EXPECT_EQ(refusal({"monitor", "--from="}), "option --from needs a value");
  EXPECT_EQ(refusal({"list", "--json=1"}), "option --json takes no value");
  EXPECT_EQ(refusal({"list", "-jq"}), "option -j takes no value");
  EXPECT_EQ(refusal({"list", "-n", "1"}), "option --count does not go with list");
  EXPECT_EQ(refusal({"status", "-f"}), "option --follow does not go with status");
}

TEST(Arguments, RefusesWrongNumbers) {
  for (const char* wrong : {"", "0", "-1", "+1", "1s", " 1", "3600001", "0x", "99999999999999999999"}) {
    EXPECT_THAT(refusal({"list", "-t", wrong}), HasSubstr("--timeout needs milliseconds from 1 to 3600000")) << wrong;
  }
  EXPECT_EQ(parsed({"list", "-t", "3600000"}).timeoutMs, 3600000U);
  for (const char* wrong : {"", "0", "x", "18446744073709551616"}) {
    EXPECT_THAT(refusal({"monitor", "-n", wrong}), HasSubstr("--count needs a number above 0")) << wrong;
  }
}

TEST(Arguments, ErrorsAreOneHarmlessLine) {
  const std::string error = refusal({("x\n\x1b[31m" + std::string(500, 'y')).c_str()});
  EXPECT_EQ(error.find('\n'), std::string::npos);
  EXPECT_EQ(error.find('\x1b'), std::string::npos);
  EXPECT_LT(error.size(), 100U);
}

TEST(Verbs, HaveNamesOfTheirOwn) {
  for (const tool::Verb& verb : tool::allVerbs()) {
    EXPECT_EQ(tool::findVerb(tool::allVerbs(), verb.name), &verb);
    EXPECT_TRUE(verb.usage.starts_with(verb.name)) << verb.name;
    EXPECT_FALSE(verb.about.empty());
    EXPECT_TRUE(verb.details.empty() || verb.details.ends_with('\n')) << verb.name;
  }
  EXPECT_EQ(tool::findVerb(tool::allVerbs(), ""), nullptr);
}

TEST(Quoted, IsHarmlessForATerminal) {
  EXPECT_EQ(tool::quoted("a b"), "\"a b\"");
  EXPECT_EQ(tool::quoted("\x1b[31m\n"), R"("\x1b[31m\n")");
  EXPECT_EQ(tool::quoted("\xc2\x9b"
                         "1m\x9b\xff"),
            R"("\xc2\x9b1m\x9b\xff")");
  EXPECT_EQ(tool::quoted("\xc3\xa4"), "\"\xc3\xa4\"");
}

TEST(Quoted, IsCutBetweenCharacters) {
  const std::string sixty(60, 'a');
  EXPECT_EQ(tool::quoted(sixty), '"' + sixty + '"');
  EXPECT_EQ(tool::quoted(sixty + 'a'), '"' + sixty + "...\"");
  EXPECT_EQ(tool::quoted(sixty.substr(1) + "\xc3\xa4"), '"' + sixty.substr(1) + "...\"");
}

}  // namespace
