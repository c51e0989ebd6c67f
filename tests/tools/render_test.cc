#include "tools/render.h"

#include <gtest/gtest.h>

#include "platform/bus/text.h"

namespace {

using tn::message;

message reading(std::string_view text) {
  message m;
  EXPECT_FALSE(tn::readText(text, m)) << text;
  return m;
}

TEST(RenderAnswer, LeavesOutWhatOnlyCarriedIt) {
  const message answer = reading("{Uff0001:[1000],Uff0002:[68,1],uff0020:7,bff0021:1,u1:5,m2:{s3:'x'}}");
  EXPECT_EQ(tool::renderAnswer(answer, false), "u1: 5\nm2:\n  s3: 'x'\n");
  EXPECT_EQ(tool::renderAnswer(answer, true), "{u1:5,m2:{s3:'x'}}\n");
  const message nothing = reading("{bff0021:1}");
  EXPECT_EQ(tool::renderAnswer(nothing, false), "");
  EXPECT_EQ(tool::renderAnswer(nothing, true), "{}\n");
}

TEST(RenderError, IsOneLine) {
  EXPECT_EQ(tool::renderError(reading("{uff0022:0xfe0006,sff0023:'no such service'}")),
            "error 0xfe0006: no such service");
  EXPECT_EQ(tool::renderError(reading("{uff0022:0xfe0006}")), "error 0xfe0006");
  EXPECT_EQ(tool::renderError(reading("{uff0022:1,sff0023:'a\\nb\\x1b'}")), "error 0x1: a\\nb\\x1b");
}

TEST(RenderList, IsATableOrLines) {
  const message answer = reading("{u1:4,M4:[{u2:0,s3:'busd'},{u2:68,s3:'sermgr'},{u2:1000,s3:'a\\x1bb'}]}");
  EXPECT_EQ(tool::renderList(answer, false), "   0  busd\n  68  sermgr\n1000  a\\x1bb\n");
  EXPECT_EQ(tool::renderList(answer, true), "{u2:0,s3:'busd'}\n{u2:68,s3:'sermgr'}\n{u2:1000,s3:'a\\x1bb'}\n");
  EXPECT_EQ(tool::renderList(message(), false), "");
  EXPECT_EQ(tool::renderList(reading("{M4:[{}]}"), false), "0\n");
}

TEST(RenderStatistics, ShowsTheTotalsAndEachProgram) {
  const message answer = reading(
      "{u1:5,q5:12,q6:3456,q7:1,q8:2,q9:3,q10:4,M4:["
      "{u2:68,s3:'sermgr',q5:10,q6:1000000,q7:0,qa:5,qc:20,qd:21},{u2:1000,s3:'tn',q5:2}],qa:77,qb:88}");
  EXPECT_EQ(tool::renderStatistics(answer, false), R"(frames: 12
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
  EXPECT_EQ(tool::renderStatistics(answer, true), tn::writeText(answer) + "\n");
}

TEST(RenderObserved, ShowsWholePaths) {
  const message m = reading("{Uff0001:[1],Uff0002:[5],uff0007:0xfe0102}");
  EXPECT_EQ(tool::renderObserved({1003, 68, 0, 12045, m.flattened()}, false), R"(12.045 1003/5 -> 68/1 message, 30 bytes
  Uff0001 destination: 1
  Uff0002 sender: 5
  uff0007 command: 0xfe0102 get
)");
  EXPECT_EQ(tool::renderObserved({68, 1003, 1, 999, m.flattened()}, false).substr(0, 36),
            "0.999 68/1 -> 1003/5 bounced, 30 byt");
  const message control = reading("{u1:4}");
  EXPECT_EQ(tool::renderObserved({1003, 0, 2, 0, control.flattened()}, false),
            "0.000 1003 -> 0 control, 7 bytes\n  u1: 4\n");
  EXPECT_EQ(tool::renderObserved({1, 2, 77, 0, message().flattened()}, false), "0.000 1 -> 2 kind 77, 2 bytes\n");
}

TEST(RenderObserved, TheLineFormIsAMessageItself) {
  const message m = reading("{s1:'\\n'}");
  const std::string line = tool::renderObserved({1003, 68, 0, 12045, m.flattened()}, true);
  EXPECT_EQ(line, "{u1:1003,u2:68,u3:0,q4:12045,m5:{s1:'\\n'}}\n");
  EXPECT_EQ(reading(line).get(tn::u64_id(4)), 12045U);
}

TEST(RenderObserved, SaysWhenAFrameHoldsNoMessage) {
  const std::uint8_t payload[] = {1, 2, 3};
  EXPECT_EQ(tool::renderObserved({1, 2, 0, 5, payload}, false), "0.005 1 -> 2 message, 3 bytes that are no message\n");
  EXPECT_EQ(tool::renderObserved({1, 2, 0, 5, payload}, true), "{u1:1,u2:2,u3:0,q4:5}\n");
}

}  // namespace
