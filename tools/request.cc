#include "tools/request.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "platform/bus/text.h"
#include "platform/log.h"

namespace tool {

std::expected<std::string, std::string> readWholeInput(int fd) {
  std::string text;
  std::array<char, 16384> block;
  for (;;) {
    const ssize_t count = ::read(fd, block.data(), block.size());
    if (count == 0) return text;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::unexpected(std::string("cannot read the message: ") + std::strerror(errno));
    if (maxMessageText - text.size() < static_cast<std::size_t>(count)) {
      return std::unexpected("the message is longer than any message can be");
    }
    text.append(block.data(), static_cast<std::size_t>(count));
  }
}

std::expected<tn::message, std::string> buildRequest(const Arguments& arguments, std::string_view text) {
  auto request = tn::readText(text);
  if (!request) {
    const NumberText position(request.error().position + 1);
    return std::unexpected("the message is wrong at character " + std::string(std::string_view(position)) +
                           ": expected " + request.error().expected);
  }
  // The library would take its value for one of this program's own descriptors.
  if (request->has(tn::field::descriptor)) return std::unexpected("a message from here cannot carry a descriptor");
  if (!request->insert(tn::field::command, arguments.command) ||
      !request->insert_vector(tn::field::destination, arguments.path)) {
    return std::unexpected("the message is larger than the bus carries");
  }
  return std::move(*request);
}

}  // namespace tool
