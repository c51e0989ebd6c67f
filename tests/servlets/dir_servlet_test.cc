#include "servlets/dir_servlet.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include "http/file_answers.h"
#include "http/file_cache.h"
#include "http/file_facts.h"
#include "platform/web/functions.h"
#include "tests/http/connection_fixture.h"

namespace {

class DirServletTest : public testing::Test {
 protected:
  void TearDown() override {
    forgetFile();
    fileAnswers().clear();
  }

  // Status and file, and what else the servlet said, in one word.
  std::string get(DirServlet& servlet, const std::string& pathInfo, const std::string& acceptEncoding = "") {
    request.reset();
    response.reset();
    request.uri = "/unused";
    request.pathInfo = pathInfo;
    request.pathInfoSet = true;
    if (!acceptEncoding.empty()) request.headers.addHeader("Accept-Encoding", acceptEncoding, false);
    servlet.isDirectory();
    servlet.doMethod(request, response);
    EXPECT_TRUE(response.answered());
    EXPECT_FALSE(response.deleteFile);
    return response.status == 200 ? response.file : std::to_string(response.status);
  }
  [[nodiscard]] std::string field(const std::string& name) const {
    return std::string(response.headers.getHeader(name).value_or("(none)"));
  }

  ScratchDir dir;
  std::string root = dir.makeDir("web");
  Request request{false, false};
  Response response;
};

TEST_F(DirServletTest, ServesAFileOfTheTree) {
  dir.write("web/app.js", "js");
  dir.makeDir("web/a/b");
  dir.write("web/a/b/c.css", "css");
  DirServlet servlet(root, false, false);
  EXPECT_TRUE(servlet.isDirectory());
  EXPECT_EQ(get(servlet, "app.js"), root + "/app.js");
  EXPECT_EQ(field("content-type"), getContentType("x.js", nullptr));
  EXPECT_FALSE(response.cacheable);
  EXPECT_EQ(get(servlet, "a/b/c.css"), root + "/a/b/c.css");
  EXPECT_EQ(field("content-type"), getContentType("x.css", nullptr));
  EXPECT_EQ(field("content-encoding"), "(none)");
  EXPECT_EQ(get(servlet, "a/missing.css"), "404");
  EXPECT_EQ(get(servlet, "app.js/x"), "404");
}

TEST_F(DirServletTest, UsesTheTargetWithoutAPathInfo) {
  dir.write("web/app.js", "js");
  DirServlet servlet(root, false, false);
  request.uri = "/app.js";
  servlet.doGet(request, response);
  EXPECT_EQ(response.file, root + "//app.js");
}

TEST_F(DirServletTest, ServesTheIndexOfADirectory) {
  dir.write("web/index.html", "index");
  dir.makeDir("web/sub");
  dir.write("web/sub/index.html", "sub");
  DirServlet servlet(root, false, true);
  EXPECT_EQ(get(servlet, ""), root + "//index.html");
  EXPECT_EQ(field("content-type"), getContentType("x.html", nullptr));
  EXPECT_TRUE(response.cacheable);
  EXPECT_EQ(get(servlet, "sub"), root + "/sub/index.html");
  EXPECT_EQ(get(servlet, "sub/"), root + "/sub//index.html");
}

TEST_F(DirServletTest, ServesTheIndexOfAnIndexThatIsADirectory) {
  dir.makeDir("web/index.html/index.html");
  dir.write("web/index.html/index.html/index.html", "deep");
  DirServlet servlet(root, false, false);
  EXPECT_EQ(get(servlet, ""), root + "//index.html/index.html/index.html");
}

TEST_F(DirServletTest, AnIndexThatContainsItselfIsNotFound) {
  ASSERT_EQ(symlink(".", (root + "/index.html").c_str()), 0);
  DirServlet servlet(root, false, false);
  EXPECT_EQ(get(servlet, ""), "404");
}

TEST_F(DirServletTest, ADirectoryWithoutIndexIsNotFound) {
  dir.makeDir("web/empty");
  DirServlet servlet(root, false, false);
  EXPECT_EQ(get(servlet, "empty"), "404");
}

TEST_F(DirServletTest, AnIndexMayExistCompressedAlone) {
  dir.write("web/index.html.gz", "gz");
  DirServlet servlet(root, false, false);
  EXPECT_EQ(get(servlet, "", "gzip"), root + "//index.html.gz");
  EXPECT_EQ(field("content-type"), getContentType("x.html", nullptr));
}

TEST_F(DirServletTest, ServesTheCompressedVariantToThoseWhoTakeIt) {
  dir.write("web/app.js.gz", "gz");
  DirServlet servlet(root, false, true);
  EXPECT_EQ(get(servlet, "app.js", "gzip, deflate"), root + "/app.js.gz");
  EXPECT_EQ(field("content-encoding"), "gzip");
  EXPECT_EQ(field("content-type"), getContentType("app.js", nullptr));
  EXPECT_TRUE(response.cacheable);
  EXPECT_EQ(get(servlet, "app.js"), "406");
  EXPECT_EQ(field("content-encoding"), "(none)");
  EXPECT_EQ(get(servlet, "app.js", "deflate"), "406");
  EXPECT_EQ(get(servlet, "app.js", "GZIP"), "406");
  EXPECT_EQ(get(servlet, "app.js", "gzip;q=0"), root + "/app.js.gz");
  EXPECT_EQ(get(servlet, "app.js", "x-gzipped"), root + "/app.js.gz");
}

TEST_F(DirServletTest, PrefersTheUncompressedFile) {
  dir.write("web/app.js", "js");
  dir.write("web/app.js.gz", "gz");
  DirServlet servlet(root, false, false);
  EXPECT_EQ(get(servlet, "app.js", "gzip"), root + "/app.js");
  EXPECT_EQ(field("content-encoding"), "(none)");
  EXPECT_EQ(get(servlet, "app.js.gz"), root + "/app.js.gz");
  EXPECT_EQ(field("content-encoding"), "(none)");
}

TEST_F(DirServletTest, RefusesPathsThatAreNotPlain) {
  dir.makeDir("web/a");
  for (const char* name : {"a/b", "b", ".hidden", "a/.b", "%20b", "a b", "~", "a..b"}) {
    dir.write(std::string("web/") + name, "x");
  }
  DirServlet servlet(root, false, false);
  for (const char* path :
       {"a/../b", "..",  "../web/b", ".hidden", "a/.b", "a%20b", "%20b", "a b", "~",    "a..b",  "a/..",
        ".",      "b\\", "b:",       "b;x",     "b?x",  "b*",    "b@",   "b+",  "\x80", "b\xe4", "b\n"}) {
    EXPECT_EQ(get(servlet, path), "404") << path;
    EXPECT_EQ(rememberedFile(response.file), nullptr);
  }
  EXPECT_EQ(get(servlet, std::string("b\0", 2)), "404");
  EXPECT_EQ(get(servlet, "a/b"), root + "/a/b");
  EXPECT_EQ(get(servlet, "/b"), root + "//b");
}

TEST_F(DirServletTest, TakesADotBehindAPlainCharacter) {
  DirServlet servlet(root, false, false);
  for (const char* path : {"a-.b", "a_.b", "a.b.c", "A9.Z", "b."}) {
    dir.write(std::string("web/") + path, "x");
    EXPECT_EQ(get(servlet, path), root + "/" + path);
  }
}

TEST_F(DirServletTest, AnExactServletServesItsOneFile) {
  const std::string file = dir.write("web/one.txt", "one");
  DirServlet servlet(file, false, false);
  EXPECT_FALSE(servlet.isDirectory());
  EXPECT_EQ(get(servlet, ""), file);
  EXPECT_EQ(get(servlet, "whatever"), file);
  EXPECT_EQ(get(servlet, ".."), "404");
}

TEST_F(DirServletTest, AnExactServletMayHaveTheCompressedFileAlone) {
  dir.write("web/one.txt.gz", "gz");
  DirServlet servlet(dir / "web/one.txt", false, false);
  EXPECT_EQ(get(servlet, "", "gzip"), dir / "web/one.txt.gz");
  EXPECT_EQ(get(servlet, ""), "406");
}

TEST_F(DirServletTest, TurnsIntoADirectoryWhenOneIsMade) {
  const std::string later = dir / "later";
  DirServlet servlet(later, false, false);
  EXPECT_FALSE(servlet.isDirectory());
  EXPECT_EQ(get(servlet, ""), "404");
  dir.makeDir("later");
  dir.write("later/x", "x");
  EXPECT_TRUE(servlet.isDirectory());
  EXPECT_EQ(get(servlet, "x"), later + "/x");
}

TEST_F(DirServletTest, UsesTheAnswerOfIsDirectoryForOneRequest) {
  dir.write("web/x", "x");
  DirServlet servlet(root, false, false);
  request.pathInfoSet = true;
  request.pathInfo = "x";
  EXPECT_TRUE(servlet.isDirectory());
  std::filesystem::rename(root, dir / "moved");
  dir.write("web", "a file now");
  servlet.doGet(request, response);
  EXPECT_EQ(response.status, 404) << "it was a directory when it was asked";
  response.reset();
  servlet.doGet(request, response);
  EXPECT_EQ(response.file, root) << "nobody asked, so it looks itself";
}

TEST_F(DirServletTest, APublicServletWantsAMarker) {
  dir.makeDir("web/open/below");
  dir.makeDir("web/shut");
  dir.write("web/open/.public", "");
  for (const char* name : {"web/x", "web/open/x", "web/open/below/x", "web/shut/x"})
    dir.write(name, "x");
  DirServlet servlet(root, true, false);
  EXPECT_EQ(get(servlet, "open/x"), root + "/open/x");
  EXPECT_EQ(get(servlet, "open/below/x"), root + "/open/below/x");
  EXPECT_EQ(get(servlet, "open/missing"), "404");
  EXPECT_EQ(get(servlet, "x"), "403");
  EXPECT_EQ(get(servlet, "shut/x"), "403");
  EXPECT_EQ(get(servlet, "shut/missing"), "403");
  EXPECT_EQ(get(servlet, "open/.public"), "404");
  dir.write("web/.public", "");
  EXPECT_EQ(get(servlet, "shut/x"), root + "/shut/x");
  DirServlet plain(root, false, false);
  EXPECT_EQ(get(plain, "shut/x"), root + "/shut/x");
}

TEST_F(DirServletTest, AMarkerAboveTheRootCountsAsWell) {
  dir.write(".public", "");
  dir.write("web/x", "x");
  DirServlet servlet(root, true, false);
  EXPECT_EQ(get(servlet, "x"), root + "/x");
}

TEST_F(DirServletTest, AMarkerInTheNamedDirectoryItselfCounts) {
  dir.makeDir("web/open");
  dir.write("web/open/.public", "");
  dir.write("web/open/index.html", "x");
  DirServlet servlet(root, true, false);
  EXPECT_EQ(get(servlet, "open"), root + "/open/index.html");
}

TEST_F(DirServletTest, AnExactPublicServletWantsAMarkerToo) {
  const std::string file = dir.write("web/one", "1");
  DirServlet servlet(file, true, false);
  EXPECT_EQ(get(servlet, ""), "403");
  dir.write("web/.public", "");
  EXPECT_EQ(get(servlet, ""), file);
}

TEST_F(DirServletTest, OtherMethodsAreNotAllowed) {
  DirServlet servlet(root, false, false);
  for (const Method method : {Method::post, Method::put, Method::del, Method::options}) {
    request.method = method;
    response.reset();
    servlet.doMethod(request, response);
    EXPECT_EQ(response.status, 405);
    EXPECT_EQ(field("allow"), "GET, HEAD");
  }
}

TEST_F(DirServletTest, RemembersWhatItKnowsOfTheFile) {
  const std::string path = dir.write("web/x", "contents");
  DirServlet servlet(root, false, false);
  get(servlet, "x");
  ASSERT_NE(rememberedFile(path), nullptr);
  EXPECT_EQ(rememberedFile(path)->st_size, 8);
}

// The servlet with the engine around it: what a client gets is always the file as it is now.
class ServedDirTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    servlet_ = std::make_unique<DirServlet>(root, false, true);
    servlet_->setPath("/");
    site.servlets.push_back(servlet_.get());
  }
  // Status or body of a file.
  std::string get(const std::string& name, const std::string& fields = "") {
    if (!live()) open();
    const Answer answer = exchange("GET /" + name + " HTTP/1.1\r\nHost: a\r\n" + fields + "\r\n");
    return answer.status == 200 ? answer.body : std::to_string(answer.status);
  }

  ScratchDir dir;
  std::string root = dir.makeDir("web");

 private:
  std::unique_ptr<DirServlet> servlet_;
};

TEST_F(ServedDirTest, ServesFilesWithAYearOfCaching) {
  dir.write("web/index.html", "index");
  open();
  const Answer answer = exchange("GET / HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(answer.body, "index");
  EXPECT_EQ(answer.field("cache-control"), "max-age=31536000");
  const Answer missing = exchange("GET /missing HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.field("cache-control"), "no-store");
}

TEST_F(ServedDirTest, WhatIsAskedForAgainIsKeptAndLetGoWhenNobodyAsks) {
  dir.write("web/x", "contents");
  dir.write("web/y.gz", "compressed");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(get("x"), "contents");
    EXPECT_EQ(get("missing"), "404");
    EXPECT_EQ(get("y"), "406");
    EXPECT_EQ(get("y", "Accept-Encoding: gzip\r\n"), "compressed");
  }
  // Where the file system can prove nothing, nothing is kept.
  const bool provable = fileAnswers().watches() != 0;
  EXPECT_EQ(fileAnswers().size(), provable ? 3U : 0U) << "the folder and two files";
  runner.advance(2 * FileAnswers::sweepMs);
  EXPECT_EQ(fileAnswers().size(), 0U);
  EXPECT_EQ(fileAnswers().watches(), 0U);
}

TEST_F(ServedDirTest, StoresToASharedMappingShowAtOnce) {
  const std::string path = dir.write("web/x", "contents");
  const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  void* bytes = mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  ASSERT_NE(bytes, MAP_FAILED);
  for (char c = 'a'; c < 'f'; ++c) {
    *static_cast<char*>(bytes) = c;
    EXPECT_EQ(get("x"), std::string(1, c) + "ontents");
  }
  munmap(bytes, 8);
}

TEST_F(ServedDirTest, ManyFilesAreBounded) {
  for (std::size_t i = 0; i < FileAnswers::maxAnswers + 50; ++i) {
    const std::string name = std::to_string(i);
    dir.write("web/" + name, name);
    for (int times = 0; times < 3; ++times)
      EXPECT_EQ(get(name), name);
  }
  EXPECT_LE(fileAnswers().size(), FileAnswers::maxAnswers);
  for (std::size_t i = 0; i < FileAnswers::maxAnswers + 50; ++i) {
    dir.write("web/" + std::to_string(i), "new");
    EXPECT_EQ(get(std::to_string(i)), "new");
  }
}

TEST_F(ServedDirTest, FollowsEveryChangeOfAFile) {
  dir.write("web/x", "first");
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(get("x"), "first");
  EXPECT_EQ(fileCache().fileCount(), 1U);
  dir.replace("web/x", "other");
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(get("x"), "other");
  dir.write("web/x", "in place, and longer");
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(get("x"), "in place, and longer");
  dir.write("web/x", "and of the same size");
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(get("x"), "and of the same size");
  ASSERT_EQ(truncate((root + "/x").c_str(), 3), 0);
  EXPECT_EQ(get("x"), "and");
  {
    const UniqueFd appender(::open((root + "/x").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    ASSERT_EQ(write(appender.get(), " more", 5), 5);
  }
  EXPECT_EQ(get("x"), "and more");
  ASSERT_EQ(truncate((root + "/x").c_str(), 0), 0);
  EXPECT_EQ(get("x"), "");
  ASSERT_EQ(unlink((root + "/x").c_str()), 0);
  EXPECT_EQ(get("x"), "404");
  dir.write("web/x.gz", "compressed");
  EXPECT_EQ(get("x", "Accept-Encoding: gzip\r\n"), "compressed");
  EXPECT_EQ(get("x"), "406");
  dir.write("web/x", "back");
  EXPECT_EQ(get("x", "Accept-Encoding: gzip\r\n"), "back");
  ASSERT_EQ(unlink((root + "/x").c_str()), 0);
  ASSERT_EQ(unlink((root + "/x.gz").c_str()), 0);
  dir.makeDir("web/x");
  dir.write("web/x/index.html", "a directory now");
  EXPECT_EQ(get("x"), "a directory now");
}

TEST_F(ServedDirTest, ShowsBytesWrittenInPlaceEvenWhenNoStatTellsOfThem) {
  const std::string path = dir.write("web/x", "before");
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(get("x"), "before");
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  const UniqueFd writer(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(pwrite(writer.get(), "BEF", 3, 0), 3);
  const timespec times[2] = {status.st_atim, status.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  EXPECT_EQ(get("x"), "BEFore");
}

TEST_F(ServedDirTest, FollowsALinkThatPointsElsewhere) {
  dir.write("web/one", "one");
  dir.write("web/two", "two");
  ASSERT_EQ(symlink("one", (root + "/x").c_str()), 0);
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(get("x"), "one");
  ASSERT_EQ(unlink((root + "/x").c_str()), 0);
  ASSERT_EQ(symlink("two", (root + "/x").c_str()), 0);
  EXPECT_EQ(get("x"), "two");
}

TEST_F(ServedDirTest, WhatIsNoRegularFileIsNotFoundAndNeverWaitedFor) {
  ASSERT_EQ(mkfifo((root + "/fifo").c_str(), 0644), 0);
  EXPECT_EQ(get("fifo"), "404");
  dir.makeDir("web/y.gz");
  EXPECT_EQ(get("y", "Accept-Encoding: gzip\r\n"), "404");
}

TEST_F(ServedDirTest, APartComesFromTheSameFile) {
  const std::string bytes = sampleBytes(10000);
  dir.write("web/x", bytes);
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(get("x") == bytes);
    EXPECT_TRUE(get("x", "Range: bytes=5000-\r\n") == bytes.substr(5000));
    EXPECT_TRUE(get("x", "Range: bytes=4095-4096\r\n") == bytes.substr(4095, 2));
  }
}

}  // namespace
