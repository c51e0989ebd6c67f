#pragma once

// Handlers and their looper over a recorded bus.

#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/handler.h"
#include "platform/bus/looper.h"
#include "tests/fakes/recording_bus.h"

namespace tn::testing_support {

using fakes::RecordingBus;
using fakes::TestLooper;
using Path = std::vector<std::uint32_t>;

inline constexpr std::uint32_t service = 68;

inline message addressed(const Path& path, std::uint32_t command = 1) {
  message msg;
  msg.insert_vector(field::destination, path);
  msg.insert(field::command, command);
  return msg;
}

inline message withDescriptor(const Path& path, int fd) {
  message msg = addressed(path);
  msg.insert(field::descriptor, static_cast<std::uint32_t>(fd));
  return msg;
}

inline std::uint32_t codeOf(const message& msg) {
  return msg.get(field::errorCode).value_or(0);
}

// Records what it is asked, and answers what a test tells it to.
class Probe : public Handler {
 public:
  message cmdSet(message& msg) override {
    commands.push_back(msg);
    if (onSet) return onSet(msg);
    return {};
  }
  message cmdGetObj(message& msg, std::uint32_t object) override {
    objects.push_back(object);
    return Handler::cmdUnknown(msg, 0);
  }
  void attached(Looper&, std::uint32_t id) override { events.push_back("attached " + std::to_string(id)); }
  void detached() override { events.emplace_back("detached"); }
  void linked() override { events.emplace_back("linked"); }
  void unlinked() override { events.emplace_back("unlinked"); }

  std::vector<message> commands;
  std::vector<std::uint32_t> objects;
  std::vector<std::string> events;
  std::function<message(message&)> onSet;
};

class HandlerTest : public testing::Test {
 protected:
  HandlerTest() { loop.looper.addHandler(7, probe); }
  ReplyCallback note() {
    return [this](const message& reply) { replies.push_back(reply); };
  }

  TestLooper loop;
  RecordingBus& bus = loop.bus;
  Probe probe;
  std::vector<message> replies;
};

}  // namespace tn::testing_support
