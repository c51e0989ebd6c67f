// Many sessions in one process, without sockets: what an idle one costs in memory, and how long the loop is held when
// all of them end at once.
//
//   tunnel_sessions COUNT
//
// Prints: bytes of a logged-in idle session beside its two ciphers; milliseconds of processor time of a look at all of
// them that ends none, and of the longest turn of the loop while all end; and how many turns that took.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <malloc.h>
#include <memory>
#include <string>
#include <vector>

#include "jsproxy/json_form.h"
#include "jsproxy/jsproxy_servlet.h"
#include "jsproxy/text_code.h"
#include "platform/byte_order.h"
#include "tests/fakes/recording_bus.h"
#include "tests/jsproxy/clock.h"

namespace {

// Takes what is sent as the real link does: its bytes wait in a queue.
class QueueingBus : public tn::fakes::RecordingBus {
 public:
  bool send(tn::FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload,
            UniqueFd descriptor) override {
    if (!queueing) return RecordingBus::send(kind, peer, payload, std::move(descriptor));
    queue.insert(queue.end(), payload.begin(), payload.end());
    ++count;
    return true;
  }
  bool queueing = false;
  std::vector<std::uint8_t> queue;
  std::size_t count = 0;
};

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "tunnel_sessions: %s\n", what);
  std::exit(1);
}

double milliseconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

std::string post(JsProxyServlet& servlet, Response& response, Request& request, std::string_view body) {
  request.method = Method::post;
  request.pathInfoSet = true;
  request.headers.addHeader("content-length", body.size(), false);
  servlet.doMethod(request, response);
  if (!request.bodyConsumer) fail("a request was refused");
  request.bodyConsumer(body, true);
  return response.body;
}

// A session that has logged in. The browser's part of the key exchange is left out of account by giving it the point
// of order one: both sides know the secret then.
void logIn(JsProxyServlet& servlet, tn::fakes::RecordingBus& bus) {
  const SessionKeys keys = deriveSessionKeys(MasterKey());
  Request hello(false, false);
  Response answer;
  std::string bytes;
  textToBytes(post(servlet, answer, hello, bytesToText(std::vector<std::uint8_t>(40))), bytes);
  const std::uint32_t id = loadBe32(asBytes(bytes).data());
  std::string frame = bytes.substr(0, 4) + std::string("\0\0\0\1", 4) + "{s1:'admin',s3:'secret'}        ";
  RC4 cipher = startCipher(keys.receive);
  cipher.encrypt(asWritableBytes(frame).subspan(8));
  Request login(false, false);
  Response granted;
  post(servlet, granted, login, bytesToText(asBytes(frame)));
  tn::message reply;
  reply.insert(tn::u32_id(11), 0x50);
  reply.insert(tn::string_id(24), "admin");
  bus.answer(bus.sent.back(), reply);
  bus.sent.clear();
  if (granted.status != 200 || !servlet.findSession(id)->loggedIn) fail("a login was refused");
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t count = argc == 2 ? std::strtoul(argv[1], nullptr, 10) : 0;
  if (count == 0) fail("usage: tunnel_sessions COUNT");
  auto ownRunner = std::make_unique<tn::fakes::FakeRunner>();
  auto ownBus = std::make_unique<QueueingBus>();
  tn::fakes::FakeRunner& runner = *ownRunner;
  QueueingBus& bus = *ownBus;
  tn::Looper looper(std::move(ownRunner), std::move(ownBus));
  JsProxyServlet servlet;
  jsproxy_test::clockSeconds = 1000;
  logIn(servlet, bus);
  const std::size_t before = mallinfo2().uordblks;
  for (std::size_t i = 0; i < count; ++i)
    logIn(servlet, bus);
  const std::size_t each = (mallinfo2().uordblks - before) / count - 2 * sizeof(RC4);
  bus.queueing = true;
  bus.queue.reserve(count * 64);

  const double begin = milliseconds();
  runner.advance(JsProxyServlet::expireEveryMs);
  looper.finishTurn();
  const double look = milliseconds() - begin;

  jsproxy_test::clockSeconds += 60;
  runner.timers().setNow(runner.timers().now() + std::chrono::milliseconds(JsProxyServlet::expireEveryMs));
  double longest = 0;
  std::size_t turns = 0;
  for (; servlet.sessionCount() > 0; ++turns) {
    const double start = milliseconds();
    runner.timers().runExpired(runner.timers().now());
    looper.finishTurn();
    longest = std::max(longest, milliseconds() - start);
  }
  if (bus.count != count + 1) fail("not every end was told");
  std::printf("%zu %.3f %.3f %zu\n", each, look, longest, turns);
  return 0;
}
