#include "tools/request.h"

#include <cstdio>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/unique_fd.h"
#include "tools/names.h"

namespace {

using Words = std::vector<std::string_view>;

// The message of the words in the line form, or what is wrong; with the names of a user.
std::string reading(const Words& words) {
  tn::message msg;
  const auto names = tool::commandOf(tool::handlerNamed("userd", "users"), tn::command::addObj)->in;
  const auto error = tool::readMessage(words, names, msg);
  return error ? *error : tn::writeText(msg);
}

std::string addressed(std::string_view text, const std::vector<std::uint32_t>& path = {68, 1}) {
  tn::message msg;
  EXPECT_FALSE(tn::readText(text, msg));
  const auto error = tool::address(msg, path, 0xfe0102);
  return error ? *error : tn::writeText(msg);
}

std::string input(int fd) {
  std::string text = "before";
  const auto error = tool::readWholeInput(fd, text);
  return error ? *error : text;
}

TEST(Request, IsTheMessageAddressed) {
  EXPECT_EQ(addressed("{u1:5, s2:'a'}"), "{u1:5,s2:'a',uff0007:16646402,Uff0001:[68,1]}");
}

TEST(Request, ItsAddressIsTheCommandLines) {
  EXPECT_EQ(addressed("{uff0007:1,Uff0001:[9,9,9]}"), "{uff0007:16646402,Uff0001:[68,1]}");
}

TEST(Request, CarriesNoDescriptor) {
  EXPECT_EQ(addressed("{uff0015:1}"), "a message from here cannot carry a descriptor");
  EXPECT_EQ(addressed("{sff0015:'x'}"), "{sff0015:'x',uff0007:16646402,Uff0001:[68,1]}");
}

TEST(Request, HasToFitTheBus) {
  std::string text = "{s99:''";
  for (int i = 0; i < 64; ++i)
    text.append(",s").append(std::to_string(i)).append(":'").append(65529, 'x').append("'");
  // 64 * 65535 + 5 bytes and the magic leave 57 bytes, room for a command and a path of two.
  text += "}";
  EXPECT_EQ(addressed(text).substr(0, 12), "{s99:'',s0:'");
  EXPECT_EQ(addressed(text, std::vector<std::uint32_t>(20, 1)), "the message is larger than the bus carries");
}

TEST(Message, IsTheLineFormOrFields) {
  EXPECT_EQ(reading({}), "{}");
  EXPECT_EQ(reading({"{u1:5, s2:'a'}"}), "{u1:5,s2:'a'}");
  EXPECT_EQ(reading({"{u1:5;}"}), "the message is wrong at character 6: expected ',' or '}'");
  EXPECT_EQ(reading({"{u1:5}", "name=bob"}), "behind a message nothing else may stand");
  EXPECT_EQ(reading({"name=bob", "hidden=no"}), "{s1:'bob',b1c:0}");
  EXPECT_EQ(reading({"u1"}), "\"u1\" is neither a message nor FIELD=VALUE");
}

TEST(Fields, HaveValuesOfTheirType) {
  EXPECT_EQ(reading({"name=it's=a\\b", "disabled=yes", "policies=0x10", "number=7"}),
            "{s1:'it\\'s=a\\\\b',bfe000a:1,ub:16,ufe0001:7}");
  EXPECT_EQ(reading({"full-name="}), "{s11:''}");
  EXPECT_EQ(reading({"q5=18446744073709551615", "a6=10.0.0.1", "a7=::1", "r8=[1,2]", "m9={u1:5}"}),
            "{q5:18446744073709551615,a6:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,1],"
            "a7:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],r8:[1,2],m9:{u1:5}}");
  EXPECT_EQ(reading({"B1=yes,no", "U2=1,2", "Q3=", "S4=a,b c", "A5=::1", "M6=[{u1:5},{}]", "R7=[[1],[]]", "U8=[3]"}),
            "{B1:[1,0],U2:[1,2],Q3:[],S4:['a','b c'],A5:[[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1]],M6:[{u1:5},{}],"
            "R7:[[1],[]],U8:[3]}");
}

TEST(Fields, HaveEveryElementOfAList) {
  EXPECT_EQ(reading({"S4=a,", "S5=,", "S6="}), "{S4:['a',''],S5:['',''],S6:[]}");
  EXPECT_EQ(reading({"U1=1,"}), "field U1 needs a number from 0 to 4294967295, not \"1,\"");
}

TEST(Fields, SayWhatIsWrong) {
  EXPECT_EQ(reading({"nam=x"}), "no field is called \"nam\"");
  EXPECT_EQ(reading({"=x"}), "no field is called \"\"");
  EXPECT_EQ(reading({"x1=x"}), "no field is called \"x1\"");
  EXPECT_EQ(reading({"u1234567=x"}), "no field is called \"u1234567\"");
  EXPECT_EQ(reading({"name=a", "s1=b"}), "field s1 is given twice");
  EXPECT_EQ(reading({"hidden=maybe"}), "field hidden needs yes or no, not \"maybe\"");
  EXPECT_EQ(reading({"number=-1"}), "field number needs a number from 0 to 4294967295, not \"-1\"");
  EXPECT_EQ(reading({"U1=1,x"}), "field U1 needs a number from 0 to 4294967295, not \"1,x\"");
  for (const std::string wrong : {"1.2.3", "12", "beef", "", "::1.", "1.2.3.4:5"}) {
    EXPECT_EQ(reading({"a1=" + wrong}), "field a1 needs an address, not \"" + wrong + "\"");
  }
  EXPECT_EQ(reading({"m1={u1:}"}), "field m1 needs a message such as {u1:5}, not \"{u1:}\"");
  EXPECT_EQ(reading({"m1={},u9:5"}), "field m1 needs a message such as {u1:5}, not \"{},u9:5\"");
  const std::string longName = "name=" + std::string(70000, 'x');
  EXPECT_EQ(reading({longName}).substr(0, 35), "field name needs a shorter text, no");
}

TEST(Input, IsReadToItsEnd) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  const std::string text(20000, 'a');
  ASSERT_EQ(::write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  writer.reset();
  EXPECT_EQ(input(reader.get()), text);
  EXPECT_EQ(input(reader.get()), "");
}

TEST(Input, SaysWhyItCannotBeRead) {
  EXPECT_EQ(input(-1), "cannot read the message: Bad file descriptor");
}

TEST(Input, IsBounded) {
  const UniqueFd zeros(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(input(zeros.get()), "the message is longer than any message can be");
}

}  // namespace
