#include "jsproxy/receive_window.h"

#include <gmock/gmock.h>

#include "jsproxy/text_code.h"

namespace {

using Range = ReceiveWindow::Range;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::array<std::uint8_t, 5> key{1, 2, 3, 4, 5};

class ReceiveWindowTest : public testing::Test {
 protected:
  ReceiveWindowTest() : keystream_(0x50000) { RC4(key).gen(keystream_); }

  // Sends `n` bytes for a position; whether they were taken and came out as they were.
  bool receive(std::uint32_t pos, std::uint32_t n) {
    if (!decipher(pos, n)) return false;
    window.recordReceived(pos, n);
    return true;
  }

  bool decipher(std::uint32_t pos, std::uint32_t n) {
    const std::string plain(n, 'x');
    std::string bytes = plain;
    for (std::uint32_t i = 0; i < n; ++i)
      bytes[i] = static_cast<char>(bytes[i] ^ keystream_[(pos - first_ + i) % keystream_.size()]);
    std::string out = "as before";
    if (!window.decipher(pos, asBytes(bytes), out)) {
      EXPECT_EQ(out, "as before");
      return false;
    }
    EXPECT_EQ(out, plain);
    return true;
  }

  void startAt(std::uint32_t first) {
    window = ReceiveWindow(RC4(key), first);
    first_ = first;
  }

  ReceiveWindow window{RC4(key)};

 private:
  std::uint32_t first_ = 1;
  std::vector<std::uint8_t> keystream_;
};

TEST_F(ReceiveWindowTest, BeginsAtOne) {
  EXPECT_EQ(window.base(), 1U);
  EXPECT_THAT(window.received(), IsEmpty());
  EXPECT_EQ(window.buffered(), 0U);
}

TEST_F(ReceiveWindowTest, FramesInOrderKeepNothing) {
  EXPECT_TRUE(receive(1, 20));
  EXPECT_EQ(window.base(), 21U);
  EXPECT_TRUE(receive(21, 30));
  EXPECT_EQ(window.base(), 51U);
  EXPECT_THAT(window.received(), IsEmpty());
  EXPECT_EQ(window.buffered(), 0U);
}

TEST_F(ReceiveWindowTest, TwoFramesInTheOtherOrder) {
  EXPECT_TRUE(receive(21, 30));
  EXPECT_EQ(window.base(), 1U);
  EXPECT_THAT(window.received(), ElementsAre(Range{21, 30}));
  EXPECT_EQ(window.buffered(), 50U);
  EXPECT_TRUE(receive(1, 20));
  EXPECT_EQ(window.base(), 51U);
  EXPECT_THAT(window.received(), IsEmpty());
  EXPECT_EQ(window.buffered(), 0U);
}

TEST_F(ReceiveWindowTest, ManyFramesInEveryOrderOfThree) {
  const std::array<Range, 4> frames{Range{1, 8}, Range{9, 100}, Range{109, 9}, Range{118, 50}};
  std::array<std::size_t, 4> order{0, 1, 2, 3};
  do {
    window = ReceiveWindow(RC4(key));
    for (const std::size_t i : order)
      EXPECT_TRUE(receive(frames[i].start, frames[i].length));
    EXPECT_EQ(window.base(), 168U);
    EXPECT_THAT(window.received(), IsEmpty());
    EXPECT_EQ(window.buffered(), 0U);
    EXPECT_TRUE(receive(168, 16));
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(ReceiveWindowTest, RangesThatTouchStayApartUntilTheBaseReachesThem) {
  EXPECT_TRUE(receive(31, 10));
  EXPECT_TRUE(receive(21, 10));
  EXPECT_TRUE(receive(51, 10));
  EXPECT_THAT(window.received(), ElementsAre(Range{21, 10}, Range{31, 10}, Range{51, 10}));
  EXPECT_TRUE(receive(1, 20));
  EXPECT_EQ(window.base(), 41U);
  EXPECT_THAT(window.received(), ElementsAre(Range{51, 10}));
  EXPECT_EQ(window.buffered(), 20U);
}

TEST_F(ReceiveWindowTest, WhatLiesBeforeTheBaseIsRefused) {
  EXPECT_FALSE(decipher(0, 16));
  EXPECT_TRUE(receive(1, 16));
  EXPECT_FALSE(decipher(1, 16));
  EXPECT_FALSE(decipher(16, 16));
  EXPECT_FALSE(decipher(0, 40));
  EXPECT_TRUE(decipher(17, 16));
}

TEST_F(ReceiveWindowTest, WhatWasUsedIsRefused) {
  EXPECT_TRUE(receive(101, 20));
  EXPECT_TRUE(receive(61, 20));
  for (const auto& [pos, n] : {Range{101, 20}, Range{101, 8}, Range{110, 8}, Range{120, 8}, Range{93, 9}, Range{90, 60},
                               Range{1, 61}, Range{80, 8}, Range{70, 50}, Range{61, 20}, Range{1, 200}}) {
    EXPECT_FALSE(decipher(pos, n)) << pos << " " << n;
  }
  // Up to the first byte of one, and from the byte behind it on.
  EXPECT_TRUE(decipher(1, 60));
  EXPECT_TRUE(decipher(81, 20));
  EXPECT_TRUE(decipher(121, 20));
  EXPECT_TRUE(decipher(121, 200));
}

TEST_F(ReceiveWindowTest, AFrameThatIsNotRecordedMayComeAgain) {
  EXPECT_TRUE(decipher(1, 40));
  EXPECT_EQ(window.buffered(), 40U);
  EXPECT_EQ(window.base(), 1U);
  EXPECT_THAT(window.received(), IsEmpty());
  EXPECT_TRUE(receive(1, 20));
  EXPECT_EQ(window.buffered(), 20U);
  EXPECT_TRUE(receive(21, 20));
  EXPECT_EQ(window.buffered(), 0U);
}

TEST_F(ReceiveWindowTest, ARefusedFrameLeavesTheKeystreamGrown) {
  EXPECT_TRUE(receive(21, 20));
  EXPECT_FALSE(decipher(30, 50));
  EXPECT_EQ(window.buffered(), 79U);
  EXPECT_EQ(window.base(), 1U);
  EXPECT_THAT(window.received(), ElementsAre(Range{21, 20}));
}

TEST_F(ReceiveWindowTest, AFrameMayBeThatFarAhead) {
  EXPECT_FALSE(decipher(0x20002, 8));
  EXPECT_EQ(window.buffered(), 0U);
  EXPECT_TRUE(decipher(0x20001, 8));
  EXPECT_EQ(window.buffered(), 0x20008U);
  // What lies in keystream that is there already is not asked how far ahead it is.
  EXPECT_TRUE(decipher(0x20001, 0x1fff8));
  EXPECT_TRUE(decipher(0x20002, 0x100));
  EXPECT_FALSE(decipher(0x40002, 8));
}

TEST_F(ReceiveWindowTest, WithinTheLimitAGapIsKept) {
  EXPECT_TRUE(receive(65520, 16));
  EXPECT_EQ(window.buffered(), 65535U);
  EXPECT_EQ(window.base(), 1U);
  EXPECT_TRUE(receive(1, 65519));
  EXPECT_EQ(window.buffered(), 0U);
}

TEST_F(ReceiveWindowTest, BeyondTheLimitTheOldestGapIsGivenUpAsFarAsNeeded) {
  EXPECT_TRUE(receive(65530, 16));
  EXPECT_EQ(window.base(), 11U);
  EXPECT_EQ(window.buffered(), 65535U);
  EXPECT_THAT(window.received(), ElementsAre(Range{65530, 16}));
  EXPECT_FALSE(decipher(1, 16));
  EXPECT_FALSE(decipher(10, 16));
  EXPECT_TRUE(decipher(11, 16));
}

// The gap is smaller than what is too much: it goes whole, and the range behind it with it.
TEST_F(ReceiveWindowTest, AGapThatIsGivenUpWholeTakesTheRangeBehindItAlong) {
  EXPECT_TRUE(receive(9, 16));
  EXPECT_TRUE(receive(70001, 16));
  EXPECT_EQ(window.base(), 25U);
  EXPECT_EQ(window.buffered(), 70016U - 24);
  EXPECT_THAT(window.received(), ElementsAre(Range{70001, 16}));
  // Only one gap is given up for one frame, and more with the next.
  EXPECT_TRUE(receive(40001, 16));
  EXPECT_EQ(window.buffered(), 65535U);
  EXPECT_EQ(window.base(), 70016U - 65534U);
}

TEST_F(ReceiveWindowTest, AFrameInOrderGivesNothingUp) {
  EXPECT_TRUE(decipher(0x20001, 8));
  EXPECT_TRUE(receive(1, 16));
  EXPECT_EQ(window.base(), 17U);
  EXPECT_EQ(window.buffered(), 0x20008U - 16);
}

TEST_F(ReceiveWindowTest, AnEntryOfOneStartIsThereOnce) {
  EXPECT_TRUE(receive(101, 16));
  window.recordReceived(101, 16);
  EXPECT_THAT(window.received(), ElementsAre(Range{101, 16}));
}

TEST_F(ReceiveWindowTest, WhatIsFarBehindIsNotFarAhead) {
  EXPECT_FALSE(decipher(0xFFFFFFFF, 16));
  EXPECT_FALSE(decipher(0x80000000, 16));
  EXPECT_FALSE(decipher(0x7FFFFFFF, 16));
  EXPECT_EQ(window.buffered(), 0U);
}

// A session of more than 4 GiB.
TEST_F(ReceiveWindowTest, PositionsWrap) {
  startAt(0xFFFFFFF0);
  EXPECT_TRUE(receive(0x10, 20));
  EXPECT_TRUE(receive(0xFFFFFFF8, 10));
  EXPECT_THAT(window.received(), ElementsAre(Range{0xFFFFFFF8, 10}, Range{0x10, 20}));
  EXPECT_FALSE(decipher(0x10, 20));
  EXPECT_FALSE(decipher(1, 8));
  EXPECT_FALSE(decipher(0xFFFFFFF0, 9));
  EXPECT_FALSE(decipher(0xFFFFFFE0, 8));
  EXPECT_FALSE(decipher(0xFFFFFFF8, 20));
  EXPECT_TRUE(receive(0xFFFFFFF0, 8));
  EXPECT_EQ(window.base(), 2U);
  EXPECT_TRUE(receive(2, 14));
  EXPECT_EQ(window.base(), 0x24U);
  EXPECT_EQ(window.buffered(), 0U);
  EXPECT_THAT(window.received(), IsEmpty());
}

TEST_F(ReceiveWindowTest, AFarFrameWhoseEndWrapsIsRefused) {
  startAt(0x90000000);
  EXPECT_FALSE(decipher(0xFFFFFF00, 0x200));
  EXPECT_EQ(window.buffered(), 0U);
}

}  // namespace
