#include <algorithm>
#include <cstring>
#include <netinet/in.h>

#include "tests/http/connection_fixture.h"

namespace {

using Calls = std::vector<tn::fakes::FakeRunner::Call>;
using Operation = tn::fakes::FakeRunner::Operation;

class ConnectionReadTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    addServlet(
        "/",
        [this](Request& request, Response& response) {
          uris.push_back(request.uri);
          response.send("served");
        },
        true);
  }

  // How often the runner was told that the socket has nothing more to read.
  [[nodiscard]] std::ptrdiff_t drains() const {
    return std::count(runner.calls.begin(), runner.calls.end(),
                      tn::fakes::FakeRunner::Call{Operation::drained, fd, tn::readable, true});
  }

  std::vector<std::string> uris;
};

const std::string plainGet = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";

TEST_F(ConnectionReadTest, ServesARequest) {
  open();
  const Answer answer = exchange(plainGet);
  EXPECT_EQ(answer.statusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(answer.body, "served");
  EXPECT_EQ(uris, std::vector<std::string>{"/x"});
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
}

TEST_F(ConnectionReadTest, TakesLinesThatEndInABareLineFeed) {
  open();
  EXPECT_EQ(exchange("GET /x HTTP/1.1\nHost: a\nConnection: close\n\n").body, "served");
  EXPECT_FALSE(live());
}

TEST_F(ConnectionReadTest, DropsOnlyTheReturnJustBeforeTheLineFeed) {
  open();
  EXPECT_EQ(exchange("GET /x HTTP/1.1\r\nHost: a\r\r\n\r\n").status, 400);
}

TEST_F(ConnectionReadTest, TakesARequestByteByByte) {
  open();
  for (const char c : plainGet) {
    EXPECT_TRUE(uris.empty());
    peer.send(std::string(1, c));
    turn();
  }
  EXPECT_EQ(parseAnswer(peer.receive()).body, "served");
}

TEST_F(ConnectionReadTest, TakesARequestCutAnywhere) {
  const std::string request =
      "GET /a/b?x=1 HTTP/1.1\r\nHost: example\r\nAccept: text/html, */*\nX-Long: " + std::string(700, 'l') + "\r\n\r\n";
  open();
  for (std::size_t cut = 1; cut < request.size(); ++cut) {
    EXPECT_EQ(exchangeText(request.substr(0, cut)), "");
    EXPECT_EQ(exchange(request.substr(cut)).body, "served") << cut;
  }
  EXPECT_EQ(uris, std::vector<std::string>(request.size() - 1, "/a/b?x=1"));
}

TEST_F(ConnectionReadTest, ServesALineWithoutVersionAtOnce) {
  open();
  EXPECT_EQ(exchange("GET /old\n").body, "served");
  EXPECT_FALSE(live());
}

TEST_F(ConnectionReadTest, KeepsTheHeaderTimerForALineWithoutVersion) {
  site.servlets.clear();
  Response* parked = nullptr;
  addServlet(
      "/", [&](Request&, Response& response) { parked = &response; }, true);
  open();
  exchange("GET /old\r\n");
  ASSERT_NE(parked, nullptr);
  runner.advance(2999);
  EXPECT_EQ(connection->state(), State::Dispatched);
  runner.advance(1);
  EXPECT_EQ(connection->state(), State::Closed);
  EXPECT_FALSE(peer.ended());
  const auto complete = std::move(parked->onComplete);
  complete();
  EXPECT_FALSE(live());
  EXPECT_TRUE(peer.ended());
}

// Lines arrive one by one, so that none of them fills the buffer.
class HeaderSizeTest : public ConnectionReadTest {
 protected:
  Answer exchangeHeaderBytes(std::size_t total) {
    const std::string first = "GET /x HTTP/1.1";
    std::vector<std::string> lines{first};
    for (std::size_t left = total - first.size(); left != 0; left -= lines.back().size()) {
      std::string line = std::string("n") + std::to_string(lines.size()) + ":";
      line.resize(left < 150 ? left : 100, 'v');
      lines.push_back(line);
    }
    lines.emplace_back();
    std::string all;
    for (std::size_t i = 0; i < lines.size() && live(); ++i)
      all += exchangeText(lines[i] + "\r\n");
    return parseAnswer(all);
  }
};

TEST_F(HeaderSizeTest, TakesTheLargestHeaderBlock) {
  open();
  EXPECT_EQ(exchangeHeaderBytes(16384).status, 200);
}

TEST_F(HeaderSizeTest, RefusesAHeaderBlockOneByteLarger) {
  open();
  EXPECT_EQ(exchangeHeaderBytes(16385).status, 400);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionReadTest, HoldsNoMoreThan4095BytesWithoutTheEndOfTheBlock) {
  open();
  EXPECT_EQ(exchangeText("GET /" + std::string(4090, 'l')), "");
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
  EXPECT_EQ(exchange("l").status, 400);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionReadTest, CountsWholeLinesOfTheSameReadAsHeld) {
  open();
  EXPECT_EQ(exchangeText("GET /" + std::string(4000, 'l')), "");
  EXPECT_EQ(exchange(" HTTP/1.1\r\nHost: a\r\nField: " + std::string(80, 'v') + "\r\n").status, 400);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionReadTest, HoldsMoreWhenTheReadCompletesTheBlock) {
  open();
  EXPECT_EQ(exchangeText("GET /" + std::string(4000, 'l')), "");
  EXPECT_EQ(exchange(" HTTP/1.1\r\nHost: a\r\nField: " + std::string(4000, 'v') + "\r\n\r\n").status, 200);
}

struct Refusal {
  const char* bytes;
  int status;
  const char* text;
};

class RefusalTest : public ConnectionReadTest, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusalTest, AnswersAndEndsTheConnection) {
  open();
  const std::string all = exchangeText(std::string(GetParam().bytes) + "\r\n\r\n" + plainGet);
  const Answer answer = parseAnswer(all);
  EXPECT_EQ(answer.status, GetParam().status);
  EXPECT_NE(answer.body.find(std::string("<h1>Error ") + std::to_string(GetParam().status) + ": " + GetParam().text +
                             "</h1>"),
            std::string::npos)
      << answer.body;
  EXPECT_EQ(answer.field("connection"), "close");
  EXPECT_EQ(all.find("HTTP/1.1", 1), std::string::npos) << "what follows was read as a request";
  EXPECT_TRUE(uris.empty());
  EXPECT_FALSE(live());
}

INSTANTIATE_TEST_SUITE_P(
    All, RefusalTest,
    testing::Values(Refusal{"GET / FTP/1.1", 503, "unknown protocol"},
                    Refusal{"GET / HTTP/2.0", 503, "unknown protocol"},
                    Refusal{"FETCH / HTTP/1.1", 503, "unknown method"}, Refusal{"GET", 400, "Bad Request"},
                    Refusal{"GET /\x01 HTTP/1.1", 400, "Bad Request"},
                    Refusal{"GET / HTTP/1.1\r\nno colon", 400, "Bad Request"},
                    Refusal{"GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2", 400, "Bad Request"},
                    Refusal{"POST / HTTP/1.1\r\nTransfer-Encoding: chunked", 400, "Bad Request"}));

TEST_F(ConnectionReadTest, AnEmptyFirstLineIsNoRequest) {
  open();
  EXPECT_EQ(exchange("\r\n" + plainGet).status, 400);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionReadTest, LosesARequestBehindTheFirst) {
  open();
  const std::string all = exchangeText(plainGet + "GET /lost HTTP/1.1\r\n\r\n");
  EXPECT_EQ(parseAnswer(all).body, "served");
  EXPECT_EQ(exchange("GET /again HTTP/1.1\r\n\r\n").body, "served");
  EXPECT_EQ(uris, (std::vector<std::string>{"/x", "/again"}));
}

TEST_F(ConnectionReadTest, ClosesSilentlyWhenThePeerEnds) {
  captureErrors();
  open();
  peer.send("GET /x HT");
  turn();
  peer.endSending();
  turn();
  EXPECT_FALSE(live());
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(ConnectionReadTest, ClosesOnAHangUpWithoutReading) {
  open();
  peer.send(plainGet);
  EXPECT_TRUE(runner.ready(fd, tn::readable | tn::hangUp));
  EXPECT_FALSE(live());
  EXPECT_TRUE(uris.empty());
}

TEST_F(ConnectionReadTest, WaitsWhenThereIsNothingToRead) {
  captureErrors();
  open();
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  EXPECT_TRUE(live());
  EXPECT_EQ(drains(), 1);
  EXPECT_EQ(exchange(plainGet).body, "served");
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(ConnectionReadTest, TellsTheRunnerOfShortReadsAlone) {
  open();
  peer.send("GET /x HTTP/1.1\r\nLong: " + std::string(512 - 23, 'l'));
  EXPECT_TRUE(runner.ready(fd, tn::readable));  // the whole room
  EXPECT_EQ(drains(), 0);
  peer.send("l\r\n");
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  EXPECT_EQ(drains(), 1);
}

TEST_F(ConnectionReadTest, ReadsOnceForEachEvent) {
  open();
  peer.send("GET /x HTTP/1.1\r\nLong: " + std::string(1000, 'l') + "\r\n\r\n");
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  EXPECT_TRUE(uris.empty());
  turn();
  EXPECT_EQ(uris.size(), 1U);
}

// 88 bytes as the process that passes connections on writes them.
class ForwardTest : public ConnectionReadTest {
 protected:
  void SetUp() override {
    ConnectionReadTest::SetUp();
    site.servlets.clear();
    addServlet(
        "/",
        [this](Request& request, Response& response) {
          ports = {request.peerPort, request.localPort, request.originalPort};
          addresses = {request.peerAddress.str(true), request.localAddress.str(true),
                       request.originalAddress.str(true)};
          tag = request.forwardTag;
          response.send("served");
        },
        true);
  }

  static std::string inet6(std::uint8_t lastByte, std::uint16_t port) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr.s6_addr[0] = 0xfd;
    address.sin6_addr.s6_addr[15] = lastByte;
    std::string bytes(28, '\0');
    std::memcpy(bytes.data(), &address, 28);
    bytes[2] = static_cast<char>(port >> 8);
    bytes[3] = static_cast<char>(port & 0xff);
    return bytes;
  }
  static std::string inet4(std::uint8_t lastByte, std::uint16_t port) {
    std::string bytes = inet6(0, port);
    const sa_family_t family = AF_INET;
    std::memcpy(bytes.data(), &family, sizeof family);
    const char address[4] = {10, 0, 0, static_cast<char>(lastByte)};
    std::memcpy(bytes.data() + 4, address, 4);
    return bytes;
  }
  static std::string header(std::uint8_t tagEnd) {
    return inet6(1, 40000) + inet4(2, 80) + inet6(3, 443) + std::string("\x01\x02\x03", 3) + static_cast<char>(tagEnd);
  }

  std::vector<std::uint32_t> ports;
  std::vector<std::string> addresses;
  std::uint32_t tag = 0;
};

TEST_F(ForwardTest, TakesTheAddressesFromTheHeader) {
  open(false, true);
  EXPECT_EQ(connection->state(), State::ReadForward);
  EXPECT_EQ(exchange(header(4) + plainGet).body, "served");
  EXPECT_EQ(ports, (std::vector<std::uint32_t>{40000, 80, 443}));
  EXPECT_EQ(addresses, (std::vector<std::string>{"fd00::1", "10.0.0.2", "fd00::3"}));
  EXPECT_EQ(tag, 0x01020304U);
  EXPECT_TRUE(connection->request().hasOriginal);
}

TEST_F(ForwardTest, WantsTheHeaderBeforeEveryRequest) {
  open(false, true);
  EXPECT_EQ(exchange(header(4) + plainGet).status, 200);
  EXPECT_EQ(connection->state(), State::ReadForward);
  EXPECT_EQ(exchange(header(5) + plainGet).status, 200);
  EXPECT_EQ(tag, 0x01020305U);
  EXPECT_EQ(exchangeText(plainGet), "");  // 28 bytes of a forwarding header
  EXPECT_EQ(connection->state(), State::ReadForward);
}

TEST_F(ForwardTest, TakesItCutAnywhere) {
  const std::string all = header(9) + plainGet;
  open(false, true);
  for (std::size_t cut = 1; cut < all.size(); ++cut) {
    EXPECT_EQ(exchangeText(all.substr(0, cut)), "");
    EXPECT_EQ(exchange(all.substr(cut)).body, "served") << cut;
    EXPECT_EQ(tag, 0x01020309U);
  }
}

TEST_F(ForwardTest, TakesAnUnknownAddressFamilyAsNoAddress) {
  open(false, true);
  std::string bytes = header(4);
  std::fill_n(bytes.begin(), 2, '\xff');
  EXPECT_EQ(exchange(bytes + plainGet).status, 200);
  EXPECT_EQ(addresses.front(), "::");
  EXPECT_EQ(ports.front(), 40000U);
}

TEST_F(ForwardTest, GrowsTheBufferAlsoBehindAHeader) {
  open(false, true);
  peer.send(header(4) + "GET /x HTTP/1.1\r\nLong: " + std::string(3000, 'l') + "\r\n\r\n");
  turn();
  EXPECT_EQ(parseAnswer(peer.receive()).body, "served");
}

// 512 bytes less the header, doubled until a line of 3392 bytes and more is a matter of the next read.
TEST_F(ForwardTest, DoublesWhatTheHeaderHasLeftOfTheBuffer) {
  dropSpares();
  open(false, true);
  std::string bytes = "GET /" + std::string(4187, 'l') + " HTTP/1.1\r\n\r\n";
  EXPECT_EQ(exchange(header(4) + bytes).status, 200);
  bytes.insert(5, 3000, 'l');  // what the buffer holds of it in the end fits no more
  EXPECT_EQ(exchange(header(4) + bytes).status, 400);
}

TEST_F(ForwardTest, BelongsToTheUnixListenerOfAServerWithoutTlsAlone) {
  open(true, true);
  EXPECT_EQ(exchange(plainGet).status, 200);
  peer.close();
  endAllConnections();
  open(true, false);
  EXPECT_EQ(exchange(plainGet).status, 200);
}

}  // namespace
