#include "servlets/varnox_servlet.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vector>

#include "tests/http/scratch_dir.h"

namespace {

class VarnoxServletTest : public testing::Test {
 protected:
  std::string list() {
    response.reset();
    sendDescriptions(dir.path() + "/", response);
    EXPECT_EQ(response.status, 200);
    EXPECT_TRUE(response.answered());
    EXPECT_EQ(response.headers.getHeader("content-type"), "text/plain");
    return response.body;
  }
  // The lines in byte order: the folder's own order is the file system's affair.
  std::vector<std::string> lines() {
    const std::string body = list();
    std::vector<std::string> found;
    for (std::size_t at = 0; at < body.size();) {
      const std::size_t end = std::min(body.find('\n', at), body.size());
      found.push_back(body.substr(at, end - at));
      at = end + 1;
    }
    std::sort(found.begin(), found.end());
    return found;
  }
  using Lines = std::vector<std::string>;

  ScratchDir dir;
  Response response;
};

TEST_F(VarnoxServletTest, AnEmptyFolderIsAnEmptyDocument) {
  EXPECT_EQ(list(), "");
}

TEST_F(VarnoxServletTest, NoFolderNoDocument) {
  dir.write("file", "x");
  for (const std::string& folder : {dir / "missing/", dir / "file/", dir / "file"}) {
    Response answer;
    sendDescriptions(folder, answer);
    EXPECT_EQ(answer.status, 404) << folder;
    EXPECT_EQ(answer.statusText, "");
    EXPECT_FALSE(answer.headers.hasHeader("content-type"));
  }
}

TEST_F(VarnoxServletTest, ListsTheFirstLineOfEveryDescription) {
  dir.write("a.info", "first\nsecond\n");
  dir.write("b.info", "other\r\nmore");
  dir.write("with.dots.info", "dots\n");
  EXPECT_EQ(lines(), (Lines{"dots", "first", "other\r"}));
}

TEST_F(VarnoxServletTest, TakesNoOtherFiles) {
  dir.write("a.info", "yes\n");
  for (const char* name :
       {".info", ".a.info", "x.info.bak", "info", "ainfo", "a.INFO", "a.inf", "a.info ", "plugin.zip"})
    dir.write(name, std::string("no ") + name + "\n");
  dir.makeDir("folder.info");
  EXPECT_EQ(list(), "yes\n");
}

TEST_F(VarnoxServletTest, ALongLineIsCutAfter255Bytes) {
  dir.write("a.info", std::string(300, 'a') + "\n");
  EXPECT_EQ(list(), std::string(255, 'a'));
  dir.write("a.info", std::string(255, 'a') + "\n");
  EXPECT_EQ(list(), std::string(255, 'a'));
  dir.write("a.info", std::string(254, 'a') + "\nrest");
  EXPECT_EQ(list(), std::string(254, 'a') + "\n");
}

TEST_F(VarnoxServletTest, ALineWithoutEndRunsIntoTheNext) {
  dir.write("a.info", std::string(300, 'x'));
  dir.write("b.info", "yy");
  const std::string body = list();
  const std::string cut(255, 'x');
  EXPECT_TRUE(body == cut + "yy" || body == "yy" + cut);
}

TEST_F(VarnoxServletTest, WhatIsEmptyOrCannotBeReadGivesNothing) {
  dir.write("empty.info", "");
  EXPECT_EQ(symlink((dir / "nowhere").c_str(), (dir / "dangling.info").c_str()), 0);
  EXPECT_EQ(mkfifo((dir / "pipe.info").c_str(), 0644), 0);
  dir.write("good.info", "good\n");
  EXPECT_EQ(list(), "good\n");
}

TEST_F(VarnoxServletTest, LeavesNothingOpen) {
  dir.write("a.info", "a\n");
  dir.write("empty.info", "");
  list();
  const int before = openDescriptors();
  list();
  Response answer;
  sendDescriptions(dir / "missing/", answer);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(VarnoxServletTest, AnswersGetAndHeadAtItsVeryPath) {
  VarnoxServlet servlet;
  servlet.setBaseFlag(true);
  EXPECT_FALSE(servlet.isDirectory());
  Request request(false, false);
  request.method = Method::post;
  servlet.doMethod(request, response);
  EXPECT_EQ(response.status, 405);
  EXPECT_EQ(response.headers.getHeader("allow"), "GET, HEAD");
  EXPECT_EQ(request.bodyChunk, -1);
  // No system of the test's own has the folder at its place.
  for (const Method method : {Method::get, Method::head}) {
    Response answer;
    request.method = method;
    servlet.doMethod(request, answer);
    EXPECT_EQ(answer.status, 404);
  }
}

}  // namespace
