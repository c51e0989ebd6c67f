#include "services/supervisor/program_list.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace tnrun {
namespace {

using List = std::vector<Program>;

void expectRefused(std::string_view text, unsigned line, std::string_view reason) {
  const auto list = parseProgramList(text);
  ASSERT_FALSE(list.has_value()) << text;
  EXPECT_EQ(list.error().line, line) << text;
  EXPECT_EQ(list.error().reason, reason) << text;
}

TEST(ProgramList, KeepsTheOrder) {
  const auto list = parseProgramList("busd /bin/busd\nwww /bin/www\n");
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(*list, (List{{"busd", "/bin/busd"}, {"www", "/bin/www"}}));
}

TEST(ProgramList, LeavesOutEmptyLinesAndComments) {
  const auto list = parseProgramList("# all of them\n\n \t\n  # and more\n\tbusd\t \t/bin/busd \r\n");
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(*list, (List{{"busd", "/bin/busd"}}));
}

TEST(ProgramList, ADashBeforeThePathMakesItOptional) {
  const auto list = parseProgramList("busd /bin/busd\nuserd -/bin/userd\n");
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(*list, (List{{"busd", "/bin/busd", false}, {"userd", "/bin/userd", true}}));
  expectRefused("busd -bin/busd\n", 1, "a path begins with \"/\"");
  expectRefused("busd --/bin/busd\n", 1, "a path begins with \"/\"");
  expectRefused("busd -\n", 1, "the path is missing");
}

TEST(ProgramList, TheLastLineNeedsNoEnd) {
  const auto list = parseProgramList("busd /bin/busd");
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(list->size(), 1U);
}

TEST(ProgramList, AnEmptyTextIsAnEmptyList) {
  const auto list = parseProgramList("");
  ASSERT_TRUE(list.has_value());
  EXPECT_TRUE(list->empty());
}

TEST(ProgramList, RefusesTheWholeForOneBadLine) {
  expectRefused("busd /bin/busd\nWww /bin/www\n", 2, "a name has small letters, digits, \"-\" and \"_\"");
  expectRefused("busd\n", 1, "the path is missing");
  expectRefused("busd bin/busd\n", 1, "a path begins with \"/\"");
  expectRefused("busd /bin/busd -v\n", 1, "a program takes no arguments");
  expectRefused("busd /bin/busd\n\nbusd /bin/other\n", 3, "this name was there before");
}

TEST(ProgramList, RefusesANulInAPath) {
  expectRefused(std::string_view("busd /bin/\0busd\n", 16), 1, "a path begins with \"/\"");
}

TEST(ProgramList, NamesAndPathsAreBounded) {
  const std::string name(maxNameLength, 'a');
  const std::string path = "/" + std::string(maxPathLength - 1, 'b');
  EXPECT_TRUE(parseProgramList(name + " " + path).has_value());
  EXPECT_FALSE(parseProgramList(name + "a " + path).has_value());
  EXPECT_FALSE(parseProgramList(name + " " + path + "b").has_value());
}

TEST(ProgramList, TheNumberOfProgramsIsBounded) {
  std::string text;
  for (std::size_t i = 0; i < maxPrograms; ++i)
    text.append("p").append(std::to_string(i)).append(" /bin/p\n");
  EXPECT_TRUE(parseProgramList(text).has_value());
  expectRefused(text + "one /bin/one\n", maxPrograms + 1, "too many programs");
}

}  // namespace
}  // namespace tnrun
