#include "tools/request.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "platform/log.h"
#include "tools/fields.h"

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

std::optional<std::string> readMessage(std::span<const std::string_view> words, const tn::FieldNames* names,
                                       tn::message& out) {
  if (words.empty()) return std::nullopt;
  const bool isInput = words[0] == "-";
  if (!isInput && !words[0].starts_with('{')) return readFields(words, names, out);
  if (words.size() > 1) return "behind a message nothing else may stand";
  std::string input;
  if (isInput) {
    if (auto error = readWholeInput(STDIN_FILENO, input)) return error;
  }
  const auto error = tn::readText(isInput ? std::string_view(input) : words[0], out);
  if (!error) return std::nullopt;
  return std::string("the message is wrong at character ")
      .append(NumberText(error->position + 1))
      .append(": expected ")
      .append(error->expected);
}

std::optional<std::string> address(tn::message& request, std::span<const std::uint32_t> path, std::uint32_t command) {
  // The library would take its value for one of this program's own descriptors.
  if (request.has(tn::field::descriptor)) return "a message from here cannot carry a descriptor";
  if (!request.insert(tn::field::command, command) || !request.insert_vector(tn::field::destination, path)) {
    return "the message is larger than the bus carries";
  }
  return std::nullopt;
}

}  // namespace tool
