// What an idle connection costs. All memory of this program goes through the counters below.
#include <cstdlib>
#include <malloc.h>
#include <new>

#include "tests/http/connection_fixture.h"

namespace {

std::size_t liveBytes = 0;
std::size_t allocations = 0;

}  // namespace

void* operator new(std::size_t size) {
  void* memory = std::malloc(size);
  if (memory == nullptr) std::abort();
  liveBytes += malloc_usable_size(memory);
  ++allocations;
  return memory;
}

void operator delete(void* memory) noexcept {
  if (memory == nullptr) return;
  liveBytes -= malloc_usable_size(memory);
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace {

class ConnectionMemoryTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    addServlet(
        "/", [](Request&, Response& response) { response.send(std::string(3000, 't')); }, true);
    request_ = "GET /" + std::string(200, 'p') + "?" + std::string(200, 'q') + " HTTP/1.1\r\nHost: example\r\n";
    for (int i = 0; i < 12; ++i)
      request_ += "Field-" + std::to_string(i) + ": " + std::string(60, 'v') + "\r\n";
    request_ += "\r\n";
  }

  std::string request_;
};

TEST_F(ConnectionMemoryTest, AnIdleConnectionCostsLittle) {
  constexpr std::size_t count = 50;
  constexpr std::size_t maxBytes = 1536;
  std::vector<Peer> peers;
  peers.reserve(count);
  open();
  ASSERT_EQ(exchange(request_).status, 200);
  peers.push_back(std::move(peer));
  const std::size_t before = liveBytes;
  for (std::size_t i = 0; i < count; ++i) {
    open();
    runner.calls.clear();
    runner.calls.shrink_to_fit();
    ASSERT_EQ(exchange(request_).status, 200);
    ASSERT_EQ(connection->state(), State::ReadRequestLine);
    peers.push_back(std::move(peer));
  }
  runner.calls.clear();
  runner.calls.shrink_to_fit();
  const std::size_t each = (liveBytes - before) / count;  // with what the runner keeps
  RecordProperty("bytes", static_cast<int>(each));
  EXPECT_LT(each, maxBytes);
}

TEST_F(ConnectionMemoryTest, AKeptConnectionAllocatesLittlePerRequest) {
  open();
  runner.calls.reserve(1000);
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(exchange(request_).status, 200);
  peer.send(request_);
  const std::size_t before = allocations;
  turn();
  EXPECT_LE(allocations - before, 6U);  // the target in its three parts, and the text
}

}  // namespace
