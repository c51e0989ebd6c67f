#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/require.h"
#include "platform/bus/message.h"
#include "platform/web/ascii.h"
#include "platform/web/request.h"
#include "platform/web/response.h"

// The head of a request on any bytes, cut into lines as the connection cuts it; and the same lines as a service's
// answer. Whatever is taken must hold nothing that another reader of the same bytes could see a line end, a second
// length or a further field in.

namespace {

std::vector<std::string> linesOf(std::string_view bytes) {
  std::vector<std::string> lines;
  for (std::size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
    std::string_view line = bytes.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    lines.emplace_back(line);
    bytes.remove_prefix(end + 1);
  }
  lines.emplace_back(bytes);
  return lines;
}

void checkRequestLine(Request& request, const std::string& line) {
  if (!request.parseStatusLine(line)) {
    require(request.uri.empty());
    return;
  }
  require(request.protocol == Protocol::http && request.method != Method::unknown);
  constexpr const char* names[] = {"", "GET", "HEAD", "POST", "OPTIONS", "PUT", "DELETE", "TRACE", "CONNECT"};
  std::string again = names[static_cast<std::size_t>(request.method)];
  again.append(" ").append(request.uri);
  if (request.version != version09) again.append(" HTTP/1.").append(std::to_string(request.version - version10));
  require(again == line);
  require(request.uri.find('#') == std::string::npos);
  for (const char c : request.uri)
    require(c > 0x20 && c < 0x7f);
}

std::string printed(const Headers& headers) {
  std::string out;
  headers.printHeaders(out);
  return out;
}

void checkHeaders(const Headers& headers) {
  std::size_t hosts = 0;
  std::string expected;
  Headers again;
  headers.forEach([&](std::string_view name, std::string_view value) {
    require(!name.empty() && std::none_of(name.begin(), name.end(), ascii::isControl));
    for (const char c : value)
      require(!ascii::isControl(c) || c == '\t');
    hosts += ascii::equalsIgnoreCase(name, "host") ? 1U : 0U;
    const std::string line = std::string(name).append(": ").append(value);
    require(again.parseHeaderLine(line));
    require(headers.hasHeader(name));
    expected.append(line).append("\r\n");
  });
  require(hosts <= 1);
  require(printed(headers) == expected);
  require(printed(again) == expected);
  require(!headers.hasHeader("transfer-encoding"));
  std::uint32_t length = 0;
  require(!headers.hasHeader("content-length") ||
          (headers.getHeader("content-length", &length) && length != UINT32_MAX));
  static_cast<void>(headers.headerHasToken("connection", "close"));
}

void checkAnswer(const std::vector<std::string>& lines, std::uint32_t status) {
  tn::message answer;
  require(answer.insert_vector(tn::string_array_id(5), lines));
  require(answer.insert(tn::u32_id(1), status) && answer.insert(tn::string_id(2), lines.front()));
  Response response;
  response.restore(answer);
  require(response.answered());
  std::string head;
  response.printHeading(head);
  std::size_t ends = 0;
  for (std::size_t i = 0; i < head.size(); ++i) {
    if (head[i] == '\n') {
      require(i > 0 && head[i - 1] == '\r');
      ++ends;
    } else if (head[i] == '\r') {
      require(i + 1 < head.size() && head[i + 1] == '\n');
    } else {
      require(!ascii::isControl(head[i]));
    }
  }
  require(ends == response.headers.size() + 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t largestHead = 16384;
  if (size > largestHead) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> lines = linesOf(bytes);

  Request request(false, false);
  checkRequestLine(request, lines.front());
  Headers taken;  // by the lines that were taken alone: the others leave no trace
  for (std::size_t i = 1; i < lines.size() && !lines[i].empty(); ++i) {
    if (request.headers.parseHeaderLine(lines[i])) require(taken.parseHeaderLine(lines[i]));
  }
  require(printed(request.headers) == printed(taken));
  checkHeaders(request.headers);
  tn::message stored;
  request.store(stored);
  require(stored.get(tn::string_id(2)) == request.uri);
  require(stored.get(tn::string_array_id(5)).value_or(std::vector<std::string>()).size() == request.headers.size());

  checkAnswer(lines, size == 0 ? 0 : 190 + data[size - 1] * 2U);
  return 0;
}
