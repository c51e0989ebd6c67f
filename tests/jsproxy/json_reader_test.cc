#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "jsproxy/json_form.h"

namespace {

struct Read {
  tn::message msg;
  std::size_t at;  // where the reader stopped
  bool good;       // at a closing brace with nothing but spaces behind it
};

Read read(const std::string& text) {
  Read r;
  const char* const end = parseJson(text.c_str(), r.msg, 0);
  r.at = static_cast<std::size_t>(end - text.c_str());
  r.good = r.at < text.size() && text[r.at] == '}' && text.find_first_not_of(' ', r.at + 1) == std::string::npos;
  return r;
}

std::optional<std::uint32_t> u(const std::string& text, std::uint32_t id = 1) {
  const Read r = read(text);
  EXPECT_TRUE(r.good) << text;
  return r.msg.get(tn::u32_id(id));
}

void expectFailure(const std::string& text, std::size_t at) {
  const Read r = read(text);
  EXPECT_FALSE(r.good) << text;
  EXPECT_EQ(r.at, at) << text;
}

TEST(JsonReader, BracesAreOptionalOutside) {
  EXPECT_TRUE(read("{}").good);
  EXPECT_EQ(read("{}").at, 1U);
  EXPECT_TRUE(read("{}").msg.empty());
  EXPECT_EQ(u("u1:5}"), 5U);
  EXPECT_EQ(u("  { u1:5 }   "), 5U);
  expectFailure("{u1:5", 5);
  expectFailure("", 0);
  EXPECT_FALSE(read("{u1:5}\n").good);
  EXPECT_FALSE(read("{u1:5}}").good);
}

TEST(JsonReader, CommasMayTrailButNotLeadOrDouble) {
  EXPECT_EQ(u("{u1:5,}"), 5U);
  EXPECT_EQ(u("{u1:5 , }"), 5U);
  expectFailure("{,u1:5}", 1);
  expectFailure("{u1:5,,u2:6}", 6);
  // The comma is a letter that is no type; what stands behind it is its id and its empty value.
  EXPECT_TRUE(read("{,a1:}").good);
}

TEST(JsonReader, KeysAreForgiving) {
  for (const char* text : {"{u1 : 5}", "{u1::5}", "{u1 5}", "{ u1: :5}", "{u01:5}", "{u0x1:5}"}) {
    EXPECT_EQ(u(text), 5U) << text;
  }
  expectFailure("{u:5}", 1);
  expectFailure("{ug:5}", 1);
  EXPECT_EQ(u("{uFF0007:5}", 0xFF0007), 5U);
  EXPECT_EQ(u("{x1:,u2:5}", 2), 5U);
  expectFailure("{x1:7}", 4);
}

TEST(JsonReader, NumbersChooseTheirBase) {
  EXPECT_EQ(u("{u1:0x10}"), 16U);
  EXPECT_EQ(u("{u1:0XfF}"), 255U);
  EXPECT_EQ(u("{u1:010}"), 8U);
  EXPECT_EQ(u("{u1:+7}"), 7U);
  EXPECT_EQ(u("{u1:-1}"), 0xFFFFFFFFU);
  EXPECT_EQ(u("{u1:4294967295}"), 0xFFFFFFFFU);
  EXPECT_EQ(u("{u1:4294967296}"), 0xFFFFFFFFU);
  EXPECT_EQ(u("{u1:99999999999999999999}"), 0xFFFFFFFFU);
  EXPECT_EQ(u("{u1:-99999999999}"), 0xFFFFFFFFU);
  EXPECT_EQ(u("{u1:\t\n 5}"), 5U);
  EXPECT_EQ(u("{u1:}"), 0U);
  expectFailure("{u1:x}", 4);
  expectFailure("{u1:08}", 5);
  expectFailure("{u1:0x}", 5);
  expectFailure("{u1:- 1}", 4);
}

TEST(JsonReader, LongNumbers) {
  EXPECT_EQ(read("{q1:-1}").msg.get(tn::u64_id(1)), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(read("{q1:18446744073709551616}").msg.get(tn::u64_id(1)), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(read("{q1:0x123456789abcdef0}").msg.get(tn::u64_id(1)), 0x123456789abcdef0U);
}

TEST(JsonReader, Booleans) {
  EXPECT_EQ(read("{b1:0}").msg.get(tn::bool_id(1)), false);
  EXPECT_EQ(read("{b1:2}").msg.get(tn::bool_id(1)), true);
  const Read empty = read("b1:}");
  EXPECT_TRUE(empty.good);
  EXPECT_EQ(empty.msg.get(tn::bool_id(1)), false);
}

TEST(JsonReader, OnlySpacesAreWhiteSpace) {
  expectFailure("{\tu1:5}", 1);
  expectFailure("{u1:5\n}", 5);
  expectFailure("{u1:5,\nu2:6}", 6);
}

TEST(JsonReader, Strings) {
  const Read r = read("{s1:'a\\'b\\\\c\\nd'}");
  EXPECT_TRUE(r.good);
  EXPECT_EQ(r.msg.get(tn::string_id(1)), "a'b\\c\nd");
  EXPECT_EQ(read("{s1:'a\\tb\\r'}").msg.get(tn::string_id(1)), "a\\tb\r");
  EXPECT_EQ(read("{s1:''}").msg.get(tn::string_id(1)), "");
  EXPECT_EQ(read("{s1:'\\\\\\'}").good, false);
  EXPECT_EQ(read("{s1:'\xff\"\t'}").msg.get(tn::string_id(1)), "\xff\"\t");
  expectFailure("{s1:'open}", 10);
  expectFailure("{s1:\"x\"}", 4);
  const Read missing = read("{s1:}");
  EXPECT_TRUE(missing.good);
  EXPECT_FALSE(missing.msg.has(tn::string_id(1)));
}

TEST(JsonReader, ByteLists) {
  const auto raw = [](const std::string& text) {
    const Read r = read(text);
    const auto bytes = r.msg.get(tn::raw_id(1));
    return bytes ? std::vector<std::uint8_t>(bytes->begin(), bytes->end()) : std::vector<std::uint8_t>{99};
  };
  EXPECT_EQ(raw("{r1:[]}"), (std::vector<std::uint8_t>{}));
  EXPECT_EQ(raw("{r1:[1 2,,3]}"), (std::vector<std::uint8_t>{1, 2, 3}));
  EXPECT_EQ(raw("{r1:[256,-1,257]}"), (std::vector<std::uint8_t>{0, 255, 1}));
  EXPECT_EQ(raw("{r1:[010]}"), (std::vector<std::uint8_t>{10}));
  // A value without digits ends the list as a zero; a brace there ends the text well.
  EXPECT_EQ(raw("{r1:[7}"), (std::vector<std::uint8_t>{7, 0}));
  EXPECT_TRUE(read("{r1:[7}").good);
  expectFailure("{r1:[7x]}", 6);
  expectFailure("{r1:[7", 6);
}

TEST(JsonReader, Addresses) {
  const Read r = read("{a1:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,1]}");
  EXPECT_TRUE(r.good);
  const tn::Addr6 expected{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255, 10, 0, 0, 1};
  EXPECT_EQ(r.msg.get(tn::addr6_id(1)), expected);
  // Of 15 or 17 values none is taken; the list has ended at the brace, which ends the text well.
  for (const char* text :
       {"{a1:[1,2]}", "{a1:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0]}", "{a1:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,1,1]}"}) {
    EXPECT_FALSE(read(text).msg.has(tn::addr6_id(1))) << text;
  }
  expectFailure("{a1:[1,2],u2:1}", 9);
  EXPECT_EQ(read("{A1:[[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,1], []]}").good, false);
  const auto list = read("{A1:[[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,1] ,]}").msg.get(tn::addr6_array_id(1));
  EXPECT_EQ(list, std::vector<tn::Addr6>{expected});
  expectFailure("{A1:[", 5);
}

TEST(JsonReader, NumberArrays) {
  const auto numbers = [](const std::string& text) { return read(text).msg.get(tn::u32_array_id(1)); };
  using List = std::vector<std::uint32_t>;
  EXPECT_EQ(numbers("{U1:[1 2,3]}"), (List{1, 2, 3}));
  EXPECT_EQ(numbers("{U1:[]}"), List{});
  EXPECT_EQ(numbers("{U1:[010,-1,99999999999]}"), (List{10, 0xFFFFFFFF, 0xFFFFFFFF}));
  EXPECT_EQ(numbers("{U1:[1}"), (List{1, 0}));
  EXPECT_TRUE(read("{U1:[1}").good);
  expectFailure("{U1:[1x]}", 6);
  expectFailure("{U1:[1", 6);
  expectFailure("{U1:1]}", 4);
  EXPECT_EQ(read("{B1:[1,0,5]}").msg.get(tn::bool_array_id(1)), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(read("{Q1:[1,0x10,010]}").msg.get(tn::u64_array_id(1)), (std::vector<std::uint64_t>{1, 16, 8}));
  expectFailure("{Q1:[-1]}", 5);
  expectFailure("{Q1:[1", 6);
}

TEST(JsonReader, StringRawAndMessageArrays) {
  EXPECT_EQ(read("{S1:['a','b\\'']}").msg.get(tn::string_array_id(1)), (std::vector<std::string>{"a", "b'"}));
  expectFailure("{S1:['a',b]}", 9);
  expectFailure("{S1:['a'", 8);
  EXPECT_EQ(read("{R1:[[1],[]]}").msg.get(tn::raw_array_id(1)), (std::vector<std::vector<std::uint8_t>>{{1}, {}}));
  expectFailure("{R1:[1]}", 5);
  const auto messages = read("{M1:[u1:5},{u1:6}]}").msg.get(tn::message_array_id(1));
  ASSERT_TRUE(messages);
  ASSERT_EQ(messages->size(), 2U);
  EXPECT_EQ((*messages)[0].get(tn::u32_id(1)), 5U);
  EXPECT_EQ((*messages)[1].get(tn::u32_id(1)), 6U);
  expectFailure("{M1:[{u1:5]}", 10);
  expectFailure("{M1:[", 5);
  expectFailure("{m1:u1:5}", 4);
}

std::string nested(int levels, const std::string& open, const std::string& close) {
  std::string text = "{";
  for (int i = 0; i < levels; ++i)
    text += open;
  for (int i = 0; i < levels; ++i)
    text += close;
  return text + "}";
}

TEST(JsonReader, ElevenLevelsLieBelowTheOutermostMessage) {
  EXPECT_TRUE(read(nested(11, "m1:{", "}")).good);
  EXPECT_FALSE(read(nested(12, "m1:{", "}")).good);
  EXPECT_TRUE(read(nested(11, "M1:[{", "}]")).good);
  EXPECT_FALSE(read(nested(12, "M1:[{", "}]")).good);
  EXPECT_FALSE(read(nested(100000, "m1:{", "}")).good);
}

// Random messages of every type, as the writer and the reader agree on them: strings without NUL (which is dropped) and
// array elements of u64 below 2^63 (which are written with a sign that the reader of arrays refuses).
class RandomMessages {
 public:
  tn::message next(unsigned depth = 0) {
    tn::message msg;
    const auto fields = below(8);
    for (std::uint32_t i = 0; i < fields; ++i)
      addField(msg, depth);
    return msg;
  }

 private:
  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_()) % limit; }
  std::uint32_t number() { return static_cast<std::uint32_t>(random_()) >> below(32); }
  std::uint64_t longNumber() { return random_() >> below(64); }

  std::string text() {
    std::string text(below(20), ' ');
    for (char& c : text)
      c = static_cast<char>(1 + below(255));
    return text;
  }
  std::vector<std::uint8_t> bytes() {
    std::vector<std::uint8_t> bytes(below(20));
    for (auto& b : bytes)
      b = static_cast<std::uint8_t>(random_());
    return bytes;
  }
  tn::Addr6 address() {
    tn::Addr6 address;
    for (auto& b : address)
      b = static_cast<std::uint8_t>(random_());
    return address;
  }
  template <typename Make>
  auto list(Make make) {
    std::vector<decltype(make())> values;
    for (std::uint32_t n = below(5); n > 0; --n)
      values.push_back(make());
    return values;
  }

  void addField(tn::message& msg, unsigned depth) {
    const std::uint32_t id = number() & tn::idMask;
    switch (below(depth < 3 ? 14 : 12)) {
      case 0:
        msg.insert(tn::bool_id(id), below(2) == 1);
        break;
      case 1:
        msg.insert(tn::u32_id(id), number());
        break;
      case 2:
        msg.insert(tn::u64_id(id), longNumber());
        break;
      case 3:
        msg.insert(tn::addr6_id(id), address());
        break;
      case 4:
        msg.insert(tn::string_id(id), text());
        break;
      case 5:
        msg.insert(tn::raw_id(id), bytes());
        break;
      case 6:
        msg.insert_vector(tn::bool_array_id(id), list([this] { return static_cast<std::uint8_t>(below(2)); }));
        break;
      case 7:
        msg.insert_vector(tn::u32_array_id(id), list([this] { return number(); }));
        break;
      case 8:
        msg.insert_vector(tn::u64_array_id(id), list([this] { return longNumber() >> 1; }));
        break;
      case 9:
        msg.insert_vector(tn::addr6_array_id(id), list([this] { return address(); }));
        break;
      case 10:
        msg.insert_vector(tn::string_array_id(id), list([this] { return text(); }));
        break;
      case 11:
        msg.insert_vector(tn::raw_array_id(id), list([this] { return bytes(); }));
        break;
      case 12:
        msg.insert(tn::message_id(id), next(depth + 1));
        break;
      default:
        msg.insert_vector(tn::message_array_id(id), list([this, depth] { return next(depth + 1); }));
        break;
    }
  }

  std::mt19937_64 random_{42};
};

TEST(JsonForm, WhatIsWrittenIsReadBack) {
  RandomMessages messages;
  for (int round = 0; round < 3000; ++round) {
    const tn::message msg = messages.next();
    std::string text;
    ASSERT_TRUE(writeJson(text, msg.flattened()));
    const Read back = read(text);
    ASSERT_TRUE(back.good) << text;
    ASSERT_EQ(back.msg, msg) << text;
  }
}

// What does not fit into a field is left out, and the rest is read.
TEST(JsonReader, ValuesLargerThanAFieldAreLeftOut) {
  const auto many = [](const std::string& piece, int count) {
    std::string text;
    while (count-- > 0)
      text += piece;
    return text;
  };
  for (const int count : {65535, 65536}) {
    const bool fits = count == 65535;
    const std::string ones = "[" + many("1,", count) + "]";
    EXPECT_EQ(read("{s1:'" + many("x", count) + "',u2:1}").msg.has(tn::string_id(1)), fits);
    EXPECT_EQ(read("{r1:" + ones + ",u2:1}").msg.has(tn::raw_id(1)), fits);
    EXPECT_EQ(read("{U1:" + ones + ",u2:1}").msg.has(tn::u32_array_id(1)), fits);
    EXPECT_EQ(read("{B1:" + ones + ",u2:1}").msg.has(tn::bool_array_id(1)), fits);
    EXPECT_EQ(read("{Q1:" + ones + ",u2:1}").msg.has(tn::u64_array_id(1)), fits);
    EXPECT_EQ(read("{R1:[[]," + ones + "],u2:1}").msg.has(tn::raw_array_id(1)), fits);
    EXPECT_EQ(read("{S1:['a','" + many("x", count) + "'],u2:1}").msg.has(tn::string_array_id(1)), fits);
    EXPECT_EQ(read("{m1:{s1:'" + many("x", count - 8) + "'},u2:1}").msg.has(tn::message_id(1)), fits);
    EXPECT_EQ(read("{M1:[{s1:'" + many("x", count - 8) + "'}],u2:1}").msg.has(tn::message_array_id(1)), fits);
    const Read r = read("{m1:{r1:" + ones + ",u3:3},u2:1}");
    EXPECT_TRUE(r.good);
    EXPECT_EQ(r.msg.get(tn::u32_id(2)), 1U);
  }
}

// The last one counts, in the place of the first, nested messages included, however many there are.
TEST(JsonReader, KeysThatComeTwice) {
  EXPECT_EQ(read("{u1:1,s1:'a',u1:70000,u2:2}").msg, read("{u1:70000,s1:'a',u2:2}").msg);
  EXPECT_EQ(read("{m1:{u1:1,s1:'a',u1:70000}}").msg, read("{m1:{u1:70000,s1:'a'}}").msg);
  EXPECT_EQ(read("{M1:[u1:1,u1:2},{}]}").msg, read("{M1:[{u1:2},{}]}").msg);
  std::string text;
  for (int i = 0; i < 12000; ++i)
    text += "u" + std::to_string(i % 6000) + ":1,";
  const Read r = read("{" + text + "m1:{" + text + "}}");
  EXPECT_TRUE(r.good);
  std::size_t fields = 0;
  r.msg.forEach([&fields](const auto&) { ++fields; });
  EXPECT_EQ(fields, 6001U);
}

// No input makes the reader look beyond its NUL; the one endless case is left out.
TEST(JsonForm, RandomTextsAreReadToAnEnd) {
  std::mt19937 random(3);
  const std::string alphabet = "bsuqamrBUQSRMx01fF{}[]':,\\ -+\t\nnr";
  for (int round = 0; round < 100000; ++round) {
    std::string text;
    for (std::uint32_t n = static_cast<std::uint32_t>(random()) % 30; n > 0; --n)
      text += alphabet[random() % alphabet.size()];
    ASSERT_LE(read(text).at, text.size()) << text;
  }
}

}  // namespace
