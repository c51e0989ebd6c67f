#include "services/hotspotd/desk.h"

#include "platform/bus/looper.h"

namespace hotspot {

tn::message Desk::cmdUnknown(tn::message& msg, std::uint32_t command) {
  if (command != askRecords) return Handler::cmdUnknown(msg, command);
  if (!tn::policies::isOfSystem(msg)) return tn::errorMsg(tn::error::notAllowed, "not allowed");
  const auto sender = msg.get(tn::field::sender);
  if (sender && !sender->empty()) servers_.asked(sender->front());
  return {};
}

}  // namespace hotspot
