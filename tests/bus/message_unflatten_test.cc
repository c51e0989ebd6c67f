#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/bus/message.h"
#include "tests/bus/message_samples.h"

namespace {

using tn::Addr6;
using tn::message;
using namespace tn::test;

TEST(Unflatten, TakesTheBigEndianLengthInPlaceOfTheMagic) {
  Bytes bytes = sampleBytes();
  bytes[0] = static_cast<std::uint8_t>(bytes.size() >> 8);
  bytes[1] = static_cast<std::uint8_t>(bytes.size());
  message m;
  ASSERT_TRUE(unflattenExactly(m, bytes));
  EXPECT_EQ(m, sample());
  EXPECT_EQ(flat(m), sampleBytes());
  ASSERT_TRUE(m.unflatten(Bytes{0, 2}));
  EXPECT_TRUE(m.empty());
  for (const Bytes& wrong :
       {Bytes{2, 0}, Bytes{0, 3}, Bytes{0, 1}, Bytes{0, 0}, Bytes{0x32, 0x4D}, Bytes{0x4D, 0x33}}) {
    EXPECT_FALSE(accepted(wrong));
  }
  // A length of 0x4D32 bytes and the magic are the same.
  Bytes both(0x4D32, 0);
  both[0] = 0x4D;
  both[1] = 0x32;
  EXPECT_TRUE(accepted(both));
  Bytes largest = concat({{0xff, 0xff}, {1, 0, 0, 0x30, 0xF7, 0xff}, Bytes(0xFFF7)});
  EXPECT_TRUE(accepted(largest));
}

TEST(Unflatten, RefusesTheLengthFormInNestedMessages) {
  EXPECT_TRUE(accepted({0x4D, 0x32, 1, 0, 0, 0x29, 2, 0x4D, 0x32}));
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0x29, 2, 0, 2}));
  EXPECT_TRUE(accepted({0x4D, 0x32, 1, 0, 0, 0xA8, 1, 0, 2, 0, 0x4D, 0x32}));
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0xA8, 1, 0, 2, 0, 0, 2}));
}

TEST(Unflatten, ChecksNestedMessages) {
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0x29, 0}));                                      // no magic
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0x29, 1, 0x4D}));                                // half of it
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0x29, 3, 0x4D, 0x32, 0}));                       // trailing byte
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0x29, 6, 0x4D, 0x32, 1, 0, 0, 0x38}));           // unknown type
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0x29, 7, 0x4D, 0x32, 1, 0, 0, 0x21, 1}));        // cut string
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0xA8, 2, 0, 2, 0, 0x4D, 0x32, 1, 0, 0x4D}));     // half a magic
  EXPECT_FALSE(accepted({0x4D, 0x32, 1, 0, 0, 0xA8, 1, 0, 6, 0, 0x4D, 0x32, 1, 0, 0, 0x02}));  // reserved bit
}

TEST(Unflatten, RefusesUnknownTypesAndReservedBits) {
  for (unsigned top = 0; top < 256; ++top) {
    Bytes bytes = {0x4D, 0x32, 1, 0, 0, static_cast<std::uint8_t>(top)};
    const unsigned code = top & 0xF8;
    const bool known = code <= 0x30 || (code >= 0x80 && code <= 0xB0);
    const bool reserved = (top & 0x06) != 0;
    // Zeros are a good payload of every type but the message, which wants its magic.
    if (code == 0x28) {
      const Bytes payload = (top & 1) != 0 ? Bytes{2, 0x4D, 0x32} : Bytes{2, 0, 0x4D, 0x32};
      bytes.insert(bytes.end(), payload.begin(), payload.end());
    } else if (code == 0x08 || code == 0x20 || code == 0x30) {
      bytes.resize(bytes.size() + ((top & 1) != 0 ? 1 : (code == 0x08 ? 4 : 2)));
    } else if (code >= 0x80) {
      bytes.resize(bytes.size() + 2);
    } else if (code == 0x10 || code == 0x18) {
      bytes.resize(bytes.size() + (code == 0x10 ? 8 : 16));
    }
    EXPECT_EQ(accepted(bytes), known && !reserved) << top;
  }
}

TEST(Unflatten, IgnoresTheShortFlagOfArrays) {
  message m;
  ASSERT_TRUE(m.unflatten(Bytes{0x4D, 0x32, 1, 0, 0, 0x89, 1, 0, 7, 0, 0, 0, 2, 0, 0, 0xA1, 1, 0, 1, 0, 'x'}));
  EXPECT_EQ(m.get(tn::u32_array_id(1)), (std::vector<std::uint32_t>{7}));
  EXPECT_EQ(m.get(tn::string_array_id(2)), (std::vector<std::string>{"x"}));
  EXPECT_EQ(m.popFront(tn::u32_array_id(1)), 7U);
}

TEST(Unflatten, KeepsTheLastValueOfARepeatedKey) {
  const Bytes repeated = {0x4D, 0x32, 1, 0, 0, 0x09, 5, 2, 0, 0, 1, 1, 0, 0, 0x09, 6, 1, 0, 0, 0x08, 0, 1, 0, 0};
  const Bytes kept = {0x4D, 0x32, 1, 0, 0, 0x08, 0, 1, 0, 0, 2, 0, 0, 1};
  message m;
  ASSERT_TRUE(m.unflatten(repeated));
  EXPECT_EQ(flat(m), kept);
  EXPECT_EQ(m.get(tn::u32_id(1)), 256U);

  // Also in nested messages, where it shows when they are looked at.
  Bytes outer = {0x4D, 0x32, 9, 0, 0, 0x29, static_cast<std::uint8_t>(repeated.size())};
  outer.insert(outer.end(), repeated.begin(), repeated.end());
  ASSERT_TRUE(m.unflatten(outer));
  EXPECT_EQ(flat(*m.get(tn::message_id(9))), kept);
}

TEST(Unflatten, KeepsTheLastValuesAmongManyFields) {
  Bytes bytes = {0x4D, 0x32};
  message expected;
  for (unsigned i = 0; i < 5000; ++i) {
    const auto id = static_cast<std::uint8_t>((i * 7) % 100);
    const auto value = static_cast<std::uint8_t>(i);
    bytes.insert(bytes.end(), {id, 0, 0, 0x09, value});
    expected.insert(tn::u32_id(id), value);
  }
  message m;
  ASSERT_TRUE(m.unflatten(bytes));
  EXPECT_EQ(m, expected);
  message distinct;
  for (unsigned i = 0; i < 200; ++i)
    distinct.insert(tn::u32_id(1000 - i), i);
  ASSERT_TRUE(unflattenExactly(m, distinct.flattened()));
  EXPECT_EQ(m, distinct);
}

TEST(Unflatten, ManyRepeatedFieldsAreReadInNoTime) {
  Bytes bytes(message::maxFlattenedBytes - 2, 0);
  bytes[0] = 0x4D;
  bytes[1] = 0x32;
  for (std::size_t i = 2; i < bytes.size(); i += 4)
    bytes[i] = static_cast<std::uint8_t>(i >> 4), bytes[i + 1] = 1;
  message m;
  ASSERT_TRUE(m.unflatten(bytes));
  EXPECT_EQ(m.max_length(), 2U + 256 * 4);
}

Bytes nested(unsigned levels) {
  Bytes bytes = {0x4D, 0x32};
  for (unsigned i = 0; i < levels; ++i) {
    const auto length = static_cast<std::uint16_t>(bytes.size());
    bytes.insert(bytes.begin(), {0x4D, 0x32, 1, 0, 0, 0x28, static_cast<std::uint8_t>(length),
                                 static_cast<std::uint8_t>(length >> 8)});
  }
  return bytes;
}

TEST(Unflatten, BoundsTheNesting) {
  EXPECT_TRUE(accepted(nested(32)));
  EXPECT_FALSE(accepted(nested(33)));
  EXPECT_FALSE(accepted(nested(5000)));
  // The same through message arrays.
  message m;
  for (unsigned i = 0; i < 32; ++i) {
    message outer;
    ASSERT_TRUE(outer.insert_vector(tn::message_array_id(1), std::span(&m, 1)));
    m = outer;
  }
  message copy;
  EXPECT_TRUE(unflattenExactly(copy, m.flattened()));
  message outer;
  EXPECT_FALSE(outer.insert_vector(tn::message_array_id(1), std::span(&m, 1)));
  EXPECT_FALSE(outer.insert(tn::message_id(1), m));
  EXPECT_TRUE(outer.empty());
}

TEST(Unflatten, LeavesNothingBehindWhenItFails) {
  message m = sample();
  EXPECT_FALSE(m.unflatten({}));
  EXPECT_TRUE(m.empty());
  m = sample();
  EXPECT_FALSE(m.unflatten(Bytes{0x4D}));
  EXPECT_EQ(m, message());
}

TEST(Unflatten, RefusesACutAtEveryByteThatIsNoFieldEnd) {
  const Bytes whole = sampleBytes();
  std::vector<std::size_t> ends = {2};
  sample().forEach([&](const message::Field& field) { ends.push_back(ends.back() + field.bytes.size()); });
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    const bool atEnd = std::find(ends.begin(), ends.end(), length) != ends.end();
    EXPECT_EQ(accepted(cut), atEnd) << length;
  }
}

TEST(Unflatten, RefusesOneToThreeTrailingBytes) {
  Bytes bytes = sampleBytes();
  for (int i = 0; i < 3; ++i) {
    bytes.push_back(0);
    EXPECT_FALSE(accepted(bytes));
  }
}

// What is accepted must be readable as a whole: every field decodes, and the flattened form reads back the same.
void touchEverything(const message& m) {
  message copy;
  ASSERT_TRUE(unflattenExactly(copy, m.flattened()));
  ASSERT_EQ(copy, m);
  std::uint64_t seen = 0;
  m.forEach([&](const message::Field& field) {
    switch (field.type) {
      case tn::FieldType::boolean:
        seen += field.asBool() ? 1 : 0;
        break;
      case tn::FieldType::u32:
        seen += field.asU32() & 1;
        break;
      case tn::FieldType::u64:
        seen += field.asU64() & 1;
        break;
      case tn::FieldType::addr6:
        seen += field.asAddr6()[15];
        break;
      case tn::FieldType::string:
        seen += std::string(field.asString()).size();
        break;
      case tn::FieldType::message:
        touchEverything(field.asMessage());
        break;
      case tn::FieldType::raw:
        seen += Bytes(field.asRaw().begin(), field.asRaw().end()).size();
        break;
      case tn::FieldType::booleanArray:
        seen += field.asBools().size();
        break;
      case tn::FieldType::u32Array:
        seen += field.asU32s().size();
        break;
      case tn::FieldType::u64Array:
        seen += field.asU64s().size();
        break;
      case tn::FieldType::addr6Array:
        seen += field.asAddr6s().size();
        break;
      case tn::FieldType::stringArray:
        seen += field.asStrings().size();
        break;
      case tn::FieldType::messageArray:
        for (const message& element : field.asMessages())
          touchEverything(element);
        break;
      case tn::FieldType::rawArray:
        seen += field.asRaws().size();
        break;
    }
  });
  EXPECT_LE(seen, m.max_length() + 16 * 255);
}

TEST(Unflatten, SurvivesEveryMutationOfOneByte) {
  const Bytes whole = sampleBytes();
  unsigned good = 0;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (unsigned value = 0; value < 256; ++value) {
      Bytes bytes = whole;
      bytes[at] = static_cast<std::uint8_t>(value);
      message m;
      if (!unflattenExactly(m, bytes)) continue;
      ++good;
      touchEverything(m);
    }
  }
  EXPECT_GT(good, whole.size());
}

TEST(Unflatten, SurvivesRandomBytes) {
  std::mt19937 random(20240607);
  unsigned good = 0;
  for (int round = 0; round < 30000; ++round) {
    Bytes bytes = {0x4D, 0x32};
    const std::size_t length = random() % 60;
    for (std::size_t i = 0; i < length; ++i) {
      bytes.push_back(static_cast<std::uint8_t>(random() % 3 == 0 ? random() : (random() % 4) * 8));
    }
    message m;
    if (!unflattenExactly(m, bytes)) continue;
    ++good;
    touchEverything(m);
  }
  EXPECT_GT(good, 100U);
}

message rebuilt(const message& m);

// Inserts the value of one field into another message.
bool copyField(const message::Field& field, message& out) {
  switch (field.type) {
    case tn::FieldType::boolean:
      return out.insert(tn::bool_id(field.id), field.asBool());
    case tn::FieldType::u32:
      return out.insert(tn::u32_id(field.id), field.asU32());
    case tn::FieldType::u64:
      return out.insert(tn::u64_id(field.id), field.asU64());
    case tn::FieldType::addr6:
      return out.insert(tn::addr6_id(field.id), field.asAddr6());
    case tn::FieldType::string:
      return out.insert(tn::string_id(field.id), field.asString());
    case tn::FieldType::message:
      return out.insert(tn::message_id(field.id), rebuilt(field.asMessage()));
    case tn::FieldType::raw:
      return out.insert(tn::raw_id(field.id), field.asRaw());
    case tn::FieldType::booleanArray: {
      const std::vector<bool> values = field.asBools();
      return out.insert_vector(tn::bool_array_id(field.id), Bytes(values.begin(), values.end()));
    }
    case tn::FieldType::u32Array:
      return out.insert_vector(tn::u32_array_id(field.id), field.asU32s());
    case tn::FieldType::u64Array:
      return out.insert_vector(tn::u64_array_id(field.id), field.asU64s());
    case tn::FieldType::addr6Array:
      return out.insert_vector(tn::addr6_array_id(field.id), field.asAddr6s());
    case tn::FieldType::stringArray:
      return out.insert_vector(tn::string_array_id(field.id), field.asStrings());
    case tn::FieldType::messageArray:
      return out.insert_vector(tn::message_array_id(field.id), field.asMessages());
    case tn::FieldType::rawArray:
      return out.insert_vector(tn::raw_array_id(field.id), field.asRaws());
  }
  return false;
}

// The same fields, inserted anew one by one.
message rebuilt(const message& m) {
  message out;
  m.forEach([&](const message::Field& field) { EXPECT_TRUE(copyField(field, out)); });
  return out;
}

TEST(Unflatten, ReadsBackWhatWasWrittenAtRandom) {
  std::mt19937 random(1);
  for (int round = 0; round < 500; ++round) {
    const message m = randomMessage(random, 0);
    touchEverything(m);
    EXPECT_EQ(rebuilt(m), m);
  }
}

}  // namespace
