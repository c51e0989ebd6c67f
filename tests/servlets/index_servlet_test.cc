#include "servlets/index_servlet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>

#include "platform/bus/looper.h"
#include "platform/web/functions.h"
#include "tests/core/output_capture.h"
#include "tests/fakes/recording_bus.h"
#include "tests/http/scratch_dir.h"
#include "tests/servlets/forced_unmap.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t userService = 13;

class IndexServletTest : public testing::Test {
 protected:
  // The page made of a template.
  std::string page(const std::string& text) {
    response.reset();
    sendStartPage(dir.write("index2.html", text), request, response);
    EXPECT_EQ(response.status, 200);
    EXPECT_TRUE(response.answered());
    return response.body;
  }
  // Lets the user service answer every question with this, or stay silent.
  void answerUserWith(std::optional<tn::message> answer) {
    loop.bus.whileWaiting = [this, answer = std::move(answer)] {
      if (!answer) return false;
      loop.bus.answer(loop.bus.sent.back(), *answer);
      return true;
    };
  }
  static tn::message named(std::string_view name) {
    tn::message answer;
    answer.insert(tn::string_id(1), name);
    return answer;
  }

  tn::fakes::TestLooper loop;
  ScratchDir dir;
  Request request{false, false};
  Response response;
};

TEST_F(IndexServletTest, SendsTheTemplate) {
  using namespace std::string_literals;
  const std::string text = "<html>\n\0\xff caf\xc3\xa9\r\n</html>"s;
  EXPECT_EQ(page(text), text);
  EXPECT_EQ(response.headers.getHeader("content-type"), "text/html");
  EXPECT_EQ(response.headers.size(), 1U);
  EXPECT_EQ(response.file, "");
  EXPECT_TRUE(loop.bus.sent.empty());
}

TEST_F(IndexServletTest, TellsTheVersion) {
  EXPECT_EQ(page("%version%"), getOSVersion());
}

TEST_F(IndexServletTest, TellsTheAddressThatTheBrowserReached) {
  request.localAddress.setIPv4(0x0a000001);
  request.localPort = 8080;
  EXPECT_EQ(page("http://%host%:%port%/"), "http://10.0.0.1:8080/");
  IPAddr6::Bytes bytes{};
  bytes[0] = 0xfe;
  bytes[1] = 0x80;
  bytes[15] = 1;
  request.localAddress = IPAddr6(bytes);
  request.localPort = 80;
  EXPECT_EQ(page("http://%host%:%port%/"), "http://[fe80::1]:80/");
}

TEST_F(IndexServletTest, AnUnsetAddressIsWrittenAsItIs) {
  EXPECT_EQ(page("%host% %port%"), "[::] 0");
}

TEST_F(IndexServletTest, LinksToTheDesktopClient) {
  EXPECT_EQ(page("<a href=\"%varnox%\">"), "<a href=\"/varnox/\">");
}

TEST_F(IndexServletTest, AsksForTheUser) {
  answerUserWith(named("ada"));
  EXPECT_EQ(page("hello %user%!"), "hello ada!");
  ASSERT_EQ(loop.bus.sent.size(), 1U);
  const auto& question = loop.bus.sent[0];
  EXPECT_EQ(question.peer, userService);
  EXPECT_EQ(question.content.get(tn::u32_array_id(0xff0001)), (std::vector<std::uint32_t>{1}));
  EXPECT_EQ(question.content.get(tn::u32_array_id(0xff0002)), (std::vector<std::uint32_t>{0}));
  EXPECT_EQ(question.content.get(tn::u32_id(0xff0007)), 0xfe0002U);
  EXPECT_EQ(question.content.get(tn::u32_id(0xfe0001)), 1U);
  EXPECT_TRUE(question.content.has(tn::field::requestNumber));
}

TEST_F(IndexServletTest, AsksAnewForEveryPlaceholder) {
  answerUserWith(named("a"));
  EXPECT_EQ(page("%user%%user%"), "aa");
  EXPECT_EQ(loop.bus.sent.size(), 2U);
}

TEST_F(IndexServletTest, TheNameIsNotEscaped) {
  answerUserWith(named("<b>%host%&"));
  EXPECT_EQ(page("%user%"), "<b>%host%&");
}

TEST_F(IndexServletTest, AHiddenOrDisabledUserIsNotNamed) {
  for (const std::uint32_t flag : {0x1cU, 0xfe000aU}) {
    tn::message answer = named("ada");
    answer.insert(tn::bool_id(flag), true);
    answerUserWith(answer);
    EXPECT_EQ(page("<%user%>"), "<>") << flag;
    answer.insert(tn::bool_id(flag), false);
    answerUserWith(answer);
    EXPECT_EQ(page("<%user%>"), "<ada>") << flag;
  }
  tn::message both = named("ada");
  both.insert(tn::bool_id(0x1c), true);
  both.insert(tn::bool_id(0xfe000a), true);
  answerUserWith(both);
  EXPECT_EQ(page("<%user%>"), "<>");
}

TEST_F(IndexServletTest, AFailedQueryLeavesThePlaceEmpty) {
  answerUserWith(std::nullopt);
  EXPECT_EQ(page("<%user%>"), "<>");
  answerUserWith(tn::message());
  EXPECT_EQ(page("<%user%>"), "<>");
  answerUserWith(tn::errorMsg(0xfe0006, "no such user"));
  EXPECT_EQ(page("<%user%>"), "<>");
  tn::message otherType;
  otherType.insert(tn::u32_id(1), 7);
  answerUserWith(otherType);
  EXPECT_EQ(page("<%user%>"), "<>");
  loop.bus.unlink();
  EXPECT_EQ(page("<%user%>"), "<>");
}

TEST_F(IndexServletTest, TheTemplateMayBeCutShortWhileTheUserIsAskedFor) {
  const std::string rest(100000, 'x');
  loop.bus.whileWaiting = [this] {
    dir.write("index2.html", "");
    loop.bus.answer(loop.bus.sent.back(), named("ada"));
    return true;
  };
  EXPECT_EQ(page("%user%" + rest), "ada" + rest);
}

TEST_F(IndexServletTest, NoTemplateNoPage) {
  const core_test::OutputCapture log{STDOUT_FILENO};
  const std::string folder = dir.makeDir("folder");
  for (const std::string& path : {dir / "missing", folder, dir.write("empty", ""), folder + "/x\0y"}) {
    Response answer;
    sendStartPage(path, request, answer);
    EXPECT_EQ(answer.status, 404) << path;
    EXPECT_EQ(answer.statusText, "");
    EXPECT_EQ(answer.headers.size(), 0U);
  }
}

// What cannot be mapped stays open.
TEST_F(IndexServletTest, OnlyAMappingThatFailsLeavesADescriptor) {
  page("x");
  const int before = openDescriptors();
  page("%host%");
  sendStartPage(dir / "missing", request, response);
  EXPECT_EQ(openDescriptors(), before);
  const std::string empty = dir.write("empty", "");
  Response answer;
  sendStartPage(empty, request, answer);
  EXPECT_EQ(answer.status, 404);
  EXPECT_EQ(openDescriptors(), before + 1);
}

TEST_F(IndexServletTest, AFailedUnmapIsTold) {
  core_test::OutputCapture log{STDOUT_FILENO};
  const int before = openDescriptors();
  {
    const FailingUnmap failing;
    EXPECT_EQ(page("still sent"), "still sent");
  }
  EXPECT_THAT(log.takeLines(), ElementsAre("ERROR: munmap failed:Invalid argument"));
  EXPECT_EQ(openDescriptors(), before);
  page("again");
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(IndexServletTest, AnswersGetAndHeadAtItsVeryPath) {
  IndexServlet servlet;
  servlet.setBaseFlag(true);
  EXPECT_FALSE(servlet.isDirectory());
  for (const Method method : {Method::post, Method::put, Method::options, Method::del, Method::trace}) {
    Response answer;
    request.method = method;
    servlet.doMethod(request, answer);
    EXPECT_EQ(answer.status, 405);
    EXPECT_EQ(answer.headers.getHeader("allow"), "GET, HEAD");
  }
  EXPECT_EQ(request.bodyChunk, -1);
  // No system of the test's own has the template at its place.
  for (const Method method : {Method::get, Method::head}) {
    Response answer;
    request.method = method;
    servlet.doMethod(request, answer);
    EXPECT_EQ(answer.status, 404);
  }
}

}  // namespace
