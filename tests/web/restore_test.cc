#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/message.h"
#include "platform/web/response.h"

// The field numbers stand here as literals: they are what services in other languages rely on.

namespace {

std::string heading(const Response& response) {
  std::string out;
  response.printHeading(out);
  return out;
}

tn::message answerWith(const std::vector<std::string>& lines) {
  tn::message msg;
  EXPECT_TRUE(msg.insert_vector(tn::string_array_id(5), lines));
  return msg;
}

TEST(Restore, WholeAnswer) {
  tn::message msg = answerWith({"Content-Type: text/plain", "X-A:b"});
  msg.insert(tn::u32_id(1), 201);
  msg.insert(tn::string_id(2), "Made");
  msg.insert(tn::string_id(30), "body");
  msg.insert(tn::bool_id(16), true);
  Response response;
  response.restore(msg);
  EXPECT_TRUE(response.answered());
  EXPECT_EQ(heading(response), "HTTP/1.1 201 Made\r\nContent-Type: text/plain\r\nX-A: b\r\n\r\n");
  EXPECT_EQ(response.body, "body");
  EXPECT_TRUE(response.cacheable);
  EXPECT_TRUE(response.keepAlivePermitted);
}

TEST(Restore, AnEmptyMessageIsAnEmptyDocument) {
  Response response;
  response.restore(tn::message());
  EXPECT_TRUE(response.answered());
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "");
  EXPECT_FALSE(response.cacheable);
  EXPECT_EQ(heading(response), "HTTP/1.1 200 OK\r\n\r\n");
}

TEST(Restore, FieldsOfOtherTypesAreNotTaken) {
  tn::message msg;
  msg.insert(tn::u64_id(1), std::uint64_t{404});
  msg.insert(tn::string_id(5), "X: y");
  msg.insert(tn::string_id(16), "1");
  const std::vector<std::uint8_t> raw{1, 2};
  msg.insert(tn::raw_id(30), raw);
  Response response;
  response.restore(msg);
  EXPECT_EQ(heading(response), "HTTP/1.1 200 OK\r\n\r\n");
  EXPECT_EQ(response.body, "");
  EXPECT_FALSE(response.cacheable);
}

TEST(Restore, ErrorsBecomeGatewayErrors) {
  const std::pair<std::uint32_t, int> cases[] = {{0xfe000d, 504}, {0xfe000e, 502}, {0xfe0006, 502},
                                                 {0xfe0007, 502}, {0xfe0009, 502}, {0, 502}};
  for (const auto& [code, status] : cases) {
    tn::message msg = answerWith({"X: y"});
    msg.insert(tn::u32_id(0xff0022), code);
    msg.insert(tn::string_id(0xff0023), "secret reason");
    msg.insert(tn::u32_id(1), 200);
    msg.insert(tn::string_id(30), "body");
    Response response;
    response.restore(msg);
    EXPECT_EQ(response.status, status);
    EXPECT_EQ(heading(response),
              status == 504 ? "HTTP/1.1 504 Gateway Timeout\r\n\r\n" : "HTTP/1.1 502 Bad Gateway\r\n\r\n");
    EXPECT_EQ(response.body, "");
  }
}

TEST(Restore, StatusOutsideTheRange) {
  for (const std::uint32_t status :
       {0U, 1U, 99U, 100U, 101U, 199U, 600U, 999U, 65536U + 200U, 0x80000000U, 0xffffffffU}) {
    tn::message msg = answerWith({"X: y"});
    msg.insert(tn::u32_id(1), status);
    msg.insert(tn::string_id(2), "text");
    Response response;
    response.restore(msg);
    EXPECT_EQ(response.status, 502) << status;
    EXPECT_EQ(response.getStatusDescription(), "Bad Gateway");
  }
  for (const std::uint32_t status : {200U, 299U, 300U, 404U, 599U}) {
    tn::message msg;
    msg.insert(tn::u32_id(1), status);
    Response response;
    response.restore(msg);
    EXPECT_EQ(response.status, static_cast<int>(status));
    EXPECT_TRUE(response.answered());
  }
}

TEST(Restore, StatusTextCannotInjectLines) {
  tn::message msg;
  msg.insert(tn::u32_id(1), 302);
  msg.insert(tn::string_id(2), "Found\r\nSet-Cookie: a=b\r\n\r\n");
  Response response;
  response.restore(msg);
  EXPECT_EQ(heading(response), "HTTP/1.1 302 Found  Set-Cookie: a=b    \r\n\r\n");
}

TEST(Restore, HeaderLinesThatAreNoneAreLeftOut) {
  using namespace std::string_literals;
  Response response;
  response.restore(answerWith({"", ":", ": x", "no colon", "a b: c", "a : b", " a: b", "\ta: b",
                               "a:b\r\nSet-Cookie: x=y"s, "a:\rb"s, "a:\nb"s, "a: b\0c"s, "a\r: b"s, "a: b\x7f"s,
                               "a: b\tc"s, "a: \x01"s, "\xc3\xa4: b"s, "a(: b", "Good: value"}));
  EXPECT_EQ(heading(response), "HTTP/1.1 200 OK\r\nGood: value\r\n\r\n");
}

// A line with any byte at any place gives one whole field or none.
TEST(Restore, EveryByteAtEveryPlace) {
  const std::string line = "Name: value";
  for (std::size_t place = 0; place <= line.size(); ++place) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string changed = line;
      changed.insert(place, 1, static_cast<char>(byte));
      Response response;
      response.restore(answerWith({changed}));
      ASSERT_LE(response.headers.size(), 1U);
      response.headers.forEach([](std::string_view name, std::string_view value) {
        for (const std::string_view text : {name, value}) {
          for (const char c : text) {
            const auto code = static_cast<unsigned char>(c);
            EXPECT_TRUE(code >= 0x20 && code != 0x7f);
          }
        }
      });
      if (byte < 0x20 || byte == 0x7f) {
        EXPECT_EQ(response.headers.size(), 0U) << byte << " at " << place;
      }
    }
  }
}

TEST(Restore, FieldsOfTheWriterAreLeftOut) {
  Response response;
  response.restore(
      answerWith({"Content-Length: 5", "content-length:5", "Date: x", "Expires: x", "Cache-Control: x", "Pragma: x",
                  "Connection: x", "LAST-MODIFIED: x", "Content-Range: x", "Transfer-Encoding: chunked",
                  "Keep-Alive: x", "Upgrade: x", "Trailer: x", "TE: x", "Content-Language: de", "Location: /login"}));
  EXPECT_EQ(heading(response), "HTTP/1.1 200 OK\r\nContent-Language: de\r\nLocation: /login\r\n\r\n");
}

TEST(Restore, CookiesStayApart) {
  Response response;
  response.restore(answerWith({"Set-Cookie: a=1, x", "X: y", "Set-Cookie: b=2"}));
  EXPECT_EQ(heading(response), "HTTP/1.1 200 OK\r\nSet-Cookie: a=1, x\r\nX: y\r\nSet-Cookie: b=2\r\n\r\n");
}

TEST(Restore, HeaderBlockIsBounded) {
  const std::string line = "X: " + std::string(1021, 'x');
  ASSERT_EQ(line.size(), 1024U);
  Response largest;
  largest.restore(answerWith(std::vector<std::string>(64, line)));
  EXPECT_EQ(largest.status, 200);
  EXPECT_EQ(largest.headers.size(), 64U);
  std::vector<std::string> lines(64, line);
  lines.emplace_back("Y: z");
  Response tooLarge;
  tooLarge.restore(answerWith(lines));
  EXPECT_EQ(tooLarge.status, 502);
  EXPECT_EQ(tooLarge.headers.size(), 0U);
}

TEST(Restore, BodiesThatNobodyWouldReadAreDropped) {
  for (const std::uint32_t status : {204U, 205U, 304U, 404U}) {
    tn::message msg = answerWith({"Content-Type: application/json", "Content-Encoding: gzip", "Allow: GET"});
    msg.insert(tn::u32_id(1), status);
    msg.insert(tn::string_id(30), "{}");
    Response response;
    response.restore(msg);
    EXPECT_EQ(response.body, "");
    EXPECT_TRUE(response.answered());
    EXPECT_FALSE(response.headers.hasHeader("content-type"));
    EXPECT_FALSE(response.headers.hasHeader("content-encoding"));
    EXPECT_TRUE(response.headers.hasHeader("allow"));
    EXPECT_EQ(response.keepAlivePermitted, status != 304);
  }
}

TEST(Restore, BodiesAreBytes) {
  std::string body;
  for (int byte = 0; byte < 256; ++byte)
    body.push_back(static_cast<char>(byte));
  tn::message msg;
  msg.insert(tn::string_id(30), body);
  Response response;
  response.restore(msg);
  EXPECT_EQ(response.body, body);
}

TEST(Restore, CompletionRunsLastAndOnce) {
  Response response;
  int runs = 0;
  response.onComplete = [&] {
    ++runs;
    EXPECT_TRUE(response.answered());
    EXPECT_FALSE(response.onComplete);
    EXPECT_EQ(response.body, "body");
  };
  tn::message msg;
  msg.insert(tn::string_id(30), "body");
  response.restore(msg);
  EXPECT_EQ(runs, 1);
  response.restore(msg);
  EXPECT_EQ(runs, 1);
}

// The engine destroys a connection that was closed meanwhile, and the response and the callable with it.
TEST(Restore, CompletionMayDestroyTheResponse) {
  for (const bool error : {false, true}) {
    auto response = std::make_unique<Response>();
    const auto witness = std::make_shared<int>(0);
    response->onComplete = [&response, witness] {
      response.reset();
      ++*witness;
    };
    tn::message msg;
    if (error) msg.insert(tn::u32_id(0xff0022), 0xfe000d);
    response->restore(msg);
    EXPECT_EQ(response, nullptr);
    EXPECT_EQ(*witness, 1);
    EXPECT_EQ(witness.use_count(), 1);
  }
}

}  // namespace
