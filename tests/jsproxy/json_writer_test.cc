#include <cstdint>
#include <gtest/gtest.h>
#include <initializer_list>
#include <string>
#include <vector>

#include "jsproxy/json_form.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Written {
  std::string text;
  bool whole;
  friend bool operator==(const Written&, const Written&) = default;
};

Written write(const Bytes& bytes) {
  Written w{"", false};
  w.whole = writeJson(w.text, bytes);
  return w;
}

// The magic and the fields behind it.
Written writeFields(std::initializer_list<Bytes> fields) {
  Bytes bytes{0x4D, 0x32};
  for (const Bytes& field : fields)
    bytes.insert(bytes.end(), field.begin(), field.end());
  return write(bytes);
}

Written whole(std::string text) {
  return {std::move(text), true};
}

Written cut(std::string text) {
  return {std::move(text), false};
}

std::string jsonOf(const tn::message& msg) {
  return write(Bytes(msg.flattened().begin(), msg.flattened().end())).text;
}

const Bytes badField{0x07, 0, 0, 0xC0};  // a type code that is none

TEST(JsonWriter, WritesEveryScalar) {
  EXPECT_EQ(writeFields({{1, 0, 0, 0x01}, {2, 0, 0, 0x00}}), whole("{b1:1,b2:0}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x09, 200}, {2, 0, 0, 0x08, 0xFF, 0xFF, 0xFF, 0xFF}}),
            whole("{u1:200,u2:4294967295}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x10, 1, 0, 0, 0, 0, 0, 0, 0x80}}), whole("{q1:-9223372036854775807}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x18, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 255}}),
            whole("{a1:[0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,255]}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x21, 2, 'h', 'i'}, {2, 0, 0, 0x20, 1, 0, 'x'}}), whole("{s1:'hi',s2:'x'}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x29, 2, 'M', '2'}, {2, 0, 0, 0x28, 2, 0, 'M', '2'}}), whole("{m1:{},m2:{}}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x31, 2, 0, 255}, {2, 0, 0, 0x31, 0}}), whole("{r1:[0,255],r2:[]}"));
}

TEST(JsonWriter, WritesEveryArray) {
  EXPECT_EQ(writeFields({{1, 0, 0, 0x80, 3, 0, 1, 0, 7}}), whole("{B1:[1,0,1]}"));
  EXPECT_EQ(writeFields({{2, 0, 0xFF, 0x88, 2, 0, 1, 0, 0, 0, 2, 0, 0, 0}}), whole("{Uff0002:[1,2]}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x90, 1, 0, 255, 255, 255, 255, 255, 255, 255, 255}}), whole("{Q1:[-1]}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x98, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}),
            whole("{A1:[[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1]]}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0xA0, 2, 0, 1, 0, 'a', 0, 0}}), whole("{S1:['a','']}"));
  EXPECT_EQ(writeFields({{5, 0, 0, 0xA8, 2, 0, 2, 0, 'M', '2', 2, 0, 'M', '2'}}), whole("{M5:[{},{}]}"));
  EXPECT_EQ(writeFields({{4, 0, 0, 0xB0, 2, 0, 2, 0, 1, 2, 1, 0, 3}}), whole("{R4:[[1,2],[3]]}"));
  for (const unsigned code : {0x80U, 0x88U, 0x90U, 0x98U, 0xA0U, 0xA8U, 0xB0U}) {
    EXPECT_TRUE(writeFields({{1, 0, 0, static_cast<std::uint8_t>(code), 0, 0}}).text.ends_with("1:[]}"));
    // In arrays the short flag plays no part.
    EXPECT_TRUE(writeFields({{1, 0, 0, static_cast<std::uint8_t>(code | 1), 0, 0}}).text.ends_with("1:[]}"));
  }
}

TEST(JsonWriter, WritesMessagesAsBrowsersKnowThem) {
  tn::message msg;
  msg.insert(tn::u32_id(1), 5);
  msg.insert(tn::bool_id(2), true);
  msg.insert(tn::string_id(3), "it's");
  EXPECT_EQ(jsonOf(msg), "{u1:5,b2:1,s3:'it\\'s'}");
  tn::message outer;
  outer.insert(tn::u32_id(0xFF0007), 1);
  outer.insert(tn::message_id(0), msg);
  EXPECT_EQ(jsonOf(outer), "{uff0007:1,m0:{u1:5,b2:1,s3:'it\\'s'}}");
}

TEST(JsonWriter, EscapesFourCharactersAndDropsNul) {
  tn::message msg;
  msg.insert(tn::string_id(1), std::string_view("a\0'\\\n\r\"\t\x01\x7f\xff", 11));
  EXPECT_EQ(jsonOf(msg), "{s1:'a\\'\\\\\\n\\r\"\t\x01\x7f\xff'}");
}

TEST(JsonWriter, EndsAtOnceWhereThereIsNoMessage) {
  EXPECT_EQ(write({}), cut("{}"));
  EXPECT_EQ(write({0x4D}), cut("{}"));
  EXPECT_EQ(write({0x4D, 0x32}), whole("{}"));
  EXPECT_EQ(write({0x32, 0x4D}), cut("{"));
  EXPECT_EQ(write({0, 0, 1, 2, 3, 4}), cut("{"));
}

TEST(JsonWriter, IgnoresTrailingBytes) {
  EXPECT_EQ(writeFields({{1, 0, 0}}), whole("{}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x01}, {9, 9, 9}}), whole("{b1:1}"));
}

TEST(JsonWriter, LeavesTheCommaOfAFieldThatIsLeftOut) {
  const Bytes good{1, 0, 0, 0x01};
  EXPECT_EQ(writeFields({good, badField, good}), whole("{b1:1,,b1:1}"));
  EXPECT_EQ(writeFields({badField, good}), whole("{,b1:1}"));
  EXPECT_EQ(writeFields({good, badField}), whole("{b1:1,}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x08, 1, 2, 3}}), whole("{}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x09}}), whole("{}"));
  EXPECT_EQ(writeFields({good, {1, 0, 0, 0x10, 1, 0, 0}}), whole("{b1:1,}"));
}

// What follows a field that could not be kept is taken for the next header.
TEST(JsonWriter, GoesOnBehindTheLengthOfWhatIsTooLong) {
  EXPECT_EQ(writeFields({{1, 0, 0, 0x21, 9, 2, 0, 0, 0x01}}), whole("{,b2:1}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x20, 9}}), whole("{}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x29, 9, 2, 0, 0, 0x01}}), whole("{m1:{},b2:1}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x31, 9, 2, 0, 0, 0x01}}), whole("{r1:[],b2:1}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x28, 9}}), whole("{m1:{}}"));
}

TEST(JsonWriter, LeavesTheBraceOfABrokenNestedMessageOpen) {
  EXPECT_EQ(writeFields({{1, 0, 0, 0x29, 2, 'x', 'y'}, {2, 0, 0, 0x01}}), whole("{m1:{,b2:1}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x29, 1, 'x'}}), whole("{m1:{}}"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0xA8, 2, 0, 2, 0, 'x', 'y', 0, 0}}), whole("{M1:[{,{}]}"));
}

TEST(JsonWriter, StopsInsideAnArrayThatRunsPastTheEnd) {
  EXPECT_EQ(writeFields({{1, 0, 0, 0x80, 2, 0, 1}}), cut("{B1:["));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x88, 1, 0, 1, 2, 3}}), cut("{U1:["));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x90, 1}}), cut("{Q1:["));
  EXPECT_EQ(writeFields({{1, 0, 0, 0x98, 255, 255}}), cut("{A1:["));
  EXPECT_EQ(writeFields({{1, 0, 0, 0xA0, 3, 0, 1, 0, 'a', 1, 0, 'b', 2, 0, 'c'}}), cut("{S1:['a','b',"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0xB0, 2, 0, 1, 0, 5, 3, 0, 1}}), cut("{R1:[[5],["));
  EXPECT_EQ(writeFields({{1, 0, 0, 0xB0, 1}}), cut("{R1:["));
  EXPECT_EQ(writeFields({{2, 0, 0, 0x01}, {1, 0, 0, 0xA8, 2, 0, 2, 0, 'M', '2', 9, 0}}), cut("{b2:1,"));
  EXPECT_EQ(writeFields({{1, 0, 0, 0xA8, 1}}), cut("{"));
}

// Bits 25 and 26 of a header are not looked at, and the id has 24 bits.
TEST(JsonWriter, TakesTheIdFromTheLowBits) {
  EXPECT_EQ(writeFields({{0xFF, 0xFF, 0xFF, 0x07}}), whole("{bffffff:1}"));
}

TEST(JsonWriter, EveryCutOfEveryMessageIsWrittenWithoutReadingBeyondIt) {
  tn::message msg;
  msg.insert(tn::u32_id(1), 70000);
  msg.insert(tn::string_id(2), std::string(300, 's'));
  msg.insert_vector(tn::string_array_id(3), std::vector<std::string>{"a", "bb"});
  msg.insert_vector(tn::raw_array_id(4), std::vector<Bytes>{{1}, {2, 3}});
  msg.insert_vector(tn::message_array_id(5), std::vector<tn::message>{msg, tn::message()});
  msg.insert(tn::message_id(6), msg);
  for (std::size_t length = 0; length <= msg.flattened().size(); ++length) {
    const Bytes bytes(msg.flattened().begin(), msg.flattened().begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_TRUE(write(bytes).text.starts_with('{')) << length;
  }
}

}  // namespace
