#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "http/response_writer.h"
#include "platform/bus/message.h"
#include "platform/web/forwarding.h"
#include "platform/web/request.h"
#include "platform/web/response.h"
#include "tests/fakes/fake_runner.h"

// A service's answer of any bytes, restored and written: whatever the service says, what leaves is one response that
// every reader of it ends at the same byte.

namespace {

bool clean(std::string_view text) {
  return std::ranges::none_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x20 && c != '\t'; });
}

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return result;
}

// What matters of the fields of a head, looked at line by line.
struct Fields {
  int lengths = 0;
  int connections = 0;
  int dates = 0;
  std::string length;

  void take(std::string_view line) {
    require(clean(line));
    const std::size_t colon = line.find(": ");
    require(colon != std::string_view::npos && colon != 0);
    const std::string name = lower(line.substr(0, colon));
    require(name.find_first_of(" \t") == std::string::npos);
    require(name != "transfer-encoding" && name != "upgrade" && name != "trailer");
    if (name == "content-length") length = line.substr(colon + 2);
    lengths += name == "content-length";
    connections += name == "connection";
    dates += name == "date";
  }
};

void checkHead(std::string_view head, const Outgoing& out) {
  require(head.starts_with("HTTP/1.1 ") && head.ends_with("\r\n\r\n"));
  Fields fields;
  head.remove_suffix(2);
  bool first = true;
  while (!head.empty()) {
    const std::size_t end = head.find("\r\n");
    require(end != std::string_view::npos && end != 0);
    const std::string_view line = head.substr(0, end);
    if (first) {
      require(clean(line) && line.size() >= 13 && line[12] == ' ');
      first = false;
    } else {
      fields.take(line);
    }
    head.remove_prefix(end + 2);
  }
  require(fields.lengths == 1 && fields.connections == 1 && fields.dates == 1);
  require(fields.length == std::to_string(out.text.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tn::message answer;
  if (!answer.unflatten({data, size})) return 0;
  Request request(false, false);
  require(request.parseStatusLine("GET /x HTTP/1.1"));
  Response response;
  int completed = 0;
  response.onComplete = [&completed] { ++completed; };
  response.restore(answer);
  require(completed == 1 && !response.onComplete && response.answered());
  require(response.status >= 200 && response.status <= 599 && response.file.empty() && clean(response.statusText));

  tn::fakes::FakeRunner runner;
  std::string head;
  Outgoing out;
  buildResponse(request, response, runner, head, out);
  checkHead(head, out);
  // Behind a head that ends a response by itself, a body is never followed by another one.
  if (response.status == 204 || response.status == 205) require(out.text.empty());
  if (response.status == 304) require(!out.keepAlive);
  return 0;
}
