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

TEST(Request, IsTheMessageAddressed) {
  const auto request = tool::buildRequest(addressed(), "{u1:5, s2:'a'}");
  ASSERT_TRUE(request);
  EXPECT_EQ(tn::writeText(*request), "{u1:5,s2:'a',uff0007:16646402,Uff0001:[68,1]}");
}

TEST(Request, ItsAddressIsTheCommandLines) {
  const auto request = tool::buildRequest(addressed(), "{uff0007:1,Uff0001:[9,9,9]}");
  ASSERT_TRUE(request);
  EXPECT_EQ(tn::writeText(*request), "{uff0007:16646402,Uff0001:[68,1]}");
}

TEST(Request, SaysWhereTheMessageIsWrong) {
  const auto request = tool::buildRequest(addressed(), "{u1:5;}");
  ASSERT_FALSE(request);
  EXPECT_EQ(request.error(), "the message is wrong at character 6: expected ',' or '}'");
}

TEST(Request, CarriesNoDescriptor) {
  const auto request = tool::buildRequest(addressed(), "{uff0015:1}");
  ASSERT_FALSE(request);
  EXPECT_EQ(request.error(), "a message from here cannot carry a descriptor");
  EXPECT_TRUE(tool::buildRequest(addressed(), "{sff0015:'another type'}"));
}

TEST(Request, HasToFitTheBus) {
  std::string text = "{s99:''";
  for (int i = 0; i < 64; ++i)
    text.append(",s").append(std::to_string(i)).append(":'").append(65529, 'x').append("'");
  // 64 * 65535 + 5 bytes and the magic leave 57 bytes, room for a command and a path of two.
  ASSERT_TRUE(tn::readText(text + "}"));
  EXPECT_TRUE(tool::buildRequest(addressed(), text + "}"));
  Arguments far = addressed();
  far.path.assign(20, 1);
  const auto request = tool::buildRequest(far, text + "}");
  ASSERT_FALSE(request);
  EXPECT_EQ(request.error(), "the message is larger than the bus carries");
}

TEST(Input, IsReadToItsEnd) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  const std::string text(20000, 'a');
  ASSERT_EQ(::write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  writer.reset();
  EXPECT_EQ(tool::readWholeInput(reader.get()), text);
  EXPECT_EQ(tool::readWholeInput(reader.get()), "");
}

TEST(Input, SaysWhyItCannotBeRead) {
  const auto text = tool::readWholeInput(-1);
  ASSERT_FALSE(text);
  EXPECT_EQ(text.error(), "cannot read the message: Bad file descriptor");
}

TEST(Input, IsBounded) {
  const UniqueFd zeros(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
  const auto text = tool::readWholeInput(zeros.get());
  ASSERT_FALSE(text);
  EXPECT_EQ(text.error(), "the message is longer than any message can be");
}

}  // namespace
