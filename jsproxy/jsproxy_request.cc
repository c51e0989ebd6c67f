// From a POST request to the message it carries.
#include <optional>
#include <utility>

#include "jsproxy/answers.h"
#include "jsproxy/json_form.h"
#include "jsproxy/jsproxy_servlet.h"
#include "jsproxy/text_code.h"
#include "platform/byte_order.h"
#include "platform/log.h"
#include "platform/web/reuse.h"

namespace {

// A body up to this size holds no frame.
constexpr std::uint32_t tooSmall = 7;
// In the body of a key exchange.
constexpr std::size_t publicValueAt = 8;
constexpr std::size_t keyExchangeBytes = publicValueAt + publicValueBytes;

constexpr std::string_view binaryType = "msg";
constexpr std::string_view jsonType = "text/plain";
constexpr std::string_view contentType = "Content-Type";

// Memory of the frame in hand that is kept for the next one.
constexpr std::size_t keptScratch = 4096;

Form formOf(const Request& request) {
  return request.headers.getHeader(contentType) == binaryType ? Form::binary : Form::json;
}

std::string_view subPath(const Request& request) {
  return request.pathInfoSet ? request.pathInfo : request.uri;
}

// A text is good when only spaces follow the message's closing brace.
bool readsWhole(const std::string& text, tn::message& msg) {
  const char* p = parseJson(text.c_str(), msg, 0);
  if (*p != '}') return false;
  do {
    ++p;
  } while (*p == ' ');
  return *p == '\0';
}

// Nothing: the payload holds no message, which is logged.
std::optional<tn::message> parse(const std::string& payload, Form form) {
  tn::message msg;
  const bool good = form == Form::binary ? msg.unflatten(asBytes(payload)) : readsWhole(payload, msg);
  if (good) return msg;
  logLine(form == Form::binary ? "bad bin msg" : "bad json");
  return std::nullopt;
}

}  // namespace

void JsProxyServlet::doPost(Request& request, Response& response) {
  const std::string_view path = subPath(request);
  if (path.empty()) return acceptMessage(request, response);
  if (path == "upload") return beginUpload(request, response);
  if (path == "put") return beginPut(request, response);
  refuse(response, 404);
}

void JsProxyServlet::acceptMessage(Request& request, Response& response) {
  const Form form = formOf(request);
  std::uint32_t length = 0;
  if (!request.headers.getHeader("content-length", &length) || length > maxBodyBytes) return refuse(response, 500);
  if (length <= tooSmall) {
    logLine("data too small");
    return refuse(response, 500);
  }
  request.bodyChunk = static_cast<int>(length);
  request.bodyConsumer = [this, &request, &response, form](std::string_view body, bool) {
    onBody(body, form, request, response);
  };
}

// An empty body is the word that the connection ended before it was whole.
void JsProxyServlet::onBody(std::string_view body, Form form, Request& request, Response& response) {
  if (body.empty()) return;
  takeBody(body, form, request, response);
  clearForReuse(frame_, keptScratch);
  clearForReuse(payload_, keptScratch);
}

// A text that does not decode leaves no bytes, and what is not there counts as 0: it is a key exchange that is too
// small.
void JsProxyServlet::takeBody(std::string_view body, Form form, Request& request, Response& response) {
  if (form == Form::json) {
    textToBytes(body, frame_);
    body = frame_;
  }
  const std::span<const std::uint8_t> bytes = asBytes(body);
  const std::uint32_t id = bytes.size() < sizeof id ? 0 : loadBe32(bytes.data() + frame::sessionAt);
  if (id == 0) return exchangeKeysWith(bytes, request, response);
  JsSession* const session = findSession(id);
  if (session == nullptr) {
    logLine("no session ", NumberText(id, 16));
    return refuse(response, 500);
  }
  if (!decryptFrame(*session, bytes, payload_)) {
    logLine("decrypt failed");
    return refuse(response, 500);
  }
  auto msg = parse(payload_, form);
  if (!msg) return refuse(response, 500);
  // There is room: a path that fills its field does not fit into a body.
  msg->pushFront(tn::field::sender, id);
  response.headers.addHeader(contentType, form == Form::binary ? binaryType : jsonType, false);
  dispatch(*session, std::move(*msg), form, request, response);
}

void JsProxyServlet::exchangeKeysWith(std::span<const std::uint8_t> bytes, const Request& request, Response& response) {
  if (bytes.size() < keyExchangeBytes) {
    logLine("kex data too small");
    return refuse(response, 500);
  }
  const KeyExchange exchange = exchangeKeys(randomScalar(), bytes.subspan<publicValueAt, publicValueBytes>());
  const JsSession& session = createSession(request.peerAddress, deriveSessionKeys(exchange.master));
  answer(response, keyExchangeAnswer(session.id, exchange.publicValue));
}

// The first message of a session is its login, whatever it holds.
void JsProxyServlet::dispatch(JsSession& session, tn::message msg, Form form, Request& request, Response& response) {
  if (!session.loggedIn) return login(session, std::move(msg), form, request, response);
  if (msg.has(tn::field::destination)) return relay(session, std::move(msg), form, request, response);
  if (msg.get(tn::field::command) == tn::command::disconnected) return endSession(session, form, response);
  poll(session, form, request, response);
}
