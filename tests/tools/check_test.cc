#include "tools/check.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class Check : public testing::Test {
 protected:
  Check() {
    std::string name = (fs::temp_directory_path() / "check_test.XXXXXX").string();
    folder_ = ::mkdtemp(name.data());
  }
  ~Check() override { fs::remove_all(folder_); }

  void write(const std::string& name, std::string_view text) { std::ofstream(folder_ + "/" + name) << text; }

  std::vector<std::string> check() {
    tool::Checker checker;
    checker.checkDirectory(folder_);
    errors_ = checker.errors();
    std::vector<std::string> lines;
    for (const tool::Finding& finding : checker.findings()) {
      const std::string line = finding.text();
      lines.push_back(line.starts_with(folder_ + "/") ? line.substr(folder_.size() + 1) : line);
    }
    return lines;
  }

  // What is found in one document.
  std::vector<std::string> check(std::string_view text) {
    write("a.xml", text);
    return check();
  }

  std::string folder_;
  std::size_t errors_ = 0;
};

TEST_F(Check, TheShippedDocumentsAreGood) {
  tool::Checker checker;
  checker.checkDirectory("image/tarn/etc/www");
  EXPECT_EQ(checker.findings().size(), 0U);
  EXPECT_EQ(checker.documents(), 2U);
  EXPECT_EQ(checker.servers(), 2U);
}

TEST_F(Check, EverythingThatIsAllowed) {
  EXPECT_THAT(
      check(
          "<www>\n<server name='a b' ssl='1'>\n<servlet type='dir' path='/' root='/x' cacheable='no' internal='yes'/>\n"
          "<servlet type='pubdir' path='/p' root='/y'/><servlet type='index' path='/'/>\n"
          "<servlet type='varnox' path='/v'/><servlet type='jsproxy' path='/j'/>\n"
          "<servlet type='remote' path='/r' target='63,15'/></server></www>"),
      ElementsAre());
}

TEST_F(Check, WhatTheParserRefuses) {
  EXPECT_THAT(check("<www>\n  <server name='a'>\n  </www>"),
              ElementsAre("a.xml:3:3: error: expected end tag </server>"));
  EXPECT_EQ(errors_, 1U);
  EXPECT_THAT(check(""), ElementsAre("a.xml:1:1: error: expected the root element"));
}

TEST_F(Check, UnknownElementsAndAttributes) {
  EXPECT_THAT(
      check("<www>\n<sever/>\n<server name='a' port='80'>\n <servlt/>\n <servlet type='index' path='/' "
            "rot='/x'><x/></servlet>\n"
            "</server></www>"),
      ElementsAre("a.xml:2:1: error: element <sever>, which is skipped; expected <server>",
                  "a.xml:3:18: error: attribute \"port\", which is skipped; expected one of name, ssl",
                  "a.xml:4:2: error: element <servlt>, which is skipped; expected <servlet>",
                  "a.xml:5:33: error: attribute \"rot\", which is skipped; expected one of type, path, internal, root, "
                  "cacheable, target",
                  "a.xml:5:42: error: element <x>, which is skipped; expected none here"));
  EXPECT_EQ(errors_, 5U);
}

TEST_F(Check, ValuesOfTheWrongType) {
  EXPECT_THAT(check("<www><server name='a' ssl='maybe'>\n"
                    "<servlet type='dri' path='/a'/>\n"
                    "<servlet type='dir' path='b' root='x' cacheable='YES'/>\n"
                    "<servlet type='remote' path='/c' target='63;15'/></server></www>"),
              ElementsAre("a.xml:1:23: error: attribute ssl is \"maybe\"; expected yes or no",
                          "a.xml:2:10: error: attribute type is \"dri\"; expected one of dir, pubdir, index, varnox, "
                          "jsproxy, remote",
                          "a.xml:3:39: error: attribute cacheable is \"YES\"; expected yes or no",
                          "a.xml:3:30: error: attribute root is \"x\"; expected a path from the top, such as /home/web",
                          "a.xml:3:21: error: attribute path is \"b\"; expected a path that begins with /",
                          "a.xml:4:34: error: attribute target is \"63;15\"; expected numbers with commas between them "
                          "such as 63,15"));
}

TEST_F(Check, WhatIsMissing) {
  EXPECT_THAT(
      check("<www><server>\n<servlet path='/'/>\n<servlet type='dir'/>\n<servlet type='remote' "
            "path='/r'/></server></www>"),
      ElementsAre("a.xml:1:6: error: a server without a name; expected the attribute name",
                  "a.xml:2:1: error: a servlet without a type, which is skipped; expected the attribute type, one "
                  "of dir, pubdir, index, varnox, jsproxy, remote",
                  "a.xml:3:1: error: a dir servlet without a root; expected the attribute root",
                  "a.xml:3:1: error: a servlet without a path; expected the attribute path",
                  "a.xml:4:1: error: a remote servlet without a target; expected the attribute target, such as "
                  "63,15"));
}

TEST_F(Check, NamesThatNoRecordCanBear) {
  EXPECT_THAT(check("<www><server name=''><servlet type='index' path='/'/></server></www>"),
              ElementsAre(HasSubstr("attribute name is \"\"; expected 1 to 64 printable ASCII characters")));
  EXPECT_THAT(check("<www><server name='\xc3\xa4'><servlet type='index' path='/'/></server></www>"),
              ElementsAre(HasSubstr("expected 1 to 64 printable ASCII")));
  EXPECT_EQ(
      check("<www><server name='" + std::string(65, 'a') + "'><servlet type='index' path='/'/></server></www>").size(),
      1U);
}

TEST_F(Check, WarnsOfWhatHardlyWasMeant) {
  EXPECT_THAT(check("<web x='1'>\n<server name='a'/>\n<server name='b'><servlet type='index' path='/' "
                    "root='/x'/></server></web>"),
              ElementsAre("a.xml:1:1: warning: element <web>; expected <www>",
                          "a.xml:1:6: warning: attribute \"x\"; expected none here",
                          "a.xml:2:1: warning: a server that serves nothing; expected <servlet>",
                          "a.xml:3:49: warning: attribute \"root\", which index ignores"));
  EXPECT_EQ(errors_, 0U);
  EXPECT_THAT(check("<www/>"), ElementsAre("a.xml:1:1: warning: no servers; expected <server>"));
}

TEST_F(Check, PathsThatAreThereTwiceAlsoInAnotherDocument) {
  write("b.xml",
        "<www><server name='a' ssl='yes'><servlet type='dir' path='/' root='/y'/>\n"
        "<servlet type='index' path='/'/></server></www>");
  EXPECT_THAT(
      check("<www><server name='a'><servlet type='dir' path='/' root='/x'/>\n<servlet type='jsproxy' path='/'/>\n"
            "<servlet type='index' path='/'/></server>\n"
            "<server name='c'><servlet type='dir' path='/' root='/x'/></server></www>"),
      ElementsAre("a.xml:2:25: warning: attribute path is \"/\"; expected a path that no other servlet of this "
                  "server answers in the same way",
                  "b.xml:1:23: error: attribute ssl is \"yes\"; expected what the first element of this server "
                  "says, no",
                  HasSubstr("b.xml:1:53: warning: attribute path"), HasSubstr("b.xml:2:23: warning: attribute path")));
}

TEST_F(Check, WhatCannotBeRead) {
  tool::Checker checker;
  checker.checkFile(folder_ + "/missing.xml");
  checker.checkFile(folder_);
  checker.checkDirectory(folder_ + "/missing");
  checker.checkDirectory(folder_);
  ASSERT_EQ(checker.findings().size(), 4U);
  EXPECT_EQ(checker.findings()[0].text(),
            folder_ + "/missing.xml: error: expected a readable file: No such file or directory");
  EXPECT_EQ(checker.findings()[1].text(), folder_ + ": error: expected a regular file");
  EXPECT_EQ(checker.findings()[2].text(),
            folder_ + "/missing: error: expected a readable directory: No such file or directory");
  EXPECT_EQ(checker.findings()[3].text(), folder_ + ": warning: no documents; expected files *.xml");
  EXPECT_EQ(checker.errors(), 3U);
}

}  // namespace
