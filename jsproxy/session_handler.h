#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/bus/handler.h"

class JsProxyServlet;

// Bus handler 3: who is logged in through the tunnel, and the end of a session before its time (docs/services.md).
// Whoever has the right to manage users sees and ends all of them, others their own alone. Owned by the tunnel.
class SessionHandler : public tn::Handler {
 public:
  static constexpr std::uint32_t busHandlerId = 3;
  // The list of an answer ends where it would not fit the binary form of the tunnel any more.
  static constexpr std::size_t maxListBytes = 60'000;

  explicit SessionHandler(JsProxyServlet& tunnel) : tunnel_(tunnel) {}

  tn::message cmdGetAll(tn::message& msg) override;
  // The notice to the services goes out, and waiting polls are answered, before the command is.
  tn::message cmdRemoveObj(tn::message& msg, std::uint32_t object) override;

 private:
  JsProxyServlet& tunnel_;
};
