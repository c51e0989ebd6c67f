#pragma once

#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/listeners.h"
#include "core/process_lifetime.h"
#include "core/web_server.h"
#include "http/connection.h"
#include "platform/bus/looper.h"
#include "platform/log.h"
#include "tests/core/output_capture.h"
#include "tests/core/sockets.h"
#include "tests/fakes/recording_bus.h"

namespace core_test {

using Lines = std::vector<std::string>;

constexpr std::uint32_t serviceManager = 68;
constexpr std::uint32_t tlsService = 12;

// A server core on a loop turned by hand, with real sockets. Servers are never destroyed, so what is left open of them
// is closed at the end, and what they have accepted is ended; then no descriptor may be left.
class CoreTest : public testing::Test {
 protected:
  CoreTest() : descriptors_(openDescriptors()) { loop.looper.addHandler(1, server); }

  ~CoreTest() override {
    for (const auto& [name, entry] : server.servers)
      closeListeners(*entry);
    endAllConnections();
    bus.sent.clear();
    EXPECT_EQ(openConnections, 0U);
    EXPECT_EQ(runner.watchedCount(), 0U);
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  // A server as the configuration makes it.
  ServerEntry& addConfigured(const std::string& name, bool ssl = false) {
    ServerEntry& entry = keepForProcess(std::make_unique<ServerEntry>());
    entry.ssl = ssl;
    server.servers[name] = &entry;
    return entry;
  }

  [[nodiscard]] ServerEntry* find(const std::string& name) const {
    const auto found = server.servers.find(name);
    return found == server.servers.end() ? nullptr : found->second;
  }

  static tn::message record(std::string_view name, std::uint32_t port) {
    tn::message message;
    message.insert(tn::string_id(1), name);
    message.insert(tn::u32_id(2), port);
    return message;
  }

  static tn::message disabledRecord(std::string_view name) {
    tn::message message = record(name, 80);
    message.insert(tn::field::disabled, true);
    return message;
  }

  // Sends a command of the service manager and returns what it is answered.
  tn::message call(std::uint32_t command, tn::message message) {
    const std::uint32_t number = bus.request(serviceManager, 1, command, std::move(message));
    const auto* reply = bus.replyTo(number);
    EXPECT_NE(reply, nullptr);
    return reply == nullptr ? tn::message() : reply->content;
  }

  // The code and the text of an error; "ok" for an answer that is none.
  static std::string told(const tn::message& reply) {
    if (!tn::isError(reply)) return "ok";
    return std::string(NumberText(reply.get(tn::field::errorCode).value_or(0), 16)) + " " + tn::getError(reply);
  }

  OutputCapture log{STDOUT_FILENO};
  OutputCapture systemErrors{STDERR_FILENO};

 private:
  std::size_t descriptors_;

 protected:
  tn::fakes::TestLooper loop;
  tn::fakes::RecordingBus& bus = loop.bus;
  tn::fakes::FakeRunner& runner = loop.runner;
  WebServer server;
};

}  // namespace core_test
