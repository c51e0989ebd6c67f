#include "tools/request.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "platform/bus/text.h"
#include "platform/log.h"

namespace tool {

std::optional<std::string> readWholeInput(int fd, std::string& text) {
  text.clear();
  std::array<char, 16384> block;
  for (;;) {
    const ssize_t count = ::read(fd, block.data(), block.size());
    if (count == 0) return std::nullopt;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::string("cannot read the message: ").append(std::strerror(errno));
    if (maxMessageText - text.size() < static_cast<std::size_t>(count)) {
      return "the message is longer than any message can be";
    }
    text.append(block.data(), static_cast<std::size_t>(count));
  }
}

std::optional<std::string> buildRequest(const Arguments& arguments, std::string_view text, tn::message& request) {
  if (const auto error = tn::readText(text, request)) {
    return std::string("the message is wrong at character ")
        .append(NumberText(error->position + 1))
        .append(": expected ")
        .append(error->expected);
  }
  // The library would take its value for one of this program's own descriptors.
  if (request.has(tn::field::descriptor)) return "a message from here cannot carry a descriptor";
  if (!request.insert(tn::field::command, arguments.command) ||
      !request.insert_vector(tn::field::destination, arguments.path)) {
    return "the message is larger than the bus carries";
  }
  return std::nullopt;
}

}  // namespace tool
