#include "services/supervisor/journal.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

namespace tnrun {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class JournalTest : public testing::Test {
 protected:
  void add(const std::string& text, const std::string& program = "www", Stream stream = Stream::output) {
    journal.add(program, stream, text, ++time);
  }
  std::vector<std::string> texts(const Journal::Query& query = {}) {
    std::vector<std::string> all;
    for (const Journal::Line* line : journal.find(query).entries)
      all.push_back(line->text);
    return all;
  }
  static Journal::Query behind(std::uint64_t number) {
    Journal::Query query;
    query.after = number;
    return query;
  }
  // What a line of one text is kept as.
  std::string kept(const std::string& text) {
    add(text);
    return texts().back();
  }

  Journal journal;
  std::uint64_t time = 1000;
};

TEST_F(JournalTest, ALineIsKeptWithAllThatIsKnownOfIt) {
  add("one", "www");
  add("two", "sermgr", Stream::errors);
  const Journal::Found found = journal.find({});
  ASSERT_THAT(found.entries, SizeIs(2));
  EXPECT_EQ(found.entries[1]->number, 2U);
  EXPECT_EQ(found.entries[1]->time, 1002U);
  EXPECT_EQ(found.entries[1]->program, "sermgr");
  EXPECT_EQ(found.entries[1]->text, "two");
  EXPECT_EQ(found.entries[1]->stream, Stream::errors);
  EXPECT_EQ(found.entries[0]->stream, Stream::output);
  EXPECT_EQ(found.newest, 2U);
  EXPECT_EQ(found.lost, 0U);
}

TEST_F(JournalTest, NothingYet) {
  EXPECT_THAT(texts(), IsEmpty());
  EXPECT_EQ(journal.find({}).newest, 0U);
  EXPECT_THAT(texts(behind(5)), IsEmpty());
}

TEST_F(JournalTest, LinesBehindANumber) {
  for (const char* text : {"a", "b", "c"})
    add(text);
  EXPECT_THAT(texts(behind(1)), ElementsAre("b", "c"));
  EXPECT_THAT(texts(behind(3)), IsEmpty());
  // Of a supervisor that was there before this one.
  EXPECT_THAT(texts(behind(4)), ElementsAre("a", "b", "c"));
  EXPECT_THAT(texts(behind(~std::uint64_t{0})), ElementsAre("a", "b", "c"));
}

TEST_F(JournalTest, TheNewestOfTooMany) {
  for (const char* text : {"a", "b", "c", "d"})
    add(text);
  Journal::Query query;
  query.most = 2;
  EXPECT_THAT(texts(query), ElementsAre("c", "d"));
  query.most = 100;
  query.mostBytes = 2 * (Journal::bytesPerLine + 4);
  EXPECT_THAT(texts(query), ElementsAre("c", "d"));
  EXPECT_EQ(journal.find(query).newest, 4U);
}

TEST_F(JournalTest, LinesThatFit) {
  add("one fish", "www");
  add("two fish", "sermgr");
  add("red cow", "www");
  Journal::Query query;
  query.containing = "fish";
  EXPECT_THAT(texts(query), ElementsAre("one fish", "two fish"));
  query.program = "www";
  EXPECT_THAT(texts(query), ElementsAre("one fish"));
  query.containing = {};
  EXPECT_THAT(texts(query), ElementsAre("one fish", "red cow"));
  query.program = "ww";
  EXPECT_THAT(texts(query), IsEmpty());
  // The most are counted of those that fit.
  query = {};
  query.containing = "fish";
  query.most = 1;
  EXPECT_THAT(texts(query), ElementsAre("two fish"));
}

TEST_F(JournalTest, TheOldestGoFirst) {
  for (std::size_t i = 0; i < Journal::maxLines + 10; ++i)
    add("line");
  Journal::Query query;
  query.most = 2 * Journal::maxLines;
  const Journal::Found found = journal.find(query);
  EXPECT_EQ(found.entries.size(), Journal::maxLines);
  EXPECT_EQ(found.entries.front()->number, 11U);
  EXPECT_EQ(found.lost, 10U);
  EXPECT_EQ(found.newest, Journal::maxLines + 10);
  EXPECT_EQ(journal.find(behind(3)).lost, 7U);
  EXPECT_EQ(journal.find(behind(10)).lost, 0U);
  EXPECT_EQ(journal.find(behind(500)).lost, 0U);
}

TEST_F(JournalTest, LongLinesTakeMoreOfTheRoom) {
  const std::string text(Journal::maxTextBytes, 'x');
  for (int i = 0; i < 5000; ++i)
    add(text);
  Journal::Query query;
  query.most = Journal::maxLines;
  query.mostBytes = 2 * Journal::maxBytes;
  EXPECT_THAT(texts(query), SizeIs(Journal::maxBytes / (Journal::maxTextBytes + Journal::bytesPerLine)));
}

TEST_F(JournalTest, WhatIsTooLongIsCut) {
  EXPECT_EQ(kept(std::string(1024, 'x')), std::string(1024, 'x'));
  EXPECT_EQ(kept(std::string(1025, 'x')), std::string(1024, 'x') + "...");
  EXPECT_EQ(kept(std::string(1000000, 'x')), std::string(1024, 'x') + "...");
}

TEST_F(JournalTest, ACharacterIsNotCutInItsMiddle) {
  const std::string sun = "\xf0\x9f\x8c\x9e";
  EXPECT_EQ(kept(std::string(1021, 'x') + sun + sun), std::string(1021, 'x') + "...");
  EXPECT_EQ(kept(std::string(1020, 'x') + sun + sun), std::string(1020, 'x') + sun + "...");
  const std::string umlaut = "\xc3\xa4";
  EXPECT_EQ(kept(std::string(1023, 'x') + umlaut + umlaut), std::string(1023, 'x') + "...");
  EXPECT_EQ(kept(std::string(1022, 'x') + umlaut + umlaut), std::string(1022, 'x') + umlaut + "...");
}

TEST_F(JournalTest, WhatIsNoTextIsMadeHarmless) {
  EXPECT_EQ(kept("\x1b[2Jgone\rwww \x07"), "\\x1b[2Jgone\\rwww \\x07");
  EXPECT_EQ(kept("\xff\xfe \xc3 \xc0\x80"), "\\xff\\xfe \\xc3 \\xc0\\x80");
  EXPECT_EQ(kept(std::string("a\0b", 3)), "a\\0b");
  EXPECT_EQ(kept("it's \"quoted\" \\ \xc3\xa4"), "it's \"quoted\" \\ \xc3\xa4");
  EXPECT_EQ(kept(""), "");
}

TEST_F(JournalTest, BytesThatAreCutWithoutAnyCharacter) {
  std::string escaped;
  for (int i = 0; i < 1021; ++i)
    escaped += "\\x80";
  EXPECT_EQ(kept(std::string(2000, '\x80')), escaped + "...");
}

}  // namespace
}  // namespace tnrun
