#include "core/configuration.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <set>

#include "jsproxy/jsproxy_servlet.h"
#include "servlets/dir_servlet.h"
#include "servlets/index_servlet.h"
#include "servlets/remote_servlet.h"
#include "servlets/varnox_servlet.h"
#include "tests/core/core_test.h"

namespace {

using core_test::CoreTest;
using core_test::Lines;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// A configuration directory of the test's own.
class Directory {
 public:
  Directory() {
    std::string pattern = testing::TempDir() + "configurationXXXXXX";
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory() { std::filesystem::remove_all(path_); }

  void write(const std::string& name, std::string_view text) const { std::ofstream(path_ / name) << text; }
  [[nodiscard]] std::string path() const { return path_; }

 private:
  std::filesystem::path path_;
};

class ConfigurationTest : public CoreTest {
 protected:
  // Starts on one document whose root holds `servers`.
  void startWith(const std::string& servers) {
    directory.write("www.xml", "<config>" + servers + "</config>");
    server.start(directory.path());
  }

  template <typename Kind>
  Kind* servletOf(const std::string& name, std::size_t index) const {
    const ServerEntry* entry = find(name);
    if (entry == nullptr || entry->servlets.size() <= index) return nullptr;
    return dynamic_cast<Kind*>(entry->servlets[index]);
  }

  Directory directory;
};

TEST_F(ConfigurationTest, AServerHasTheValuesOfOneThatNoRecordHasReached) {
  startWith("<server name='web'/>");
  EXPECT_THAT(log.takeLines(), ElementsAre("adding server web, ssl=0"));
  const ServerEntry* entry = find("web");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->tcpSocket.get(), -1);
  EXPECT_FALSE(entry->ssl);
  EXPECT_THAT(entry->servlets, IsEmpty());
  EXPECT_EQ(entry->unixSocket.get(), -1);
  EXPECT_FALSE(entry->listenUnix);
  EXPECT_TRUE(entry->listenTcp);
  EXPECT_FALSE(entry->enabled);
  EXPECT_EQ(entry->port, 0U);
  EXPECT_THAT(entry->allowed, IsEmpty());
  EXPECT_EQ(entry->tlsRef, 0xFFFFFFFFU);
  EXPECT_EQ(entry->pauseTimer, 0U);
  EXPECT_FALSE(server.settingsReceived);
  EXPECT_EQ(runner.watchedCount(), 0U);
}

TEST_F(ConfigurationTest, EveryKindOfServletIsMade) {
  startWith(
      "<server name='secure' ssl='yes'>"
      "<servlet type='index' path='/'/>"
      "<servlet type='dir' path='/skins' root='/home/web/skins' cacheable='true'/>"
      "<servlet type='pubdir' path='/pub' root='/rw/pub'/>"
      "<servlet type='varnox' path='/plugins'/>"
      "<servlet type='jsproxy' path='/jsproxy' internal='1'/>"
      "<servlet type='remote' path='/login' target='63,15'/>"
      "</server>");
  EXPECT_THAT(log.takeLines(),
              ElementsAre("adding server secure, ssl=1", "adding servlet ssl index, path=/",
                          "adding servlet ssl dir, path=/skins", "adding servlet ssl pubdir, path=/pub",
                          "adding servlet ssl varnox, path=/plugins", "adding servlet ssl jsproxy, path=/jsproxy",
                          "adding servlet ssl remote, path=/login"));
  EXPECT_NE(servletOf<IndexServlet>("secure", 0), nullptr);
  EXPECT_NE(servletOf<DirServlet>("secure", 1), nullptr);
  EXPECT_NE(servletOf<DirServlet>("secure", 2), nullptr);
  EXPECT_NE(servletOf<VarnoxServlet>("secure", 3), nullptr);
  EXPECT_NE(servletOf<JsProxyServlet>("secure", 4), nullptr);
  const auto* remote = servletOf<RemoteServlet>("secure", 5);
  ASSERT_NE(remote, nullptr);
  EXPECT_THAT(remote->target(), ElementsAre(63, 15));
  EXPECT_EQ(servletOf<Servlet>("secure", 1)->getPath(), "/skins");
}

TEST_F(ConfigurationTest, TheBaseFlagIsTheNegationOfInternal) {
  startWith(
      "<server name='web'><servlet type='index' path='/a'/><servlet type='index' path='/b' internal='yes'/>"
      "<servlet type='index' path='/c' internal='no'/><servlet type='index' path='/d' internal='perhaps'/></server>");
  EXPECT_TRUE(servletOf<Servlet>("web", 0)->baseFlag());
  EXPECT_FALSE(servletOf<Servlet>("web", 1)->baseFlag());
  EXPECT_TRUE(servletOf<Servlet>("web", 2)->baseFlag());
  EXPECT_TRUE(servletOf<Servlet>("web", 3)->baseFlag());
}

// The servlet's members show in what it serves: a root that is empty is no directory.
TEST_F(ConfigurationTest, ADirectoryServletTakesItsRoot) {
  startWith("<server name='web'><servlet type='dir' path='/a' root='" + directory.path() +
            "'/><servlet type='dir' path='/b'/></server>");
  EXPECT_TRUE(servletOf<DirServlet>("web", 0)->isDirectory());
  EXPECT_FALSE(servletOf<DirServlet>("web", 1)->isDirectory());
}

TEST_F(ConfigurationTest, CacheableAndPublicReachTheDirectoryServlet) {
  directory.write("page.html", "text");
  const std::string root = "root='" + directory.path() + "'";
  startWith("<server name='web'><servlet type='dir' path='/a' " + root + "/><servlet type='dir' path='/b' " + root +
            " cacheable='yes'/><servlet type='pubdir' path='/c' " + root + " cacheable='yes'/></server>");
  const auto get = [this](std::size_t index, Response& response) {
    Request request(false, false);
    request.pathInfo = "page.html";
    request.pathInfoSet = true;
    servletOf<DirServlet>("web", index)->doGet(request, response);
  };
  Response plain;
  get(0, plain);
  EXPECT_EQ(plain.status, 200);
  EXPECT_FALSE(plain.cacheable);
  Response cacheable;
  get(1, cacheable);
  EXPECT_EQ(cacheable.status, 200);
  EXPECT_TRUE(cacheable.cacheable);
  Response hidden;
  get(2, hidden);
  EXPECT_EQ(hidden.status, 403);
  directory.write(".public", "");
  Response open;
  get(2, open);
  EXPECT_EQ(open.status, 200);
}

TEST_F(ConfigurationTest, ServersOfOneNameAreOneServer) {
  directory.write("a.xml",
                  "<c><server name='web' ssl='no'><servlet type='index' path='/1'/></server>"
                  "<server name='web' ssl='yes'><servlet type='index' path='/2'/></server></c>");
  directory.write("b.xml", "<c><server name='web' ssl='yes'><servlet type='index' path='/3'/></server></c>");
  server.start(directory.path());
  EXPECT_THAT(log.takeLines(), ElementsAre("adding server web, ssl=0", "adding servlet index, path=/1",
                                           "adding servlet index, path=/2", "adding servlet index, path=/3"));
  EXPECT_THAT(server.servers, SizeIs(1));
  EXPECT_FALSE(find("web")->ssl);
  EXPECT_THAT(find("web")->servlets, SizeIs(3));
}

TEST_F(ConfigurationTest, AllTunnelsAreOneServlet) {
  startWith(
      "<server name='b'><servlet type='jsproxy' path='/first'/></server>"
      "<server name='a'><servlet type='jsproxy' path='/second' internal='yes'/></server>");
  EXPECT_THAT(log.takeLines(), ElementsAre("adding server b, ssl=0", "adding servlet jsproxy, path=/first",
                                           "adding server a, ssl=0", "adding servlet jsproxy, path=/second"));
  auto* tunnel = servletOf<JsProxyServlet>("b", 0);
  ASSERT_NE(tunnel, nullptr);
  EXPECT_EQ(tunnel, servletOf<JsProxyServlet>("a", 0));
  EXPECT_EQ(tunnel->getPath(), "/second");
  EXPECT_FALSE(tunnel->baseFlag());
  EXPECT_EQ(tunnel->handlerId(), 100U);
}

TEST_F(ConfigurationTest, TheTunnelIsOnTheBusWhenItIsConfigured) {
  startWith("<server name='web'><servlet type='jsproxy' path='/jsproxy'/></server>");
  tn::message content;
  content.insert(tn::field::policies, 0U);
  const auto number = bus.request(core_test::serviceManager, 100, 1, content);
  ASSERT_NE(bus.replyTo(number), nullptr);
  EXPECT_EQ(told(bus.replyTo(number)->content), "fe0009 0xfe0009");
}

TEST_F(ConfigurationTest, TheTunnelIsNotOnTheBusOtherwise) {
  startWith("<server name='web'/>");
  const auto number = bus.request(core_test::serviceManager, 100, 1);
  ASSERT_NE(bus.replyTo(number), nullptr);
  EXPECT_EQ(told(bus.replyTo(number)->content), "fe0006 no such service");
}

TEST_F(ConfigurationTest, UnknownKindsArePassedOver) {
  startWith(
      "<server name='web'><servlet type='Dir' path='/1'/><servlet path='/2'/><servlet type='' path='/3'/>"
      "<servlet type='index' path='/4'/></server>");
  EXPECT_THAT(log.takeLines(), ElementsAre("adding server web, ssl=0", "adding servlet index, path=/4"));
  EXPECT_THAT(find("web")->servlets, SizeIs(1));
}

TEST_F(ConfigurationTest, WhatIsAbsentIsEmpty) {
  startWith("<server><servlet type='remote'/><servlet type='remote' path='/r' target='63,x'/></server>");
  EXPECT_THAT(log.takeLines(),
              ElementsAre("adding server , ssl=0", "adding servlet remote, path=", "adding servlet remote, path=/r"));
  EXPECT_THAT(servletOf<RemoteServlet>("", 0)->target(), IsEmpty());
  EXPECT_THAT(servletOf<RemoteServlet>("", 1)->target(), IsEmpty());
}

TEST_F(ConfigurationTest, OnlyServersBelowTheRootAndServletsBelowThemCount) {
  startWith(
      "<group><server name='deep'/></group><servlet type='index' path='/'/>"
      "<server name='web'><group><servlet type='index' path='/'/></group><server name='inner'/></server>");
  EXPECT_THAT(log.takeLines(), ElementsAre("adding server web, ssl=0"));
  EXPECT_THAT(server.servers, SizeIs(1));
}

TEST_F(ConfigurationTest, NothingToReadIsNoError) {
  server.start(directory.path());
  EXPECT_THAT(log.takeLines(), IsEmpty());
  EXPECT_THAT(server.servers, IsEmpty());
  ASSERT_NE(server.config, nullptr);
}

TEST_F(ConfigurationTest, ABrokenDocumentIsToldAndTheOthersStand) {
  directory.write("1.xml", "<c><server name='one'/></c>");
  directory.write("2.xml", "<c>\n<server name='two'></c>");
  directory.write("3.xml", "<!DOCTYPE c [<!ENTITY a 'b'>]><c/>");
  directory.write("4.xml", "");
  directory.write("5.xml", "<c><server name='five'/></c>");
  server.start(directory.path());
  const Lines lines = log.takeLines();
  ASSERT_THAT(lines, SizeIs(5));
  const std::string path = "configuration: " + directory.path();
  EXPECT_THAT(lines[0], testing::StartsWith(path + "/2.xml:2:20: expected "));
  EXPECT_THAT(lines[1], testing::StartsWith(path + "/3.xml:1:"));
  EXPECT_THAT(lines[2], testing::StartsWith(path + "/4.xml:1:1: expected "));
  EXPECT_EQ(lines[3], "adding server one, ssl=0");
  EXPECT_EQ(lines[4], "adding server five, ssl=0");
}

TEST_F(ConfigurationTest, ADirectoryThatIsMissingIsToldAndTheStartGoesOn) {
  server.start("/nonexistent/configuration");
  EXPECT_THAT(log.takeLines(),
              ElementsAre(testing::StartsWith("configuration: /nonexistent/configuration: expected ")));
  loop.advance(200);
  EXPECT_THAT(log.takeLines(), ElementsAre("no settings, asking sermgr and hotspot"));
}

// What a record names is found whatever else its name holds.
TEST_F(ConfigurationTest, NamesAreAnyText) {
  startWith("<server name='&#228;&amp; &lt;'/>");
  tn::message message = disabledRecord("\xC3\xA4& <");
  EXPECT_EQ(told(call(tn::command::set, message)), "ok");
}

}  // namespace
