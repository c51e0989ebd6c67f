#include "services/busd/intake.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "gtest/gtest.h"
#include "services/busd/limits.h"

namespace busd {
namespace {

using Payload = std::vector<std::uint8_t>;

Payload frameOf(std::uint32_t peer, std::uint32_t kind, std::size_t payloadBytes, std::uint8_t fill = 'x') {
  Payload frame(tn::frameHeaderBytes + payloadBytes, fill);
  tn::storeFrameHeader(frame.data(), {static_cast<std::uint32_t>(payloadBytes), peer, kind});
  return frame;
}

Payload operator+(Payload a, const Payload& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

PassedFd someDescriptor() {
  return PassedFd(UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)));
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

// Feeds an intake as the broker does: what it is given is laid into the room as a receive would lay it.
class Feeder {
 public:
  explicit Feeder(bool messages = true) {
    if (messages) intake.allowMessages();
  }

  enum class Result { good, broken, misplacedDescriptor };

  // Takes as much of `bytes` as one receive takes.
  Result feed(std::span<const std::uint8_t>& bytes, PassedFd descriptor = PassedFd(),
              Received::Descriptor passed = Received::Descriptor::none) {
    const Intake::Room room = intake.prepare(space_);
    Received received;
    for (std::size_t i = 0; i < room.count; ++i) {
      const std::size_t n = std::min(bytes.size(), room.parts[i].iov_len);
      std::memcpy(room.parts[i].iov_base, bytes.data(), n);
      bytes = bytes.subspan(n);
      received.count += n;
    }
    received.passed = descriptor ? Received::Descriptor::one : passed;
    received.descriptor = std::move(descriptor);
    if (!intake.arrived(received)) return Result::misplacedDescriptor;
    for (;;) {
      Frame frame;
      switch (intake.next(frame)) {
        case Intake::Step::frame:
          frames.emplace_back(frame.bytes, frame.bytes + frame.length);
          descriptors.push_back(std::move(frame.descriptor));
          lost.push_back(frame.descriptorLost);
          own.push_back(static_cast<bool>(frame.own));
          break;
        case Intake::Step::end:
          rest = intake.keepRest();
          return Result::good;
        case Intake::Step::broken:
          return Result::broken;
      }
    }
  }
  Result feedAll(const Payload& bytes, std::size_t atOnce) {
    std::span<const std::uint8_t> left = bytes;
    while (!left.empty()) {
      std::span<const std::uint8_t> piece = left.first(std::min(atOnce, left.size()));
      left = left.subspan(piece.size());
      while (!piece.empty()) {
        const Result result = feed(piece);
        if (result != Result::good) return result;
      }
    }
    return Result::good;
  }

  Intake intake;
  Intake::Rest rest = Intake::Rest::none;
  std::vector<Payload> frames;
  std::vector<PassedFd> descriptors;
  std::vector<bool> lost;
  std::vector<bool> own;

 private:
  std::vector<std::uint8_t> space_ = std::vector<std::uint8_t>(Intake::carriedBytes + 300);
};

using Result = Feeder::Result;

TEST(Intake, HandsOnWholeFrames) {
  Feeder feeder;
  const Payload a = frameOf(7, 0, 5);
  const Payload b = frameOf(0, 2, 0);
  const Payload c = frameOf(0xff0001, 0, 100);
  EXPECT_EQ(feeder.feedAll(a + b + c, 8000), Result::good);
  EXPECT_EQ(feeder.frames, (std::vector<Payload>{a, b, c}));
  EXPECT_EQ(feeder.rest, Intake::Rest::none);
  EXPECT_EQ(feeder.intake.heldBytes(), 0U);
  EXPECT_EQ(feeder.intake.usedSpace(), a.size() + b.size() + c.size());
}

TEST(Intake, GivesTheSameFramesHoweverTheyAreCut) {
  const Payload stream = frameOf(7, 0, 5) + frameOf(9, 0, 0) + frameOf(8, 0, 40);
  for (std::size_t cut = 1; cut < stream.size(); ++cut) {
    Feeder feeder;
    std::span<const std::uint8_t> first = std::span(stream).first(cut);
    std::span<const std::uint8_t> second = std::span(stream).subspan(cut);
    ASSERT_EQ(feeder.feed(first), Result::good);
    ASSERT_EQ(feeder.feed(second), Result::good);
    Payload joined;
    for (const Payload& frame : feeder.frames)
      joined = joined + frame;
    EXPECT_EQ(feeder.frames.size(), 3U);
    EXPECT_EQ(joined, stream) << "cut at " << cut;
  }
}

TEST(Intake, TakesFramesByteByByte) {
  const Payload small = frameOf(7, 0, 20);
  const Payload carried = frameOf(7, 0, Intake::carriedBytes - tn::frameHeaderBytes, 'c');
  const Payload assembled = frameOf(7, 0, Intake::carriedBytes, 'a');
  Feeder feeder;
  EXPECT_EQ(feeder.feedAll(small + carried + assembled + small, 1), Result::good);
  EXPECT_EQ(feeder.frames, (std::vector<Payload>{small, carried, assembled, small}));
  EXPECT_EQ(feeder.own, (std::vector{false, false, true, false}));
  EXPECT_EQ(feeder.intake.heldBytes(), 0U);
}

TEST(Intake, AssemblesTheLargestFrameAndGoesOnBehindIt) {
  const Payload large = frameOf(7, 0, tn::maxPayloadBytes, 'l');
  const Payload small = frameOf(8, 0, 3);
  Feeder feeder;
  EXPECT_EQ(feeder.feedAll(small + large + small, 5000), Result::good);
  ASSERT_EQ(feeder.frames.size(), 3U);
  EXPECT_TRUE(feeder.frames[1] == large);
  EXPECT_EQ(feeder.frames[2], small);
}

TEST(Intake, CountsWhatAnUnfinishedFrameHolds) {
  Feeder feeder;
  const Payload large = frameOf(7, 0, 100000);
  std::span<const std::uint8_t> beginning = std::span(large).first(200);
  EXPECT_EQ(feeder.feed(beginning), Result::good);
  EXPECT_EQ(feeder.rest, Intake::Rest::newFrame);
  EXPECT_EQ(feeder.intake.heldBytes(), large.size());
  std::span<const std::uint8_t> more = std::span(large).subspan(200, 1000);
  EXPECT_EQ(feeder.feed(more), Result::good);
  EXPECT_EQ(feeder.rest, Intake::Rest::sameFrame);
}

TEST(Intake, TellsAContinuedSmallFrameFromANewOne) {
  Feeder feeder;
  const Payload stream = frameOf(7, 0, 20) + frameOf(7, 0, 20);
  std::span<const std::uint8_t> one = std::span(stream).first(5);
  std::span<const std::uint8_t> two = std::span(stream).subspan(5, 15);
  std::span<const std::uint8_t> three = std::span(stream).subspan(20, 30);
  EXPECT_EQ(feeder.feed(one), Result::good);
  EXPECT_EQ(feeder.rest, Intake::Rest::newFrame);
  EXPECT_EQ(feeder.feed(two), Result::good);
  EXPECT_EQ(feeder.rest, Intake::Rest::sameFrame);
  EXPECT_EQ(feeder.feed(three), Result::good);
  EXPECT_EQ(feeder.rest, Intake::Rest::newFrame);
}

struct BadHeader {
  const char* why;
  bool joined;
  tn::FrameHeader header;
};

TEST(Intake, RefusesHeadersThatNoProgramMaySend) {
  const BadHeader bad[] = {
      {"payload too long", true, {tn::maxPayloadBytes + 1, 7, 0}},
      {"payload as long as can be said", true, {0xffffffff, 7, 0}},
      {"a length that wraps with the header", true, {0xfffffff4, 7, 0}},
      {"a bounced frame", true, {0, 7, 1}},
      {"an observed frame", true, {12, 0, 3}},
      {"no kind at all", true, {0, 7, 4}},
      {"a kind of another byte order", true, {0, 7, 0x02000000}},
      {"control for somebody else", true, {2, 7, 2}},
      {"control too long", true, {maxControlBytes + 1, 0, 2}},
      {"a message before joining", false, {2, 7, 0}},
  };
  for (const BadHeader& entry : bad) {
    Feeder feeder(entry.joined);
    Payload header(tn::frameHeaderBytes);
    tn::storeFrameHeader(header.data(), entry.header);
    EXPECT_EQ(feeder.feedAll(header, 100), Result::broken) << entry.why;
    EXPECT_TRUE(feeder.frames.empty()) << entry.why;
  }
}

TEST(Intake, HandsOnWhatStandsBeforeABrokenHeader) {
  Feeder feeder;
  const Payload good = frameOf(7, 0, 5);
  EXPECT_EQ(feeder.feedAll(good + frameOf(7, 9, 5), 100), Result::broken);
  EXPECT_EQ(feeder.frames, std::vector<Payload>{good});
}

TEST(Intake, GivesADescriptorToTheLastFrameThatStarts) {
  Feeder feeder;
  const Payload a = frameOf(1, 0, 4);
  const Payload b = frameOf(2, 0, 4);
  const Payload stream = a + b;
  std::span<const std::uint8_t> bytes = stream;
  EXPECT_EQ(feeder.feed(bytes, someDescriptor()), Result::good);
  ASSERT_EQ(feeder.frames.size(), 2U);
  EXPECT_FALSE(feeder.descriptors[0]);
  EXPECT_TRUE(feeder.descriptors[1]);
}

// The kernel hands the descriptor over with the first byte, and that may be all there is room for.
TEST(Intake, KeepsADescriptorUntilItsFrameIsWhole) {
  for (const std::size_t payload : {std::size_t{4}, std::size_t{20000}}) {
    const Payload before = frameOf(1, 0, 4);
    const Payload with = frameOf(2, 0, payload);
    for (const std::size_t begun : {1, 11, 12, 14}) {
      Feeder feeder;
      const Payload start = before + Payload(with.begin(), with.begin() + static_cast<std::ptrdiff_t>(begun));
      std::span<const std::uint8_t> first = start;
      EXPECT_EQ(feeder.feed(first, someDescriptor()), Result::good);
      EXPECT_EQ(feeder.feedAll(Payload(with.begin() + static_cast<std::ptrdiff_t>(begun), with.end()), 7),
                Result::good);
      ASSERT_EQ(feeder.frames.size(), 2U);
      EXPECT_FALSE(feeder.descriptors[0]);
      EXPECT_TRUE(feeder.descriptors[1]);
    }
  }
}

TEST(Intake, RefusesADescriptorWithoutAFrame) {
  for (const std::size_t payload : {std::size_t{50}, std::size_t{20000}}) {
    Feeder feeder;
    const Payload frame = frameOf(1, 0, payload);
    std::span<const std::uint8_t> first = std::span(frame).first(20);
    std::span<const std::uint8_t> second = std::span(frame).subspan(20, 10);
    EXPECT_EQ(feeder.feed(first), Result::good);
    EXPECT_EQ(feeder.feed(second, someDescriptor()), Result::misplacedDescriptor);
  }
}

TEST(Intake, RefusesSeveralDescriptors) {
  Feeder feeder;
  const Payload frame = frameOf(1, 0, 4);
  std::span<const std::uint8_t> bytes = frame;
  EXPECT_EQ(feeder.feed(bytes, PassedFd(), Received::Descriptor::several), Result::misplacedDescriptor);
}

TEST(Intake, MarksTheFrameWhoseDescriptorWasLost) {
  Feeder feeder;
  const Payload stream = frameOf(1, 0, 4) + frameOf(2, 0, 4);
  std::span<const std::uint8_t> first = std::span(stream).first(20);
  EXPECT_EQ(feeder.feed(first, PassedFd(), Received::Descriptor::lost), Result::good);
  EXPECT_EQ(feeder.feedAll(Payload(stream.begin() + 20, stream.end()), 100), Result::good);
  EXPECT_EQ(feeder.feedAll(frameOf(3, 0, 4), 100), Result::good);
  EXPECT_EQ(feeder.lost, (std::vector{false, true, false}));
}

TEST(Intake, ClosesADescriptorThatIsNeverHandedOn) {
  int number = -1;
  {
    Feeder feeder;
    const Payload frame = frameOf(1, 0, 50);
    std::span<const std::uint8_t> begun = std::span(frame).first(13);
    PassedFd descriptor = someDescriptor();
    number = descriptor.get();
    EXPECT_EQ(feeder.feed(begun, std::move(descriptor)), Result::good);
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(Intake, GivesTheSameFramesForRandomCuts) {
  std::mt19937 random(1);
  for (int round = 0; round < 60; ++round) {
    std::vector<Payload> sent;
    Payload stream;
    for (int i = 0; i < 30; ++i) {
      const std::size_t size = random() % 4 == 0 ? random() % 30000 : random() % 200;
      sent.push_back(frameOf(static_cast<std::uint32_t>(random()), 0, size, static_cast<std::uint8_t>(random())));
      stream = stream + sent.back();
    }
    Feeder feeder;
    std::span<const std::uint8_t> left = stream;
    while (!left.empty()) {
      std::span<const std::uint8_t> piece = left.first(std::min<std::size_t>(left.size(), 1 + random() % 12000));
      left = left.subspan(piece.size());
      while (!piece.empty())
        ASSERT_EQ(feeder.feed(piece), Result::good);
    }
    ASSERT_TRUE(feeder.frames == sent) << "round " << round;
  }
}

}  // namespace
}  // namespace busd
