#include "services/sysd/frame_ring.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "platform/bus/text.h"

namespace sysd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class FrameRingTest : public testing::Test {
 protected:
  void add(const std::string& text, std::uint32_t from = 1000, std::uint32_t to = 68) {
    ring.add({0, 5, from, to, 0, 10, text});
  }
  std::vector<std::string> texts(const FrameRing::Query& query) {
    std::vector<std::string> all;
    for (const FrameRing::Frame* frame : ring.find(query).entries)
      all.push_back(frame->text);
    return all;
  }
  static FrameRing::Query all() {
    FrameRing::Query query;
    query.most = FrameRing::maxFrames;
    query.mostBytes = 2 * FrameRing::maxBytes;
    return query;
  }
  static FrameRing::Query behind(std::uint64_t number) {
    FrameRing::Query query = all();
    query.after = number;
    return query;
  }
  static tn::message read(const std::string& text) {
    tn::message msg;
    EXPECT_FALSE(tn::readText(text, msg).has_value()) << text;
    return msg;
  }

  FrameRing ring;
};

TEST_F(FrameRingTest, FramesAreNumberedAsTheyCome) {
  add("a");
  add("b");
  const FrameRing::Found found = ring.find(all());
  ASSERT_THAT(found.entries, SizeIs(2));
  EXPECT_EQ(found.entries[0]->number, 1U);
  EXPECT_EQ(found.entries[1]->number, 2U);
  EXPECT_EQ(found.newest, 2U);
  EXPECT_EQ(found.lost, 0U);
}

TEST_F(FrameRingTest, FramesThatFit) {
  add("{s1:'x'}", 1000, 68);
  add("{s1:'y'}", 68, 1000);
  add("{s1:'x'}", 1000, 12);
  EXPECT_THAT(texts(behind(2)), ElementsAre("{s1:'x'}"));
  EXPECT_THAT(texts(behind(3)), IsEmpty());
  EXPECT_THAT(texts(behind(4)), SizeIs(3));
  FrameRing::Query query = all();
  query.program = 68;
  EXPECT_THAT(texts(query), ElementsAre("{s1:'x'}", "{s1:'y'}"));
  query.containing = "'y'";
  EXPECT_THAT(texts(query), ElementsAre("{s1:'y'}"));
  query.program = 0;
  EXPECT_THAT(texts(query), IsEmpty());
  query = all();
  query.most = 1;
  query.containing = "'x'";
  EXPECT_EQ(ring.find(query).entries.front()->number, 3U);
}

TEST_F(FrameRingTest, TheNewestOfTooManyBytes) {
  for (int i = 0; i < 10; ++i)
    add(std::string(1000, 'x'));
  FrameRing::Query query = all();
  query.mostBytes = 3 * (1000 + FrameRing::bytesPerFrame);
  const FrameRing::Found found = ring.find(query);
  ASSERT_THAT(found.entries, SizeIs(3));
  EXPECT_EQ(found.entries.back()->number, 10U);
}

TEST_F(FrameRingTest, TheOldestGoFirst) {
  for (std::size_t i = 0; i < FrameRing::maxFrames + 7; ++i)
    add("{}");
  EXPECT_THAT(texts(all()), SizeIs(FrameRing::maxFrames));
  EXPECT_EQ(ring.find(all()).lost, 7U);
  EXPECT_EQ(ring.find(behind(5)).lost, 2U);
  for (int i = 0; i < 5000; ++i)
    add(std::string(FrameRing::maxTextBytes, 'x'));
  EXPECT_THAT(texts(all()), SizeIs(FrameRing::maxBytes / (FrameRing::maxTextBytes + FrameRing::bytesPerFrame)));
}

TEST_F(FrameRingTest, WhatIsForgottenIsLost) {
  add("{}");
  add("{}");
  ring.clear();
  EXPECT_THAT(texts(all()), IsEmpty());
  EXPECT_EQ(ring.find(behind(1)).lost, 1U);
  add("{}");
  EXPECT_EQ(ring.find(all()).entries.front()->number, 3U);
}

TEST_F(FrameRingTest, AMessageIsShownInTheLineForm) {
  for (const char* text : {"{}", "{u1:5}", "{Uff0001:[1],uff0007:16646402,s1:'it\\'s',m5:{b1:1},M6:[{},{u2:1}]}"})
    EXPECT_EQ(shownText(read(text)), text);
}

TEST_F(FrameRingTest, ALongMessageIsCut) {
  tn::message msg;
  msg.insert(tn::string_id(1), std::string(3000, 'x'));
  msg.insert(tn::u32_id(2), 1);
  EXPECT_EQ(shownText(msg), "{s1:'" + std::string(2048 - 5, 'x'));
}

TEST_F(FrameRingTest, ACharacterIsNotCut) {
  tn::message msg;
  msg.insert(tn::string_id(1), std::string(2048 - 6, 'x') + "\xc3\xa4\xc3\xa4");
  EXPECT_EQ(shownText(msg), "{s1:'" + std::string(2048 - 6, 'x'));
}

TEST_F(FrameRingTest, AValueThatCannotFitIsNotMade) {
  tn::message msg;
  msg.insert(tn::u32_id(1), 7);
  msg.insert_vector(tn::u32_array_id(2), std::vector<std::uint32_t>(60000, 1));
  msg.insert(tn::u32_id(3), 8);
  EXPECT_EQ(shownText(msg), "{u1:7,U2:(240006 bytes),u3:8}");
}

}  // namespace
}  // namespace sysd
