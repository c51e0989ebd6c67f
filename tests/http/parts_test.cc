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

TEST(WorkspaceTest, IsHandedRound) {
  std::unique_ptr<Workspace> workspace = takeWorkspace();
  workspace->buffer.reserve(1000);
  const char* const memory = workspace->buffer.data();
  giveWorkspace(std::move(workspace));
  EXPECT_EQ(takeWorkspace()->buffer.data(), memory);
}

TEST(WorkspaceTest, LargeBuffersAreNotHandedRound) {
  std::unique_ptr<Workspace> workspace = takeWorkspace();
  workspace->buffer.reserve(Workspace::maxKeptBuffer + 1);
  giveWorkspace(std::move(workspace));
  EXPECT_LE(takeWorkspace()->buffer.capacity(), Workspace::maxKeptBuffer);
}

TEST(WorkspaceTest, NoMoreAreKeptThanAreSpare) {
  const auto marked = [](const Workspace& workspace) { return workspace.buffer == "spare"; };
  for (std::size_t i = 0; i < 2 * Workspace::maxSpare; ++i) {
    auto workspace = std::make_unique<Workspace>();
    workspace->buffer = "spare";
    giveWorkspace(std::move(workspace));
  }
  std::size_t kept = 0;
  while (marked(*takeWorkspace()))
    ++kept;
  EXPECT_EQ(kept, Workspace::maxSpare);
}

}  // namespace
