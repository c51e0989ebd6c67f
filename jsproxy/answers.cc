#include "jsproxy/answers.h"

#include <utility>

namespace {

void complete(Response& response) {
  if (const auto done = std::exchange(response.onComplete, nullptr)) done();
}

}  // namespace

void answer(Response& response, std::string text) {
  response.send(std::move(text));
  complete(response);
}

void refuse(Response& response, int status) {
  response.sendError(status, {});
  complete(response);
}

void deliver(JsSession& session, const Poll& poll, const tn::message& msg) {
  answer(*poll.response, putEncrypted(session, msg, poll.form));
}
