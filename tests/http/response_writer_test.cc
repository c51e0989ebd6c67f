#include "http/response_writer.h"

#include <ctime>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "http/connection.h"
#include "http/file_cache.h"
#include "http/file_facts.h"
#include "platform/web/functions.h"
#include "tests/fakes/fake_runner.h"
#include "tests/http/answer.h"
#include "tests/http/scratch_dir.h"

namespace {

class ResponseWriterTest : public testing::Test {
 protected:
  void SetUp() override { descriptors_ = openDescriptors(); }
  void TearDown() override {
    out = {};
    forgetFile();
    fileCache().clear();
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  // The head of the response.
  Answer build() {
    out = {};
    head_.clear();
    buildResponse(request, response, runner, head_, out);
    Answer answer = parseAnswer(head_);
    EXPECT_EQ(answer.body, "");
    return answer;
  }
  Answer buildFile(std::size_t size, const std::string& range = "") {
    response.reset();
    request.reset();
    if (!range.empty()) request.headers.addHeader("Range", range, false);
    response.sendFile(dir.write("file", sampleBytes(size)), "text/plain", false);
    return build();
  }

  ScratchDir dir;
  tn::fakes::FakeRunner runner;
  Request request{false, false};
  Response response;
  Outgoing out;

 private:
  std::string head_;
  int descriptors_ = 0;
};

using Names = std::vector<std::string>;

TEST_F(ResponseWriterTest, WritesATextThatMayBeKept) {
  response.send("hello");
  const std::int64_t before = std::time(nullptr);
  const Answer answer = build();
  const std::int64_t after = std::time(nullptr);
  EXPECT_EQ(answer.statusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(answer.names, (Names{"Content-Length", "Date", "Expires", "Cache-Control", "Connection"}));
  EXPECT_EQ(answer.field("content-length"), "5");
  EXPECT_EQ(answer.field("cache-control"), "max-age=31536000");
  EXPECT_EQ(answer.field("connection"), "Keep-Alive");
  bool dated = false;
  for (std::int64_t now = before; now <= after; ++now) {
    dated |= answer.field("date") == httpDate(now) && answer.field("expires") == httpDate(now + 31536000);
  }
  EXPECT_TRUE(dated) << answer.field("date") << " " << answer.field("expires");
  EXPECT_EQ(out.text, "hello");
  EXPECT_EQ(out.text.data(), response.body.data());
}

TEST_F(ResponseWriterTest, WritesATextThatMayNotBeKept) {
  response.send("hello");
  response.cacheable = false;
  const Answer answer = build();
  EXPECT_EQ(answer.names, (Names{"Content-Length", "Date", "Pragma", "Cache-Control", "Expires", "Connection"}));
  EXPECT_EQ(answer.field("pragma"), "no-cache");
  EXPECT_EQ(answer.field("cache-control"), "no-store");
  EXPECT_EQ(answer.field("expires"), "0");
}

TEST_F(ResponseWriterTest, ReplacesFieldsThatTheServletSet) {
  response.send("hello");
  response.headers.addHeader("connection", "upgrade", false);
  response.headers.addHeader("content-length", "99", false);
  const Answer answer = build();
  EXPECT_EQ(answer.field("connection"), "Keep-Alive");
  EXPECT_EQ(answer.field("content-length"), "5");
  EXPECT_EQ(answer.names.size(), 5U);
}

TEST_F(ResponseWriterTest, PutsTheErrorPageInThePlaceOfTheBody) {
  response.sendError(403, "");
  response.body = "a body of the servlet's own";
  const Answer answer = build();
  EXPECT_EQ(answer.statusLine, "HTTP/1.1 403 Forbidden");
  EXPECT_EQ(out.text,
            "<html>\n<head><title>Error 403: Forbidden</title></head>\n<body>\n<h1>Error 403: Forbidden</h1>\n</body>\n"
            "</html>\n");
  EXPECT_EQ(answer.field("content-length"), std::to_string(out.text.size()));
  EXPECT_EQ(answer.field("pragma"), "no-cache");
  EXPECT_EQ(answer.field("cache-control"), "no-store");
  EXPECT_EQ(answer.field("expires"), "0");
  EXPECT_EQ(answer.field("connection"), "Keep-Alive");
}

TEST_F(ResponseWriterTest, EveryStatusFrom300OnIsAnErrorPage) {
  response.sendError(299, "");
  build();
  EXPECT_EQ(out.text, "");
  response.sendError(300, "somewhere else");
  build();
  EXPECT_NE(out.text.find("Error 300: somewhere else"), std::string::npos);
}

TEST_F(ResponseWriterTest, AFileOfAnErrorIsNeitherSentNorRemoved) {
  const std::string path = dir.write("file", "contents");
  response.sendError(500, "");
  response.file = path;
  response.deleteFile = true;
  build();
  EXPECT_FALSE(out.fileFd);
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST_F(ResponseWriterTest, HeadOfATextHasItsLengthAndNoText) {
  request.method = Method::head;
  response.send("hello");
  EXPECT_EQ(build().field("content-length"), "5");
  EXPECT_EQ(out.text, "");
  response.sendError(404, "");
  EXPECT_GT(std::stoi(build().field("content-length")), 100);
  EXPECT_EQ(out.text, "");
}

TEST_F(ResponseWriterTest, WritesAFile) {
  response.sendFile(dir.write("file", "contents"), "text/css", false);
  const timespec times[2] = {{1000000000, 5}, {1000000000, 5}};
  ASSERT_EQ(utimensat(AT_FDCWD, (dir / "file").c_str(), times, 0), 0);
  const Answer answer = build();
  EXPECT_EQ(answer.names, (Names{"Content-Type", "Content-Length", "Last-Modified", "Date", "Expires", "Cache-Control",
                                 "Connection"}));
  EXPECT_EQ(answer.field("content-length"), "8");
  EXPECT_EQ(answer.field("last-modified"), "Sun, 09 Sep 2001 01:46:40 GMT");
  EXPECT_EQ(out.text, "");
  EXPECT_TRUE(out.fileFd);
  EXPECT_EQ(out.fileRemaining, 8U);
  EXPECT_EQ(out.fileOffset, 0);
  EXPECT_TRUE(out.keepAlive);
}

TEST_F(ResponseWriterTest, AnswersNotFoundForAFileThatCannotBeOpened) {
  response.sendFile(dir / "missing", "text/css", false);
  const Answer answer = build();
  EXPECT_EQ(answer.status, 404);
  EXPECT_NE(out.text.find("Error 404: Not Found"), std::string::npos);
  EXPECT_EQ(answer.field("content-type"), "(none)");
  EXPECT_EQ(answer.field("cache-control"), "no-store");
}

TEST_F(ResponseWriterTest, AnswersNotFoundForWhatIsNoRegularFile) {
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0644), 0);
  dir.makeDir("folder");
  for (const std::string& path : {dir / "fifo", dir / "folder", std::string("/dev/zero")}) {
    for (const bool known : {false, true}) {
      response.reset();
      response.sendFile(path, "text/css", true);
      struct stat status {};
      ASSERT_EQ(stat(path.c_str(), &status), 0);
      if (known) rememberFile(path, status);
      response.deleteFile = !known;
      EXPECT_EQ(build().status, 404) << path;
      EXPECT_FALSE(out.fileFd);
      EXPECT_EQ(access(path.c_str(), F_OK), 0) << "it was removed";
    }
  }
}

TEST_F(ResponseWriterTest, HeadOfAFileLetsGoOfItAndKeepsWhatRemains) {
  request.method = Method::head;
  response.sendFile(dir.write("file", "contents"), "text/css", false);
  EXPECT_EQ(build().field("content-length"), "8");
  EXPECT_FALSE(out.fileFd);
  EXPECT_EQ(out.fileRemaining, 8U);
  EXPECT_TRUE(out.keepAlive);
}

TEST_F(ResponseWriterTest, RemovesAFlaggedFileOnceItIsOpen) {
  const std::string path = dir.write("file", "contents");
  response.sendFile(path, "text/css", true);
  EXPECT_EQ(build().field("content-length"), "8");
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  std::string bytes(8, '\0');
  EXPECT_EQ(pread(out.fileFd.get(), bytes.data(), 8, 0), 8);
  EXPECT_EQ(bytes, "contents");
}

struct RangeCase {
  const char* value;
  const char* contentRange;
  unsigned length;
  off_t offset;
};

class RangeTest : public ResponseWriterTest, public testing::WithParamInterface<RangeCase> {};

TEST_P(RangeTest, CutsAFileOf1000Bytes) {
  const Answer answer = buildFile(1000, GetParam().value);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.field("content-range"), GetParam().contentRange);
  EXPECT_EQ(answer.field("content-length"), std::to_string(GetParam().length));
  EXPECT_EQ(out.fileRemaining, GetParam().length);
  EXPECT_EQ(out.fileOffset, GetParam().offset);
  const std::string wholeNames[] = {"Content-Type", "Content-Range", "Content-Length"};
  if (std::string(GetParam().contentRange) != "(none)") {
    EXPECT_TRUE(std::equal(std::begin(wholeNames), std::end(wholeNames), answer.names.begin()));
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, RangeTest,
    testing::Values(
        RangeCase{"bytes=0-99", "bytes 0-99/1000", 100, 0}, RangeCase{"bytes=-100", "bytes 900-999/1000", 100, 900},
        RangeCase{"bytes=900-", "bytes 900-999/1000", 100, 900}, RangeCase{"bytes=0-999", "bytes 0-999/1000", 1000, 0},
        RangeCase{"bytes=999-999", "bytes 999-999/1000", 1, 999}, RangeCase{"bytes=-0", "bytes 1000-999/1000", 0, 1000},
        RangeCase{"bytes=-999", "bytes 1-999/1000", 999, 1}, RangeCase{"bytes=0-1000", "(none)", 1000, 0},
        RangeCase{"bytes=-1000", "(none)", 1000, 0}, RangeCase{"bytes=1000-", "(none)", 1000, 0},
        RangeCase{"bytes=5-4", "(none)", 1000, 0}, RangeCase{"bytes=0-1,5-6", "(none)", 1000, 0},
        RangeCase{"bytes=", "(none)", 1000, 0}, RangeCase{"bytes=-", "(none)", 1000, 0},
        RangeCase{"bytes=5", "(none)", 1000, 0}, RangeCase{"bytes=x-5", "(none)", 1000, 0},
        RangeCase{"bytes=0-x", "(none)", 1000, 0}, RangeCase{"bytes=0--5", "(none)", 1000, 0},
        RangeCase{"bytes= 0-5", "(none)", 1000, 0}, RangeCase{"Bytes=0-5", "(none)", 1000, 0},
        RangeCase{"lines=0-5", "(none)", 1000, 0}, RangeCase{"bytes=0-4294967296", "(none)", 1000, 0},
        RangeCase{"bytes=4294967295-", "(none)", 1000, 0}));

TEST_F(ResponseWriterTest, AnEmptyFileHasNoPart) {
  for (const char* range : {"bytes=0-0", "bytes=0-", "bytes=-0", "bytes=-1"}) {
    EXPECT_EQ(buildFile(0, range).field("content-range"), "(none)") << range;
    EXPECT_EQ(out.fileRemaining, 0U);
  }
}

TEST_F(ResponseWriterTest, ATextHasNoPart) {
  request.headers.addHeader("Range", "bytes=0-1", false);
  response.send("hello");
  EXPECT_EQ(build().field("content-range"), "(none)");
  EXPECT_EQ(out.text, "hello");
}

TEST_F(ResponseWriterTest, TakesTheLow32BitsOfALargeFile) {
  const std::string path = dir.write("file", "");
  ASSERT_EQ(truncate(path.c_str(), (off_t{1} << 32) + 10), 0);
  response.sendFile(path, "text/css", false);
  EXPECT_EQ(build().field("content-length"), "10");
  EXPECT_EQ(out.fileRemaining, 10U);
}

TEST_F(ResponseWriterTest, RefusesKeepAliveAsTheServletWishes) {
  response.send("hello");
  response.keepAlivePermitted = false;
  EXPECT_EQ(build().field("connection"), "close");
  EXPECT_FALSE(out.keepAlive);
}

TEST_F(ResponseWriterTest, UsesTheCacheForAFileKnownFromThisRequest) {
  response.sendFile(dir.write("file", "contents"), "text/css", false);
  struct stat status {};
  ASSERT_EQ(stat(response.file.c_str(), &status), 0);
  rememberFile(response.file, status);
  const Answer first = build();
  EXPECT_TRUE(out.cached);
  EXPECT_FALSE(out.fileFd);
  const Answer second = build();
  EXPECT_TRUE(out.cached);
  EXPECT_EQ(out.cached->mapped(), "contents");
  EXPECT_EQ(first.names, second.names);
  EXPECT_EQ(first.field("last-modified"), second.field("last-modified"));
}

TEST_F(ResponseWriterTest, DoesNotCacheAFileThatNobodyKnows) {
  response.sendFile(dir.write("file", "contents"), "text/css", false);
  build();
  EXPECT_TRUE(out.fileFd);
  EXPECT_EQ(fileCache().fileCount(), 0U);
}

}  // namespace
