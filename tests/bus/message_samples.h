#pragma once

// Messages and bytes that the tests of the bus library share.

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/bus/message.h"

namespace tn::test {

using Bytes = std::vector<std::uint8_t>;

inline constexpr Addr6 sampleAddress = {0x20, 0x01, 0x0d, 0xb8, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xff};

inline Bytes flat(const message& m) {
  Bytes out{1, 2, 3};
  const std::size_t length = m.flatten(out);
  EXPECT_EQ(length, out.size());
  return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts)
    out.insert(out.end(), part.begin(), part.end());
  return out;
}

// Reads from a heap block of exactly that size at an odd address, so that the sanitizers see every byte too far.
inline bool unflattenExactly(message& m, std::span<const std::uint8_t> bytes) {
  const auto block = std::make_unique<std::uint8_t[]>(bytes.size() + 1);
  std::copy(bytes.begin(), bytes.end(), block.get() + 1);
  return m.unflatten({block.get() + 1, bytes.size()});
}

inline bool accepted(const Bytes& bytes) {
  message m;
  return unflattenExactly(m, bytes);
}

inline message inner() {
  message m;
  m.insert(tn::bool_id(1), true);
  return m;
}

// One field of each type, every value in its smallest form.
inline message sample() {
  message m;
  EXPECT_TRUE(m.insert(tn::bool_id(1), true));
  EXPECT_TRUE(m.insert(tn::u32_id(2), 0x12345678));
  EXPECT_TRUE(m.insert(tn::u64_id(3), 0x1122334455667788));
  EXPECT_TRUE(m.insert(tn::addr6_id(4), sampleAddress));
  EXPECT_TRUE(m.insert(tn::string_id(5), "abc"));
  EXPECT_TRUE(m.insert(tn::message_id(6), inner()));
  EXPECT_TRUE(m.insert(tn::raw_id(7), Bytes{0, 0xff}));
  EXPECT_TRUE(m.insert_vector(tn::bool_array_id(8), Bytes{1, 0, 1}));
  EXPECT_TRUE(m.insert_vector(tn::u32_array_id(9), std::vector<std::uint32_t>{1, 0xfffffffe}));
  EXPECT_TRUE(m.insert_vector(tn::u64_array_id(10), std::vector<std::uint64_t>{1, 1ULL << 63}));
  EXPECT_TRUE(m.insert_vector(tn::addr6_array_id(11), std::vector<Addr6>{sampleAddress, Addr6{}}));
  EXPECT_TRUE(m.insert_vector(tn::string_array_id(12), std::vector<std::string>{"", "xy"}));
  EXPECT_TRUE(m.insert_vector(tn::message_array_id(13), std::vector<message>{message(), inner()}));
  EXPECT_TRUE(m.insert_vector(tn::raw_array_id(14), std::vector<Bytes>{{9}, {}}));
  return m;
}

inline const Bytes addressBytes(sampleAddress.begin(), sampleAddress.end());

inline Bytes sampleBytes() {
  return concat({
      {0x4D, 0x32},                                                     // magic
      {1, 0, 0, 0x01},                                                  // bool
      {2, 0, 0, 0x08, 0x78, 0x56, 0x34, 0x12},                          // u32
      {3, 0, 0, 0x10, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11},  // u64
      {4, 0, 0, 0x18},
      addressBytes,                                                               // addr6
      {5, 0, 0, 0x21, 3, 'a', 'b', 'c'},                                          // string
      {6, 0, 0, 0x29, 6, 0x4D, 0x32, 1, 0, 0, 0x01},                              // message
      {7, 0, 0, 0x31, 2, 0, 0xff},                                                // raw
      {8, 0, 0, 0x80, 3, 0, 1, 0, 1},                                             // bool array
      {9, 0, 0, 0x88, 2, 0, 1, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff},                  // u32 array
      {10, 0, 0, 0x90, 2, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80},  // u64 array
      {11, 0, 0, 0x98, 2, 0},
      addressBytes,
      Bytes(16, 0),                                                               // addr6 array
      {12, 0, 0, 0xA0, 2, 0, 0, 0, 2, 0, 'x', 'y'},                               // string array
      {13, 0, 0, 0xA8, 2, 0, 2, 0, 0x4D, 0x32, 6, 0, 0x4D, 0x32, 1, 0, 0, 0x01},  // message array
      {14, 0, 0, 0xB0, 2, 0, 1, 0, 9, 0, 0},                                      // raw array
  });
}

// A message of up to twelve random fields, messages nested at the most five deep.
inline message randomMessage(std::mt19937& random, unsigned depth);

inline std::string randomString(std::mt19937& random) {
  std::string text(random() % 8 == 0 ? random() % 600 : random() % 12, '\0');
  for (char& c : text)
    c = static_cast<char>(random());
  return text;
}

inline void insertRandom(message& m, std::mt19937& random, unsigned depth) {
  const auto id = static_cast<std::uint32_t>(random() % 0x1000000);
  const std::size_t count = random() % 5;
  const std::string text = randomString(random);
  const Bytes raw(text.begin(), text.end());
  Addr6 address;
  for (auto& byte : address)
    byte = static_cast<std::uint8_t>(random());
  switch (random() % 14) {
    case 0:
      ASSERT_TRUE(m.insert(tn::bool_id(id), count > 2));
      break;
    case 1:
      ASSERT_TRUE(m.insert(tn::u32_id(id), static_cast<std::uint32_t>(random() >> (random() % 32))));
      break;
    case 2:
      ASSERT_TRUE(m.insert(tn::u64_id(id), random()));
      break;
    case 3:
      ASSERT_TRUE(m.insert(tn::addr6_id(id), address));
      break;
    case 4:
      ASSERT_TRUE(m.insert(tn::string_id(id), text));
      break;
    case 5:
      if (depth < 4) m.insert(tn::message_id(id), randomMessage(random, depth + 1));
      break;
    case 6:
      ASSERT_TRUE(m.insert(tn::raw_id(id), raw));
      break;
    case 7:
      ASSERT_TRUE(m.insert_vector(tn::bool_array_id(id), Bytes(count, 2)));
      break;
    case 8:
      ASSERT_TRUE(m.insert_vector(tn::u32_array_id(id), std::vector<std::uint32_t>(count, id)));
      break;
    case 9:
      ASSERT_TRUE(m.insert_vector(tn::u64_array_id(id), std::vector<std::uint64_t>(count, random())));
      break;
    case 10:
      ASSERT_TRUE(m.insert_vector(tn::addr6_array_id(id), std::vector<Addr6>(count, address)));
      break;
    case 11:
      ASSERT_TRUE(m.insert_vector(tn::string_array_id(id), std::vector<std::string>(count, text)));
      break;
    case 12:
      if (depth < 4)
        m.insert_vector(tn::message_array_id(id), std::vector<message>(count, randomMessage(random, depth + 1)));
      break;
    default:
      ASSERT_TRUE(m.insert_vector(tn::raw_array_id(id), std::vector<Bytes>(count, raw)));
      break;
  }
}

inline message randomMessage(std::mt19937& random, unsigned depth) {
  message m;
  for (std::size_t left = random() % 12; left > 0; --left)
    insertRandom(m, random, depth);
  return m;
}

}  // namespace tn::test
