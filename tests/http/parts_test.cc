#include <gtest/gtest.h>

#include "http/byte_range.h"
#include "http/date_text.h"
#include "http/error_page.h"
#include "http/workspace.h"
#include "platform/web/functions.h"

namespace {

TEST(ErrorPageTest, EscapesTheDescription) {
  EXPECT_EQ(
      errorPage(503, "<b>\"a\" & 'b'</b>"),
      "<html>\n<head><title>Error 503: &lt;b&gt;&quot;a&quot; &amp; &#39;b&#39;&lt;/b&gt;</title></head>\n<body>\n"
      "<h1>Error 503: &lt;b&gt;&quot;a&quot; &amp; &#39;b&#39;&lt;/b&gt;</h1>\n</body>\n</html>\n");
}

TEST(DateTextTest, FollowsTheSecond) {
  DateText text;
  for (const std::int64_t second : {0, 0, 1, 784111777, 784111777, 0}) {
    EXPECT_EQ(text.at(second), httpDate(second)) << second;
  }
}

TEST(DateTextTest, TellsATimeThatHasNoDate) {
  DateText text;
  EXPECT_EQ(text.at(INT64_MAX), "0");
}

TEST(DateTextTest, TellsTheSameTextWithoutMakingItAnew) {
  DateText text;
  const char* const first = text.at(784111777).data();
  EXPECT_EQ(text.at(784111777).data(), first);
}

TEST(ByteRangeTest, TellsItsLength) {
  EXPECT_EQ((ByteRange{0, 99}).length(), 100U);
  EXPECT_EQ((ByteRange{1000, 999}).length(), 0U);
}

TEST(ByteRangeTest, WorksUpToTheLargestSize) {
  const auto last = parseRange("bytes=-1", 0xFFFFFFFF);
  ASSERT_TRUE(last);
  EXPECT_EQ(last->first, 0xFFFFFFFEU);
  EXPECT_EQ(last->length(), 1U);
  const auto all = parseRange("bytes=0-4294967294", 0xFFFFFFFF);
  ASSERT_TRUE(all);
  EXPECT_EQ(all->length(), 0xFFFFFFFFU);
  EXPECT_FALSE(parseRange("bytes=0-4294967295", 0xFFFFFFFF));
}

void take(Workspace& workspace) {
  takeWorkspace(workspace.buffer, workspace.requestHeaders, workspace.responseHeaders);
}

void give(Workspace& workspace) {
  giveWorkspace(workspace.buffer, workspace.requestHeaders, workspace.responseHeaders);
}

TEST(WorkspaceTest, IsHandedRound) {
  Workspace workspace;
  take(workspace);
  workspace.buffer.reserve(1000);
  const char* const memory = workspace.buffer.data();
  give(workspace);
  EXPECT_TRUE(workspace.buffer.empty());
  EXPECT_NE(workspace.buffer.data(), memory);
  take(workspace);
  EXPECT_EQ(workspace.buffer.data(), memory);
}

TEST(WorkspaceTest, LargeBuffersAreNotHandedRound) {
  Workspace workspace;
  take(workspace);
  workspace.buffer.reserve(Workspace::maxKeptBuffer + 1);
  give(workspace);
  take(workspace);
  EXPECT_LE(workspace.buffer.capacity(), Workspace::maxKeptBuffer);
}

TEST(WorkspaceTest, NoMoreAreKeptThanAreSpare) {
  for (std::size_t i = 0; i < 2 * Workspace::maxSpare; ++i) {
    Workspace workspace;
    workspace.buffer.reserve(1000);
    give(workspace);
    EXPECT_LT(workspace.buffer.capacity(), 1000U);
  }
}

}  // namespace
