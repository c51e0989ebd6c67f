#include <gtest/gtest.h>
#include <random>
#include <string>

#include "platform/web/request.h"

namespace {

enum class Outcome { good, malformed, unknownMethod, unknownProtocol };

std::ostream& operator<<(std::ostream& out, Outcome outcome) {
  constexpr const char* names[] = {"good", "malformed", "unknownMethod", "unknownProtocol"};
  return out << names[static_cast<int>(outcome)];
}

// What the engine makes of the result, in its order of questions.
Outcome parse(Request& request, std::string_view line) {
  if (request.parseStatusLine(line)) return Outcome::good;
  EXPECT_EQ(request.uri, "");
  if (request.protocol == Protocol::unknown) return Outcome::unknownProtocol;
  if (request.method == Method::unknown) return Outcome::unknownMethod;
  return Outcome::malformed;
}

Outcome parse(std::string_view line) {
  Request request(false, false);
  return parse(request, line);
}

TEST(RequestLine, Plain) {
  Request request(false, false);
  ASSERT_TRUE(request.parseStatusLine("GET /a/b?x=1 HTTP/1.1"));
  EXPECT_EQ(request.uri, "/a/b?x=1");
  EXPECT_EQ(request.method, Method::get);
  EXPECT_EQ(request.protocol, Protocol::http);
  EXPECT_EQ(request.version, version11);
}

TEST(RequestLine, Methods) {
  const std::pair<const char*, Method> known[] = {
      {"GET /", Method::get}, {"HEAD /", Method::head},  {"POST /", Method::post},   {"OPTIONS /", Method::options},
      {"PUT /", Method::put}, {"DELETE /", Method::del}, {"TRACE /", Method::trace}, {"CONNECT a:1", Method::connect}};
  for (const auto& [start, method] : known) {
    Request request(false, false);
    EXPECT_TRUE(request.parseStatusLine(std::string(start) + " HTTP/1.1")) << start;
    EXPECT_EQ(request.method, method);
  }
}

TEST(RequestLine, OtherTokensAreUnknownMethods) {
  for (const char* method :
       {"get", "Get", "GeT", "PATCH", "GETT", "GE", "G", "PROPFIND", "!#$%&'*+-.^_`|~", "0", "head"}) {
    EXPECT_EQ(parse(std::string(method) + " / HTTP/1.1"), Outcome::unknownMethod) << method;
    EXPECT_EQ(parse(std::string(method) + " /"), Outcome::unknownMethod) << method;
  }
}

TEST(RequestLine, WhatIsNoTokenIsMalformed) {
  for (const char* method : {"G@T", "GET,", "(GET)", "GET/", "GET:", "\"GET\"", "G{T", "[", "G\\T", "G\xc3\x84T"}) {
    EXPECT_EQ(parse(std::string(method) + " / HTTP/1.1"), Outcome::malformed) << method;
  }
}

TEST(RequestLine, Versions) {
  for (unsigned minor = 0; minor <= 9; ++minor) {
    Request request(false, false);
    ASSERT_TRUE(request.parseStatusLine(std::string("GET / HTTP/1.").append(std::to_string(minor))));
    EXPECT_EQ(request.version, 256 + minor);
  }
}

TEST(RequestLine, OtherProtocolsAreUnknown) {
  for (const char* version : {"FTP/1.0",          "HTTP/2.0",  "HTTP/2",    "http/1.1",  "Http/1.1",
                              "HTTP/1.10",        "HTTP/1",    "HTTP/1.",   "HTTP/.1",   "HTTP/0.9",
                              "HTTP/11",          "HTTP/1,1",  "HTTP/1.x",  "HTTP/+1.1", "HTTP/01.1",
                              "HTTP/1.01",        "HTTPS/1.1", "HTTP",      "HTTP/",     "H",
                              "RTSP/1.0",         "SIP/2.0",   "HTTP/1.1/", "xHTTP/1.1", "HTTP/9.9",
                              "HTTP/4294967297.1"}) {
    EXPECT_EQ(parse(std::string("GET / ") + version), Outcome::unknownProtocol) << version;
  }
  EXPECT_EQ(parse("PRI * HTTP/2.0"), Outcome::unknownProtocol);
  EXPECT_EQ(parse("OPTIONS rtsp://camera/ RTSP/1.0"), Outcome::unknownProtocol);
  EXPECT_EQ(parse("PATCH / HTTP/2.0"), Outcome::unknownProtocol);
}

TEST(RequestLine, WithoutAVersion) {
  Request request(false, false);
  ASSERT_TRUE(request.parseStatusLine("GET /x?y"));
  EXPECT_EQ(request.version, version09);
  EXPECT_EQ(request.protocol, Protocol::http);
  EXPECT_EQ(request.uri, "/x?y");
}

TEST(RequestLine, PiecesMissingEmptyOrTooMany) {
  for (const char* line : {"",
                           " ",
                           "  ",
                           "   ",
                           "GET",
                           "GET ",
                           " GET",
                           " /",
                           "GET  ",
                           "GET / ",
                           "GET  /",
                           " GET / HTTP/1.1",
                           "GET  / HTTP/1.1",
                           "GET /  HTTP/1.1",
                           "GET / HTTP/1.1 ",
                           "GET / HTTP/1.1 x",
                           "GET /a b HTTP/1.1",
                           "GET / a b c",
                           "GET  HTTP/1.1",
                           "/ HTTP/1.1",
                           "GET\t/\tHTTP/1.1",
                           "GET\t/ HTTP/1.1",
                           "GET /\tHTTP/1.1"}) {
    EXPECT_EQ(parse(line), Outcome::malformed) << "'" << line << "'";
  }
}

TEST(RequestLine, TargetForms) {
  for (const char* line :
       {"GET / HTTP/1.1", "GET // HTTP/1.1", "GET /a/../b HTTP/1.1", "GET /%zz%00 HTTP/1.1", "GET /?? HTTP/1.1",
        "GET /a{b}|c^`\"<>\\ HTTP/1.1", "GET http://router/ HTTP/1.1", "GET http://router HTTP/1.1",
        "GET HTTP://router:80/a?b HTTP/1.1", "GET https://[::1]:443/ HTTP/1.1", "GET http://router?x HTTP/1.1",
        "OPTIONS * HTTP/1.1", "OPTIONS / HTTP/1.1", "OPTIONS http://router HTTP/1.1", "CONNECT router:443 HTTP/1.1",
        "CONNECT [::1]:443 HTTP/1.1", "CONNECT 10.0.0.1:1 HTTP/1.1"}) {
    EXPECT_EQ(parse(line), Outcome::good) << line;
  }
  for (const char* line : {"GET * HTTP/1.1",
                           "HEAD * HTTP/1.1",
                           "OPTIONS ** HTTP/1.1",
                           "OPTIONS */ HTTP/1.1",
                           "GET a HTTP/1.1",
                           "GET index.html HTTP/1.1",
                           "GET ?x HTTP/1.1",
                           "GET router:443 HTTP/1.1",
                           "GET ftp://router/ HTTP/1.1",
                           "GET http:/router/ HTTP/1.1",
                           "GET http:router HTTP/1.1",
                           "GET http:// HTTP/1.1",
                           "GET http:///a HTTP/1.1",
                           "GET http://?a HTTP/1.1",
                           "GET http://:80/ HTTP/1.1",
                           "GET http://user@router/ HTTP/1.1",
                           "GET http://router:x/ HTTP/1.1",
                           "GET httpx://router/ HTTP/1.1",
                           "GET ://router/ HTTP/1.1",
                           "GET http://[::1/ HTTP/1.1",
                           "GET http://a\\b/ HTTP/1.1",
                           "CONNECT / HTTP/1.1",
                           "CONNECT * HTTP/1.1",
                           "CONNECT router HTTP/1.1",
                           "CONNECT router: HTTP/1.1",
                           "CONNECT :443 HTTP/1.1",
                           "CONNECT http://router/ HTTP/1.1",
                           "CONNECT router:443/ HTTP/1.1",
                           "CONNECT router:4a HTTP/1.1",
                           "CONNECT 123 HTTP/1.1",
                           "CONNECT [::1]443 HTTP/1.1",
                           "CONNECT u@router:443 HTTP/1.1",
                           "GET HTTP/1.1",
                           "GET /a#b HTTP/1.1",
                           "GET /# HTTP/1.1",
                           "GET # HTTP/1.1",
                           "GET http://router/#x HTTP/1.1"}) {
    EXPECT_EQ(parse(line), Outcome::malformed) << line;
  }
}

TEST(RequestLine, TargetIsKeptAsReceived) {
  Request request(false, false);
  ASSERT_TRUE(request.parseStatusLine("GET http://Router:80/A%2fb?q HTTP/1.1"));
  EXPECT_EQ(request.uri, "http://Router:80/A%2fb?q");
}

// Every byte at every place of a line, replaced and inserted.
TEST(RequestLine, EveryByteAtEveryPlace) {
  const std::string line = "GET /x HTTP/1.1";
  for (std::size_t place = 0; place <= line.size(); ++place) {
    for (int byte = 0; byte < 256; ++byte) {
      const char c = static_cast<char>(byte);
      std::string inserted = line;
      inserted.insert(place, 1, c);
      const Outcome outcome = parse(inserted);
      const bool visible = byte > 0x20 && byte < 0x7f;
      if (!visible) {
        EXPECT_EQ(outcome, Outcome::malformed) << byte << " at " << place;
      } else if (place > 4 && place <= 6) {
        EXPECT_EQ(outcome, c == '#' ? Outcome::malformed : Outcome::good) << byte << " at " << place;
      } else if (place > 6) {
        EXPECT_EQ(outcome, Outcome::unknownProtocol) << byte << " at " << place;
      } else {
        EXPECT_NE(outcome, Outcome::unknownProtocol) << byte << " at " << place;
        EXPECT_EQ(outcome == Outcome::good, place == 4 && c == '/') << byte << " at " << place;
      }
      if (place == line.size()) continue;
      std::string replaced = line;
      replaced[place] = c;
      if (!visible && line[place] != c) {
        EXPECT_NE(parse(replaced), Outcome::good) << byte << " for " << place;
        if (c != ' ') {
          EXPECT_EQ(parse(replaced), Outcome::malformed) << byte << " for " << place;
        }
      }
    }
  }
}

// Long targets are looked at by several bytes at a time.
TEST(RequestLine, EveryByteAtEveryPlaceOfALongTarget) {
  const std::string target = "/skins/a-longer-name.css?with=a&query=of+it";
  for (std::size_t place = 1; place < target.size(); ++place) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string changed = target;
      changed[place] = static_cast<char>(byte);
      const bool visible = byte > 0x20 && byte < 0x7f;
      EXPECT_EQ(parse("GET " + changed + " HTTP/1.1"), visible && byte != '#' ? Outcome::good : Outcome::malformed)
          << byte << " at " << place;
      EXPECT_EQ(parse("PATCH " + changed + " HTTP/1.1"), visible ? Outcome::unknownMethod : Outcome::malformed)
          << byte << " at " << place;
      EXPECT_EQ(parse("GET " + changed + " HTTP/2.0"), visible ? Outcome::unknownProtocol : Outcome::malformed)
          << byte << " at " << place;
    }
  }
}

// A malformed request on a connection that has served others is not taken for what those were.
TEST(RequestLine, OutcomeDoesNotDependOnTheRequestBefore) {
  Request request(false, false);
  for (const char* before : {"POST /x HTTP/1.0", "PATCH / HTTP/1.1", "GET / FTP/1.0", "GET /", ""}) {
    static_cast<void>(parse(request, before));
    EXPECT_EQ(parse(request, "GET  /"), Outcome::malformed) << before;
    static_cast<void>(parse(request, before));
    EXPECT_EQ(parse(request, "PATCH / HTTP/1.1"), Outcome::unknownMethod) << before;
    static_cast<void>(parse(request, before));
    EXPECT_EQ(parse(request, "GET / FTP/1.0"), Outcome::unknownProtocol) << before;
    static_cast<void>(parse(request, before));
    EXPECT_EQ(parse(request, "HEAD / HTTP/1.1"), Outcome::good) << before;
    EXPECT_EQ(request.method, Method::head);
    EXPECT_EQ(request.version, version11);
  }
}

// Random lines from the alphabet of request lines: whatever is taken has the parts that the line shows.
TEST(RequestLine, WhatIsTakenReadsBack) {
  constexpr std::string_view pieces[] = {"GET", "POST", "OPTIONS", "CONNECT", " ",       " ",        " ",        "/",
                                         "*",   "a",    ":",       "80",      "http://", "HTTP/1.1", "HTTP/1.0", "?",
                                         "#",   "\t",   "[",       "]",       "@",       "%",        "\x80",     "\r"};
  constexpr const char* names[] = {"", "GET", "HEAD", "POST", "OPTIONS", "PUT", "DELETE", "TRACE", "CONNECT"};
  std::mt19937 random(3);
  int taken = 0;
  for (int round = 0; round < 200000; ++round) {
    std::string line = random() % 2 == 0 ? "GET " : "";
    const auto count = 1 + random() % 6;
    for (unsigned i = 0; i < count; ++i)
      line += pieces[random() % std::size(pieces)];
    Request request(false, false);
    if (parse(request, line) != Outcome::good) continue;
    ++taken;
    std::string again = std::string(names[static_cast<int>(request.method)]) + " " + request.uri;
    if (request.version != version09) again += " HTTP/1." + std::to_string(request.version - version10);
    EXPECT_EQ(again, line);
  }
  EXPECT_GT(taken, 100);
}

}  // namespace
