#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "tools/forwarder/request_head.h"

namespace {

std::size_t linesOf(std::string_view text, std::string_view line) {
  std::size_t count = 0;
  for (std::size_t at = text.find(line); at != std::string_view::npos; at = text.find(line, at + 1))
    ++count;
  return count;
}

}  // namespace

// A head is found at one place however the bytes arrive, and what is sent on is a head that says "close" and nothing
// else of the connection: a second request on it would come to stand where the server expects addresses.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto length = forwarder::headLength(bytes);
  if (!length) return 0;
  require(*length > 0 && *length <= size);
  require(!forwarder::headLength(bytes.substr(0, *length - 1)));
  require(forwarder::headLength(bytes.substr(0, *length)) == length);
  const std::string sent = forwarder::closingHead(bytes.substr(0, *length));
  require(forwarder::headLength(sent) == sent.size());
  require(forwarder::closingHead(sent) == sent);
  require(linesOf(sent, "\nConnection:") <= 1 && linesOf(sent, "\nconnection:") == 0);
  return 0;
}
