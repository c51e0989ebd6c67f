#include "tests/http/connection_fixture.h"

namespace {

class ConnectionDispatchTest : public ConnectionTest {
 protected:
  ScriptedServlet& serve(const std::string& path, const std::string& text, bool directory) {
    return addServlet(
        path,
        [this, text](Request& request, Response& response) {
          uri = request.uri;
          query = request.query;
          pathInfo = request.pathInfo;
          EXPECT_TRUE(request.pathInfoSet);
          response.send(text);
        },
        directory);
  }
  std::string get(const std::string& target) {
    const Answer answer = exchange("GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n");
    return answer.status == 200 ? answer.body : std::to_string(answer.status);
  }

  std::string uri;
  std::string query;
  std::string pathInfo;
};

TEST_F(ConnectionDispatchTest, KeepsTheTargetAndTellsTheQuery) {
  serve("/", "root", true);
  open();
  EXPECT_EQ(get("/a/b?x=1"), "root");
  EXPECT_EQ(uri, "/a/b?x=1");
  EXPECT_EQ(query, "x=1");
  EXPECT_EQ(pathInfo, "a/b");
  EXPECT_EQ(get("/a/b?"), "root");
  EXPECT_EQ(uri, "/a/b?");
  EXPECT_EQ(query, "");
  EXPECT_EQ(get("/a?b?c"), "root");
  EXPECT_EQ(query, "b?c");
  EXPECT_EQ(get("/plain"), "root");
  EXPECT_EQ(query, "");
}

TEST_F(ConnectionDispatchTest, ChoosesTheLongestPrefix) {
  serve("/", "root", true);
  serve("/skins", "skins", true);
  open();
  EXPECT_EQ(get("/skins/x"), "skins");
  EXPECT_EQ(pathInfo, "x");
  EXPECT_EQ(get("/skinsx"), "skins");
  EXPECT_EQ(pathInfo, "x");
  EXPECT_EQ(get("/skin"), "root");
  EXPECT_EQ(pathInfo, "skin");
}

TEST_F(ConnectionDispatchTest, AnExactServletWinsWhereverItStands) {
  serve("/", "root", true);
  serve("/index.html", "exact", false);
  open();
  EXPECT_EQ(get("/index.html"), "exact");
  EXPECT_EQ(pathInfo, "");
  EXPECT_EQ(get("/index.html?q"), "exact");
  EXPECT_EQ(get("/index.htmlx"), "root");
}

TEST_F(ConnectionDispatchTest, AnswersNotFoundWithoutAServlet) {
  serve("/only", "only", false);
  open();
  const Answer answer = exchange("GET /other HTTP/1.1\r\n\r\n");
  EXPECT_EQ(answer.status, 404);
  EXPECT_NE(answer.body.find("Error 404: Not Found"), std::string::npos);
  EXPECT_EQ(answer.field("connection"), "Keep-Alive");
  EXPECT_EQ(get("/only"), "only");
}

TEST_F(ConnectionDispatchTest, TakesATargetInAbsoluteForm) {
  serve("/", "root", true);
  open();
  EXPECT_EQ(get("http://host:8080/a/b?x=1"), "root");
  EXPECT_EQ(uri, "http://host:8080/a/b?x=1");
  EXPECT_EQ(query, "x=1");
  EXPECT_EQ(pathInfo, "a/b");
  EXPECT_EQ(get("http://host"), "root");
  EXPECT_EQ(pathInfo, "");
  EXPECT_EQ(get("http://host?x"), "root");
  EXPECT_EQ(query, "x");
}

TEST_F(ConnectionDispatchTest, NothingOfARequestReachesTheNext) {
  serve("/", "root", true);
  open();
  get("/a/b?x=1");
  exchange("HEAD /missing HTTP/1.1\r\nRange: bytes=0-1\r\n\r\n");
  EXPECT_EQ(get("/"), "root");
  EXPECT_EQ(query, "");
  EXPECT_EQ(pathInfo, "");
  EXPECT_FALSE(connection->request().headers.hasHeader("range"));
}

TEST_F(ConnectionDispatchTest, EndsAfterABodyThatNobodyReads) {
  serve("/", "root", true);
  open();
  const std::string all = exchangeText("GET / HTTP/1.1\r\nContent-Length: 20\r\n\r\nGET /x HTTP/1.1\r\n\r\n");
  EXPECT_EQ(parseAnswer(all).field("connection"), "close");
  EXPECT_EQ(all.find("HTTP/1.1 ", 1), std::string::npos);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionDispatchTest, KeepsTheConnectionOfAnEmptyBody) {
  serve("/", "root", true);
  open();
  EXPECT_EQ(exchange("GET / HTTP/1.1\r\nContent-Length: 0\r\n\r\n").field("connection"), "Keep-Alive");
}

}  // namespace
