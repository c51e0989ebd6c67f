#include "platform/web/response.h"

#include <gtest/gtest.h>
#include <string>

#include "platform/web/request.h"

namespace {

std::string heading(const Response& response) {
  std::string out;
  response.printHeading(out);
  return out;
}

TEST(Response, DefaultState) {
  const Response response;
  EXPECT_EQ(response.status, 200);
  EXPECT_FALSE(response.answered());
  EXPECT_TRUE(response.cacheable);
  EXPECT_TRUE(response.keepAlivePermitted);
  EXPECT_FALSE(response.deleteFile);
  EXPECT_FALSE(response.onComplete);
  EXPECT_EQ(heading(response), "HTTP/1.1 200 OK\r\n\r\n");
}

TEST(Response, Send) {
  Response response;
  response.send("text");
  EXPECT_EQ(response.body, "text");
  EXPECT_EQ(response.status, 200);
  EXPECT_TRUE(response.answered());
  EXPECT_FALSE(response.headers.hasHeader("content-type"));
}

TEST(Response, AnEmptyTextIsAnAnswer) {
  Response response;
  response.send("");
  EXPECT_TRUE(response.answered());
}

TEST(Response, SendFile) {
  Response response;
  response.sendFile("/home/web/a.css", "text/x-mine", true);
  EXPECT_TRUE(response.answered());
  EXPECT_EQ(response.file, "/home/web/a.css");
  EXPECT_TRUE(response.deleteFile);
  EXPECT_EQ(response.headers.getHeader("content-type"), "text/x-mine");
}

TEST(Response, SendFileFindsTheTypeItself) {
  Response response;
  response.sendFile("/flash/skins/x.json", "", false);
  EXPECT_EQ(response.headers.getHeader("content-type"), "application/json");
  EXPECT_FALSE(response.deleteFile);

  Response set;
  set.headers.addHeader("content-type", "text/plain", false);
  set.sendFile("/flash/skins/x.json", "", false);
  EXPECT_EQ(set.headers.getHeader("content-type"), "text/plain");
  EXPECT_EQ(set.headers.size(), 1U);

  Response replaced;
  replaced.headers.addHeader("content-type", "text/plain", false);
  replaced.sendFile("/x", "image/png", false);
  EXPECT_EQ(replaced.headers.getHeader("content-type"), "image/png");
  EXPECT_EQ(replaced.headers.size(), 1U);
}

TEST(Response, SendError) {
  Response response;
  response.sendError(404, "");
  EXPECT_EQ(response.status, 404);
  EXPECT_TRUE(response.answered());
  EXPECT_EQ(response.getStatusDescription(), "Not Found");
  EXPECT_EQ(heading(response), "HTTP/1.1 404 Not Found\r\n\r\n");
}

TEST(Response, SendErrorWithAText) {
  Response response;
  response.sendError(503, "unknown protocol");
  EXPECT_EQ(response.getStatusDescription(), "unknown protocol");
  EXPECT_EQ(heading(response), "HTTP/1.1 503 unknown protocol\r\n\r\n");
}

TEST(Response, AStatusWithoutABodyIsAnAnswer) {
  Response response;
  response.sendError(204, "");
  EXPECT_TRUE(response.answered());
  EXPECT_EQ(heading(response), "HTTP/1.1 204 No Content\r\n\r\n");
}

TEST(Response, SendErrorDropsWhatWasAnsweredBefore) {
  Response response;
  response.headers.addHeader("Content-Encoding", "gzip", false);
  response.headers.addHeader("X-Other", "kept", false);
  response.sendFile("/home/web/app.js.gz", "text/javascript", true);
  response.sendError(404, "");
  EXPECT_EQ(response.file, "");
  EXPECT_FALSE(response.deleteFile);
  EXPECT_EQ(heading(response), "HTTP/1.1 404 Not Found\r\nX-Other: kept\r\n\r\n");

  Response text;
  text.send("body");
  text.sendError(500, "");
  EXPECT_EQ(text.body, "");
}

// The engine's page is HTML, so a servlet that says so before the error is right.
TEST(Response, SendErrorKeepsTheTypeOfTheErrorPage) {
  for (const char* type : {"text/html", "Text/HTML", "text/html; charset=utf-8"}) {
    Response response;
    response.headers.addHeader("Location", "/uploader.html", false);
    response.headers.addHeader("Content-Type", type, false);
    response.sendError(303, "Use Instead");
    EXPECT_EQ(heading(response), std::string("HTTP/1.1 303 Use Instead\r\nLocation: /uploader.html\r\nContent-Type: ") +
                                     type + "\r\n\r\n");
  }
  for (const char* type : {"text/htm", "text/html2", "", "image/png"}) {
    Response response;
    response.headers.addHeader("Content-Type", type, false);
    response.sendError(404, "");
    EXPECT_EQ(response.headers.size(), 0U) << type;
  }
}

// No byte of a status text ends the status line.
TEST(Response, StatusTextCannotEndItsLine) {
  for (int byte = 0; byte < 256; ++byte) {
    Response response;
    response.sendError(400, std::string("a") + static_cast<char>(byte) + "b");
    const bool control = byte < 0x20 || byte == 0x7f;
    const std::string expected = std::string("a") + (control ? ' ' : static_cast<char>(byte)) + "b";
    EXPECT_EQ(response.getStatusDescription(), expected);
    EXPECT_EQ(heading(response), "HTTP/1.1 400 " + expected + "\r\n\r\n");
  }
  Response response;
  response.sendError(302, "x\r\nSet-Cookie: a=b\r\n\r\n<script>");
  EXPECT_EQ(heading(response), "HTTP/1.1 302 x  Set-Cookie: a=b    <script>\r\n\r\n");
}

TEST(Response, StatusesWithoutAStandardPhrase) {
  for (const int status : {299, 306, 418, 599, 999}) {
    Response response;
    response.sendError(status, "");
    EXPECT_EQ(response.getStatusDescription(), "Unknown");
    EXPECT_EQ(heading(response), "HTTP/1.1 " + std::to_string(status) + " Unknown\r\n\r\n");
  }
}

TEST(Response, StandardPhrases) {
  const std::pair<int, const char*> phrases[] = {
      {200, "OK"},
      {206, "Partial Content"},
      {303, "See Other"},
      {304, "Not Modified"},
      {400, "Bad Request"},
      {403, "Forbidden"},
      {405, "Method Not Allowed"},
      {406, "Not Acceptable"},
      {413, "Content Too Large"},
      {431, "Request Header Fields Too Large"},
      {500, "Internal Server Error"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Gateway Timeout"},
      {511, "Network Authentication Required"},
  };
  for (const auto& [status, phrase] : phrases) {
    Response response;
    response.status = status;
    EXPECT_EQ(response.getStatusDescription(), phrase);
    EXPECT_EQ(heading(response), "HTTP/1.1 " + std::to_string(status) + " " + phrase + "\r\n\r\n");
  }
}

TEST(Response, HeadingIsAppended) {
  Response response;
  response.headers.addHeader("Content-Length", std::uint64_t{12}, false);
  response.headers.addHeader("Connection", "close", false);
  std::string out = "x";
  response.printHeading(out);
  EXPECT_EQ(out, "xHTTP/1.1 200 OK\r\nContent-Length: 12\r\nConnection: close\r\n\r\n");
}

TEST(Response, ResetGivesTheDefaultState) {
  Response response;
  response.headers.addHeader("X", "y", false);
  response.sendFile("/x", "a/b", true);
  response.sendError(500, "text");
  response.cacheable = false;
  response.keepAlivePermitted = false;
  response.onComplete = [] {};
  response.reset();
  EXPECT_FALSE(response.answered());
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.headers.size(), 0U);
  EXPECT_TRUE(response.cacheable);
  EXPECT_TRUE(response.keepAlivePermitted);
  EXPECT_FALSE(response.deleteFile);
  EXPECT_FALSE(response.onComplete);
  EXPECT_EQ(heading(response), "HTTP/1.1 200 OK\r\n\r\n");
}

TEST(Response, ResetGivesBackLargeTexts) {
  Response response;
  response.send(std::string(100000, 'x'));
  response.statusText.assign(5000, 'x');
  response.reset();
  EXPECT_LE(response.body.capacity(), 1024U);
  EXPECT_LE(response.statusText.capacity(), 1024U);
}

struct BodyCase {
  const char* line;
  const char* length;  // null: no such field
  bool permitted;
};

// A body that nobody reads would be taken for the next request.
TEST(Response, ABodyThatIsNotReadEndsTheConnection) {
  for (const BodyCase& c : {BodyCase{"GET / HTTP/1.1", nullptr, true}, BodyCase{"GET / HTTP/1.1", "0", true},
                            BodyCase{"GET / HTTP/1.1", "1", false}, BodyCase{"PUT / HTTP/1.1", "5", false},
                            BodyCase{"HEAD / HTTP/1.1", "5", false}, BodyCase{"POST / HTTP/1.1", "5", true}}) {
    Request request(false, false);
    ASSERT_TRUE(request.parseStatusLine(c.line));
    if (c.length != nullptr) {
      ASSERT_TRUE(request.headers.parseHeaderLine(std::string("Content-Length: ") + c.length));
    }
    Response response;
    response.initFrom(request);
    EXPECT_EQ(response.keepAlivePermitted, c.permitted) << c.line << " " << (c.length != nullptr ? c.length : "");
    EXPECT_FALSE(response.answered());
  }
}

}  // namespace
