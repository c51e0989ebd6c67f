#include "examples/servlet/greeting_servlet.h"

#include <array>
#include <string>
#include <utility>

#include "platform/bus/looper.h"

namespace {

constexpr std::array<std::uint32_t, 2> service{100, 1};
constexpr std::uint32_t greetCommand = 0x20001;
constexpr tn::string_id textField{1};

void answer(Response& response, const tn::message& reply) {
  if (tn::isError(reply)) {
    const bool late = reply.get(tn::field::errorCode) == tn::error::timeout;
    response.sendError(late ? 504 : 502, "");
  } else {
    response.cacheable = false;
    response.headers.addHeader("Content-Type", "text/plain; charset=utf-8", false);
    response.send(std::string(reply.get(textField).value_or("")) + "\n");
  }
  // The connection goes on from here, and the response may be gone when this returns.
  if (const auto complete = std::exchange(response.onComplete, nullptr)) complete();
}

}  // namespace

void GreetingServlet::doGet(Request& request, Response& response) {
  if (request.query.empty()) return response.sendError(400, "");
  tn::message msg;
  msg.insert_vector(tn::field::destination, service);
  msg.insert(tn::field::command, greetCommand);
  msg.insert(textField, request.query);
  const tn::PostId post = tn::getLooper()->postMessage(
      std::move(msg), [&response](const tn::message& reply) { answer(response, reply); }, answerMs);
  // The request may end before: its connection broke, or the system stops.
  request.onRequestEnd = [post] { tn::getLooper()->cancelPost(post); };
}
