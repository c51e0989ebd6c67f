#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <string>

#include "platform/web/functions.h"
#include "platform/web/request.h"
#include "platform/web/response.h"
#include "tests/web/allocations.h"

namespace {

constexpr std::string_view lines[] = {
    "Host: router.local:8080",
    "User-Agent: a browser of some length/1.0 (with a comment; and more of it; so that it is as long as they are)",
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8",
    "Accept-Encoding: gzip, deflate, br",
    "Accept-Language: en-US,en;q=0.5",
    "Connection: keep-alive",
    "Range: bytes=0-99",
    "Accept: second/line",
};

void serve(Request& request, Response& response, std::string& out) {
  EXPECT_TRUE(request.parseStatusLine("GET /skins/a-longer-name-than-fits-a-short-string.css?with=query HTTP/1.1"));
  for (const std::string_view line : lines)
    EXPECT_TRUE(request.headers.parseHeaderLine(line));
  response.initFrom(request);
  request.pathInfo.assign(request.uri, 1, 50);
  request.query.assign("with=query");
  EXPECT_TRUE(request.headers.hasHeader("accept-encoding"));
  EXPECT_TRUE(request.headers.headerHasToken("connection", "keep-alive"));
  EXPECT_EQ(request.headers.getHeader("range"), "bytes=0-99");
  response.headers.addHeader("Content-Type", getContentType(request.pathInfo, nullptr), false);
  response.headers.addHeader("Content-Length", std::uint64_t{1024}, false);
  response.headers.addHeader("Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT", false);
  response.headers.addHeader("Date", "Sun, 06 Nov 1994 08:49:37 GMT", false);
  response.headers.addHeader("Pragma", "no-cache", false);
  response.headers.addHeader("Cache-Control", "no-store", false);
  response.headers.addHeader("Expires", "0", false);
  response.headers.addHeader("Connection", "Keep-Alive", false);
  out.clear();
  response.printHeading(out);
  appendHttpDate(out, 784111777);
  request.reset();
  response.reset();
}

TEST(Reuse, AWarmConnectionTakesNothingFromTheHeap) {
  Request request(false, false);
  Response response;
  std::string out;
  serve(request, response, out);
  const std::string first = out;
  const unsigned long before = allocations();
  for (int i = 0; i < 10; ++i)
    serve(request, response, out);
  EXPECT_EQ(allocations(), before);
  EXPECT_EQ(out, first);
}

TEST(Reuse, AFreshConnectionTakesNothingBeforeItsFirstRequest) {
  const unsigned long before = allocations();
  const Request request(false, false);
  const Response response;
  EXPECT_EQ(allocations(), before);
}

}  // namespace
