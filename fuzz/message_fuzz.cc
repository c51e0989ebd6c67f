#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "fuzz/require.h"
#include "platform/bus/message.h"
#include "platform/bus/text.h"

// Flattened messages of any bytes. What is accepted reads back as the same, and shows and types itself without loss.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tn::message msg;
  if (!msg.unflatten({data, size})) {
    require(msg.empty());
    return 0;
  }
  tn::message again;
  require(again.unflatten(msg.flattened()) && again == msg);
  const std::string text = tn::writeText(msg);
  tn::message typed;
  require(!tn::readText(text, typed));
  require(tn::writeText(typed) == text);
  require(tn::writeTree(typed) == tn::writeTree(msg));
  require(typed.max_length() <= msg.max_length());
  return 0;
}
