// help, names, check and complete.

#include <fstream>
#include <sstream>

#include "tests/tools/verb_fixture.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using tool::ExitStatus;

class Help : public fixture::VerbTest {
 protected:
  // The candidates for the last of the words, without what is told about them.
  std::vector<std::string> candidates(std::vector<const char*> words) {
    words.insert(words.begin(), {"complete", "--"});
    EXPECT_EQ(run(words), ExitStatus::done);
    std::vector<std::string> found;
    std::istringstream lines(output_);
    for (std::string line; std::getline(lines, line);)
      found.push_back(line.substr(0, line.find('\t', 1)));
    return found;
  }
};

TEST_F(Help, NamesEveryVerbAndOption) {
  EXPECT_EQ(run({"help"}), ExitStatus::done);
  for (const tool::Verb& verb : tool::allVerbs()) {
    const std::string line = "tn " + std::string(verb.name);
    EXPECT_EQ(output_.find(line) == std::string::npos, verb.isHidden) << line;
  }
  for (const char* word : {"--timeout", "--json", "--lines", "--quiet", "--help", "--version", "Exit status"})
    EXPECT_THAT(output_, HasSubstr(word));
  std::istringstream lines(output_);
  for (std::string line; std::getline(lines, line);)
    EXPECT_LE(line.size(), 82U) << line;
}

TEST_F(Help, TellsAboutOneVerb) {
  EXPECT_EQ(run({"help", "monitor"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("usage: tn monitor [FILTER...]\n"));
  for (const char* word : {"--count N", "--from NAME", "--to NAME", "--kind KIND", "--path PATH", "--json"})
    EXPECT_THAT(output_, HasSubstr(word));
  EXPECT_THAT(output_, Not(HasSubstr("--follow")));
  EXPECT_EQ(run({"help", "frob"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: unknown command \"frob\"\n");
}

TEST_F(Help, TheManualPageNamesEverything) {
  std::ifstream file("docs/man/tn.1");
  std::stringstream page;
  page << file.rdbuf();
  for (const tool::Verb& verb : tool::allVerbs()) {
    const bool isNamed = page.str().find(".It Cm " + std::string(verb.name)) != std::string::npos;
    EXPECT_EQ(isNamed, !verb.isHidden) << verb.name;
  }
  for (const tool::OptionShape& option : tool::optionShapes())
    EXPECT_THAT(page.str(), HasSubstr("Fl -" + std::string(option.longName.substr(2)))) << option.longName;
}

TEST_F(Help, TellsNames) {
  EXPECT_EQ(run({"names", "userd/users"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("userd/users  13/2  users\n"));
  EXPECT_THAT(output_, HasSubstr("setPassword"));
  EXPECT_THAT(output_, Not(HasSubstr("userd/groups")));
  EXPECT_EQ(run({"names", "userd"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("userd/groups  13/3"));
  EXPECT_EQ(run({"names", "www"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("www/counters  "));
  EXPECT_THAT(output_, Not(HasSubstr("userd")));
  EXPECT_EQ(run({"names"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("tlsd/certificate"));
  EXPECT_EQ(run({"names", "mine"}), ExitStatus::refused);
  EXPECT_EQ(run({"names", "68/"}), ExitStatus::usage);
}

TEST_F(Help, ChecksDocuments) {
  EXPECT_EQ(run({"check", "image/tarn/etc/www"}), ExitStatus::done);
  EXPECT_EQ(output_, "2 documents, 2 servers, 0 errors, 0 warnings\n");
  EXPECT_EQ(run({"check", "/nowhere.xml"}), ExitStatus::refused);
  EXPECT_EQ(output_,
            "/nowhere.xml: error: expected a readable file: No such file or directory\n"
            "1 documents, 0 servers, 1 errors, 0 warnings\n");
  EXPECT_EQ(run({"check", "-j", "/nowhere.xml"}), ExitStatus::refused);
  EXPECT_EQ(output_,
            "{\"gravity\":\"error\",\"file\":\"/nowhere.xml\",\"line\":0,\"column\":0,\"found\":\"\","
            "\"expected\":\"a readable file: No such file or directory\"}\n");
  look_.colours = true;
  EXPECT_EQ(run({"check", "/nowhere.xml"}), ExitStatus::refused);
  EXPECT_THAT(output_, HasSubstr("/nowhere.xml: \x1b[1;31merror\x1b[0m: expected"));
}

TEST_F(Help, CompletesVerbsAndOptions) {
  EXPECT_THAT(candidates({"s"}), testing::ElementsAre("status", "servers", "sessions", "send", "stats"));
  EXPECT_THAT(candidates({""}), testing::Not(testing::Contains("complete")));
  EXPECT_THAT(candidates({"help", "mon"}), testing::ElementsAre("monitor"));
  EXPECT_THAT(candidates({"--t"}), testing::ElementsAre("--timeout"));
  EXPECT_THAT(candidates({"monitor", "--f"}), testing::ElementsAre("--from"));
  EXPECT_THAT(candidates({"log", "--f"}), testing::ElementsAre("--follow"));
  EXPECT_THAT(candidates({"-t", "5", "che"}), testing::ElementsAre("check"));
  EXPECT_THAT(candidates({"frob", ""}), testing::ElementsAre());
}

TEST_F(Help, CompletesPathsCommandsAndFields) {
  link();
  brokerSays("{u1:4,M4:[{u2:68,s3:'sermgr'},{u2:1007,s3:'serendipity'}]}");
  EXPECT_THAT(candidates({"call", "ser"}), testing::ElementsAre("sermgr/servers", "serendipity/"));
  EXPECT_THAT(candidates({"call", "userd/2", "set"}), testing::ElementsAre("setObj", "setPassword"));
  EXPECT_THAT(candidates({"-j", "call", "sermgr/servers", "set", "p"}), testing::ElementsAre("port="));
  EXPECT_THAT(candidates({"call", "sermgr/servers", "set", "port=1", "disabled="}),
              testing::ElementsAre("disabled=yes", "disabled=no"));
  EXPECT_THAT(candidates({"call", "68/", "set", ""}), testing::ElementsAre());
}

TEST_F(Help, CompletesValuesOfOptions) {
  EXPECT_THAT(candidates({"monitor", "-k", "re"}), testing::ElementsAre("request", "reply"));
  EXPECT_THAT(candidates({"monitor", "-c", "setP"}), testing::ElementsAre("setPassword"));
  EXPECT_THAT(candidates({"list", "-t", ""}), testing::ElementsAre());
  link();
  brokerSays("{u1:4,M4:[{u2:68,s3:'sermgr'},{u2:1007,s3:'www'}]}");
  EXPECT_THAT(candidates({"monitor", "-p", ""}), testing::ElementsAre("sermgr", "www"));
}

TEST_F(Help, CompletesWhatServicesHave) {
  EXPECT_THAT(candidates({"servers", ""}), testing::ElementsAre("list", "set", "add", "remove"));
  EXPECT_THAT(candidates({"servers", "add", "x", "p"}), testing::ElementsAre("port="));
  EXPECT_THAT(candidates({"users", "groups", "s"}), testing::ElementsAre("set"));
  EXPECT_THAT(candidates({"users", "set", "bob", "dis"}), testing::ElementsAre("disabled=yes", "disabled=no"));
  EXPECT_THAT(candidates({"users", "groups", "set", "w", "sk"}), testing::ElementsAre("skin="));
  EXPECT_THAT(candidates({"check", ""}), testing::ElementsAre("\tfiles"));
  link();
  serviceSays("{M1:[{s1:'http'},{s1:'https'}]}");
  EXPECT_THAT(candidates({"servers", "set", "h"}), testing::ElementsAre("http", "https"));
  serviceSays("{M1:[{s1:'admin'}]}");
  EXPECT_THAT(candidates({"users", "password", ""}), testing::ElementsAre("admin"));
  serviceSays("{M1:[{s1:'guests'}]}");
  EXPECT_THAT(candidates({"users", "groups", "remove", ""}), testing::ElementsAre("guests"));
  brokerSays("{u1:4,M4:[{u2:1007,s3:'www'}]}");
  serviceSays("{M1:[{u1:17,s2:'admin'}]}");
  EXPECT_THAT(candidates({"sessions", "end", ""}), testing::ElementsAre("17"));
}

TEST_F(Help, CompletesWithoutABus) {
  EXPECT_THAT(candidates({"call", "ser"}), testing::ElementsAre("sermgr/servers"));
  EXPECT_THAT(candidates({"servers", "set", ""}), testing::ElementsAre());
}

}  // namespace
