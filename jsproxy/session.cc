#include "jsproxy/session.h"

#include <ctime>

JsSession::JsSession(std::uint32_t number, const IPAddr6& client, const SessionKeys& keys, std::uint32_t now)
    : id(number),
      clientAddress(client),
      lastActivity(now),
      receiving(startCipher(keys.receive)),
      sendCipher(startCipher(keys.send)) {}

std::uint32_t secondsNow() {
  return static_cast<std::uint32_t>(time(nullptr));
}
