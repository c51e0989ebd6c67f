#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "platform/bus/text.h"

// The line form of any bytes. What is accepted is a message that can be sent, and is typed again as the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  tn::message msg;
  if (const auto error = tn::readText(text, msg)) {
    require(msg.empty() && error->position <= size && !error->expected.empty());
    return 0;
  }
  tn::message sent;
  require(sent.unflatten(msg.flattened()) && sent == msg);
  tn::message again;
  require(!tn::readText(tn::writeText(msg), again) && again == msg);
  return 0;
}
