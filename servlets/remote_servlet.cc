#include "servlets/remote_servlet.h"

#include <utility>

#include "platform/bus/looper.h"
#include "platform/web/forwarding.h"

RemoteServlet::RemoteServlet(std::vector<std::uint32_t> target) : target_(std::move(target)) {}

bool RemoteServlet::isDirectory() {
  return true;
}

void RemoteServlet::doMethod(Request& request, Response& response) {
  if (request.method == Method::post) {
    takeBody(request, response);
  } else {
    forward(request, response, {});
  }
}

void RemoteServlet::takeBody(Request& request, Response& response) const {
  std::uint32_t length = 0;
  if (!request.headers.getHeader("content-length", &length) || length >= bodyLimit) {
    response.sendError(500, "");
    return;
  }
  if (length == 0) return forward(request, response, {});
  request.bodyChunk = static_cast<int>(length);
  // An empty piece: the client went away in the middle of the body.
  request.bodyConsumer = [this, &request, &response](std::string_view body, bool /*last*/) {
    if (!body.empty()) forward(request, response, body);
  };
}

// The response lives until it is completed or its request ends, which takes the post back.
void RemoteServlet::forward(Request& request, Response& response, std::string_view body) const {
  tn::message msg;
  request.store(msg);
  msg.insert_vector(tn::field::destination, target_);
  msg.insert(tn::field::command, command);
  if (!body.empty()) msg.insert(forwarding::body, body);
  const tn::PostId post = tn::getLooper()->postMessage(
      std::move(msg), [&response](const tn::message& reply) { response.restore(reply); }, answerMs);
  request.onRequestEnd = [post] { tn::getLooper()->cancelPost(post); };
}
