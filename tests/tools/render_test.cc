#include "tools/render.h"

#include <gtest/gtest.h>
#include <limits>

#include "platform/bus/text.h"
#include "tools/json.h"
#include "tools/names.h"
#include "tools/table.h"
#include "tools/units.h"

namespace {

using tn::message;
using tool::Table;

message reading(std::string_view text) {
  message m;
  EXPECT_FALSE(tn::readText(text, m)) << text;
  return m;
}

TEST(RenderAnswer, LeavesOutWhatOnlyCarriedIt) {
  const message answer = reading("{Uff0001:[1000],Uff0002:[68,1],uff0020:7,bff0021:1,u1:5,m2:{s3:'x'}}");
  EXPECT_EQ(tn::writeText(tool::withoutCarriage(answer)), "{u1:5,m2:{s3:'x'}}");
  EXPECT_EQ(tn::writeText(tool::withoutCarriage(reading("{bff0021:1}"))), "{}");
}

TEST(RenderList, IsATable) {
  const message answer = reading("{u1:4,M4:[{u2:0,s3:'busd'},{u2:68,s3:'sermgr'},{u2:1000,s3:'a\\x1bb'}]}");
  EXPECT_EQ(tool::renderList(answer, 0), "   0  busd\n  68  sermgr\n1000  a\\x1bb\n");
  EXPECT_EQ(tool::renderList(message(), 0), "");
  EXPECT_EQ(tool::renderList(reading("{M4:[{}]}"), 0), "0\n");
}

TEST(RenderStatistics, ShowsTheTotalsAndEachProgram) {
  const message answer = reading(
      "{u1:5,q5:12,q6:3456,q7:1,q8:2,q9:3,q10:4,M4:["
      "{u2:68,s3:'sermgr',q5:10,q6:1000000,q7:0,qa:5,qc:20,qd:21},{u2:1000,s3:'tn',q5:2}],qa:77,qb:88}");
  EXPECT_EQ(tool::renderStatistics(answer, 0, false), R"(frames: 12
bytes: 3456
bounced: 1
dropped: 2
unobserved: 3
queued bytes: 77
unfinished bytes: 88

  id  name    sent    bytes  bounced  received  bytes  queued
  68  sermgr    10  1000000        0        20     21       5
1000  tn         2        0        0         0      0       0
)");
}

Table someTable() {
  Table table{{"name", Table::Column::cut}, {"port", Table::Column::number}, {"what it is about", Table::Column::cut}};
  table.add({"http", "80", "a server for everyone who asks"});
  table.add({"\xc3\xa4\xc3\xb6\xc3\xbc", "8443", ""});
  return table;
}

TEST(Table, AlignsItsColumns) {
  EXPECT_EQ(someTable().text(0, false),
            "name  port  what it is about\n"
            "http    80  a server for everyone who asks\n"
            "\xc3\xa4\xc3\xb6\xc3\xbc   8443\n");
  EXPECT_EQ(someTable().text(80, false), someTable().text(0, false));
  EXPECT_EQ(someTable().text(42, false), someTable().text(0, false));
}

TEST(Table, CutsTextsOnANarrowTerminal) {
  EXPECT_EQ(someTable().text(30, false),
            "name  port  what it is about\n"
            "http    80  a server for ev...\n"
            "\xc3\xa4\xc3\xb6\xc3\xbc   8443\n");
}

TEST(Table, BecomesBlocksOnAVeryNarrowOne) {
  EXPECT_EQ(someTable().text(20, false),
            "name              http\n"
            "port              80\n"
            "what it is about  a server for everyone who asks\n"
            "\n"
            "name              \xc3\xa4\xc3\xb6\xc3\xbc\n"
            "port              8443\n"
            "what it is about\n");
}

TEST(Table, HasBoldHeadingsWhereThatIsWanted) {
  const std::string text = someTable().text(0, true);
  EXPECT_EQ(text.substr(0, text.find('\n')), "\x1b[1mname  port  what it is about\x1b[0m");
  EXPECT_NE(someTable().text(20, true).find("\x1b[1mname"), std::string::npos);
  EXPECT_EQ(someTable().text(0, false).find('\x1b'), std::string::npos);
}

TEST(Table, WithoutRowsIsItsHeadings) {
  const Table table{{"a", Table::Column::text}, {"b", Table::Column::number}};
  EXPECT_TRUE(table.isEmpty());
  EXPECT_EQ(table.text(0, false), "a  b\n");
}

TEST(Units, AreForPeople) {
  EXPECT_EQ(tool::durationText(0), "0 ms");
  EXPECT_EQ(tool::durationText(999), "999 ms");
  EXPECT_EQ(tool::durationText(59999), "59 s");
  EXPECT_EQ(tool::durationText(60000), "1 min");
  EXPECT_EQ(tool::durationText(11520000), "3 h 12 min");
  EXPECT_EQ(tool::durationText(97200000), "1 d 3 h");
  EXPECT_EQ(tool::bytesText(0), "0");
  EXPECT_EQ(tool::bytesText(1023), "1023");
  EXPECT_EQ(tool::bytesText(1024), "1.0K");
  EXPECT_EQ(tool::bytesText(10239), "9.9K");
  EXPECT_EQ(tool::bytesText(10240), "10K");
  EXPECT_EQ(tool::bytesText(1048575), "1023K");
  EXPECT_EQ(tool::bytesText(1048576), "1.0M");
  EXPECT_EQ(tool::bytesText(std::numeric_limits<std::uint64_t>::max()), "15E");
  EXPECT_EQ(tool::timeText(0), "1970-01-01 00:00:00.000");
  EXPECT_EQ(tool::timeText(1795298588123), "2026-11-21 22:03:08.123");
  EXPECT_EQ(tool::secondsText(12045), "12.045");
}

TEST(Units, AddressesOfIPv4AreWrittenAsSuch) {
  EXPECT_EQ(tool::addressText({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255, 10, 0, 0, 1}), "10.0.0.1");
  EXPECT_EQ(tool::addressText({0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), "fe80::1");
  EXPECT_EQ(tool::addressText({}), "::");
}

TEST(Json, KnowsEveryType) {
  EXPECT_EQ(tool::writeJson(reading("{b1:1,u2:4294967295,q3:18446744073709551615,a4:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],"
                                    "s5:'x',m6:{u1:1},r7:[1,255]}"),
                            nullptr),
            R"({"b1":true,"u2":4294967295,"q3":18446744073709551615,"a4":"::1","s5":"x","m6":{"u1":1},"r7":"01ff"})");
  EXPECT_EQ(tool::writeJson(reading("{B1:[1,0],U2:[1],Q3:[],A4:[],S5:['a','b'],M6:[{},{u1:1}],R7:[[],[16]]}"), nullptr),
            R"({"B1":[true,false],"U2":[1],"Q3":[],"A4":[],"S5":["a","b"],"M6":[{},{"u1":1}],"R7":["","10"]})");
  EXPECT_EQ(tool::writeJson(message(), nullptr), "{}");
}

TEST(Json, EscapesWhatATextMayHold) {
  message m;
  m.insert(tn::string_id(1), std::string_view("\"\\\n\x01\x7f\xc3\xa4\xff\xc3\xed\xa0\x80", 12));
  EXPECT_EQ(tool::writeJson(m, nullptr),
            "{\"s1\":\"\\\"\\\\\\n\\u0001\\u007f\xc3\xa4\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\"}");
}

TEST(Json, HoldsNothingThatIsNoUtf8) {
  // What begins with F8 to FF looks like a character when only its last bits are looked at.
  for (const char* wrong : {"\xf8\x90\x80\x80", "\xff\x90\x80\x80", "\xf5\x80\x80\x80", "\xf4\x90\x80\x80"}) {
    std::string out;
    tool::appendJsonText(out, wrong);
    EXPECT_EQ(out, R"("\ufffd\ufffd\ufffd\ufffd")");
  }
  std::string out;
  tool::appendJsonText(out, "\xf4\x8f\xbf\xbf");
  EXPECT_EQ(out, "\"\xf4\x8f\xbf\xbf\"");
}

TEST(Json, NamesTheFields) {
  const auto names = tool::commandOf(tool::handlerNamed("sysd", "status"), tn::command::getAll)->out;
  EXPECT_EQ(tool::writeJson(reading("{M1:[{ufe0001:1,s1:'box',s9:'?'},{ufe0001:2,q1:5}],bff0021:1,uff0020:1}"), names),
            R"({"objects":[{"number":1,"host":"box","s9":"?"},{"number":2,"all":5}],"reply":true,"request-number":1})");
}

}  // namespace
