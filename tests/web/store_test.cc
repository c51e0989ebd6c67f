#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "platform/bus/message.h"
#include "platform/web/request.h"

namespace {

using testing::ElementsAre;

TEST(Store, WritesTheWholeRequest) {
  Request request(true, false);
  ASSERT_TRUE(request.parseStatusLine("POST /login?x=1&y HTTP/1.0"));
  ASSERT_TRUE(request.headers.parseHeaderLine("HOST:  router.local "));
  ASSERT_TRUE(request.headers.parseHeaderLine("cookie: a=b"));
  request.query = "x=1&y";
  request.pathInfo = "login";
  request.pathInfoSet = true;
  request.peerAddress.setIPv4(0x0a000002);
  request.peerPort = 40000;
  request.localAddress.setIPv4(0x0a000001);
  request.localPort = 80;
  request.originalAddress.setIPv4(0x08080808);
  request.originalPort = 443;
  request.hasOriginal = true;
  request.forwardTag = 0xdeadbeef;
  tn::message msg;
  request.store(msg);

  EXPECT_EQ(msg.get(tn::u32_id(1)), 3U);
  EXPECT_EQ(msg.get(tn::string_id(2)), "/login?x=1&y");
  EXPECT_EQ(msg.get(tn::string_id(3)), "x=1&y");
  EXPECT_EQ(msg.get(tn::u32_id(4)), 256U);
  ASSERT_TRUE(msg.get(tn::string_array_id(5)).has_value());
  EXPECT_THAT(*msg.get(tn::string_array_id(5)), ElementsAre("HOST: router.local", "cookie: a=b"));
  EXPECT_EQ(msg.get(tn::addr6_id(6)), request.peerAddress.bytes());
  EXPECT_EQ(msg.get(tn::u32_id(7)), 40000U);
  EXPECT_EQ(msg.get(tn::addr6_id(8)), request.localAddress.bytes());
  EXPECT_EQ(msg.get(tn::u32_id(9)), 80U);
  EXPECT_EQ(msg.get(tn::addr6_id(10)), request.originalAddress.bytes());
  EXPECT_EQ(msg.get(tn::u32_id(11)), 443U);
  EXPECT_EQ(msg.get(tn::bool_id(12)), true);
  EXPECT_EQ(msg.get(tn::bool_id(13)), false);
  EXPECT_EQ(msg.get(tn::u32_id(14)), 0xdeadbeefU);
  EXPECT_EQ(msg.get(tn::string_id(15)), "login");
}

TEST(Store, LeavesOutWhatIsNotKnown) {
  Request request(false, true);
  ASSERT_TRUE(request.parseStatusLine("GET /"));
  tn::message msg;
  request.store(msg);
  EXPECT_FALSE(msg.has(tn::addr6_id(10)));
  EXPECT_FALSE(msg.has(tn::u32_id(11)));
  EXPECT_FALSE(msg.has(tn::string_id(15)));
  EXPECT_FALSE(msg.has(tn::string_id(30)));
  EXPECT_EQ(msg.get(tn::u32_id(1)), 1U);
  EXPECT_EQ(msg.get(tn::u32_id(4)), 9U);
  ASSERT_TRUE(msg.get(tn::string_array_id(5)).has_value());
  EXPECT_TRUE(msg.get(tn::string_array_id(5))->empty());
  EXPECT_EQ(msg.get(tn::bool_id(12)), false);
  EXPECT_EQ(msg.get(tn::bool_id(13)), true);
}

TEST(Store, AnEmptyPathIsStored) {
  Request request(false, false);
  request.pathInfoSet = true;
  tn::message msg;
  request.store(msg);
  EXPECT_EQ(msg.get(tn::string_id(15)), "");
}

TEST(Store, MethodsHaveTheirNumbers) {
  const char* const lines[] = {"GET /", "HEAD /", "POST /", "OPTIONS *", "PUT /", "DELETE /", "TRACE /", "CONNECT a:1"};
  std::uint32_t number = 1;
  for (const char* line : lines) {
    Request request(false, false);
    ASSERT_TRUE(request.parseStatusLine(std::string(line) + " HTTP/1.1"));
    tn::message msg;
    request.store(msg);
    EXPECT_EQ(msg.get(tn::u32_id(1)), number) << line;
    ++number;
  }
}

// The largest head that the engine lets through still makes a whole message.
TEST(Store, ManyHeaderLines) {
  Request request(false, false);
  ASSERT_TRUE(request.parseStatusLine("GET /" + std::string(4000, 'a') + " HTTP/1.1"));
  for (int i = 0; i < 5000; ++i)
    request.headers.addHeader("a", "", true);
  tn::message msg;
  request.store(msg);
  ASSERT_TRUE(msg.get(tn::string_array_id(5)).has_value());
  EXPECT_EQ(msg.get(tn::string_array_id(5))->size(), 5000U);
  EXPECT_EQ(msg.get(tn::string_id(2))->size(), 4001U);
}

}  // namespace
