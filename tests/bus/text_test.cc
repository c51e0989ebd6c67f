#include "platform/bus/text.h"

#include <gtest/gtest.h>

#include "tests/bus/message_samples.h"

namespace {

using tn::message;
using namespace tn::test;
using namespace std::string_literals;

message reading(std::string_view text) {
  message m;
  const auto error = tn::readText(text, m);
  EXPECT_FALSE(error) << text << ": expected " << error->expected;
  return m;
}

// Why the text is refused; nothing when it is read.
std::optional<tn::TextError> refusalOf(std::string_view text) {
  message m = inner();
  auto error = tn::readText(text, m);
  EXPECT_TRUE(!error || m.empty()) << text;
  return error;
}

TEST(WriteText, WritesEveryType) {
  EXPECT_EQ(tn::writeText(sample()),
            "{b1:1,u2:305419896,q3:1234605616436508552,a4:[32,1,13,184,4,5,6,7,8,9,10,11,12,13,14,255],s5:'abc',"
            "m6:{b1:1},r7:[0,255],B8:[1,0,1],U9:[1,4294967294],Qa:[1,9223372036854775808],"
            "Ab:[[32,1,13,184,4,5,6,7,8,9,10,11,12,13,14,255],[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]],Sc:['','xy'],"
            "Md:[{},{b1:1}],Re:[[9],[]]}");
  EXPECT_EQ(tn::writeText(message()), "{}");
}

TEST(WriteText, WritesUnsignedNumbers) {
  message m;
  m.insert(tn::u64_id(0xff0007), 0xffffffffffffffff);
  m.insert(tn::u32_id(0), 0xffffffff);
  EXPECT_EQ(tn::writeText(m), "{qff0007:18446744073709551615,u0:4294967295}");
}

std::string escaped(std::string_view value) {
  message m;
  m.insert(tn::string_id(1), value);
  const std::string text = tn::writeText(m);
  return text.substr(4, text.size() - 5);
}

TEST(WriteText, EscapesWhatATerminalWouldObey) {
  EXPECT_EQ(escaped("it's"), R"('it\'s')");
  EXPECT_EQ(escaped("a\\b"), R"('a\\b')");
  EXPECT_EQ(escaped("\n\r\t"), R"('\n\r\t')");
  EXPECT_EQ(escaped("a\0001"s), R"('a\01')");
  EXPECT_EQ(escaped("\x01\x1b[2J\x7f"), R"('\x01\x1b[2J\x7f')");
  EXPECT_EQ(escaped("\"$`"), R"('"$`')");
}

TEST(WriteText, LeavesUtf8AndEscapesOtherBytes) {
  EXPECT_EQ(escaped("\u00e4\u20ac\U0001F600"), "'\u00e4\u20ac\U0001F600'");
  EXPECT_EQ(escaped("\u00a0"), "'\u00a0'");
  EXPECT_EQ(escaped("\u0085"), R"('\xc2\x85')");  // a control character
  EXPECT_EQ(escaped("\xe4"
                    "b"),
            R"('\xe4b')");                                                  // cut short by a letter
  EXPECT_EQ(escaped("\xe2\x82"), R"('\xe2\x82')");                          // and by the end
  EXPECT_EQ(escaped("\xc0\xaf\xe0\x80\xaf"), R"('\xc0\xaf\xe0\x80\xaf')");  // longer than needed
  EXPECT_EQ(escaped("\xed\xa0\x80"), R"('\xed\xa0\x80')");                  // half of a surrogate pair
  EXPECT_EQ(escaped("\xf4\x90\x80\x80\xf5\x80\x80\x80\xff"), R"('\xf4\x90\x80\x80\xf5\x80\x80\x80\xff')");
  EXPECT_EQ(escaped("\x80"), R"('\x80')");
}

TEST(ReadText, ReadsEveryType) {
  EXPECT_EQ(reading(tn::writeText(sample())), sample());
}

TEST(ReadText, ReadsTheExamples) {
  const message m = reading("{u1:5,b2:1,s3:'it\\'s',Uff0001:[68,1],m5:{b0:0},r4:[1,2]}");
  EXPECT_EQ(m.get(tn::u32_id(1)), 5U);
  EXPECT_EQ(m.get(tn::bool_id(2)), true);
  EXPECT_EQ(m.get(tn::string_id(3)), "it's");
  EXPECT_EQ(m.get(tn::field::destination), (std::vector<std::uint32_t>{68, 1}));
  EXPECT_EQ(m.get(tn::message_id(5))->get(tn::bool_id(0)), false);
  EXPECT_EQ(tn::writeText(m), "{u1:5,b2:1,s3:'it\\'s',Uff0001:[68,1],m5:{b0:0},r4:[1,2]}");
}

TEST(ReadText, TakesSpacesBetweenTheParts) {
  const std::string_view loose = " {\tu1 : 5 ,\n b2: 1 , r3 : [ 1 , 2 ] , S4:[ 'a' , 'b' ] , m5 : { } , U6:[ ] }\r\n";
  EXPECT_EQ(tn::writeText(reading(loose)), "{u1:5,b2:1,r3:[1,2],S4:['a','b'],m5:{},U6:[]}");
}

TEST(ReadText, TakesHexadecimalNumbers) {
  EXPECT_EQ(tn::writeText(reading("{u1:0xfe0102,q2:0XFFFFFFFFFFFFFFFF,r3:[0xff,0x0],uABCdef:7}")),
            "{u1:16646402,q2:18446744073709551615,r3:[255,0],uabcdef:7}");
}

TEST(ReadText, UndoesEveryEscape) {
  EXPECT_EQ(reading(R"({s1:'\\\'\n\r\t\0\x00\xfF\x7f0'})").get(tn::string_id(1)),
            "\\'\n\r\t\0\0\xff\x7f"
            "0"s);
}

struct Refusal {
  std::string_view text;
  std::size_t position;
  std::string_view expected;
};

TEST(ReadText, SaysWhatItExpectedAndWhere) {
  constexpr std::string_view letter = "a type letter (one of buqasmrBUQASMR)";
  constexpr std::string_view escapes = "one of the escapes \\\\ \\' \\n \\r \\t \\0 \\xNN";
  constexpr std::string_view controls = "control characters written as \\n, \\r, \\t, \\0 or \\xNN";
  const Refusal refusals[] = {
      {"", 0, "'{'"},
      {"  ", 2, "'{'"},
      {"u1:5}", 0, "'{'"},
      {"{", 1, letter},
      {"{,}", 1, letter},
      {"{u1:5,}", 6, letter},
      {"{u1:5,,u2:5}", 6, letter},
      {"{x1:5}", 1, letter},
      {"{\"u1\":5}", 1, letter},
      {"{u}", 2, "a field number in hexadecimal"},
      {"{u 1:5}", 2, "a field number in hexadecimal"},
      {"{u1000000:5}", 2, "a field number of at most 6 digits"},
      {"{u1 5}", 4, "':'"},
      {"{u1}", 3, "':'"},
      {"{u1:}", 4, "a number"},
      {"{u1:-1}", 4, "a number"},
      {"{u1:+1}", 4, "a number"},
      {"{u1:0x}", 4, "a number"},
      {"{u1:0x-1}", 4, "a number"},
      {"{u1:4294967296}", 4, "a number up to 4294967295"},
      {"{q1:18446744073709551616}", 4, "a number up to 18446744073709551615"},
      {"{r1:[256]}", 5, "a number up to 255"},
      {"{u1:5", 5, "',' or '}'"},
      {"{u1:5 5}", 6, "',' or '}'"},
      {"{u1:5x}", 5, "',' or '}'"},
      {"{u1:5,u2:3,u1:6}", 11, "a key that is not there yet"},
      {"{b1:2}", 4, "0 or 1"},
      {"{b1:true}", 4, "0 or 1"},
      {"{b1:10}", 5, "',' or '}'"},
      {"{B1:[1,2]}", 7, "0 or 1"},
      {"{s1:abc}", 4, "a string in single quotes"},
      {"{s1:\"abc\"}", 4, "a string in single quotes"},
      {"{s1:'abc}", 9, "a closing quote"},
      {"{s1:'abc\\'}", 11, "a closing quote"},
      {"{s1:'a\\", 6, escapes},
      {"{s1:'a\\u'}", 6, escapes},
      {"{s1:'\\x4'}", 6, "two hexadecimal digits behind \\x"},
      {"{s1:'\\x", 6, "two hexadecimal digits behind \\x"},
      {"{s1:'a\nb'}", 6, controls},
      {std::string_view("{s1:'\0'}", 8), 5, controls},
      {std::string_view("{u1:5}\0", 7), 6, "the end of the text"},
      {std::string_view("{\0}", 3), 1, letter},
      {"{a1:[1,2,3]}", 4, "the 16 bytes of an address"},
      {"{a1:[1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17]}", 4, "the 16 bytes of an address"},
      {"{A1:[[],[]]}", 5, "the 16 bytes of an address"},
      {"{r1:5}", 4, "'['"},
      {"{r1:[1,]}", 7, "a number"},
      {"{r1:[,1]}", 5, "a number"},
      {"{r1:[1 2]}", 7, "',' or ']'"},
      {"{r1:[1", 6, "',' or ']'"},
      {"{R1:[1]}", 5, "'['"},
      {"{S1:[a]}", 5, "a string in single quotes"},
      {"{m1:5}", 4, "'{'"},
      {"{m1:{u1:x}}", 8, "a number"},
      {"{M1:[u1:5}]}", 5, "'{'"},
      {"{M1:[{}{}]}", 7, "',' or ']'"},
      {"{u1:5}}", 6, "the end of the text"},
      {"{} {}", 3, "the end of the text"},
  };
  for (const Refusal& refusal : refusals) {
    const auto error = refusalOf(refusal.text);
    ASSERT_TRUE(error) << refusal.text;
    EXPECT_EQ(error->expected, refusal.expected) << refusal.text;
    EXPECT_EQ(error->position, refusal.position) << refusal.text;
  }
}

TEST(ReadText, KeepsTheSameNumberOfDifferentTypesApart) {
  EXPECT_EQ(tn::writeText(reading("{u1:5,s1:'a',U1:[2]}")), "{u1:5,s1:'a',U1:[2]}");
}

std::string nested(unsigned levels) {
  std::string text;
  for (unsigned i = 0; i < levels; ++i)
    text += "{m1:";
  text += "{}";
  return text + std::string(levels, '}');
}

TEST(ReadText, BoundsTheNesting) {
  EXPECT_FALSE(refusalOf(nested(message::maxNesting)));
  const auto deeper = refusalOf(nested(message::maxNesting + 1));
  ASSERT_TRUE(deeper);
  EXPECT_EQ(deeper->expected, "at most 32 messages within one another");
  EXPECT_EQ(deeper->position, 4U * 33);
  EXPECT_TRUE(refusalOf(nested(100000)));
}

TEST(ReadText, BoundsSizes) {
  const std::string largest(65535, 'a');
  EXPECT_FALSE(refusalOf("{s1:'" + largest + "'}"));
  const auto tooLong = refusalOf("{s1:'" + largest + "a'}");
  ASSERT_TRUE(tooLong);
  EXPECT_EQ(tooLong->expected, "a value that a message has room for");
  EXPECT_EQ(tooLong->position, 4U);
  EXPECT_TRUE(refusalOf("{m1:{s1:'" + largest + "'}}"));
  EXPECT_TRUE(refusalOf("{S1:['" + largest + "a']}"));

  std::string list = "{B1:[0";
  for (int i = 1; i < 65535; ++i)
    list += ",1";
  EXPECT_FALSE(refusalOf(list + "]}"));
  const auto tooMany = refusalOf(list + ",1]}");
  ASSERT_TRUE(tooMany);
  EXPECT_EQ(tooMany->expected, "at most 65535 values in a list");
}

TEST(Text, ReadsBackWhateverWasWritten) {
  std::mt19937 random(11);
  for (int round = 0; round < 1000; ++round) {
    const message m = randomMessage(random, 0);
    const std::string text = tn::writeText(m);
    ASSERT_EQ(reading(text), m) << text;
    for (const char c : text)
      ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) << text;
  }
}

TEST(Text, ReadsBackEveryByteInAString) {
  for (unsigned first = 0; first < 256; ++first) {
    for (unsigned second = 0; second < 256; ++second) {
      message m;
      m.insert(tn::string_id(1), std::string{static_cast<char>(first), static_cast<char>(second), '1'});
      ASSERT_EQ(reading(tn::writeText(m)), m);
    }
  }
}

TEST(Text, SurvivesMutations) {
  std::mt19937 random(12);
  const std::string whole = tn::writeText(sample());
  constexpr std::string_view pieces = "{}[]',:\\x0u1bsM ";
  unsigned good = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text = whole;
    for (auto left = random() % 4; left > 0; --left) {
      const std::size_t at = random() % text.size();
      if (random() % 2 == 0) {
        text[at] = pieces[random() % pieces.size()];
      } else {
        text.erase(at, random() % 5);
      }
    }
    message m;
    const auto error = tn::readText(text, m);
    if (error) {
      ASSERT_LE(error->position, text.size());
      ASSERT_FALSE(error->expected.empty());
      continue;
    }
    ++good;
    ASSERT_EQ(reading(tn::writeText(m)), m);
  }
  EXPECT_GT(good, 1000U);
}

TEST(Tree, ShowsEveryType) {
  message m = sample();
  m.insert(tn::raw_id(0x10), Bytes(18, 0xab));
  m.insert(tn::raw_id(0x11), Bytes{});
  m.insert(tn::bool_id(0x12), false);
  m.insert(tn::message_id(0x13), message());
  m.insert_vector(tn::message_array_id(0x14), {});
  EXPECT_EQ(tn::writeTree(m), R"(b1: yes
u2: 305419896
q3: 1234605616436508552
a4: 2001:db8:405:607:809:a0b:c0d:eff
s5: 'abc'
m6:
  b1: yes
r7: 00 ff
B8: [1,0,1]
U9: [1,4294967294]
Qa: [1,9223372036854775808]
Ab:
  [0]: 2001:db8:405:607:809:a0b:c0d:eff
  [1]: ::
Sc: ['','xy']
Md:
  [0]: {}
  [1]:
    b1: yes
Re:
  [0]: 09
  [1]: []
r10: 18 bytes
  ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab
  ab ab
r11: []
b12: no
m13: {}
M14: []
)");
  EXPECT_EQ(tn::writeTree(message()), "");
}

TEST(Tree, IsIndentedAsAWhole) {
  message m;
  m.insert(tn::message_id(1), inner());
  EXPECT_EQ(tn::writeTree(m, 3), "   m1:\n     b1: yes\n");
}

TEST(PrintableText, EscapesWhatATerminalWouldObey) {
  EXPECT_EQ(tn::printableText("it's a\\b \u20ac\x1b[1m\n\xff"), "it's a\\b \u20ac\\x1b[1m\\n\\xff");
  EXPECT_EQ(tn::printableText(""), "");
}

TEST(Tree, NamesTheHeaderFields) {
  message m;
  m.insert_vector(tn::field::destination, std::vector<std::uint32_t>{68, 1});
  m.insert_vector(tn::field::sender, std::vector<std::uint32_t>{});
  m.insert(tn::field::command, tn::command::addObj);
  m.insert(tn::field::policies, 80);
  m.insert(tn::field::isReply, true);
  m.insert(tn::field::errorCode, tn::error::noSuchService);
  m.insert(tn::field::errorText, "no such\x1b service");
  m.insert(tn::string_id(tn::field::command.id), "another type");
  message nested;
  nested.insert(tn::field::command, 0x30003);
  nested.insert(tn::field::objectNumber, 7);
  m.insert(tn::message_id(1), nested);
  EXPECT_EQ(tn::writeTree(m), R"(Uff0001 destination: 68/1
Uff0002 sender:
uff0007 command: 0xfe0109 addObj
uff000b policies: 80
bff0021 reply: yes
uff0022 error: 0xfe0006
sff0023 error text: 'no such\x1b service'
sff0007: 'another type'
m1:
  uff0007 command: 0x30003
  ufe0001 object number: 7
)");
}

TEST(Tree, NamesTheFieldsOfAMessage) {
  static constexpr tn::FieldName address[] = {{0x08000001, "address"}};
  static constexpr tn::FieldNames addresses{address};
  static constexpr tn::FieldName first[] = {{0x20000001, "title"}, {0xA8000006, "allowed", &addresses}};
  static constexpr tn::FieldNames firstKind{first};
  static constexpr const tn::FieldNames* kinds[] = {nullptr, &firstKind};
  static constexpr tn::FieldName others[] = {{0x20000001, "name"}, {0x28000002, "inside", &addresses}};
  static constexpr tn::FieldNames names{others, kinds};
  const auto tree = [&](std::string_view text) {
    message m;
    EXPECT_FALSE(tn::readText(text, m));
    return tn::writeTree(m, 0, &names);
  };
  EXPECT_EQ(tree("{s1:'x',s2:'y',m2:{u1:5,u2:6},uff0007:1}"),
            "s1 name: 'x'\ns2: 'y'\nm2 inside:\n  u1 address: 5\n  u2: 6\nuff0007 command: 0x1\n");
  EXPECT_EQ(tree("{ufe0001:1,s1:'x',M6:[{u1:5},{}]}"),
            "ufe0001 object number: 1\ns1 title: 'x'\nM6 allowed:\n  [0]:\n    u1 address: 5\n  [1]: {}\n");
  EXPECT_EQ(tree("{ufe0001:2,s1:'x',M6:[{u1:5}]}"), "ufe0001 object number: 2\ns1 name: 'x'\nM6:\n  [0]:\n    u1: 5\n");
}

TEST(Commands, HaveNames) {
  EXPECT_EQ(tn::commandNumber("get"), tn::command::get);
  EXPECT_EQ(tn::commandNumber("getAll"), tn::command::getAll);
  EXPECT_EQ(tn::commandNumber("removeObj"), tn::command::removeObj);
  EXPECT_EQ(tn::commandNumber("Get"), std::nullopt);
  EXPECT_EQ(tn::commandNumber(""), std::nullopt);
  EXPECT_EQ(tn::commandName(tn::command::shutdown), "shutdown");
  EXPECT_EQ(tn::commandName(1), "");
  unsigned named = 0;
  for (std::uint32_t number = 0xfe0000; number <= 0xfe0200; ++number) {
    if (tn::commandName(number).empty()) continue;
    ++named;
    EXPECT_EQ(tn::commandNumber(tn::commandName(number)), number);
  }
  EXPECT_EQ(named, 14U);
}

}  // namespace
