#include "platform/web/request.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(Request, StartsAsTheEngineExpects) {
  const Request request(true, false);
  EXPECT_TRUE(request.ssl);
  EXPECT_FALSE(request.unix);
  EXPECT_EQ(request.bodyChunk, -1);
  EXPECT_FALSE(request.bodyConsumer);
  EXPECT_FALSE(request.onRequestEnd);
  EXPECT_FALSE(request.pathInfoSet);
  EXPECT_FALSE(request.hasOriginal);
  EXPECT_EQ(request.method, Method::get);
  EXPECT_EQ(request.protocol, Protocol::http);
}

TEST(Request, ResetForgetsTheRequest) {
  Request request(false, true);
  ASSERT_TRUE(request.parseStatusLine("POST /a?b HTTP/1.0"));
  ASSERT_TRUE(request.headers.parseHeaderLine("Host: a"));
  request.pathInfo.append("a");
  request.pathInfoSet = true;
  request.query.append("b");
  request.bodyChunk = 0;
  request.bodyConsumer = [](std::string_view, bool) {};
  request.reset();
  EXPECT_EQ(request.uri, "");
  EXPECT_EQ(request.pathInfo, "");
  EXPECT_FALSE(request.pathInfoSet);
  EXPECT_EQ(request.query, "");
  EXPECT_EQ(request.headers.size(), 0U);
  EXPECT_EQ(request.method, Method::get);
  EXPECT_EQ(request.protocol, Protocol::http);
  EXPECT_EQ(request.version, version11);
  EXPECT_EQ(request.bodyChunk, -1);
  EXPECT_FALSE(request.bodyConsumer);
}

TEST(Request, ResetKeepsTheConnection) {
  Request request(false, true);
  request.peerAddress.setIPv4(1);
  request.peerPort = 2;
  request.localAddress.setIPv4(3);
  request.localPort = 4;
  request.originalAddress.setIPv4(5);
  request.originalPort = 6;
  request.hasOriginal = true;
  request.forwardTag = 7;
  int ended = 0;
  request.onRequestEnd = [&ended] { ++ended; };
  request.reset();
  EXPECT_EQ(request.peerAddress.str(true), "0.0.0.1");
  EXPECT_EQ(request.peerPort, 2U);
  EXPECT_EQ(request.localAddress.str(true), "0.0.0.3");
  EXPECT_EQ(request.localPort, 4U);
  EXPECT_EQ(request.originalAddress.str(true), "0.0.0.5");
  EXPECT_EQ(request.originalPort, 6U);
  EXPECT_TRUE(request.hasOriginal);
  EXPECT_EQ(request.forwardTag, 7U);
  // The engine runs and clears it at the start of the next request, which comes after the reset.
  ASSERT_TRUE(request.onRequestEnd);
  EXPECT_EQ(ended, 0);
  request.onRequestEnd();
  EXPECT_EQ(ended, 1);
}

TEST(Request, ResetGivesBackWhatAnIdleConnectionMayNotHold) {
  Request request(false, false);
  ASSERT_TRUE(request.parseStatusLine("GET /" + std::string(3000, 'a') + " HTTP/1.1"));
  request.pathInfo.assign(3000, 'a');
  request.query.assign(3000, 'a');
  request.reset();
  EXPECT_LE(request.uri.capacity(), 128U);
  EXPECT_LE(request.pathInfo.capacity(), 128U);
  EXPECT_LE(request.query.capacity(), 128U);

  ASSERT_TRUE(request.parseStatusLine("GET /" + std::string(100, 'a') + " HTTP/1.1"));
  const std::size_t capacity = request.uri.capacity();
  request.reset();
  EXPECT_EQ(request.uri.capacity(), capacity);
}

}  // namespace
