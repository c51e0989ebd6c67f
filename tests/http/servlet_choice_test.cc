#include "http/servlet_choice.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

class FakeServlet : public Servlet {
 public:
  FakeServlet(const std::string& path, bool directory) : directory_(directory) { setPath(path); }
  bool isDirectory() override {
    ++asked;
    return directory_;
  }
  void become(bool directory) { directory_ = directory; }

  int asked = 0;

 private:
  bool directory_;
};

class ServletChoiceTest : public testing::Test {
 protected:
  FakeServlet& add(const std::string& path, bool directory) {
    servlets_.push_back(std::make_unique<FakeServlet>(path, directory));
    site.servlets.push_back(servlets_.back().get());
    return *servlets_.back();
  }
  Servlet* choose(const std::string& path) {
    const ServletChoice choice = chooseServlet(site, path);
    pathInfo = choice.pathInfo;
    return choice.servlet;
  }

  Site site;
  std::string pathInfo;

 private:
  std::vector<std::unique_ptr<FakeServlet>> servlets_;
};

TEST_F(ServletChoiceTest, ExactServletsWantTheVeryPath) {
  FakeServlet& a = add("/a", false);
  EXPECT_EQ(choose("/a"), &a);
  EXPECT_EQ(pathInfo, "");
  EXPECT_EQ(choose("/a/"), nullptr);
  EXPECT_EQ(choose("/A"), nullptr);
  EXPECT_EQ(choose("/"), nullptr);
  EXPECT_EQ(choose(""), nullptr);
}

TEST_F(ServletChoiceTest, TheFirstOfTwoExactServletsWins) {
  FakeServlet& first = add("/a", false);
  add("/a", false);
  EXPECT_EQ(choose("/a"), &first);
}

TEST_F(ServletChoiceTest, TheLastOfTwoEqualDirectoriesWins) {
  add("/a", true);
  FakeServlet& last = add("/a", true);
  EXPECT_EQ(choose("/a/x"), &last);
}

TEST_F(ServletChoiceTest, TheLongestDirectoryWinsInEitherOrder) {
  FakeServlet& longer = add("/a/b", true);
  FakeServlet& shorter = add("/a", true);
  EXPECT_EQ(choose("/a/b/c"), &longer);
  EXPECT_EQ(pathInfo, "c");
  EXPECT_EQ(choose("/a/c"), &shorter);
  EXPECT_EQ(pathInfo, "c");
}

TEST_F(ServletChoiceTest, PathInfoLosesOneLeadingSlash) {
  add("/a", true);
  for (const auto& [path, info] : std::vector<std::pair<std::string, std::string>>{
           {"/a", ""}, {"/a/", ""}, {"/a//", "/"}, {"/a//b", "/b"}, {"/a/b/", "b/"}, {"/ab", "b"}}) {
    EXPECT_NE(choose(path), nullptr);
    EXPECT_EQ(pathInfo, info) << path;
  }
}

TEST_F(ServletChoiceTest, ADirectoryBeginsEvenTheEmptyPath) {
  FakeServlet& all = add("", true);
  EXPECT_EQ(choose(""), &all);
  EXPECT_EQ(choose("*"), &all);
  EXPECT_EQ(pathInfo, "*");
}

TEST_F(ServletChoiceTest, AsksAfreshForEveryRequest) {
  FakeServlet& servlet = add("/a", false);
  EXPECT_EQ(choose("/a/b"), nullptr);
  servlet.become(true);
  EXPECT_EQ(choose("/a/b"), &servlet);
  EXPECT_EQ(servlet.asked, 2);
}

TEST_F(ServletChoiceTest, AsksOnlyServletsThatCouldWin) {
  FakeServlet& longest = add("/a/b", true);
  FakeServlet& shorter = add("/a", true);
  FakeServlet& other = add("/c", true);
  EXPECT_EQ(choose("/a/b/x"), &longest);
  EXPECT_EQ(longest.asked, 1);
  EXPECT_EQ(shorter.asked, 0);
  EXPECT_EQ(other.asked, 0);
}

TEST(SplitTargetTest, CutsAtTheFirstQuestionMark) {
  EXPECT_EQ(splitTarget("/a?b?c").path, "/a");
  EXPECT_EQ(splitTarget("/a?b?c").query, "b?c");
  EXPECT_EQ(splitTarget("/a?").path, "/a");
  EXPECT_EQ(splitTarget("/a?").query, "");
  EXPECT_EQ(splitTarget("").path, "");
  EXPECT_EQ(splitTarget("*").path, "*");
}

TEST(SplitTargetTest, DropsSchemeAndAuthority) {
  EXPECT_EQ(splitTarget("http://h/a").path, "/a");
  EXPECT_EQ(splitTarget("https://h:1/").path, "/");
  EXPECT_EQ(splitTarget("http://h").path, "/");
  EXPECT_EQ(splitTarget("http://h?q").path, "/");
  EXPECT_EQ(splitTarget("http://h?q").query, "q");
}

TEST(SplitTargetTest, LeavesOtherPathsAlone) {
  EXPECT_EQ(splitTarget("/a://b/c").path, "/a://b/c");
  EXPECT_EQ(splitTarget("/x?http://h/a").path, "/x");
}

}  // namespace
