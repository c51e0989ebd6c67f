#include "services/hotspotd/portal.h"

#include <filesystem>
#include <gmock/gmock.h>

#include "platform/log.h"
#include "platform/web/request.h"
#include "tests/fakes/recording_bus.h"
#include "tests/services/hotspotd/typed.h"

namespace {

using hotspot::Portal;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint32_t www = 1700;
constexpr std::uint32_t command = 0x50001;

// An answer as the server sees it.
struct Answer {
  std::uint32_t status = 0;
  std::string body;
  std::vector<std::string> headings;

  [[nodiscard]] std::string heading(const std::string& name) const {
    for (const std::string& line : headings) {
      if (line.starts_with(name + ": ")) return line.substr(name.size() + 2);
    }
    return "(none)";
  }
};

class HotspotPortalTest : public testing::Test {
 protected:
  HotspotPortalTest() { loop.looper.addHandler(Portal::id, portal); }
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override {
    drainLog();
    testing::internal::GetCapturedStdout();
  }

  // Asks as the server does.
  Answer ask(const std::string& line, const std::string& body = "", const std::vector<std::string>& headers = {}) {
    Request request(false, false);
    EXPECT_TRUE(request.parseStatusLine(line)) << line;
    request.headers.addHeader("Host", "router", false);
    for (const std::string& header : headers)
      EXPECT_TRUE(request.headers.parseHeaderLine(header));
    request.pathInfo = request.uri.substr(1, request.uri.find('?') - 1);
    request.pathInfoSet = true;
    request.peerAddress.setIPv4(client);
    request.localPort = 80;
    request.forwardTag = tag;
    request.hasOriginal = redirected;
    request.originalPort = 443;
    tn::message msg;
    request.store(msg);
    if (!body.empty()) msg.insert(tn::string_id(30), body);
    return read(call(command, msg));
  }
  Answer post(const std::string& path, const std::string& body, const std::vector<std::string>& headers = {}) {
    std::vector<std::string> all{"Content-Type: application/x-www-form-urlencoded; charset=UTF-8"};
    all.insert(all.end(), headers.begin(), headers.end());
    return ask("POST " + path + " HTTP/1.1", body, all);
  }
  Answer logIn() { return post("/login", "code=" + keeper.state().settings.code); }
  bool isIn() { return ask("GET / HTTP/1.1").body.find("You are logged in") != std::string::npos; }

  tn::message call(std::uint32_t code, const tn::message& content) {
    const std::uint32_t number = loop.bus.request(www, Portal::id, code, content);
    const auto* reply = loop.bus.replyTo(number);
    EXPECT_NE(reply, nullptr);
    return reply == nullptr ? tn::message() : reply->content;
  }
  static Answer read(const tn::message& msg) {
    Answer answer;
    answer.status = msg.get(tn::u32_id(1)).value_or(0);
    answer.body = msg.get(tn::string_id(30)).value_or("");
    answer.headings = msg.get(tn::string_array_id(5)).value_or(std::vector<std::string>());
    return answer;
  }
  static std::string errorOf(const tn::message& msg) { return tn::getError(msg); }

  std::string folder = [] {
    std::string pattern = std::filesystem::temp_directory_path() / "hotspot_XXXXXX";
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    return pattern;
  }();
  std::shared_ptr<void> cleanUp{nullptr, [this](void*) { std::filesystem::remove_all(folder); }};
  tn::fakes::TestLooper loop;
  hotspot::Keeper keeper{folder + "/hotspot.conf"};
  Portal portal{keeper, loop.runner.timers()};
  std::uint32_t client = 0x0a000007;
  std::uint32_t tag = 0;
  bool redirected = false;
};

TEST_F(HotspotPortalTest, LogsInAndOut) {
  Answer page = ask("GET / HTTP/1.1");
  EXPECT_EQ(page.status, 200U);
  EXPECT_THAT(page.body, HasSubstr("action=\"/login\""));
  const Answer entered = logIn();
  EXPECT_EQ(entered.status, 303U);
  EXPECT_EQ(entered.heading("Location"), "/");
  page = ask("GET / HTTP/1.1");
  EXPECT_THAT(page.body, HasSubstr("another 60 minutes"));
  EXPECT_THAT(page.body, HasSubstr("action=\"/logout\""));
  const Answer left = post("/logout", "");
  EXPECT_EQ(left.status, 303U);
  EXPECT_FALSE(isIn());
  EXPECT_EQ(post("/logout", "").status, 303U);
}

TEST_F(HotspotPortalTest, StateIsByAddressAndTag) {
  logIn();
  EXPECT_TRUE(isIn());
  tag = 1;
  EXPECT_FALSE(isIn());
  tag = 0;
  client += 1;
  EXPECT_FALSE(isIn());
}

TEST_F(HotspotPortalTest, ALoginEnds) {
  logIn();
  loop.advance(59 * 60'000);
  EXPECT_TRUE(isIn());
  loop.advance(60'000);
  EXPECT_FALSE(isIn());
}

TEST_F(HotspotPortalTest, AHeadIsAnsweredAsAGet) {
  EXPECT_EQ(ask("HEAD / HTTP/1.1").body, ask("GET / HTTP/1.1").body);
  EXPECT_EQ(ask("HEAD /nowhere HTTP/1.1").status, 404U);
}

TEST_F(HotspotPortalTest, CodesAreTakenAsPeopleWriteThem) {
  ASSERT_FALSE(tn::isError(call(tn::command::set, typed("{s2:'Abcd-EF23'}"))));
  for (const char* code : {"ABCDEF23", "abcd+ef23", "%20abcd-EF-23"}) {
    EXPECT_EQ(post("/login", std::string("code=") + code).status, 303U) << code;
  }
}

TEST_F(HotspotPortalTest, AWrongCodeIsToldAndCounted) {
  for (const char* form : {"code=wrong", "code=", "", "kode=x", "code=WRONGWRONG"}) {
    const Answer page = post("/login", form);
    EXPECT_EQ(page.status, 200U) << form;
    EXPECT_THAT(page.body, HasSubstr("That is not the code."));
  }
  const Answer refused = logIn();
  EXPECT_EQ(refused.status, 429U);
  EXPECT_EQ(refused.heading("Retry-After"), "60");
  EXPECT_FALSE(isIn());
  loop.advance(60'000);
  EXPECT_EQ(logIn().status, 303U);
}

TEST_F(HotspotPortalTest, OnlyFormsOfThisSiteAreTaken) {
  const std::string code = "code=" + keeper.state().settings.code;
  EXPECT_EQ(ask("POST /login HTTP/1.1", code).status, 415U);
  EXPECT_EQ(ask("POST /login HTTP/1.1", code, {"Content-Type: multipart/form-data"}).status, 415U);
  EXPECT_EQ(post("/login", "code=%zz").status, 400U);
  for (const char* origin : {"http://other", "https://router", "null", "http://router:81"}) {
    EXPECT_EQ(post("/login", code, {std::string("Origin: ") + origin}).status, 403U) << origin;
    EXPECT_EQ(post("/logout", "", {std::string("Origin: ") + origin}).status, 403U) << origin;
  }
  EXPECT_FALSE(isIn());
  EXPECT_EQ(post("/login", code, {"Origin: http://ROUTER"}).status, 303U);
}

TEST_F(HotspotPortalTest, UnknownPathsAndMethods) {
  for (const char* path : {"/nowhere", "/login/", "/Login", "/a/b?c", "/index.html"}) {
    EXPECT_EQ(ask(std::string("GET ") + path + " HTTP/1.1").status, 404U) << path;
    EXPECT_EQ(post(path, "code=x").status, 404U) << path;
  }
  EXPECT_EQ(ask("GET /login HTTP/1.1").heading("Location"), "/");
  EXPECT_EQ(ask("HEAD /logout HTTP/1.1").heading("Location"), "/");
  const Answer toPage = post("/", "code=x");
  EXPECT_EQ(toPage.status, 405U);
  EXPECT_EQ(toPage.heading("Allow"), "GET, HEAD");
  for (const char* method : {"PUT", "DELETE", "OPTIONS", "TRACE"}) {
    const Answer answer = ask(std::string(method) + " /login HTTP/1.1");
    EXPECT_EQ(answer.status, 405U);
    EXPECT_EQ(answer.heading("Allow"), "GET, HEAD, POST");
  }
  EXPECT_EQ(ask("GET /?login HTTP/1.1").status, 200U);
}

TEST_F(HotspotPortalTest, WhoWantedElsewhereIsSentToTheFront) {
  redirected = true;
  const Answer sent = ask("GET /generate_204 HTTP/1.1");
  EXPECT_EQ(sent.status, 303U);
  EXPECT_EQ(sent.heading("Location"), "/");
  EXPECT_THAT(ask("GET / HTTP/1.1").body, HasSubstr("id=\"original\""));
  logIn();
  EXPECT_EQ(ask("GET /generate_204 HTTP/1.1").status, 404U);
}

TEST_F(HotspotPortalTest, RequestsOfUsersAreRefused) {
  for (const char* text : {"{uff000b:0xffffffff}", "{sff000a:'admin'}"})
    EXPECT_EQ(errorOf(call(command, typed(text))), "not allowed") << text;
  EXPECT_EQ(errorOf(call(command + 1, {})), "unknown command");
}

TEST_F(HotspotPortalTest, AnEmptyRequestIsAnsweredToo) {
  EXPECT_EQ(read(call(command, {})).status, 405U);
}

TEST_F(HotspotPortalTest, SettingsAreReadAndChanged) {
  logIn();
  ASSERT_FALSE(tn::isError(call(tn::command::set, typed("{s1:'Guests <here>',u3:1}"))));
  const tn::message settings = call(tn::command::get, {});
  EXPECT_EQ(settings.get(tn::string_id(1)), "Guests <here>");
  EXPECT_EQ(settings.get(tn::string_id(2)), keeper.state().settings.code);
  EXPECT_EQ(settings.get(tn::u32_id(3)), 1U);
  EXPECT_EQ(settings.get(tn::u32_id(4)), 1U);
  EXPECT_THAT(ask("GET / HTTP/1.1").body, HasSubstr("<h1>Guests &lt;here&gt;</h1>"));
  EXPECT_EQ(hotspot::Keeper(folder + "/hotspot.conf").state().settings, keeper.state().settings);
  const tn::message refused = call(tn::command::set, typed("{u3:0}"));
  EXPECT_EQ(refused.get(tn::field::errorCode), 0xfe0010U);
}

TEST_F(HotspotPortalTest, SettingsNeedARight) {
  for (const char* text : {"{uff000b:0xfffffeff}", "{sff000a:'guest'}", "{uff000b:0}"}) {
    EXPECT_EQ(errorOf(call(tn::command::get, typed(text))), "not allowed") << text;
    EXPECT_EQ(errorOf(call(tn::command::set, typed(text))), "not allowed") << text;
  }
  EXPECT_FALSE(tn::isError(call(tn::command::get, typed("{uff000b:0x100,sff000a:'admin'}"))));
}

TEST_F(HotspotPortalTest, SettingsThatCannotBeStoredStayAsTheyWere) {
  std::filesystem::remove_all(folder);
  const tn::message refused = call(tn::command::set, typed("{s1:'other'}"));
  EXPECT_EQ(refused.get(tn::field::errorCode), 0xfe0011U);
  EXPECT_THAT(ask("GET / HTTP/1.1").body, Not(HasSubstr("other")));
}

}  // namespace
