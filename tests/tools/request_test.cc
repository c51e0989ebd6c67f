#include "tools/request.h"

#include <cstdio>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/bus/text.h"
#include "platform/unique_fd.h"

namespace {

using tool::Arguments;

Arguments addressed() {
  Arguments arguments;
  arguments.path = {68, 1};
  arguments.command = 0xfe0102;
  return arguments;
}

// The request in the line form, or what is wrong.
std::string request(std::string_view text, const Arguments& arguments = addressed()) {
  tn::message msg;
  const auto error = tool::buildRequest(arguments, text, msg);
  return error ? *error : tn::writeText(msg);
}

std::string input(int fd) {
  std::string text = "before";
  const auto error = tool::readWholeInput(fd, text);
  return error ? *error : text;
}

TEST(Request, IsTheMessageAddressed) {
  EXPECT_EQ(request("{u1:5, s2:'a'}"), "{u1:5,s2:'a',uff0007:16646402,Uff0001:[68,1]}");
}

TEST(Request, ItsAddressIsTheCommandLines) {
  EXPECT_EQ(request("{uff0007:1,Uff0001:[9,9,9]}"), "{uff0007:16646402,Uff0001:[68,1]}");
}

TEST(Request, SaysWhereTheMessageIsWrong) {
  EXPECT_EQ(request("{u1:5;}"), "the message is wrong at character 6: expected ',' or '}'");
}

TEST(Request, CarriesNoDescriptor) {
  EXPECT_EQ(request("{uff0015:1}"), "a message from here cannot carry a descriptor");
  EXPECT_EQ(request("{sff0015:'x'}"), "{sff0015:'x',uff0007:16646402,Uff0001:[68,1]}");
}

TEST(Request, HasToFitTheBus) {
  std::string text = "{s99:''";
  for (int i = 0; i < 64; ++i)
    text.append(",s").append(std::to_string(i)).append(":'").append(65529, 'x').append("'");
  // 64 * 65535 + 5 bytes and the magic leave 57 bytes, room for a command and a path of two.
  text += "}";
  EXPECT_EQ(request(text).substr(0, 12), "{s99:'',s0:'");
  Arguments far = addressed();
  far.path.assign(20, 1);
  EXPECT_EQ(request(text, far), "the message is larger than the bus carries");
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
