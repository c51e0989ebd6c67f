#include "platform/web/servlet.h"

#include <gtest/gtest.h>
#include <string>

namespace {

class PageServlet : public Servlet {
 public:
  PageServlet() : Servlet("GET, HEAD") {}
  void doGet(Request&, Response& response) override { response.send("page"); }
};

class FormServlet : public Servlet {
 public:
  FormServlet() : Servlet("POST") {}
  void doPost(Request&, Response& response) override { response.send("form"); }
};

class HeadServlet : public PageServlet {
 public:
  void doHead(Request&, Response& response) override { response.send("head"); }
};

std::string answerOf(Servlet& servlet, const std::string& line) {
  Request request(false, false);
  EXPECT_TRUE(request.parseStatusLine(line + " HTTP/1.1"));
  Response response;
  servlet.doMethod(request, response);
  EXPECT_TRUE(response.answered());
  if (response.status == 200) return response.body;
  return std::to_string(response.status) + " " + std::string(response.headers.getHeader("allow").value_or("none"));
}

TEST(Servlet, MethodsReachTheirOperations) {
  PageServlet page;
  EXPECT_EQ(answerOf(page, "GET /"), "page");
  EXPECT_EQ(answerOf(page, "HEAD /"), "page");
  EXPECT_EQ(answerOf(page, "POST /"), "405 GET, HEAD");
  FormServlet form;
  EXPECT_EQ(answerOf(form, "POST /"), "form");
  EXPECT_EQ(answerOf(form, "GET /"), "405 POST");
  EXPECT_EQ(answerOf(form, "HEAD /"), "405 POST");
  HeadServlet head;
  EXPECT_EQ(answerOf(head, "HEAD /"), "head");
  EXPECT_EQ(answerOf(head, "GET /"), "page");
}

TEST(Servlet, OtherMethodsAreRefused) {
  PageServlet page;
  for (const char* line : {"OPTIONS *", "OPTIONS /", "PUT /", "DELETE /", "TRACE /", "CONNECT a:1"}) {
    EXPECT_EQ(answerOf(page, line), "405 GET, HEAD") << line;
  }
  Request request(false, false);
  request.method = Method::unknown;
  Response response;
  page.doMethod(request, response);
  EXPECT_EQ(response.status, 405);
}

TEST(Servlet, BareServletRefusesAll) {
  Servlet servlet;
  EXPECT_EQ(answerOf(servlet, "GET /"), "405 ");
  EXPECT_EQ(answerOf(servlet, "HEAD /"), "405 ");
  EXPECT_EQ(answerOf(servlet, "POST /"), "405 ");
}

TEST(Servlet, PathAndFlag) {
  Servlet servlet;
  EXPECT_FALSE(servlet.isDirectory());
  EXPECT_EQ(servlet.getPath(), "");
  EXPECT_FALSE(servlet.baseFlag());
  servlet.setPath("/skins");
  servlet.setBaseFlag(true);
  EXPECT_EQ(servlet.getPath(), "/skins");
  EXPECT_TRUE(servlet.baseFlag());
}

}  // namespace
