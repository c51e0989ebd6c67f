#include "services/hotspotd/forwarded.h"

#include "platform/web/request.h"
#include "tests/services/hotspotd/typed.h"

namespace {

using hotspot::answerOf;
using hotspot::Endpoint;
using hotspot::ForwardedRequest;
using hotspot::Method;
using hotspot::readForwarded;

// A request as the server would write it.
tn::message stored(const Request& request) {
  tn::message msg;
  request.store(msg);
  return msg;
}

TEST(HotspotForwardedTest, ReadsWhatTheServerWrote) {
  Request request(true, true);
  ASSERT_TRUE(request.parseStatusLine("POST /spot/login?x=1 HTTP/1.1"));
  for (const char* line : {"HOST: router", "origin:  https://router ", "Content-Type: text/plain", "X: y"})
    ASSERT_TRUE(request.headers.parseHeaderLine(line));
  request.pathInfo = "login";
  request.pathInfoSet = true;
  request.peerAddress.setIPv4(0x0a000002);
  request.peerPort = 40000;
  request.localAddress.setIPv4(0x0a000001);
  request.localPort = 80;
  request.originalAddress.setIPv4(0x08080808);
  request.originalPort = 443;
  request.hasOriginal = true;
  request.forwardTag = 7;
  tn::message msg = stored(request);
  msg.insert(tn::string_id(30), "a=b");
  const ForwardedRequest read = readForwarded(msg);
  EXPECT_EQ(read.method, Method::post);
  EXPECT_EQ(read.base, "/spot/");
  EXPECT_EQ(read.path, "login");
  EXPECT_EQ(read.body, "a=b");
  EXPECT_EQ(read.host, "router");
  EXPECT_EQ(read.origin, "https://router");
  EXPECT_EQ(read.contentType, "text/plain");
  EXPECT_EQ(read.client, (Endpoint{request.peerAddress.bytes(), 40000}));
  EXPECT_EQ(read.local, (Endpoint{request.localAddress.bytes(), 80}));
  ASSERT_TRUE(read.original);
  EXPECT_EQ(*read.original, (Endpoint{request.originalAddress.bytes(), 443}));
  EXPECT_EQ(read.tag, 7U);
  EXPECT_TRUE(read.tls);
  EXPECT_TRUE(read.redirected());
}

TEST(HotspotForwardedTest, ARequestThatReachedWhatItWantedIsNotRedirected) {
  Request request(false, false);
  request.localPort = 80;
  EXPECT_FALSE(readForwarded(stored(request)).redirected());
  request.hasOriginal = true;
  request.originalPort = 80;
  EXPECT_FALSE(readForwarded(stored(request)).redirected());
  request.originalPort = 81;
  EXPECT_TRUE(readForwarded(stored(request)).redirected());
}

TEST(HotspotForwardedTest, Methods) {
  const std::pair<std::uint32_t, Method> methods[] = {{0, Method::other}, {1, Method::get},   {2, Method::head},
                                                      {3, Method::post},  {4, Method::other}, {99, Method::other}};
  for (const auto& [number, method] : methods) {
    tn::message msg;
    msg.insert(tn::u32_id(1), number);
    EXPECT_EQ(readForwarded(msg).method, method) << number;
  }
}

TEST(HotspotForwardedTest, AnEmptyMessageIsReadToo) {
  const ForwardedRequest read = readForwarded({});
  EXPECT_EQ(read.method, Method::other);
  EXPECT_EQ(read.base, "/");
  EXPECT_FALSE(read.original);
}

TEST(HotspotForwardedTest, HeaderLinesThatAreNoneAreIgnored) {
  EXPECT_EQ(readForwarded(typed("{S5:['','host',':x','Hos: a','Host : b']}")).host, "");
}

std::string baseOf(std::string_view target, std::string_view path) {
  tn::message msg;
  msg.insert(tn::string_id(2), target);
  msg.insert(tn::string_id(15), path);
  return readForwarded(msg).base;
}

TEST(HotspotForwardedTest, TheBaseIsAPathOfThisHost) {
  EXPECT_EQ(baseOf("/", ""), "/");
  EXPECT_EQ(baseOf("/?a/b", ""), "/");
  EXPECT_EQ(baseOf("/login", "login"), "/");
  EXPECT_EQ(baseOf("/spot", ""), "/spot/");
  EXPECT_EQ(baseOf("/spot/", ""), "/spot/");
  EXPECT_EQ(baseOf("/a/spot/login?x", "login"), "/a/spot/");
  EXPECT_EQ(baseOf("//login", "login"), "/");
  EXPECT_EQ(baseOf("//evil.example/login", "login"), "/evil.example/");
  EXPECT_EQ(baseOf("////", "/"), "/");
  EXPECT_EQ(baseOf("*", "*"), "/");
}

TEST(HotspotForwardedTest, WritesAnAnswer) {
  const tn::message answer = answerOf({429, "Wait", {"Retry-After: 60", "X: y"}, "text"});
  EXPECT_EQ(tn::writeText(answer), "{u1:429,s2:'Wait',S5:['Retry-After: 60','X: y'],s1e:'text'}");
  EXPECT_EQ(tn::writeText(answerOf({})), "{u1:200,S5:[]}");
}

TEST(HotspotForwardedTest, APageTooLargeIsAnError) {
  EXPECT_EQ(tn::writeText(answerOf({200, {}, {"X: y"}, std::string(65536, 'x')})), "{u1:500,S5:[]}");
  EXPECT_EQ(answerOf({200, {}, {}, std::string(65535, 'x')}).get(tn::u32_id(1)), 200U);
}

}  // namespace
