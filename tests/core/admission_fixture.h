#pragma once

#include <algorithm>
#include <gmock/gmock.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/admission.h"
#include "tests/core/core_test.h"

namespace core_test {

// Answers every request, and keeps what it knew of it.
class Probe : public Servlet {
 public:
  struct Seen {
    IPAddr6 peerAddress;
    std::uint32_t peerPort;
    IPAddr6 localAddress;
    std::uint32_t localPort;
    std::optional<IPAddr6> originalAddress;
    std::uint32_t originalPort;
    bool ssl;
    bool unix;
  };

  bool isDirectory() override { return true; }
  void doMethod(Request& request, Response& response) override {
    seen.push_back({request.peerAddress, request.peerPort, request.localAddress, request.localPort, std::nullopt,
                    request.originalPort, request.ssl, request.unix});
    if (request.hasOriginal) seen.back().originalAddress = request.originalAddress;
    response.send("answered");
  }

  std::vector<Seen> seen;
};

// So many connections more than there are.
class Crowd {
 public:
  explicit Crowd(std::uint32_t count) : count_(count) { openConnections += count_; }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;
  ~Crowd() { openConnections -= count_; }

 private:
  std::uint32_t count_;
};

inline IPAddr6 ipv4(std::uint32_t address) {
  IPAddr6 result;
  result.setIPv4(address);
  return result;
}

// A server whose connections are taken, as the files of tests about admission share it.
class AdmissionTest : public CoreTest {
 protected:
  // A configured server that listens on TCP, and when told so on its unix socket too.
  ServerEntry& open(bool ssl, bool listenUnix, std::vector<tn::message> allowed = {}) {
    ServerEntry& entry = addConfigured("web", ssl);
    entry.listenUnix = listenUnix;
    entry.servlets.push_back(&probe);
    tn::message message = record("web", port.number());
    if (!allowed.empty()) message.insert_vector(tn::message_array_id(6), allowed);
    if (ssl) message.insert(tn::u32_id(5), 7);
    EXPECT_EQ(told(call(tn::command::set, message)), "ok");
    log.takeLines();
    bus.sent.clear();
    return entry;
  }
  ServerEntry& openPlain() { return open(false, true); }

  static tn::message ipv4Prefix(std::uint32_t address, std::uint32_t mask) {
    tn::message prefix;
    prefix.insert(tn::u32_id(1), address);
    prefix.insert(tn::u32_id(2), mask);
    return prefix;
  }
  static tn::message ipv6Prefix(const in6_addr& address, std::uint32_t length) {
    tn::Addr6 bytes{};
    std::copy(std::begin(address.s6_addr), std::end(address.s6_addr), bytes.begin());
    tn::message prefix;
    prefix.insert(tn::addr6_id(3), bytes);
    prefix.insert(tn::u32_id(4), length);
    return prefix;
  }

  void tcpReady(const ServerEntry& entry) { EXPECT_TRUE(runner.ready(entry.tcpSocket.get(), tn::readable)); }
  void unixReady(const ServerEntry& entry) { EXPECT_TRUE(runner.ready(entry.unixSocket.get(), tn::readable)); }

  // The socket that was watched last.
  [[nodiscard]] int newest() const {
    using Operation = tn::fakes::FakeRunner::Operation;
    const auto added = [](const auto& call) { return call.operation == Operation::add && call.result; };
    const auto found = std::find_if(runner.calls.rbegin(), runner.calls.rend(), added);
    return found == runner.calls.rend() ? -1 : found->fd;
  }

  // Sends a request on an accepted connection and returns the answer.
  std::string exchange(const UniqueFd& client, std::string_view before = "") {
    const std::string request = std::string(before) + "GET / HTTP/1.0\r\n\r\n";
    EXPECT_EQ(write(client.get(), request.data(), request.size()), static_cast<ssize_t>(request.size()));
    const int fd = newest();
    runner.ready(fd, tn::readable);
    runner.ready(fd, tn::writable);
    return readToEnd(client.get());
  }

  HeldPort port;
  Probe probe;
};

}  // namespace core_test
