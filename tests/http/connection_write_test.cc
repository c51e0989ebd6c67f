#include <sys/stat.h>

#include "http/file_cache.h"
#include "http/file_facts.h"
#include "tests/http/connection_fixture.h"

namespace {

const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";

// Each file is sent in both ways: as a servlet's that knows nothing of it, and from the cache.
enum class Way { plain, cached };

class ConnectionWriteTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    addServlet("/", [this](Request&, Response& response) {
      if (way == Way::cached) remember();
      response.sendFile(file, "text/plain", false);
    });
  }
  void remember() const {
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    rememberFile(file, status);
  }
  void serveText(const std::string& text) {
    site.servlets.clear();
    addServlet("/", [text](Request&, Response& response) { response.send(text); });
  }
  void openNarrow() {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const int bytes = 4096;
    ASSERT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes), 0);
    open(UniqueFd(ends[0]), UniqueFd(ends[1]));
  }
  // Fills what the server's socket takes; the number of bytes.
  std::size_t fillSocket() const {
    const std::string filling(100000, 'f');
    std::size_t filled = 0;
    for (ssize_t count = 0; count >= 0; filled += static_cast<std::size_t>(count > 0 ? count : 0)) {
      count = ::send(fd, filling.data(), filling.size(), MSG_DONTWAIT);
    }
    return filled;
  }
  // What a client gets that takes a little at a time.
  std::string receiveSlowly(std::size_t part) {
    std::string all;
    for (;;) {
      turn();
      const std::string got = peer.receive(part);
      if (got.empty()) return all;
      all += got;
    }
  }

  ScratchDir dir;
  std::string file = dir / "file";
  Way way = Way::plain;
};

struct FileWay {
  const char* name;
  Way way;
  std::size_t size;
};

class FileWayTest : public ConnectionWriteTest, public testing::WithParamInterface<FileWay> {
 protected:
  void SetUp() override {
    ConnectionWriteTest::SetUp();
    way = GetParam().way;
  }

  const std::size_t size = GetParam().size;
};

// A small cached file is mapped, a large one is not.
INSTANTIATE_TEST_SUITE_P(All, FileWayTest,
                         testing::Values(FileWay{"plain", Way::plain, 200000}, FileWay{"cached", Way::cached, 200000},
                                         FileWay{"mapped", Way::cached, 30000}),
                         [](const auto& test) { return test.param.name; });

TEST_P(FileWayTest, SendsAFileAgainAndAgain) {
  const std::string bytes = sampleBytes(12000);
  dir.write("file", bytes);
  open();
  for (int i = 0; i < 3; ++i) {
    const Answer answer = exchange(get);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.field("content-length"), "12000");
    EXPECT_EQ(answer.body, bytes);
  }
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
}

TEST_P(FileWayTest, SendsFilesOfEverySize) {
  open();
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{4096}, std::size_t{4097},
                                   FileCache::maxMappedBytes, FileCache::maxMappedBytes + 1, std::size_t{3000000}}) {
    const std::string bytes = sampleBytes(length);
    dir.write("file", bytes);
    peer.send(get);
    const Answer answer = parseAnswer(receiveSlowly(SIZE_MAX));
    EXPECT_EQ(answer.field("content-length"), std::to_string(length));
    ASSERT_TRUE(answer.body == bytes) << length;
    EXPECT_EQ(connection->state(), State::ReadRequestLine);
  }
}

TEST_P(FileWayTest, SendsToASlowReader) {
  const std::string bytes = sampleBytes(size);
  dir.write("file", bytes);
  openNarrow();
  for (int i = 0; i < 2; ++i) {
    peer.send(get);
    EXPECT_TRUE(parseAnswer(receiveSlowly(777)).body == bytes);
    EXPECT_EQ(connection->state(), State::ReadRequestLine);
  }
}

TEST_P(FileWayTest, ASlowReaderHoldsNobodyElse) {
  dir.write("file", sampleBytes(size));
  openNarrow();
  peer.send(get);
  turn();  // returns, so nothing waits
  EXPECT_EQ(connection->state(), State::Writing);
  Peer slow = std::move(peer);
  Connection* const slowConnection = connection;
  open();
  peer.send(get);
  EXPECT_EQ(parseAnswer(receiveSlowly(SIZE_MAX)).body.size(), size);
  EXPECT_EQ(slowConnection->state(), State::Writing);
}

TEST_P(FileWayTest, AReaderThatStopsIsClosedAfterTwoSeconds) {
  dir.write("file", sampleBytes(size));
  openNarrow();
  peer.send(get);
  turn();
  runner.advance(1999);
  EXPECT_TRUE(live());
  runner.advance(1);
  EXPECT_FALSE(live());
}

TEST_P(FileWayTest, AFileCutShortMeanwhileEndsTheConnection) {
  for (const std::size_t left : {std::size_t{0}, size / 2, size - 1}) {
    captureErrors();
    dir.write("file", sampleBytes(size));
    openNarrow();
    peer.send(get);
    turn();
    ASSERT_EQ(truncate(file.c_str(), static_cast<off_t>(left)), 0);
    const Answer answer = parseAnswer(receiveSlowly(SIZE_MAX));
    EXPECT_LT(answer.body.size(), size);
    EXPECT_FALSE(live());
    EXPECT_EQ(takeErrors(), "");
  }
}

TEST_P(FileWayTest, AFileReplacedMeanwhileIsSentAsItWas) {
  const std::string bytes = sampleBytes(size);
  dir.write("file", bytes);
  openNarrow();
  peer.send(get);
  turn();
  dir.replace("file", std::string(size, 'n'));
  EXPECT_TRUE(parseAnswer(receiveSlowly(SIZE_MAX)).body == bytes);
  peer.send(get);
  EXPECT_TRUE(parseAnswer(receiveSlowly(SIZE_MAX)).body == std::string(size, 'n'));
}

TEST_P(FileWayTest, HeadOfAFileEndsTheConnectionAfterTheHead) {
  captureErrors();
  dir.write("file", sampleBytes(1000));
  open();
  peer.send("HEAD / HTTP/1.1\r\nHost: a\r\n\r\n");
  turn();
  const Answer answer = parseAnswer(peer.receive());
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.field("content-length"), "1000");
  EXPECT_EQ(answer.field("connection"), "Keep-Alive");
  EXPECT_EQ(answer.body, "");
  EXPECT_FALSE(live());
  EXPECT_EQ(takeErrors(), "write: Bad file descriptor\n");
}

TEST_P(FileWayTest, HeadOfAnEmptyFileKeepsTheConnection) {
  dir.write("file", "");
  open();
  EXPECT_EQ(exchange("HEAD / HTTP/1.1\r\nHost: a\r\n\r\n").field("content-length"), "0");
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
}

TEST_P(FileWayTest, SendsThePartThatIsAskedFor) {
  const std::string bytes = sampleBytes(size);
  dir.write("file", bytes);
  openNarrow();
  for (const auto& [range, first, length] : std::vector<std::tuple<std::string, std::size_t, std::size_t>>{
           {"0-99", 0, 100}, {"-100", size - 100, 100}, {"4097-29000", 4097, 24904}, {"-0", size, 0}}) {
    peer.send("GET / HTTP/1.1\r\nRange: bytes=" + range + "\r\n\r\n");
    const Answer answer = parseAnswer(receiveSlowly(5000));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.field("content-length"), std::to_string(length));
    EXPECT_TRUE(answer.body == bytes.substr(first, length)) << range;
  }
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
}

TEST_P(FileWayTest, HoldsNoDescriptorOfAFileThatWasSent) {
  dir.write("file", sampleBytes(1000));
  open();
  exchange(get);
  fileCache().clear();
  const int before = openDescriptors();
  for (const char* range : {"bytes=0-9", "bytes=-0"}) {
    exchange("GET / HTTP/1.1\r\nRange: " + std::string(range) + "\r\n\r\n");
    fileCache().clear();
    EXPECT_EQ(openDescriptors(), before);
  }
  dir.write("file", "");
  exchange(get);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_P(FileWayTest, EndsWhenThePeerGoesAwayDuringTheFile) {
  captureErrors();
  dir.write("file", sampleBytes(size));
  openNarrow();
  peer.send(get);
  turn();
  peer.close();
  EXPECT_TRUE(runner.ready(fd, tn::writable));
  EXPECT_FALSE(live());
  EXPECT_EQ(takeErrors(), "write: Broken pipe\n");
}

TEST_F(ConnectionWriteTest, AMappedFileCutShortBeforeTheFirstWriteEndsTheConnection) {
  captureErrors();
  way = Way::cached;
  dir.write("file", sampleBytes(20000));
  open();
  peer.send(get);
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  ASSERT_EQ(connection->state(), State::Writing);
  ASSERT_EQ(truncate(file.c_str(), 0), 0);
  turn();
  EXPECT_FALSE(live());
  EXPECT_LT(peer.receive().size(), 1000U);
  EXPECT_EQ(takeErrors(), "write: Bad address\n");
}

// The cache holds one head of a file; the response that was made with it may leave when that is another's.
TEST_F(ConnectionWriteTest, AResponseThatWaitsKeepsItsHeadWhenTheFileIsSentWithAnother) {
  way = Way::cached;
  dir.write("file", "contents");
  open();
  peer.send(get);
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  ASSERT_EQ(connection->state(), State::Writing);
  const int first = fd;
  Peer waiting = std::move(peer);
  open();
  const Answer other = exchange("GET / HTTP/1.0\r\n\r\n");
  EXPECT_EQ(other.field("connection"), "close");
  EXPECT_EQ(other.body, "contents");
  EXPECT_TRUE(runner.ready(first, tn::writable));
  const Answer answer = parseAnswer(waiting.receive());
  EXPECT_EQ(answer.field("connection"), "Keep-Alive");
  EXPECT_EQ(answer.body, "contents");
}

// The rest of a page behind the end of its file reads as zeros: they are not the file's.
TEST_F(ConnectionWriteTest, NothingIsSentBehindTheEndOfAFileThatWasCutShortWhileItWaited) {
  captureErrors();
  way = Way::cached;
  dir.write("file", std::string(3000, 'x'));
  openNarrow();
  const std::size_t filled = fillSocket();
  peer.send(get);
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  EXPECT_TRUE(runner.ready(fd, tn::writable));
  ASSERT_EQ(connection->state(), State::Writing);
  ASSERT_EQ(truncate(file.c_str(), 1000), 0);
  const Answer answer = parseAnswer(receiveSlowly(SIZE_MAX).substr(filled));
  EXPECT_EQ(answer.field("content-length"), "3000");
  EXPECT_TRUE(answer.body == std::string(1000, 'x')) << answer.body.size();
  EXPECT_FALSE(live());
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(ConnectionWriteTest, SendsATextToASlowReader) {
  const std::string text = sampleBytes(1 << 20);
  serveText(text);
  openNarrow();
  for (int i = 0; i < 2; ++i) {
    peer.send(get);
    const Answer answer = parseAnswer(receiveSlowly(1001));
    EXPECT_EQ(answer.field("content-length"), std::to_string(text.size()));
    EXPECT_TRUE(answer.body == text);
  }
}

TEST_F(ConnectionWriteTest, HeadOfATextTellsItsLengthAndKeepsTheConnection) {
  serveText("twelve bytes");
  open();
  const Answer answer = exchange("HEAD / HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(answer.field("content-length"), "12");
  EXPECT_EQ(answer.body, "");
  EXPECT_EQ(exchange(get).body, "twelve bytes");
}

TEST_F(ConnectionWriteTest, WaitsWhenTheSocketTakesNothing) {
  captureErrors();
  serveText("small");
  openNarrow();
  const std::size_t filled = fillSocket();
  peer.send(get);
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  EXPECT_TRUE(runner.ready(fd, tn::writable));
  EXPECT_EQ(connection->state(), State::Writing);
  const tn::fakes::FakeRunner::Call told{tn::fakes::FakeRunner::Operation::drained, fd, tn::writable, true};
  EXPECT_EQ(runner.calls.back(), told);
  const std::string all = receiveSlowly(SIZE_MAX);
  EXPECT_EQ(parseAnswer(all.substr(filled)).body, "small");
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(ConnectionWriteTest, RemovesAFileFlaggedForItBeforeItsFirstByteIsSent) {
  const std::string bytes = sampleBytes(5000);
  dir.write("file", bytes);
  site.servlets.clear();
  addServlet("/", [this](Request&, Response& response) {
    remember();
    response.sendFile(file, "text/plain", true);
  });
  open();
  peer.send(get);
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(peer.receive(), "");
  turn();
  EXPECT_EQ(parseAnswer(peer.receive()).body, bytes);
  EXPECT_EQ(fileCache().fileCount(), 0U);
}

TEST_F(ConnectionWriteTest, WritesInTheTurnOfTheRequest) {
  serveText("served");
  open();
  peer.send(get);
  EXPECT_TRUE(runner.ready(fd, tn::readable));
  EXPECT_EQ(connection->state(), State::Writing);
  EXPECT_EQ(runner.mask(fd), tn::writable);
  EXPECT_TRUE(runner.ready(fd, tn::writable));
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
  EXPECT_EQ(runner.mask(fd), tn::readable);
}

TEST_F(ConnectionWriteTest, AnEventForBothReadsAndWrites) {
  serveText("served");
  open();
  peer.send(get);
  ASSERT_TRUE(runner.changeSocket(fd, tn::readable | tn::writable));
  EXPECT_TRUE(runner.ready(fd, tn::readable | tn::writable));
  EXPECT_EQ(parseAnswer(peer.receive()).body, "served");
}

TEST_F(ConnectionWriteTest, IgnoresWritabilityWhileItReads) {
  open();
  exchangeText("GET / HT");
  ASSERT_TRUE(runner.changeSocket(fd, tn::readable | tn::writable));
  EXPECT_TRUE(runner.ready(fd, tn::writable));
  EXPECT_EQ(peer.receive(), "");
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
}

}  // namespace
