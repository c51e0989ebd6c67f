#include "tools/forwarder/request_head.h"

#include <gtest/gtest.h>

namespace {

using forwarder::closingHead;
using forwarder::headLength;

TEST(ForwarderHeadTest, FindsTheEndOfAHead) {
  EXPECT_EQ(headLength("GET / HTTP/1.1\r\nHost: a\r\n\r\nbody"), 27U);
  EXPECT_EQ(headLength("GET / HTTP/1.1\nHost: a\n\nbody\n\n"), 24U);
  EXPECT_EQ(headLength("GET / HTTP/1.1\r\n\r\n"), 18U);
  EXPECT_EQ(headLength("\r\nGET / HTTP/1.1\r\n\r\n"), 2U);
}

TEST(ForwarderHeadTest, ARequestWithoutVersionIsOneLine) {
  EXPECT_EQ(headLength("GET /\r\nmore"), 7U);
  EXPECT_EQ(headLength("GET /\nmore"), 6U);
  EXPECT_EQ(headLength("x\n"), 2U);
}

TEST(ForwarderHeadTest, EveryCutIsIncomplete) {
  const std::string head = "POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\n\r\n";
  for (std::size_t length = 0; length < head.size(); ++length)
    EXPECT_EQ(headLength(head.substr(0, length)), std::nullopt) << length;
  EXPECT_EQ(headLength(head), head.size());
}

TEST(ForwarderHeadTest, TheConnectionIsToBeClosed) {
  EXPECT_EQ(closingHead("GET / HTTP/1.1\r\nHost: a\r\n\r\n"), "GET / HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(closingHead("GET / HTTP/1.0\n\n"), "GET / HTTP/1.0\nConnection: close\r\n\n");
  EXPECT_EQ(closingHead("GET /\r\n"), "GET /\r\n");
}

TEST(ForwarderHeadTest, WhatTheClientSaidOfItIsDropped) {
  const std::string expected = "GET / HTTP/1.1\r\nA: b\r\nConnection: close\r\n\r\n";
  for (const std::string line : {"Connection: keep-alive", "CONNECTION:close", "connection : keep-alive",
                                 "Keep-Alive: timeout=5", "Proxy-Connection: keep-alive", "Con nection: x"}) {
    EXPECT_EQ(closingHead("GET / HTTP/1.1\r\n" + line + "\r\nA: b\r\n\r\n"), expected) << line;
    EXPECT_EQ(closingHead("GET / HTTP/1.1\r\nA: b\r\n" + line + "\r\n" + line + "\r\n\r\n"), expected) << line;
  }
  EXPECT_EQ(closingHead("GET / HTTP/1.1\r\nConnection: a,\r\n keep-alive\r\n\tb\r\nA: b\r\n\r\n"), expected);
  EXPECT_EQ(closingHead("GET / HTTP/1.1\r\nA: b\r\nX-Connection: y\r\n\r\n"),
            "GET / HTTP/1.1\r\nA: b\r\nX-Connection: y\r\nConnection: close\r\n\r\n");
}

}  // namespace
