#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "jsproxy/receive_window.h"
#include "jsproxy/session_crypto.h"
#include "platform/bus/message.h"
#include "platform/bus/timer.h"
#include "platform/web/ip_addr6.h"

class Response;

// A request that waits for the next message of a service. The response is that of a parked connection.
struct Poll {
  std::uint64_t ticket;  // never given twice, so that a poll can be found or known to be gone
  Response* response;
  Form form;
};

// One enciphered browser session. Owned by the servlet's table; made by a key exchange, and gone when the browser ends
// it, when its login is refused, or after a minute without a sign of life.
//
// The cipher state is advanced by decryptFrame and putEncrypted alone.
struct JsSession {
  static constexpr std::uint32_t noLogin = 0xFFFFFFFF;

  JsSession(std::uint32_t number, const IPAddr6& client, const SessionKeys& keys, std::uint32_t now);

  std::list<tn::message> queue;  // messages of services that wait for a poll
  const std::uint32_t id;
  const IPAddr6 clientAddress;
  bool loggedIn = false;
  std::string user;
  tn::Clock::time_point loginTime{};  // once logged in
  std::uint32_t loginNumber = noLogin;
  std::uint32_t policies = 0;
  std::string loginText;       // names the session's skin
  std::uint32_t lastActivity;  // seconds, of time()
  std::list<Poll> waiters;     // in order of arrival
  ReceiveWindow receiving;
  RC4 sendCipher;
  std::uint32_t sendPosition = 1;
};

// The time that sessions are measured with, in seconds.
[[nodiscard]] std::uint32_t secondsNow();
