#include "platform/bus/message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/bus/message_samples.h"

namespace {

using tn::Addr6;
using tn::message;
using namespace tn::test;

void expectSampleValues(const message& m) {
  EXPECT_EQ(m.get(tn::bool_id(1)), true);
  EXPECT_EQ(m.get(tn::u32_id(2)), 0x12345678U);
  EXPECT_EQ(m.get(tn::u64_id(3)), 0x1122334455667788U);
  EXPECT_EQ(m.get(tn::addr6_id(4)), sampleAddress);
  EXPECT_EQ(m.get(tn::string_id(5)), "abc");
  EXPECT_EQ(m.get(tn::message_id(6)), inner());
  ASSERT_TRUE(m.has(tn::raw_id(7)));
  EXPECT_THAT(*m.get(tn::raw_id(7)), testing::ElementsAre(0, 0xff));
  EXPECT_EQ(m.get(tn::bool_array_id(8)), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(m.get(tn::u32_array_id(9)), (std::vector<std::uint32_t>{1, 0xfffffffe}));
  EXPECT_EQ(m.get(tn::u64_array_id(10)), (std::vector<std::uint64_t>{1, 1ULL << 63}));
  EXPECT_EQ(m.get(tn::addr6_array_id(11)), (std::vector<Addr6>{sampleAddress, Addr6{}}));
  EXPECT_EQ(m.get(tn::string_array_id(12)), (std::vector<std::string>{"", "xy"}));
  EXPECT_EQ(m.get(tn::message_array_id(13)), (std::vector<message>{message(), inner()}));
  EXPECT_EQ(m.get(tn::raw_array_id(14)), (std::vector<Bytes>{{9}, {}}));
}

TEST(Message, WritesTheBytesOfEveryType) {
  EXPECT_EQ(flat(sample()), sampleBytes());
}

TEST(Message, ReadsTheBytesOfEveryType) {
  message m;
  ASSERT_TRUE(unflattenExactly(m, sampleBytes()));
  expectSampleValues(m);
  EXPECT_EQ(m, sample());
}

TEST(Message, EmptyOnesAreTheMagicAlone) {
  message m;
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(flat(m), (Bytes{0x4D, 0x32}));
  EXPECT_EQ(m.max_length(), 2U);
  m.insert(tn::u32_id(1), 1);
  EXPECT_FALSE(m.empty());
  ASSERT_TRUE(m.unflatten(Bytes{0x4D, 0x32}));
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m, message());
}

TEST(Message, StaysUsableWhenMovedFrom) {
  message m = sample();
  const message taken = std::move(m);
  EXPECT_EQ(taken, sample());
  EXPECT_TRUE(m.empty());  // NOLINT(bugprone-use-after-move): what is promised
  EXPECT_TRUE(m.insert(tn::u32_id(1), 7));
  EXPECT_EQ(flat(m), (Bytes{0x4D, 0x32, 1, 0, 0, 0x09, 7}));
}

TEST(Message, FalseIsAClearFlag) {
  message m;
  m.insert(tn::bool_id(0xABCDEF), false);
  EXPECT_EQ(flat(m), (Bytes{0x4D, 0x32, 0xEF, 0xCD, 0xAB, 0x00}));
  EXPECT_EQ(m.get(tn::bool_id(0xABCDEF)), false);
}

TEST(Message, SmallNumbersAreShort) {
  message m;
  m.insert(tn::u32_id(1), 255);
  m.insert(tn::u32_id(2), 256);
  EXPECT_EQ(flat(m), (Bytes{0x4D, 0x32, 1, 0, 0, 0x09, 255, 2, 0, 0, 0x08, 0, 1, 0, 0}));
  ASSERT_TRUE(m.unflatten(Bytes{0x4D, 0x32, 1, 0, 0, 0x08, 200, 0, 0, 0}));
  EXPECT_EQ(m.get(tn::u32_id(1)), 200U);
}

TEST(Message, LengthsUpTo255AreShort) {
  message m;
  m.insert(tn::string_id(1), std::string(255, 'a'));
  EXPECT_EQ(m.max_length(), 2U + 4 + 1 + 255);
  EXPECT_EQ(m.flattened()[5], 0x21);
  EXPECT_EQ(m.flattened()[6], 255);
  m.insert(tn::string_id(1), std::string(256, 'a'));
  EXPECT_EQ(m.max_length(), 2U + 4 + 2 + 256);
  EXPECT_EQ(m.flattened()[5], 0x20);
  EXPECT_EQ(m.flattened()[6], 0);
  EXPECT_EQ(m.flattened()[7], 1);
  message copy;
  ASSERT_TRUE(unflattenExactly(copy, m.flattened()));
  EXPECT_EQ(copy.get(tn::string_id(1)), std::string(256, 'a'));
}

TEST(Message, ReadsTheLongFormOfSmallValues) {
  message m;
  ASSERT_TRUE(m.unflatten(Bytes{0x4D, 0x32, 1, 0, 0, 0x20, 1, 0, 'x', 2, 0, 0, 0x28, 2, 0, 0x4D, 0x32}));
  EXPECT_EQ(m.get(tn::string_id(1)), "x");
  EXPECT_EQ(m.get(tn::message_id(2)), message());
}

TEST(Message, TakesTheLargestValuesAndNoLarger) {
  const std::string largest(message::maxValueBytes, 's');
  const Bytes largestRaw(message::maxValueBytes, 7);
  message m;
  EXPECT_TRUE(m.insert(tn::string_id(1), largest));
  EXPECT_TRUE(m.insert(tn::raw_id(1), largestRaw));
  EXPECT_TRUE(m.insert_vector(tn::string_array_id(1), std::vector<std::string>{largest, "a"}));
  EXPECT_TRUE(m.insert_vector(tn::raw_array_id(1), std::vector<Bytes>{largestRaw}));
  message full;
  ASSERT_TRUE(full.insert(tn::raw_id(1), Bytes(message::maxValueBytes - 8)));
  ASSERT_EQ(full.max_length(), message::maxValueBytes);
  EXPECT_TRUE(m.insert(tn::message_id(1), full));
  EXPECT_TRUE(m.insert_vector(tn::message_array_id(1), std::vector<message>{full, full}));
  message copy;
  ASSERT_TRUE(unflattenExactly(copy, m.flattened()));
  EXPECT_EQ(copy.get(tn::string_id(1)), largest);
  EXPECT_EQ(copy.get(tn::message_id(1)), full);
  EXPECT_EQ(copy.get(tn::message_array_id(1)), (std::vector<message>{full, full}));

  const message before = m;
  EXPECT_FALSE(m.insert(tn::string_id(1), largest + "s"));
  EXPECT_FALSE(m.insert(tn::raw_id(1), Bytes(65536)));
  EXPECT_FALSE(m.insert_vector(tn::string_array_id(1), std::vector<std::string>{"a", largest + "s"}));
  EXPECT_FALSE(m.insert_vector(tn::raw_array_id(1), std::vector<Bytes>{Bytes(65536)}));
  ASSERT_TRUE(full.insert(tn::raw_id(1), Bytes(message::maxValueBytes - 7)));
  EXPECT_FALSE(m.insert(tn::message_id(1), full));
  EXPECT_FALSE(m.insert_vector(tn::message_array_id(1), std::vector<message>{full}));
  EXPECT_EQ(m, before);
}

TEST(Message, TakesTheLargestCountsAndNoLarger) {
  message m;
  EXPECT_TRUE(m.insert_vector(tn::bool_array_id(1), Bytes(65535, 1)));
  EXPECT_TRUE(m.insert_vector(tn::u32_array_id(1), std::vector<std::uint32_t>(65535, 3)));
  EXPECT_TRUE(m.insert_vector(tn::u64_array_id(1), std::vector<std::uint64_t>(65535, 3)));
  EXPECT_TRUE(m.insert_vector(tn::addr6_array_id(1), std::vector<Addr6>(65535, sampleAddress)));
  EXPECT_TRUE(m.insert_vector(tn::string_array_id(1), std::vector<std::string>(65535, "q")));
  EXPECT_TRUE(m.insert_vector(tn::message_array_id(1), std::vector<message>(65535)));
  EXPECT_TRUE(m.insert_vector(tn::raw_array_id(1), std::vector<Bytes>(65535)));
  message copy;
  ASSERT_TRUE(unflattenExactly(copy, m.flattened()));
  EXPECT_EQ(copy.get(tn::u32_array_id(1))->size(), 65535U);
  EXPECT_EQ(copy.get(tn::string_array_id(1))->at(65534), "q");
  EXPECT_EQ(copy.get(tn::message_array_id(1))->size(), 65535U);
  EXPECT_FALSE(m.insert_vector(tn::bool_array_id(1), Bytes(65536, 1)));
  EXPECT_FALSE(m.insert_vector(tn::u32_array_id(1), std::vector<std::uint32_t>(65536)));
  EXPECT_FALSE(m.insert_vector(tn::u64_array_id(1), std::vector<std::uint64_t>(65536)));
  EXPECT_FALSE(m.insert_vector(tn::addr6_array_id(1), std::vector<Addr6>(65536)));
  EXPECT_FALSE(m.insert_vector(tn::string_array_id(1), std::vector<std::string>(65536)));
  EXPECT_FALSE(m.insert_vector(tn::message_array_id(1), std::vector<message>(65536)));
  EXPECT_FALSE(m.insert_vector(tn::raw_array_id(1), std::vector<Bytes>(65536)));
  EXPECT_EQ(m, copy);
}

TEST(Message, IsNeverLargerThanTheBusCarries) {
  message m;
  std::uint32_t id = 0;
  while (m.insert(tn::raw_id(id), Bytes(65535)))
    ++id;
  EXPECT_LE(m.max_length(), message::maxFlattenedBytes);
  const std::size_t left = message::maxFlattenedBytes - m.max_length();
  ASSERT_GT(left, 300U);
  EXPECT_FALSE(m.insert(tn::raw_id(id), Bytes(left - 5)));
  EXPECT_TRUE(m.insert(tn::raw_id(id), Bytes(left - 6)));
  ASSERT_EQ(m.max_length(), message::maxFlattenedBytes);
  const message before = m;
  EXPECT_FALSE(m.insert(tn::bool_id(1), true));
  EXPECT_FALSE(m.insert(tn::u32_id(1), 1));
  EXPECT_FALSE(m.insert(tn::u64_id(1), 1));
  EXPECT_FALSE(m.insert(tn::addr6_id(1), Addr6{}));
  EXPECT_FALSE(m.insert(tn::message_id(1), message()));
  EXPECT_FALSE(m.insert_vector(tn::bool_array_id(1), Bytes{}));
  EXPECT_FALSE(m.insert_vector(tn::u32_array_id(1), {}));
  EXPECT_FALSE(m.insert_vector(tn::u64_array_id(1), {}));
  EXPECT_FALSE(m.insert_vector(tn::addr6_array_id(1), {}));
  EXPECT_FALSE(m.insert_vector(tn::string_array_id(1), std::vector<std::string>(100, std::string(65535, 'x'))));
  EXPECT_FALSE(m.pushFront(tn::u32_array_id(1), 1));
  EXPECT_EQ(m, before);
  // What replaces a value is measured without the value that goes.
  EXPECT_TRUE(m.insert(tn::raw_id(0), Bytes(65535, 1)));

  Bytes bytes = flat(m);
  EXPECT_TRUE(accepted(bytes));
  bytes.insert(bytes.end(), {1, 0, 0, 0});
  EXPECT_FALSE(accepted(bytes));
}

TEST(Message, ReplacesAKeyInItsPlace) {
  message m;
  m.insert(tn::string_id(1), "one");
  m.insert(tn::u32_id(1), 5);
  m.insert(tn::string_id(1), "a longer one");
  EXPECT_EQ(m.get(tn::string_id(1)), "a longer one");
  EXPECT_EQ(m.get(tn::u32_id(1)), 5U);
  m.insert(tn::string_id(1), "");
  m.insert(tn::u32_id(1), 500);
  EXPECT_EQ(flat(m), (Bytes{0x4D, 0x32, 1, 0, 0, 0x21, 0, 1, 0, 0, 0x08, 0xF4, 0x01, 0, 0}));
  m.insert(tn::bool_id(1), true);
  m.insert(tn::bool_id(1), false);
  EXPECT_EQ(m.get(tn::bool_id(1)), false);
  EXPECT_EQ(m.max_length(), 19U);
}

TEST(Message, CutsIdsTo24Bits) {
  message m;
  m.insert(tn::u32_id(0xFF000001), 5);
  EXPECT_EQ(m.get(tn::u32_id(1)), 5U);
}

TEST(Message, TakesViewsOfItself) {
  message m;
  m.insert(tn::string_id(1), "first");
  m.insert(tn::string_id(2), std::string(200, 'z'));
  for (unsigned i = 0; i < 50; ++i)
    m.insert(tn::string_id(3 + i), *m.get(tn::string_id(2)));
  EXPECT_EQ(m.get(tn::string_id(52)), std::string(200, 'z'));
  m.insert(tn::string_id(1), m.get(tn::string_id(2))->substr(100));
  EXPECT_EQ(m.get(tn::string_id(1)), std::string(100, 'z'));
  message copy = m;
  ASSERT_TRUE(m.insert(tn::message_id(1), m));
  EXPECT_EQ(m.get(tn::message_id(1)), copy);
  ASSERT_TRUE(m.unflatten(*m.get(tn::message_id(1)) == copy ? m.flattened() : std::span<const std::uint8_t>{}));
  EXPECT_EQ(m.get(tn::message_id(1)), copy);
}

TEST(Message, AbsentFieldsHaveNoValue) {
  const message m = sample();
  EXPECT_EQ(m.get(tn::bool_id(2)), std::nullopt);
  EXPECT_EQ(m.get(tn::u32_id(1)), std::nullopt);
  EXPECT_EQ(m.get(tn::string_id(6)), std::nullopt);
  EXPECT_EQ(m.get(tn::message_id(5)), std::nullopt);
  EXPECT_EQ(m.get(tn::u32_array_id(2)), std::nullopt);
  EXPECT_FALSE(m.has(tn::raw_id(5)));
  EXPECT_TRUE(m.has(tn::raw_id(7)));
  EXPECT_EQ(message().get(tn::u32_id(0)), std::nullopt);
}

TEST(Message, RemovesFields) {
  message m = sample();
  EXPECT_FALSE(m.remove(tn::u32_id(1)));
  EXPECT_TRUE(m.remove(tn::addr6_array_id(11)));
  EXPECT_FALSE(m.has(tn::addr6_array_id(11)));
  EXPECT_EQ(m.max_length(), sampleBytes().size() - 38);
  EXPECT_EQ(m.get(tn::raw_array_id(14)), (std::vector<Bytes>{{9}, {}}));
  message one = inner();
  EXPECT_TRUE(one.remove(tn::bool_id(1)));
  EXPECT_TRUE(one.empty());
  EXPECT_EQ(one, message());
}

TEST(Message, PathsLoseAndGainElementsInFront) {
  const tn::u32_array_id path{0xff0001};
  message m;
  EXPECT_EQ(m.popFront(path), std::nullopt);
  m.insert(tn::bool_id(1), true);
  EXPECT_TRUE(m.pushFront(path, 5));
  EXPECT_TRUE(m.pushFront(path, 0xAABBCCDD));
  m.insert(tn::bool_id(2), true);
  EXPECT_EQ(flat(m),
            (Bytes{0x4D, 0x32, 1, 0, 0, 1, 1, 0, 0xff, 0x88, 2, 0, 0xDD, 0xCC, 0xBB, 0xAA, 5, 0, 0, 0, 2, 0, 0, 1}));
  EXPECT_EQ(m.popFront(path), 0xAABBCCDDU);
  EXPECT_EQ(m.get(path), (std::vector<std::uint32_t>{5}));
  EXPECT_EQ(m.popFront(path), 5U);
  EXPECT_EQ(m.get(path), std::vector<std::uint32_t>{});
  EXPECT_EQ(m.popFront(path), std::nullopt);
  EXPECT_EQ(flat(m), (Bytes{0x4D, 0x32, 1, 0, 0, 1, 1, 0, 0xff, 0x88, 0, 0, 2, 0, 0, 1}));
  m.insert_vector(path, std::vector<std::uint32_t>(65535));
  EXPECT_FALSE(m.pushFront(path, 1));
  EXPECT_EQ(m.get(path)->size(), 65535U);
}

TEST(Message, FlattensIntoABuffer) {
  Bytes buffer(sampleBytes().size());
  EXPECT_EQ(sample().flatten(std::span(buffer)), buffer.size());
  EXPECT_EQ(buffer, sampleBytes());
}

TEST(Message, ShowsItsFieldsInOrder) {
  const message m = sample();
  Bytes joined{0x4D, 0x32};
  std::uint32_t expected = 0;
  m.forEach([&](const message::Field& field) {
    EXPECT_EQ(field.id, ++expected);
    joined.insert(joined.end(), field.bytes.begin(), field.bytes.end());
  });
  EXPECT_EQ(expected, 14U);
  EXPECT_EQ(joined, sampleBytes());
  message().forEach([](const message::Field&) { ADD_FAILURE(); });
}

// More keys than can be told apart at a glance: some are taken for others until the fields are looked at.
TEST(Message, ManyKeysAreToldApart) {
  message msg;
  for (std::uint32_t id = 0; id < 500; id += 2)
    ASSERT_TRUE(msg.insert(tn::u32_id(id), id + 1000));
  message read;
  ASSERT_TRUE(read.unflatten(msg.flattened()));
  for (const message& each : {msg, read}) {
    for (std::uint32_t id = 0; id < 500; ++id) {
      EXPECT_EQ(each.get(tn::u32_id(id)), id % 2 == 0 ? std::optional(id + 1000) : std::nullopt);
      EXPECT_FALSE(each.has(tn::bool_id(id)));
    }
  }
  for (std::uint32_t id = 0; id < 500; id += 4)
    EXPECT_TRUE(read.remove(tn::u32_id(id)));
  for (std::uint32_t id = 0; id < 500; id += 2)
    EXPECT_EQ(read.has(tn::u32_id(id)), id % 4 != 0);
  EXPECT_FALSE(read == msg);
  for (std::uint32_t id = 0; id < 500; id += 4)
    EXPECT_TRUE(msg.remove(tn::u32_id(id)));
  EXPECT_TRUE(read == msg);
}

}  // namespace
