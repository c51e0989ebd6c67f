#pragma once

#include <gmock/gmock.h>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "jsproxy/json_form.h"
#include "jsproxy/jsproxy_servlet.h"
#include "platform/bus/looper.h"
#include "tests/core/output_capture.h"
#include "tests/fakes/recording_bus.h"
#include "tests/jsproxy/browser.h"
#include "tests/jsproxy/clock.h"

namespace jsproxy_test {

constexpr std::uint32_t loginProgram = 13;
constexpr std::uint32_t someService = 24;

// The message that a text of the JSON form says.
inline tn::message msg(const std::string& json) {
  tn::message result;
  EXPECT_EQ(*parseJson(json.c_str(), result, 0), '}') << json;
  return result;
}

inline std::string json(const tn::message& message) {
  std::string text;
  writeJson(text, message.flattened());
  return text;
}

// A request and what became of it, as the connection would have it.
struct Call {
  Request request{false, false};
  Response response;
  bool parked = false;
  int completions = 0;

  ~Call() { end(); }
  // The request has ended, or its connection is gone.
  void end() {
    if (const auto callable = std::exchange(request.onRequestEnd, nullptr)) callable();
  }
  [[nodiscard]] bool answered() const { return response.answered(); }
  [[nodiscard]] std::string type() const {
    return std::string(response.headers.getHeader("content-type").value_or("none"));
  }
};
using CallPtr = std::unique_ptr<Call>;

// A tunnel on a bus without a broker, with a clock that a test sets.
class TunnelTest : public testing::Test {
 protected:
  TunnelTest() { clockSeconds = 1000000; }

  CallPtr begin(std::string_view path, const std::vector<std::pair<std::string_view, std::string>>& headers) {
    auto call = std::make_unique<Call>();
    call->request.method = Method::post;
    call->request.pathInfo = path;
    call->request.pathInfoSet = true;
    call->request.peerAddress = IPAddr6({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255, 10, 0, 0, 7});
    for (const auto& [name, value] : headers)
      call->request.headers.addHeader(name, value, true);
    servlet->doMethod(call->request, call->response);
    return call;
  }

  // The whole body at once, then what the connection does.
  static void finish(Call& call, std::string_view body) {
    if (call.request.bodyConsumer) call.request.bodyConsumer(body, true);
    if (call.answered()) return;
    call.parked = true;
    call.response.onComplete = [&call] { ++call.completions; };
  }

  CallPtr post(std::string_view body, std::string_view type = "text/plain") {
    auto call = begin("", {{"Content-Type", std::string(type)}, {"Content-Length", std::to_string(body.size())}});
    finish(*call, body);
    return call;
  }
  CallPtr postText(std::string_view bytes) { return post(bytesToText(asBytes(bytes))); }

  // ---- What a browser does

  Browser meet() {
    Browser browser;
    const CallPtr call = postText(browser.hello());
    EXPECT_EQ(call->response.status, 200);
    browser.takeAnswer(call->response.body);
    return browser;
  }
  CallPtr send(Browser& browser, std::string_view text) { return postText(browser.frame(text)); }
  CallPtr sendBinary(Browser& browser, const tn::message& message) {
    const auto bytes = message.flattened();
    return post(browser.frame({reinterpret_cast<const char*>(bytes.data()), bytes.size()}), "msg");
  }
  // The answer's message in the JSON form.
  static std::string answerOf(Browser& browser, const Call& call) {
    EXPECT_EQ(call.response.status, 200);
    return call.type() == "msg" ? "binary" : browser.openText(call.response.body);
  }

  Browser logIn(const std::string& reply = "{ufe0001:3,ub:0x50,s18:'skin'}") {
    Browser browser = meet();
    const CallPtr call = send(browser, "{s1:'admin',s3:'secret'}");
    EXPECT_TRUE(call->parked);
    EXPECT_FALSE(bus.sent.empty());
    bus.answer(bus.sent.back(), msg(reply));
    EXPECT_EQ(call->completions, 1);
    answerOf(browser, *call);
    bus.sent.clear();
    return browser;
  }

  [[nodiscard]] JsSession* sessionOf(const Browser& browser) { return servlet->findSession(browser.id); }

  // What a service tells a session.
  void tell(const Browser& browser, const std::string& content) {
    tn::message message = msg(content);
    message.insert_vector(tn::field::destination, std::array{JsProxyServlet::busHandlerId, browser.id});
    bus.deliver(someService, std::move(message));
  }

  core_test::OutputCapture log{STDOUT_FILENO};
  tn::fakes::TestLooper loop;
  tn::fakes::RecordingBus& bus = loop.bus;
  std::unique_ptr<JsProxyServlet> servlet = std::make_unique<JsProxyServlet>();
};

}  // namespace jsproxy_test
